#!/usr/bin/env python3
"""End-to-end tests of the vorndb tool: the built binary driven through its
command line, through `run SCRIPT` and through `shell` on standard input,
checking standard output, standard error and exit codes.

    test_e2e.py --tool BIN --regsvr BIN --module LIB --work DIR GROUP

GROUP is one of:
  files     dump, diff, lines, help texts and usage errors (no database needed);
  database  tree, get, set, describe, run, shell and watch on the database
            the tool creates (through the module beside it, and through a
            registration made with vornregsvr);
  settings  --settings, save, load and diff of files the database wrote.

The environment must point VORN_REGISTRY at a registry file of the test's own
(CMake does); the tests never touch the user's registry.
"""
import argparse
import json
import os
import re
import pty
import select
import shutil
import signal
import struct
import subprocess
import sys
import time
import unittest

ARGS = None

# Exit codes, as `vorndb help` documents them.
OK, FAILURE, USAGE, UNKNOWN_NAME, REJECTED, FILE_ERROR, DIFFERENT = 0, 1, 2, 3, 4, 5, 6
OUTSIDE_SETTINGS, REFUSED_IN_FILE = 7, 8

PNS = "UserSettings.PhaseNoiseSettings"
FREQ = PNS + ".SignalFreq"  # real, Hz, limits 20 Hz .. 50 GHz
RBW = PNS + ".RbwToVbw"  # enumeration eRBWTOVBW
AUTOSCALE = PNS + ".Autoscale"  # boolean
TOP = PNS + ".YAxisTop"  # real, dBc/Hz
SCREEN = "DisplaySettings.ScreenTraceConfig"  # integer array, capacity 2

COMMANDS = ["tree", "get", "set", "describe", "dump", "diff", "lines", "shell", "run", "help", "watch", "unwatch",
            "wait", "reset", "save", "load", "suppress", "restart", "quit"]


def vorndb(*args, stdin=None, env=None):
    """Runs the tool; returns (exit code, stdout, stderr)."""
    full_env = dict(os.environ)
    full_env.pop("VORNDB_MODULE", None)
    if env:
        full_env.update(env)
    p = subprocess.run([ARGS.tool, *args], input=stdin, capture_output=True, text=True, env=full_env,
                       timeout=120)
    return p.returncode, p.stdout, p.stderr


def work_path(name):
    return os.path.join(ARGS.work, name)


def write(name, data):
    path = work_path(name)
    mode = "wb" if isinstance(data, bytes) else "w"
    with open(path, mode) as f:
        f.write(data)
    return path


# ---------------------------------------------------------------------------
# Settings streams built from the format: mark 0x5001, then records of
# u32 size, u16 name length, name, payload.
# ---------------------------------------------------------------------------
def record(name, payload):
    raw = name.encode("latin-1")
    return struct.pack("<IH", 6 + len(raw) + len(payload), len(raw)) + raw + payload


def group(name, children):
    return record(name, struct.pack("<HI", 1, len(children)) + b"".join(children))


BOOLEAN, INTEGER, REAL = 2, 4, 6  # type codes
HZ, DBM = 4, 5  # units


def param(name, code, fields="", *values, status=0):
    """A parameter record: type code, status, then `values` packed as `fields`."""
    return record(name, struct.pack("<HH" + fields, code, status, *values))


