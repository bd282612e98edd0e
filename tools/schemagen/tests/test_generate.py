"""The command line: outputs, banners, write-only-if-changed, failures."""

import contextlib
import io
import os
import stat
import tempfile
import unittest

import generate
from schemagen.output import write_if_changed
from tests import fixture

OLD = 1_000_000_000  # a time stamp long past, to see whether a file is rewritten


class Run(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.schema = os.path.join(self.directory.name, "tiny.schema")
        self.write_schema(fixture.text())
        self.headers = os.path.join(self.directory.name, "include", "vorn")
        self.sources = os.path.join(self.directory.name, "src")
        self.stamp = os.path.join(self.directory.name, "schema.stamp")
        self.outputs = {name: os.path.join(self.headers, name) for name in ("enums.h", "groups.h")}
        for name in ("Metadata.cpp", "DefaultsRecords.h", "DefaultsRecords.cpp", "TypedGetters.cpp",
                     "PendingClasses.h", "GroupClasses.h", "Groups0.cpp", "Groups1.cpp"):
            self.outputs[name] = os.path.join(self.sources, name)

    def write_schema(self, text):
        with open(self.schema, "w", encoding="utf-8") as f:
            f.write(text)

    def run_generator(self):
        stderr = io.StringIO()
        with contextlib.redirect_stderr(stderr):
            status = generate.run([self.schema, "--header-dir", self.headers, "--source-dir", self.sources,
                                   "--group-units", "2", "--stamp", self.stamp])
        return status, stderr.getvalue()

    def age_outputs(self):
        for path in list(self.outputs.values()) + [self.stamp]:
            os.utime(path, (OLD, OLD))

    def rewritten(self):
        return sorted(name for name, path in self.outputs.items() if os.stat(path).st_mtime != OLD)

    def test_writes_every_output_with_its_banner(self):
        self.assertEqual(self.run_generator(), (0, ""))
        self.assertEqual(sorted(os.listdir(self.sources)), sorted(n for n in self.outputs if n not in ("enums.h",
                                                                                                       "groups.h")))
        for path in self.outputs.values():
            with open(path, encoding="utf-8") as f:
                self.assertEqual(f.readline(), "// generated from %s, do not edit\n" % self.schema)
        self.assertTrue(os.path.exists(self.stamp))

    def test_only_the_outputs_a_change_affects_are_rewritten(self):
        self.run_generator()
        source = fixture.text()
        for old, new, rewritten, why in [
            ("", "", [], "no change"),
            ("value=1e6 min=0", "value=2e6 min=0", ["DefaultsRecords.cpp", "Metadata.cpp"], "a record's value"),
            ("eUNIT_HZ   4", "eUNIT_HZ   5", ["Metadata.cpp", "enums.h"], "records name their units"),
            ("base=CParameterRealSetting pending=markers", 'base=CParameterRealSetting header="m.h"',
             ["GroupClasses.h", "Metadata.cpp", "PendingClasses.h"], "a pending class implemented"),
        ]:
            self.age_outputs()
            source = source.replace(old, new)
            self.write_schema(source)
            self.assertEqual(self.run_generator(), (0, ""))
            self.assertEqual(self.rewritten(), rewritten, why)
            self.assertNotEqual(os.stat(self.stamp).st_mtime, OLD, "the stamp records every run")

    def test_failures_write_nothing(self):
        # Parse problems stop before the model stage.
        source = fixture.text().replace("Points[3]", "Points[0]").replace("interface IPoint", "interfase IPoint")
        self.write_schema(source)
        self.assertEqual(self.run_generator(), (1, "%s:%d: unknown keyword 'interfase'\n" % (
            self.schema, fixture.line_of(source, "interfase"))))
        self.write_schema(fixture.text().replace("Points[3]", "Points[0]"))
        self.assertEqual(self.run_generator(), (1, "%s:%d: array count of Points must be at least 1\n" % (
            self.schema, fixture.line_of(fixture.text(), "Points[3]"))))
        with contextlib.redirect_stderr(io.StringIO()), self.assertRaises(SystemExit):
            generate.run([self.schema, "--header-dir", self.headers, "--source-dir", self.sources,
                          "--group-units", "0"])
        self.assertFalse(os.path.exists(self.headers) or os.path.exists(self.sources) or os.path.exists(self.stamp))
        os.remove(self.schema)
        status, errors = self.run_generator()
        self.assertEqual(status, 1)
        self.assertIn(self.schema, errors)


class WriteIfChanged(unittest.TestCase):
    def test_writes_only_new_content(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "deep", "er", "file.h")
            self.assertTrue(write_if_changed(path, "one\n"))
            os.utime(path, (OLD, OLD))
            self.assertFalse(write_if_changed(path, "one\n"))
            self.assertEqual(os.stat(path).st_mtime, OLD)
            self.assertTrue(write_if_changed(path, "two\n"))
            with open(path, encoding="utf-8") as f:
                self.assertEqual(f.read(), "two\n")
            self.assertEqual(os.listdir(os.path.dirname(path)), ["file.h"], "no temporary file is left")
            mode = stat.S_IMODE(os.stat(path).st_mode)
            self.assertTrue(mode & stat.S_IRGRP or os.umask(os.umask(0)) & stat.S_IRGRP,
                            "the file is readable as the umask allows, not private")


if __name__ == "__main__":
    unittest.main()
