#!/usr/bin/env python3
"""Generates the database tree's headers and metadata from the schema file.

    generate.py SCHEMA --header-dir DIR --source-dir DIR [--group-units N] [--stamp FILE]

writes into the header directory enums.h and groups.h (the public headers,
included as "vorn/enums.h" and "vorn/groups.h") and into the source directory
(included as "schema/...") the metadata tables Metadata.cpp, the defaults
records DefaultsRecords.{h,cpp}, the pending parameter classes
PendingClasses.h, the group classes GroupClasses.h with their definitions in
Groups0.cpp ... Groups<N-1>.cpp (N = --group-units, 4 by default), and the
tests' typed getter calls TypedGetters.cpp. Each file is written only when its
content changed; then the stamp file, if given, is touched. The banner of each
output names SCHEMA as given on the command line, so the build passes it
relative to the source tree.

Exit status 0 on success; 1 with "FILE:LINE: message" lines on stderr when
the schema is malformed; nothing is written then.
"""

import argparse
import os
import sys

from schemagen import (backend_classes, backend_enums, backend_getters, backend_groups, backend_metadata,
                       backend_records, model, parse)
from schemagen.errors import SchemaError
from schemagen.output import write_if_changed

# (directory option, file name, function(model, source) -> text)
OUTPUTS = [
    ("header_dir", "enums.h", backend_enums.generate),
    ("header_dir", "groups.h", backend_groups.generate),
    ("source_dir", "Metadata.cpp", backend_metadata.generate),
    ("source_dir", "DefaultsRecords.h", backend_records.header),
    ("source_dir", "DefaultsRecords.cpp", backend_records.source),
    ("source_dir", "TypedGetters.cpp", backend_getters.generate),
]


def load(path):
    """Parses and builds the model of a schema file; raises SchemaError."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    return model.build(parse.parse(text, path))


def run(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("schema")
    parser.add_argument("--header-dir", required=True, help="directory of the public headers (.../vorn)")
    parser.add_argument("--source-dir", required=True, help="directory of the generated sources")
    parser.add_argument("--group-units", type=int, default=4, help="number of Groups<N>.cpp files (at least 1)")
    parser.add_argument("--stamp", help="file touched after every successful run")
    args = parser.parse_args(argv)
    if args.group_units < 1:
        parser.error("--group-units must be at least 1")
    try:
        tree = load(args.schema)
    except SchemaError as e:
        for line in e.lines():
            print(line, file=sys.stderr)
        return 1
    except OSError as e:
        print("%s: %s" % (args.schema, e.strerror), file=sys.stderr)
        return 1
    texts = [(os.path.join(getattr(args, d), name), generate(tree, args.schema)) for d, name, generate in OUTPUTS]
    texts += [(os.path.join(args.source_dir, name), text)
              for name, text in backend_classes.outputs(tree, args.schema, args.group_units)]
    for path, text in texts:
        write_if_changed(path, text)
    if args.stamp:
        os.makedirs(os.path.dirname(args.stamp) or ".", exist_ok=True)
        with open(args.stamp, "a", encoding="utf-8"):
            pass
        os.utime(args.stamp)
    return 0


if __name__ == "__main__":
    sys.exit(run(sys.argv[1:]))
