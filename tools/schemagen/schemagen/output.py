"""Writing generated files: banner and write-only-if-changed.

Generated files live in the build tree only. A file is rewritten only when
its content differs, so that an unchanged schema does not make the build
recompile what includes the outputs.
"""

import os
import tempfile


def banner(source, comment="//"):
    """First line of every generated file, naming the schema it came from."""
    return "%s generated from %s, do not edit\n" % (comment, source)


def write_if_changed(path, text):
    """Writes text to path unless the file already holds exactly that text.

    Creates missing directories. The new content is written to a temporary
    file in the same directory and renamed over the old one, so a reader
    never sees a half-written file. Returns True when the file was written.
    """
    data = text.encode("utf-8")
    try:
        with open(path, "rb") as f:
            if f.read() == data:
                return False
    except FileNotFoundError:
        pass
    directory = os.path.dirname(path) or "."
    os.makedirs(directory, exist_ok=True)
    fd, temp = tempfile.mkstemp(dir=directory, prefix=".schemagen-")
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data)
        # mkstemp creates the file private; outputs are ordinary files.
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(temp, 0o666 & ~umask)
        os.replace(temp, path)
    except BaseException:
        os.unlink(temp)
        raise
    return True