def string(name, text):
    data = text.encode("utf-16-le")
    return record(name, struct.pack("<HHI", 8, 0, len(data) // 2) + data)


def stream(top):
    return struct.pack("<H", 0x5001) + top


def sample(freq, on, last):
    """The root: Settings (Freq with its limits, Mode, On, `last`) and Level."""
    return stream(group("", [group("Settings", [param("Freq", REAL, "Hddd", HZ, freq, 20.0, 5e10),
                                                param("Mode", INTEGER, "I", 2), on, last]),
                             param("Level", REAL, "Hd", DBM, -30.0)]))


SAMPLE_A = sample(1.5e6, param("On", BOOLEAN, "H", 1), string("Title", "first"))
SAMPLE_B = sample(10e3, param("On", BOOLEAN, status=1), string("Extra", "new"))


class ToolTest(unittest.TestCase):
    def ok(self, *args, **kw):
        """Runs the tool, which must succeed with nothing on stderr; its stdout."""
        code, out, err = vorndb(*args, **kw)
        self.assertEqual((code, err), (OK, ""), args)
        return out

    def fails(self, exit_code, text, *args, **kw):
        """Runs the tool, which must exit with `exit_code` and write `text` to
        stderr; its (stdout, stderr)."""
        code, out, err = vorndb(*args, **kw)
        self.assertEqual(code, exit_code, args)
        self.assertIn(text, err, args)
        return out, err


# ---------------------------------------------------------------------------
# files: no database needed
# ---------------------------------------------------------------------------
class DumpTests(ToolTest):
    def test_text_and_json(self):
        out = self.ok("dump", write("a.vdb", SAMPLE_A))
        self.assertIn("mark 0x5001", out)
        self.assertRegex(out, r"00000002  <root>  size 158  group v1, 2 children\n")
        self.assertRegex(out, r"\n00000022      Freq  size 40  code 6 real\+limits  1\.5 MHz \[20 Hz \.\. 50 GHz\]\n")
        self.assertIn("    Level  size 25  code 6 real  -30 dBm\n", out)
        doc = json.loads(self.ok("dump", "--json", work_path("a.vdb")))
        self.assertIsNone(doc["error"])
        freq = doc["record"]["children"][0]["children"][0]
        self.assertEqual((freq["name"], freq["kind"], freq["value"], freq["maximum"]), ("Freq", "real+limits", 1.5e6, 5e10))

    def test_damaged_and_unreadable_files(self):
        data = bytearray(SAMPLE_A)
        code_at = data.index(b"Mode") + 4  # the type code of "Mode"
        data[code_at] = 5
        # What the decoder keeps of a damaged stream and which byte it names
        # are tested in test_stream_dump.cpp; here the exit code and the message.
        out, _ = self.fails(FILE_ERROR, "first bad byte at offset 0x%X (%d): unknown type code 5" % (code_at, code_at),
                            "dump", write("bad.vdb", bytes(data)))
        self.assertIn("(incomplete)", out)
        out, _ = self.fails(FILE_ERROR, "", "dump", "--json", work_path("bad.vdb"))
        self.assertEqual(json.loads(out)["error"]["offset"], code_at)
        self.fails(FILE_ERROR, "missing.vdb: cannot be opened", "dump", work_path("missing.vdb"))
        fifo = work_path("fifo")
        os.mkfifo(fifo)
        for path in (ARGS.work, "/dev/zero", fifo):  # refused, not read for ever
            self.fails(FILE_ERROR, "is not a regular file", "dump", path)
        # Groups nested 40000 deep: refused where nesting passes 32 levels.
        deep = struct.pack("<IHHI", 12, 0, 1, 0)
        for _ in range(40000):
            deep = struct.pack("<IHHI", 12 + len(deep), 0, 1, 1) + deep
        self.fails(FILE_ERROR, "records nest deeper than 32 levels", "dump",
                   write("deep.vdb", struct.pack("<H", 0x5001) + deep))

    def test_memory_of_dump_and_diff_stays_under_four_times_the_file(self):
        with open(ARGS.tool, "rb") as binary:
            if re.search(rb"__[at]san_init", binary.read()):
                self.skipTest("a sanitizer's own memory (shadow, quarantine) hides the tool's")

        def peak(*args):
            p = subprocess.Popen([ARGS.tool, *args], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            return os.wait4(p.pid, 0)[2].ru_maxrss * 1024

        # 3.3 MB of the smallest records: unnamed empty groups and invalid booleans.
        tiny = struct.pack("<IHHI", 12, 0, 1, 0) + struct.pack("<IHHH", 10, 0, 2, 1)
        data = stream(record("", struct.pack("<HI", 1, 300000) + tiny * 150000))
        big, small = write("tiny.vdb", data), write("a.vdb", SAMPLE_A)
        for command, files in ((["dump"], 1), (["dump", "--json"], 1), (["diff"], 2)):
            self.assertLess(peak(*command, *[big] * files), peak(*command, *[small] * files) + 4 * len(data), command)


class DiffTests(ToolTest):
    def test_equal_and_different_files(self):
        a = write("a.vdb", SAMPLE_A)
        self.assertIn("no differences (5 parameters)", self.ok("diff", a, write("a2.vdb", SAMPLE_A)))
        out, _ = self.fails(DIFFERENT, "4 differences", "diff", a, write("b.vdb", SAMPLE_B))
        self.assertEqual(sorted(out.splitlines()), [
            '+ Settings.Extra = "new"',
            '- Settings.Title = "first"',
            "~ Settings.Freq: 1.5 MHz [20 Hz .. 50 GHz] -> 10 kHz [20 Hz .. 50 GHz]",
            "~ Settings.On: true -> <invalid>",
        ])
        self.fails(FILE_ERROR, "short.vdb: first bad byte at offset", "diff", a, write("short.vdb", SAMPLE_A[:20]))
        self.fails(FILE_ERROR, "missing.vdb", "diff", a, work_path("missing.vdb"))


class LinesTests(ToolTest):
    def line_file(self, index, member, children):
        return struct.pack("<HH", 0x5001, index) + group("%s[%d]" % (member, index), children)

    def test_files_listed_and_damaged_ones_named(self):
        directory = work_path("ssalimits")
        os.makedirs(directory)
        files = {
            "Mask.lin": self.line_file(5, "Line", [param("Exists", BOOLEAN, "H", 1), string("Name", "Mask"),
                                                    param("PointCount", INTEGER, "III", 2, 0, 100)]),
            "Probe.tdf": self.line_file(7, "Factor", [param("Exists", BOOLEAN, "H", 0), string("Name", "Probe")]),
            "cut.lin": self.line_file(1, "Line", [param("Exists", BOOLEAN, "H", 1)])[:-1],
            "notes.txt": b"not listed",
        }
        for name, data in files.items():
            write(os.path.join("ssalimits", name), data)
        # Which damage a line file can have is tested in test_line_files.cpp; here that it is listed.
        out, _ = self.fails(FILE_ERROR, "1 of 3 files in", "lines", directory)
        lines = out.splitlines()
        self.assertEqual([line.split() for line in lines[:3]], [["FILE", "INDEX", "EXISTS", "POINTS", "NAME"],
                                                                ["Mask.lin", "5", "yes", "2", '"Mask"'],
                                                                ["Probe.tdf", "7", "no", "-", '"Probe"']])
        self.assertRegex("\n".join(lines[3:]), r"^cut\.lin +damaged: offset 0x4 \(4\): record size 37 runs past the end")
        self.fails(FILE_ERROR, "cannot be listed", "lines", work_path("nodir"))


class UsageTests(ToolTest):
    def test_help_lists_every_command_and_exit_code(self):
        out = self.ok("--help")
        for exit_code in range(7):
            self.assertRegex(out, r"\n  %d  " % exit_code)
        self.assertEqual(self.ok("help"), out)
        for command in COMMANDS:
            self.assertRegex(out, r"\n  %s\b" % command)
            text = self.ok("help", command)
            self.assertTrue(text.startswith("usage: vorndb " + command), text)
            self.assertGreater(len(text.splitlines()), 4, command)
            # --help works for every command, also those of the shell only.
            self.assertEqual(self.ok(command, "--help"), text)
            self.assertEqual(self.ok(command, "--bogus", "--help"), text)
        self.assertRegex(self.ok("--version"), r"^vorndb \d+\.\d+\.\d+\n$")

    def test_usage_errors(self):
        cases = [
            ([], "usage: vorndb COMMAND"),
            (["frobnicate"], "unknown command 'frobnicate'"),
            (["tre"], "did you mean: tree"),
            (["tree", "--depht", "1"], "unknown option '--depht'"),
            (["tree", "--depth"], "--depth needs a value"),
            (["tree", "--depth", "x"], "--depth needs a number"),
            (["tree", "A", "B"], "unexpected argument 'B'"),
            (["get"], "get: missing argument"),
            (["set", "NoEqualsSign"], "'NoEqualsSign' is not NAME=VALUE"),
            (["set", "=1"], "'=1' is not NAME=VALUE"),
            (["dump"], "usage: vorndb dump FILE"),
            (["watch", "X"], "only in 'vorndb shell' and 'vorndb run'"),
            (["wait"], "only in 'vorndb shell'"),
        ]
        for args, text in cases:
            with self.subTest(args=args):
                self.assertEqual(self.fails(USAGE, text, *args)[0], "")


# ---------------------------------------------------------------------------
# database
# ---------------------------------------------------------------------------
class TreeTests(ToolTest):
    def test_first_level_a_group_and_the_whole_tree(self):
        lines = self.ok("tree", "--depth", "1").splitlines()
        self.assertTrue(all(" group " in line for line in lines))
        # The root's members are tested in tests/schema; here the depth: 18 groups, 16 + 4 table entries.
        self.assertEqual(len(lines), 18 + 16 + 4)
        self.assertIn("NoiseFreqTablePreset[3]", [line.split()[0] for line in lines])

        lines = self.ok("tree", PNS, "--depth", "1").splitlines()
        self.assertTrue(lines[0].startswith(PNS + " "))
        row = {line.split()[0]: line for line in lines[1:]}
        self.assertRegex(row["SignalFreq"], r"^  SignalFreq +real +\S.* +(valid|invalid) +\[20 Hz \.\. 50 GHz\]$")
        self.assertRegex(row["YAxisTop"], r"real +-?\d.* dBc/Hz +valid")
        self.assertRegex(row["RbwToVbw"], r"integer +eRBWTOVBW_\w+ \(\d\) +valid +\[0 \.\. 2\]")
        self.assertFalse(any(line.startswith("    ") for line in lines))  # depth 1: no grandchildren

        self.assertGreater(len(self.ok("tree").splitlines()), 1000)


class TablesTests(ToolTest):
    def test_a_table_and_the_list(self):
        lines = self.ok("tables", "0").splitlines()
        self.assertEqual((lines[0], len(lines)), ("NoiseFreqTable[0]: standard, fast, 25 rows", 2 + 25))
        self.assertEqual(lines[2 + 19].split(), ["19", "30", "MHz", "100", "MHz", "3", "MHz", "1", "swept"])
        self.assertEqual(self.ok("tables").splitlines()[1 + 15].split()[:4], ["15", "residual", "manual", "19"])
        self.fails(USAGE, "INDEX is a table from 0 to 15, not '16'", "tables", "16")


class GetSetTests(ToolTest):
    def test_set_parses_units_enumerations_and_booleans(self):
        out = self.ok("set", FREQ + "=10 kHz", RBW + "=1to1", AUTOSCALE + "=off", TOP + "=-50", SCREEN + "=1, 2")
        self.assertEqual(out.splitlines(), [
            FREQ + " = 10 kHz",
            RBW + " = eRBWTOVBW_1TO1 (1)",
            AUTOSCALE + " = false",
            TOP + " = -50 dBc/Hz",
            SCREEN + " = [1, 2]",
        ])
        out = self.ok("set", FREQ + "=5e6", RBW + "=eRBWTOVBW_10TO1", AUTOSCALE + "=ON", RBW + "=2").splitlines()
        self.assertEqual(out[2:], [AUTOSCALE + " = true (unchanged)", RBW + " = eRBWTOVBW_1TO10 (2)"])

    def test_get_parameters_and_groups(self):
        self.assertEqual(self.ok("get", RBW, TOP).splitlines(), [RBW + " = eRBWTOVBW_1TO10 (2)", TOP + " = -60 dBc/Hz"])
        lines = self.ok("get", PNS).splitlines()
        self.assertIn(RBW + " = eRBWTOVBW_1TO10 (2)", lines)
        self.assertGreater(len(lines), 50)
        # A message prints its member and its text.
        message = "OptionStateInfo.Message"
        script = write("message.txt", "set %s=eMESSAGE_AFC_VTUNE_OFF\nget %s\n" % (message, message))
        self.assertIn(message + ' = eMESSAGE_AFC_VTUNE_OFF (30): "AFC switched off: no tuning voltage enabled"',
                      self.ok("run", script).splitlines())

    def test_rejected_values_name_the_hresult_the_reason_and_the_limits(self):
        out, err = self.fails(REJECTED, FREQ + ": value '100 GHz' rejected: 0x80070057 E_INVALIDARG: 100 GHz is above "
                              "the upper limit 50 GHz (" + FREQ + "); limits [20 Hz .. 50 GHz]", "set", FREQ + "=100 GHz")
        self.assertEqual(out, "")
        # Parsing of each kind is tested in test_values.cpp; here the exit code of the tool's own refusals.
        for args, text in [(FREQ + "=ten", "cannot read 'ten'"), (SCREEN + "=1,2,3", ""), (PNS + "=1", "is a group")]:
            self.fails(REJECTED, text, "set", args)

    def test_unknown_names_are_reported_with_suggestions(self):
        # Typos, wrong letter case and invented names: the name map may hand
        # out a known object for some of these; the tool must not.
        for name, suggestion in [(FREQ[:-1], FREQ), (FREQ.lower(), FREQ), ("SignalFreq", FREQ),
                                 (PNS + ".SignalFreqX", FREQ), ("UserSettings.PhaseNoiseSettings.", PNS)]:
            out, err = self.fails(UNKNOWN_NAME, "unknown name '%s'; did you mean: " % name, "get", name)
            self.assertEqual(out, "")
            self.assertIn(suggestion, err, name)
        for args in (["set", FREQ[:-1] + "=1"], ["describe", FREQ[:-1]], ["tree", FREQ[:-1]]):
            self.assertEqual(self.fails(UNKNOWN_NAME, "did you mean: " + FREQ, *args)[0], "")
        self.assertNotIn("did you mean", self.fails(UNKNOWN_NAME, "", "get", "Zz.Qq")[1])
        # Names the name map answers with another, known object (they land in
        # occupied buckets; with the tree's map nearly every unknown name does).
        names = ["%s.Bogus%d" % (PNS, i) for i in range(6)]
        out, err = self.fails(UNKNOWN_NAME, "", "shell", stdin="".join("get %s\n" % name for name in names))
        self.assertEqual(out, "")
        for name in names:
            self.assertIn("unknown name '%s'" % name, err)
        # All names are checked before anything is written.
        self.assertEqual(self.fails(UNKNOWN_NAME, "Nope", "set", FREQ + "=10 kHz", "Nope=1")[0], "")


class DescribeTests(ToolTest):
    def test_interface_enumeration_and_node(self):
        out = self.ok("describe", "IPhaseNoiseSettings")
        self.assertTrue(out.startswith("interface IPhaseNoiseSettings : IGroup\n"))
        self.assertRegex(out, r"\n    2 +SignalFreq +IParameterReal +real parameter\n")
        self.assertRegex(self.ok("describe", "eRBWTOVBW"), r"enum eRBWTOVBW\n  3 members:\n    eRBWTOVBW_10TO1 +0\n")
        out = self.ok("describe", RBW)
        self.assertIn("member      RbwToVbw of IPhaseNoiseSettings, dispatch identifier", out)
        self.assertIn("doc         integer parameter; values: eRBWTOVBW", out)
        self.assertIn("eRBWTOVBW_1TO10  2", out)
        out = self.ok("describe", "NoiseFreqTablePreset[2]")
        self.assertIn("member      NoiseFreqTablePreset[] of IRoot", out)
        self.assertIn("interface INoiseFreqTablePreset : IGroup", out)
        self.assertIn("NoiseFreqTable[]", self.ok("describe", "IRoot"))
        self.fails(UNKNOWN_NAME, "did you mean: IPhaseNoiseSettings", "describe", "IPhaseNoiseSetting")


class ScriptTests(ToolTest):
    SCRIPT = "\n".join([
        "# watch a group: every change below it is printed with its full name",
        "",
        "watch " + PNS,
        "set '%s=1.5 MHz' %s=1TO1" % (FREQ, RBW),
        "wait",
        "unwatch",
        "set %s=2" % RBW,
        "wait",
        "watch " + RBW,
        "set %s=0" % RBW,
        "wait 5000",
        "reset " + RBW,
        "wait",
        "reset",
        "wait",
        "get " + RBW,
        "suppress",
        "set %s=1" % RBW,
        "wait",
        "restart",
        "set %s=2" % RBW,
        "wait",
        "",
    ])

    def test_watch_set_wait_reset(self):
        lines = self.ok("run", write("watch.txt", self.SCRIPT)).splitlines()
        # The notification thread prints while the next command runs: the
        # two kinds of lines are each in order, and `wait` orders them.
        self.assertEqual([line for line in lines if line.startswith("watch: ")], [
            "watch: " + FREQ + " = 1.5 MHz",
            # The carrier's couplings: the AFC target follows it, and the
            # 1 kHz tolerance is remembered as a share of it.
            "watch: " + PNS + ".AFCTargetFreq = 1.5 MHz",
            "watch: " + PNS + ".RecentlyUsed.FreqTolerancePercentage = 0.0666666666667",
            "watch: " + RBW + " = eRBWTOVBW_1TO1 (1)",
            "watch: " + RBW + " = eRBWTOVBW_10TO1 (0)",
            "watch: " + RBW + " = eRBWTOVBW_1TO10 (2)",  # reset of the parameter
            "watch: " + RBW + " = eRBWTOVBW_1TO10 (2)",  # reset of the tree
            "watch: " + RBW + " = eRBWTOVBW_1TO10 (2)",  # after restart; nothing while suppressed
        ])
        self.assertEqual([line for line in lines if not line.startswith("watch: ")], [
            "watching " + PNS,
            FREQ + " = 1.5 MHz",
            RBW + " = eRBWTOVBW_1TO1 (1)",
            "stopped 1 watch",
            RBW + " = eRBWTOVBW_1TO10 (2)",
            "watching " + RBW,
            RBW + " = eRBWTOVBW_10TO1 (0)",
            "reset " + RBW,
            "reset the whole tree",
            RBW + " = eRBWTOVBW_1TO10 (2)",
            "notifications suppressed",
            RBW + " = eRBWTOVBW_1TO1 (1)",
            "notifications restarted",
            RBW + " = eRBWTOVBW_1TO10 (2)",
        ])
        self.assertLess(lines.index("watch: " + RBW + " = eRBWTOVBW_1TO1 (1)"), lines.index("stopped 1 watch"))
        self.assertLess(lines.index("watch: " + RBW + " = eRBWTOVBW_10TO1 (0)"), lines.index("reset " + RBW))
        # The same through the shell, which prompts only on a terminal.
        out = self.ok("shell", stdin=self.SCRIPT)
        self.assertIn("watch: " + FREQ + " = 1.5 MHz", out.splitlines())
        self.assertNotIn("vorndb>", out)

    def test_every_error_path_in_a_script(self):
        cases = [
            ("get " + FREQ[:-1], UNKNOWN_NAME, "unknown name"),
            ("set %s=1 THz" % FREQ, USAGE, "'THz' is not NAME=VALUE"),
            ("set '%s=1 THz'" % FREQ, REJECTED, "E_INVALIDARG"),
            ("frob", USAGE, "unknown command"),
            ("get --settings x.vdb " + FREQ, USAGE, "--settings is not used in the shell"),
            ("unwatch NotWatched", USAGE, "unknown watch"),
            ("wait soon", USAGE, "is not a time"),
            ("load " + work_path("missing.vdb"), FILE_ERROR, "cannot be opened"),
            ("load " + write("bad.vdb", b"\x01\x50\xff"), FILE_ERROR, "not a valid settings stream"),
            ("watch Nope", UNKNOWN_NAME, "unknown name 'Nope'"),
            ("reset Nope", UNKNOWN_NAME, "unknown name"),
            ("dump 'unterminated", USAGE, "unterminated ' quote"),
            ("diff %s %s" % (write("a.vdb", SAMPLE_A), write("b.vdb", SAMPLE_B)), DIFFERENT, "4 differences"),
            ("shell", USAGE, "shell"),
            ("run " + work_path("missing.txt"), FILE_ERROR, "missing.txt"),
        ]
        for line, exit_code, text in cases:
            with self.subTest(line=line):
                script = write("err.txt", "get %s\n%s\nget %s\n" % (RBW, line, RBW))
                out, err = self.fails(exit_code, text, "run", script)
                self.assertIn("err.txt:2: ", err)
                self.assertEqual(out.count(RBW + " = "), 1)  # stopped after line 2
                # The shell's status is its last command's.
                self.assertEqual(vorndb("shell", stdin=line + "\n")[0], exit_code)
        # The shell reports every error and goes on.
        lines = ["get " + RBW]
        for line, _, _ in cases:
            lines += [line, "get " + RBW]
        code, out, err = vorndb("shell", stdin="\n".join(lines) + "\n")
        self.assertEqual(code, OK)
        self.assertEqual(out.count(RBW + " = "), len(cases) + 1)
        self.assertEqual(err.count("vorndb: "), len(cases))
        for _, _, text in cases:
            self.assertIn(text, err)
        # quit ends the shell, successfully whatever failed before it.
        self.assertEqual(vorndb("shell", stdin="get Nope\nquit\nget Nope\n")[0], OK)

    def test_nested_scripts(self):
        inner = write("inner.txt", "set %s=0\nget Nope\n" % RBW)
        out, err = self.fails(UNKNOWN_NAME, "inner.txt:2: unknown name 'Nope'",
                              "run", write("outer.txt", "run %s\nget %s\n" % (inner, RBW)))
        self.assertEqual(err.count("unknown name"), 1)
        self.assertEqual(out.splitlines(), [RBW + " = eRBWTOVBW_10TO1 (0)"])


class ActivationTests(ToolTest):
    def test_registered_class_and_a_module_that_cannot_be_loaded(self):
        env = {"VORN_REGISTRY": work_path("registered.reg")}
        module = work_path("registered/libvorndb.so")
        os.makedirs(os.path.dirname(module), exist_ok=True)
        shutil.copy(ARGS.module, module)
        p = subprocess.run([ARGS.regsvr, "-s", module], env={**os.environ, **env}, capture_output=True, text=True)
        self.assertEqual(p.returncode, 0, p.stderr)
        self.assertEqual(self.ok("get", RBW, env=env), RBW + " = eRBWTOVBW_1TO10 (2)\n")
        # A registration whose module is gone: the module beside the tool.
        os.remove(module)
        self.ok("get", RBW, env=env)
        out, err = self.fails(FAILURE, "cannot create the database object", "get", RBW,
                              env={"VORNDB_MODULE": write("notamodule.so", "text")})
        self.assertEqual(out, "")
        self.assertIn("notamodule.so: cannot be loaded", err)


class TerminalTests(ToolTest):
    def test_keys_completion_and_history_on_a_terminal(self):
        env = dict(os.environ, TERM="xterm", XDG_STATE_HOME=work_path("state"), HOME=work_path("home"))
        env.pop("VORNDB_MODULE", None)
        pid, fd = pty.fork()
        if pid == 0:
            try:
                os.execve(ARGS.tool, [ARGS.tool, "shell"], env)
            finally:
                os._exit(127)
        screen = b""

        def read_until(text):
            nonlocal screen
            deadline = time.time() + 60
            while text not in screen and time.time() < deadline:
                if select.select([fd], [], [], 1)[0]:
                    try:
                        screen += os.read(fd, 65536)
                    except OSError:  # the terminal closed
                        break
            return text in screen

        try:
            # Tab twice (a group, then a parameter), Ctrl-Left to the name's
            # start, a name typed there; a lone Esc, Ctrl-E, another name.
            os.write(fd, b"get UserSettings.PhaseNoiseS\tRbwT\t\x1b[1;5D" + AUTOSCALE.encode() + b" \x1b")
            time.sleep(0.5)
            os.write(fd, b"\x05" + TOP.encode() + b"\r")
            self.assertTrue(read_until(TOP.encode() + b" = "), screen)
            os.write(fd, b"quit\r")
            read_until(b"until the terminal closes")
        finally:
            for _ in range(100):
                done, status = os.waitpid(pid, os.WNOHANG)
                if done:
                    break
                time.sleep(0.1)
            else:
                os.kill(pid, signal.SIGKILL)
                _, status = os.waitpid(pid, 0)
            os.close(fd)
        self.assertEqual(os.waitstatus_to_exitcode(status), OK)
        output = [line for line in screen.decode(errors="replace").split("\r\n") if " = " in line]
        self.assertEqual(output, [AUTOSCALE + " = true", RBW + " = eRBWTOVBW_1TO10 (2)", TOP + " = -60 dBc/Hz"])
        history = work_path("state/vorndb/history")
        self.assertEqual((os.stat(os.path.dirname(history)).st_mode & 0o777, os.stat(history).st_mode & 0o777),
                         (0o700, 0o600))
        with open(history) as f:
            entries = f.read()
        self.assertIn(AUTOSCALE + "\\040" + RBW + "\\040" + TOP, entries)
        self.assertIn("quit", entries)


# ---------------------------------------------------------------------------
# settings: files written and read by the database
# ---------------------------------------------------------------------------
class SettingsTests(ToolTest):
    def saved(self, name, *commands):
        path = work_path(name)
        self.ok("run", "-", stdin="\n".join(list(commands) + ["save " + path]) + "\n")
        return path

    def test_save_load_round_trip(self):
        path = self.saved("round.vdb", "set '%s=2.5 MHz' %s=0" % (FREQ, RBW))
        self.assertIn("  UserSettings  size", self.ok("dump", path))
        out = self.ok("run", "-", stdin="load %s\nget %s %s\n" % (path, FREQ, RBW))
        self.assertEqual(out.splitlines()[1:], [FREQ + " = 2.5 MHz", RBW + " = eRBWTOVBW_10TO1 (0)"])

    def test_get_and_set_with_settings_file(self):
        path = self.saved("s.vdb")
        self.ok("set", "--settings", path, FREQ + "=1 GHz")
        self.assertEqual(self.ok("get", "--settings", path, FREQ), FREQ + " = 1 GHz\n")
        self.assertEqual(self.ok("get", FREQ), FREQ + " = <invalid>\n")  # a fresh database
        self.assertIn("1 GHz", self.ok("tree", "--settings", path, FREQ))
        out, _ = self.fails(DIFFERENT, "", "diff", self.saved("fresh.vdb"), path)
        # An invalid real stores no unit: its limits are printed without one.
        self.assertIn("~ " + FREQ + ": <invalid> [20 .. 50000000000] -> 1 GHz [20 Hz .. 50 GHz]", out.splitlines())

    def test_nothing_is_written_unless_the_whole_command_succeeded(self):
        path = self.saved("keep.vdb", "set %s=0" % RBW)
        before = open(path, "rb").read()
        for args, exit_code in [([FREQ + "=1 GHz", RBW + "=7"], REJECTED),
                                ([FREQ + "=1 GHz", "Nope=1"], UNKNOWN_NAME),
                                ([FREQ + "=1 GHz", AUTOSCALE + "=perhaps"], REJECTED)]:
            self.fails(exit_code, "", "set", "--settings", path, *args)
            self.assertEqual(open(path, "rb").read(), before, args)
        self.assertFalse(any(".~" in f for f in os.listdir(ARGS.work)))

    def test_writing_never_follows_links_nor_replaces_read_only_files(self):
        path = self.saved("safe.vdb")
        # A link planted where the tool once put its temporary file
        # (FILE.tmp.PID; `exec` keeps the shell's PID).
        victim = write("victim", "keep")
        env = {k: v for k, v in os.environ.items() if k != "VORNDB_MODULE"}
        p = subprocess.run(["sh", "-c", 'ln -s "$1" "$2.tmp.$$" && exec "$0" set --settings "$2" "$3"',
                            ARGS.tool, victim, path, FREQ + "=1 GHz"], capture_output=True, text=True, env=env)
        self.assertEqual((p.returncode, p.stderr), (OK, ""))
        self.assertEqual(open(victim).read(), "keep")
        # Read-only: refused and kept; otherwise the mode stays.
        os.chmod(path, 0o444)
        before = open(path, "rb").read()
        self.fails(FILE_ERROR, "read-only", "set", "--settings", path, FREQ + "=2 GHz")
        self.assertEqual(open(path, "rb").read(), before)
        os.chmod(path, 0o600)
        self.ok("set", "--settings", path, FREQ + "=2 GHz")
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        # A name of the full 255 bytes.
        self.assertIn("mark 0x5001", self.ok("dump", self.saved("n" * 251 + ".vdb")))

    def test_bad_settings_files(self):
        self.fails(FILE_ERROR, "", "set", "--settings", work_path("missing.vdb"), FREQ + "=1 GHz")
        self.assertFalse(os.path.exists(work_path("missing.vdb")))
        damaged = bytearray(open(self.saved("d.vdb"), "rb").read())
        damaged[8] = 0xFF  # inside the first child's size
        path = write("damaged.vdb", bytes(damaged))
        self.fails(FILE_ERROR, "not a valid settings stream: at offset", "set", "--settings", path, FREQ + "=1 GHz")
        self.assertEqual(open(path, "rb").read(), bytes(damaged))
        self.fails(FILE_ERROR, "names no node of the tree",
                   "get", "--settings", write("foreign.vdb", stream(group("NoSuchGroup", []))), FREQ)

    def test_a_group_file(self):
        path = work_path("pns.vdb")
        self.ok("run", "-", stdin="set %s=0\nsave %s %s\n" % (RBW, path, PNS))
        self.ok("set", "--settings", path, RBW + "=1")
        self.assertIn("00000002  PhaseNoiseSettings  size", self.ok("dump", path))
        # Only names the file holds are set in it.
        before = open(path, "rb").read()
        self.fails(OUTSIDE_SETTINGS, "is not in " + path, "set", "--settings", path, SCREEN + "=1")
        self.assertEqual(open(path, "rb").read(), before)

    def test_a_stored_value_the_database_refuses_is_not_saved_back(self):
        # Stored valid, but above the parameter's upper limit.
        path = write("refused.vdb",
                     stream(group("PhaseNoiseSettings", [param("SignalFreq", REAL, "Hddd", HZ, 1e15, 20.0, 5e10)])))
        before = open(path, "rb").read()
        self.fails(REFUSED_IN_FILE, "refuses its stored value of " + FREQ, "set", "--settings", path, RBW + "=1")
        self.assertEqual(open(path, "rb").read(), before)
        self.ok("set", "--settings", path, FREQ + "=1 GHz")  # setting it mends it


class ExportTests(ToolTest):
    def test_export_with_and_without_header_and_a_failed_one(self):
        out = work_path("traces.csv")
        self.ok("export", out, "--no-header", "--all-traces")
        text = open(out, "rb").read().decode("latin-1")
        # --no-header, --all-traces: eight trace blocks (their lines are tested in test_export.cpp).
        self.assertTrue(text.startswith("Measurement;"), text[:40])
        self.assertEqual([line for line in text.split("\r\n") if line.startswith("Trace;")],
                         ["Trace;%d;" % i for i in range(1, 9)])
        self.ok("export", out, "--commas")
        header = open(out, "rb").read().decode("latin-1").split("\r\n")
        self.assertTrue(header[0].startswith("Type;"), header[0])
        # --commas: every decimal point of the header became a comma.
        self.assertRegex("\n".join(header), r";-?\d+,\d+;")
        self.assertNotRegex("\n".join(header), r"\d\.\d")
        missing = work_path("nodir/traces.csv")
        self.fails(FILE_ERROR, "the export file " + missing + " cannot be written", "export", missing)


GROUPS = {
    "files": [DumpTests, DiffTests, LinesTests, UsageTests],
    "database": [TreeTests, TablesTests, GetSetTests, DescribeTests, ScriptTests, ActivationTests, TerminalTests],
    "settings": [SettingsTests, ExportTests],
}


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--regsvr", required=True)
    parser.add_argument("--module", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("group", choices=sorted(GROUPS))
    ARGS = parser.parse_args()
    shutil.rmtree(ARGS.work, ignore_errors=True)
    os.makedirs(ARGS.work)
    suite = unittest.TestSuite()
    for case in GROUPS[ARGS.group]:
        suite.addTests(unittest.defaultTestLoader.loadTestsFromTestCase(case))
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
