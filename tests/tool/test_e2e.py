#!/usr/bin/env python3
"""End-to-end tests of the vorndb tool: the built binary driven through its
command line, through `run SCRIPT` and through `shell` on standard input,
checking standard output, standard error and exit codes.

    test_e2e.py --tool BIN --regsvr BIN --module LIB --work DIR GROUP

GROUP is one of:
  files     dump, diff, help texts and usage errors (no database needed);
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
import shutil
import struct
import subprocess
import sys
import unittest

ARGS = None

# Exit codes, as `vorndb help` documents them.
OK, FAILURE, USAGE, UNKNOWN_NAME, REJECTED, FILE_ERROR, DIFFERENT = 0, 1, 2, 3, 4, 5, 6

PNS = "UserSettings.PhaseNoiseSettings"
FREQ = PNS + ".SignalFreq"  # real, Hz, limits 20 Hz .. 50 GHz
RBW = PNS + ".RbwToVbw"  # enumeration eRBWTOVBW
AUTOSCALE = PNS + ".Autoscale"  # boolean
TOP = PNS + ".YAxisTop"  # real, dBc/Hz
SCREEN = "DisplaySettings.ScreenTraceConfig"  # integer array, capacity 2

ROOT_GROUPS = ["InstrumentConfigInfo", "OptionStateInfo", "EquipSettings", "EnhancementLabels",
               "EnhancementLabelsSaved", "UserSettings", "PNBoardDebugSettings", "GuiSettings",
               "ResidualCalculations", "OtherSettings", "MeasurementControl", "MeasurementSettings",
               "DisplaySettings", "MeasurementResults", "Markers", "GateSettings", "LimitLineData",
               "TransducerFactorsData"]

COMMANDS = ["tree", "get", "set", "describe", "dump", "diff", "shell", "run", "help", "watch", "unwatch",
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


def boolean(name, value):
    return record(name, struct.pack("<HHH", 2, 0, 1 if value else 0))


def integer(name, value, limits=None):
    payload = struct.pack("<HHI", 4, 0, value)
    if limits:
        payload += struct.pack("<II", *limits)
    return record(name, payload)


def real(name, value, unit, limits=None):
    payload = struct.pack("<HHHd", 6, 0, unit, value)
    if limits:
        payload += struct.pack("<dd", *limits)
    return record(name, payload)


def string(name, text):
    data = text.encode("utf-16-le")
    return record(name, struct.pack("<HHI", 8, 0, len(data) // 2) + data)


def invalid(name, code):
    return record(name, struct.pack("<HH", code, 1))


def stream(top):
    return struct.pack("<H", 0x5001) + top


HZ, DBM = 4, 5


def sample_a():
    return stream(group("", [
        group("Settings", [
            real("Freq", 1.5e6, HZ, (20.0, 5e10)),
            integer("Mode", 2),
            boolean("On", True),
            string("Title", "first"),
        ]),
        real("Level", -30.0, DBM),
    ]))


def sample_b():
    return stream(group("", [
        group("Settings", [
            real("Freq", 10e3, HZ, (20.0, 5e10)),
            integer("Mode", 2),
            invalid("On", 2),
            string("Extra", "new"),
        ]),
        real("Level", -30.0, DBM),
    ]))


# ---------------------------------------------------------------------------
# files: no database needed
# ---------------------------------------------------------------------------
class DumpTests(unittest.TestCase):
    def test_text_shows_every_record(self):
        code, out, err = vorndb("dump", write("a.vdb", sample_a()))
        self.assertEqual((code, err), (OK, ""))
        self.assertIn("mark 0x5001", out)
        self.assertRegex(out, r"00000002  <root>  size 158  group v1, 2 children\n")
        self.assertRegex(out, r"\n0000000E    Settings  size 121  group v1, 4 children\n")
        self.assertRegex(out, r"\n00000022      Freq  size 40  code 6 real\+limits  1\.5 MHz \[20 Hz \.\. 50 GHz\]\n")
        self.assertRegex(out, r"\n0000004A      Mode  size 18  code 4 integer  2\n")
        self.assertIn('      Title  size 29  code 8 string  "first"\n', out)
        self.assertIn("    Level  size 25  code 6 real  -30 dBm\n", out)

    def test_json_is_one_document_with_typed_values(self):
        code, out, _ = vorndb("dump", "--json", write("a.vdb", sample_a()))
        self.assertEqual(code, OK)
        doc = json.loads(out)
        self.assertIsNone(doc["error"])
        freq = doc["record"]["children"][0]["children"][0]
        self.assertEqual((freq["name"], freq["code"], freq["kind"]), ("Freq", 6, "real+limits"))
        self.assertEqual((freq["value"], freq["unit"], freq["minimum"], freq["maximum"]), (1.5e6, HZ, 20.0, 5e10))

    def test_damaged_file_reports_first_bad_byte(self):
        data = bytearray(sample_a())
        code_at = data.index(b"Mode") + 4  # the type code of "Mode"
        data[code_at] = 5
        code, out, err = vorndb("dump", write("bad.vdb", bytes(data)))
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("first bad byte at offset 0x%X (%d)" % (code_at, code_at), err)
        self.assertIn("unknown type code 5", err)
        # What was decoded before the damage is still shown.
        self.assertIn("1.5 MHz", out)
        self.assertIn("(incomplete)", out)
        code, out, _ = vorndb("dump", "--json", work_path("bad.vdb"))
        self.assertEqual(code, FILE_ERROR)
        self.assertEqual(json.loads(out)["error"]["offset"], code_at)

    def test_truncated_and_foreign_files(self):
        code, _, err = vorndb("dump", write("short.vdb", sample_a()[:-5]))
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("offset 0x2 (2)", err)
        code, _, err = vorndb("dump", write("foreign.vdb", b"PK\x03\x04 not a stream"))
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("offset 0x0 (0): stream mark 0x4B50 is not 0x5001", err)

    def test_unreadable_files(self):
        code, _, err = vorndb("dump", work_path("missing.vdb"))
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("missing.vdb: cannot be opened", err)
        code, _, err = vorndb("dump", ARGS.work)
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("is a directory", err)


class DiffTests(unittest.TestCase):
    def test_equal_files(self):
        code, out, err = vorndb("diff", write("a.vdb", sample_a()), write("a2.vdb", sample_a()))
        self.assertEqual((code, err), (OK, ""))
        self.assertIn("no differences (5 parameters)", out)

    def test_differences_by_full_name(self):
        code, out, err = vorndb("diff", write("a.vdb", sample_a()), write("b.vdb", sample_b()))
        self.assertEqual(code, DIFFERENT)
        lines = out.splitlines()
        self.assertIn("~ Settings.Freq: 1.5 MHz [20 Hz .. 50 GHz] -> 10 kHz [20 Hz .. 50 GHz]", lines)
        self.assertIn("~ Settings.On: true -> <invalid>", lines)
        self.assertIn('- Settings.Title = "first"', lines)
        self.assertIn('+ Settings.Extra = "new"', lines)
        self.assertEqual(len(lines), 4)
        self.assertIn("4 differences", err)

    def test_damaged_or_missing_file(self):
        code, _, err = vorndb("diff", write("a.vdb", sample_a()), write("short.vdb", sample_a()[:20]))
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("short.vdb: first bad byte at offset", err)
        code, _, _ = vorndb("diff", work_path("a.vdb"), work_path("missing.vdb"))
        self.assertEqual(code, FILE_ERROR)


class UsageTests(unittest.TestCase):
    def test_help_lists_every_command_and_exit_code(self):
        code, out, err = vorndb("--help")
        self.assertEqual((code, err), (OK, ""))
        for command in COMMANDS:
            self.assertRegex(out, r"\n  %s\b" % command)
        for exit_code in range(7):
            self.assertRegex(out, r"\n  %d  " % exit_code)
        self.assertEqual(vorndb("help")[1], out)

    def test_every_command_has_its_help(self):
        for command in COMMANDS:
            code, out, err = vorndb("help", command)
            self.assertEqual((code, err), (OK, ""), command)
            self.assertTrue(out.startswith("usage: vorndb " + command), out)
            self.assertGreater(len(out.splitlines()), 4, command)
            # --help works for every command, also those of the shell only.
            self.assertEqual(vorndb(command, "--help")[:2], (OK, out), command)
            self.assertEqual(vorndb(command, "--bogus", "--help")[:2], (OK, out), command)

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
            (["diff", "a"], "missing argument"),
            (["dump", "-x", "f"], "unknown option '-x'"),
            (["watch", "X"], "only in 'vorndb shell' and 'vorndb run'"),
            (["wait"], "only in 'vorndb shell'"),
        ]
        for args, text in cases:
            code, out, err = vorndb(*args)
            self.assertEqual(code, USAGE, args)
            self.assertIn(text, err, args)
            self.assertEqual(out, "", args)

    def test_version(self):
        code, out, _ = vorndb("--version")
        self.assertEqual(code, OK)
        self.assertRegex(out, r"^vorndb \d+\.\d+\.\d+\n$")


class ScriptWithoutDatabaseTests(unittest.TestCase):
    """`run` and `shell` with commands that need no database."""

    def test_run_stops_at_first_error_with_its_code_and_line(self):
        a = write("a.vdb", sample_a())
        script = write("s.txt", "# comment\n\ndump %s\ndiff %s %s\ndump %s\n" % (a, a, a, a))
        code, out, err = vorndb("run", script)
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out.count("mark 0x5001"), 2)
        bad = write("bad.txt", "dump %s\ndump 'unterminated\ndump %s\n" % (a, a))
        code, out, err = vorndb("run", bad)
        self.assertEqual(code, USAGE)
        self.assertIn("bad.txt:2: unterminated ' quote", err)
        self.assertEqual(out.count("mark 0x5001"), 1)

    def test_run_reports_each_error_kind(self):
        a = write("a.vdb", sample_a())
        for line, exit_code in [("dump %s" % work_path("missing.vdb"), FILE_ERROR),
                                ("diff %s %s" % (a, write("b.vdb", sample_b())), DIFFERENT),
                                ("bogus", USAGE),
                                ("shell", USAGE),
                                ("run %s" % work_path("missing.txt"), FILE_ERROR)]:
            code, _, err = vorndb("run", "-", stdin="help\n" + line + "\nhelp\n")
            self.assertEqual(code, exit_code, line)
            self.assertIn("<stdin>:2: ", err, line)

    def test_shell_goes_on_after_errors_and_exits_with_the_last_status(self):
        a = write("a.vdb", sample_a())
        code, out, err = vorndb("shell", stdin="bogus\ndump %s\n" % a)
        self.assertEqual(code, OK)
        self.assertIn("unknown command 'bogus'", err)
        self.assertIn("mark 0x5001", out)
        self.assertEqual(vorndb("shell", stdin="dump %s\ndump missing.vdb\n" % a)[0], FILE_ERROR)
        self.assertEqual(vorndb("shell", stdin="dump missing.vdb\nquit\ndump missing.vdb\n")[0], OK)
        # Interactive prompts and banners appear only on a terminal.
        self.assertNotIn("vorndb>", out)


# ---------------------------------------------------------------------------
# database
# ---------------------------------------------------------------------------
class TreeTests(unittest.TestCase):
    def test_first_level(self):
        code, out, err = vorndb("tree", "--depth", "1")
        self.assertEqual((code, err), (OK, ""))
        names = [line.split()[0] for line in out.splitlines()]
        for name in ROOT_GROUPS:
            self.assertIn(name, names)
        self.assertIn("NoiseFreqTable[15]", names)
        self.assertIn("NoiseFreqTablePreset[3]", names)
        self.assertEqual(len(names), 18 + 16 + 4)
        self.assertTrue(all(" group " in line for line in out.splitlines()))

    def test_a_group_with_values_units_status_and_limits(self):
        code, out, _ = vorndb("tree", PNS, "--depth", "1")
        self.assertEqual(code, OK)
        lines = out.splitlines()
        self.assertTrue(lines[0].startswith(PNS + " "))
        freq = next(line for line in lines if line.split()[0] == "SignalFreq")
        self.assertRegex(freq, r"^  SignalFreq +real +\S.* +(valid|invalid) +\[20 Hz \.\. 50 GHz\]$")
        top = next(line for line in lines if line.split()[0] == "YAxisTop")
        self.assertRegex(top, r"real +-?\d.* dBc/Hz +valid")
        rbw = next(line for line in lines if line.split()[0] == "RbwToVbw")
        self.assertRegex(rbw, r"integer +eRBWTOVBW_\w+ \(\d\) +valid +\[0 \.\. 2\]")
        # Depth 1: no grandchildren.
        self.assertFalse(any(line.startswith("    ") for line in lines))

    def test_whole_tree_and_errors(self):
        code, out, _ = vorndb("tree")
        self.assertEqual(code, OK)
        self.assertGreater(len(out.splitlines()), 1000)
        code, _, err = vorndb("tree", "UserSettings.PhaseNoiseSetings")
        self.assertEqual(code, UNKNOWN_NAME)
        self.assertIn("did you mean: " + PNS, err)


class GetSetTests(unittest.TestCase):
    def test_set_parses_units_enumerations_and_booleans(self):
        code, out, err = vorndb("set", FREQ + "=10 kHz", RBW + "=1to1", AUTOSCALE + "=off", TOP + "=-50",
                                SCREEN + "=1, 2")
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out.splitlines(), [
            FREQ + " = 10 kHz",
            RBW + " = eRBWTOVBW_1TO1 (1)",
            AUTOSCALE + " = false",
            TOP + " = -50 dBc/Hz",
            SCREEN + " = [1, 2]",
        ])
        code, out, _ = vorndb("set", FREQ + "=5e6", RBW + "=eRBWTOVBW_10TO1", AUTOSCALE + "=ON", RBW + "=2")
        self.assertEqual(code, OK)
        self.assertEqual(out.splitlines()[0], FREQ + " = 5 MHz")
        self.assertEqual(out.splitlines()[2], AUTOSCALE + " = true (unchanged)")
        self.assertEqual(out.splitlines()[3], RBW + " = eRBWTOVBW_1TO10 (2)")

    def test_get_parameters_and_groups(self):
        code, out, err = vorndb("get", RBW, TOP)
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out.splitlines(), [RBW + " = eRBWTOVBW_1TO10 (2)", TOP + " = -60 dBc/Hz"])
        code, out, _ = vorndb("get", PNS)
        self.assertEqual(code, OK)
        self.assertIn(RBW + " = eRBWTOVBW_1TO10 (2)", out.splitlines())
        self.assertGreater(len(out.splitlines()), 50)

    def test_rejected_values_name_the_hresult_and_the_limits(self):
        code, out, err = vorndb("set", FREQ + "=100 GHz")
        self.assertEqual((code, out), (REJECTED, ""))
        self.assertIn(FREQ + ": value '100 GHz' rejected: 0x80070057 E_INVALIDARG", err)
        self.assertIn("limits [20 Hz .. 50 GHz]", err)
        code, _, err = vorndb("set", RBW + "=3")
        self.assertEqual(code, REJECTED)
        self.assertIn("limits [0 .. 2]", err)
        for value, text in [("ten", "cannot read 'ten'"), ("10 dBm", "cannot read '10 dBm' as a number in Hz")]:
            code, _, err = vorndb("set", FREQ + "=" + value)
            self.assertEqual(code, REJECTED, value)
            self.assertIn(text, err)
        code, _, err = vorndb("set", RBW + "=wide")
        self.assertEqual(code, REJECTED)
        self.assertIn("eRBWTOVBW_10TO1, eRBWTOVBW_1TO1, eRBWTOVBW_1TO10", err)
        self.assertEqual(vorndb("set", AUTOSCALE + "=maybe")[0], REJECTED)
        self.assertEqual(vorndb("set", SCREEN + "=1,2,3")[0], REJECTED)
        code, _, err = vorndb("set", PNS + "=1")
        self.assertEqual(code, REJECTED)
        self.assertIn("is a group", err)

    def test_unknown_names_are_reported_with_suggestions(self):
        # Typos, wrong letter case and invented names: the name map may hand
        # out a known object for some of these; the tool must not.
        for name, suggestion in [(FREQ[:-1], FREQ), (FREQ.lower(), FREQ), ("SignalFreq", FREQ),
                                 (PNS + ".SignalFreqX", FREQ), ("UserSettings.PhaseNoiseSettings.", PNS)]:
            code, out, err = vorndb("get", name)
            self.assertEqual((code, out), (UNKNOWN_NAME, ""), name)
            self.assertIn("unknown name '%s'; did you mean: " % name, err)
            self.assertIn(suggestion, err, name)
        for args in (["set", FREQ[:-1] + "=1"], ["describe", FREQ[:-1]], ["tree", FREQ[:-1]]):
            code, out, err = vorndb(*args)
            self.assertEqual((code, out), (UNKNOWN_NAME, ""), args)
            self.assertIn("did you mean: " + FREQ, err, args)
        code, _, err = vorndb("get", "Zz.Qq")
        self.assertEqual(code, UNKNOWN_NAME)
        self.assertNotIn("did you mean", err)
        # Names the name map answers with another, known object (they land in
        # occupied buckets; with the tree's map nearly every unknown name does).
        names = ["%s.Bogus%d" % (PNS, i) for i in range(6)]
        code, out, err = vorndb("shell", stdin="".join("get %s\n" % name for name in names))
        self.assertEqual((code, out), (UNKNOWN_NAME, ""))
        for name in names:
            self.assertIn("unknown name '%s'" % name, err)

    def test_all_names_are_checked_before_anything_is_written(self):
        code, out, _ = vorndb("set", FREQ + "=10 kHz", "Nope=1")
        self.assertEqual((code, out), (UNKNOWN_NAME, ""))


class DescribeTests(unittest.TestCase):
    def test_interface_enumeration_and_node(self):
        code, out, err = vorndb("describe", "IPhaseNoiseSettings")
        self.assertEqual((code, err), (OK, ""))
        self.assertTrue(out.startswith("interface IPhaseNoiseSettings : IGroup\n"))
        self.assertRegex(out, r"\n    2 +SignalFreq +IParameterReal +real parameter\n")
        code, out, _ = vorndb("describe", "eRBWTOVBW")
        self.assertEqual(code, OK)
        self.assertRegex(out, r"enum eRBWTOVBW\n  3 members:\n    eRBWTOVBW_10TO1 +0\n")
        code, out, _ = vorndb("describe", RBW)
        self.assertEqual(code, OK)
        self.assertIn("member      RbwToVbw of IPhaseNoiseSettings, dispatch identifier", out)
        self.assertIn("doc         integer parameter; values: eRBWTOVBW", out)
        self.assertIn("eRBWTOVBW_1TO10  2", out)
        code, out, _ = vorndb("describe", "NoiseFreqTablePreset[2]")
        self.assertEqual(code, OK)
        self.assertIn("member      NoiseFreqTablePreset[] of IRoot", out)
        self.assertIn("interface INoiseFreqTablePreset : IGroup", out)
        code, out, _ = vorndb("describe", "IRoot")
        self.assertIn("NoiseFreqTable[]", out)

    def test_unknown(self):
        code, _, err = vorndb("describe", "IPhaseNoiseSetting")
        self.assertEqual(code, UNKNOWN_NAME)
        self.assertIn("did you mean: IPhaseNoiseSettings", err)


class ScriptTests(unittest.TestCase):
    SCRIPT = "\n".join([
        "# watch a group: every change below it is printed with its full name",
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
        code, out, err = vorndb("run", write("watch.txt", self.SCRIPT))
        self.assertEqual((code, err), (OK, ""))
        lines = out.splitlines()
        # The notification thread prints while the next command runs: the
        # two kinds of lines are each in order, and `wait` orders them.
        self.assertEqual([line for line in lines if line.startswith("watch: ")], [
            "watch: " + FREQ + " = 1.5 MHz",
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

    def test_the_same_through_the_shell(self):
        code, out, err = vorndb("shell", stdin=self.SCRIPT)
        self.assertEqual((code, err), (OK, ""))
        self.assertIn("watch: " + FREQ + " = 1.5 MHz", out.splitlines())

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
            ("dump " + work_path("missing.vdb"), FILE_ERROR, "cannot be opened"),
            ("watch Nope", UNKNOWN_NAME, "unknown name 'Nope'"),
            ("reset Nope", UNKNOWN_NAME, "unknown name"),
        ]
        for line, exit_code, text in cases:
            script = write("err.txt", "get %s\n%s\nget %s\n" % (RBW, line, RBW))
            code, out, err = vorndb("run", script)
            self.assertEqual(code, exit_code, line)
            self.assertIn("err.txt:2: ", err, line)
            self.assertIn(text, err, line)
            self.assertEqual(out.count(RBW + " = "), 1, line)  # stopped after line 2
            # The shell's status is its last command's.
            self.assertEqual(vorndb("shell", stdin=line + "\n")[0], exit_code, line)
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

    def test_nested_scripts(self):
        inner = write("inner.txt", "set %s=0\nget Nope\n" % RBW)
        code, out, err = vorndb("run", write("outer.txt", "run %s\nget %s\n" % (inner, RBW)))
        self.assertEqual(code, UNKNOWN_NAME)
        self.assertIn("inner.txt:2: unknown name 'Nope'", err)
        self.assertEqual(err.count("unknown name"), 1)
        self.assertEqual(out.splitlines(), [RBW + " = eRBWTOVBW_10TO1 (0)"])


class ActivationTests(unittest.TestCase):
    def test_registered_class(self):
        registry = work_path("registered.reg")
        env = {"VORN_REGISTRY": registry}
        module = work_path("registered/libvorndb.so")
        os.makedirs(os.path.dirname(module), exist_ok=True)
        shutil.copy(ARGS.module, module)
        p = subprocess.run([ARGS.regsvr, "-s", module], env={**os.environ, **env}, capture_output=True, text=True)
        self.assertEqual(p.returncode, 0, p.stderr)
        code, out, err = vorndb("get", RBW, env=env)
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out, RBW + " = eRBWTOVBW_1TO10 (2)\n")
        # A registration whose module is gone: the module beside the tool.
        os.remove(module)
        code, out, err = vorndb("get", RBW, env=env)
        self.assertEqual((code, err), (OK, ""))

    def test_a_module_that_cannot_be_loaded(self):
        code, out, err = vorndb("get", RBW, env={"VORNDB_MODULE": write("notamodule.so", "text")})
        self.assertEqual((code, out), (FAILURE, ""))
        self.assertIn("cannot create the database object", err)
        self.assertIn("notamodule.so: cannot be loaded", err)


# ---------------------------------------------------------------------------
# settings: files written and read by the database
# ---------------------------------------------------------------------------
class SettingsTests(unittest.TestCase):
    def saved(self, name, *commands):
        path = work_path(name)
        script = "\n".join(list(commands) + ["save " + path]) + "\n"
        code, _, err = vorndb("run", "-", stdin=script)
        self.assertEqual(code, OK, err)
        return path

    def test_save_load_round_trip(self):
        path = self.saved("round.vdb", "set '%s=2.5 MHz' %s=0" % (FREQ, RBW))
        code, out, err = vorndb("dump", path)
        self.assertEqual((code, err), (OK, ""))
        self.assertIn("  UserSettings  size", out)
        code, out, err = vorndb("run", "-", stdin="load %s\nget %s %s\n" % (path, FREQ, RBW))
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out.splitlines()[1:], [FREQ + " = 2.5 MHz", RBW + " = eRBWTOVBW_10TO1 (0)"])

    def test_get_and_set_with_settings_file(self):
        path = self.saved("s.vdb")
        code, out, err = vorndb("set", "--settings", path, FREQ + "=1 GHz")
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(vorndb("get", "--settings", path, FREQ)[1], FREQ + " = 1 GHz\n")
        self.assertEqual(vorndb("get", FREQ)[1], FREQ + " = <invalid>\n")  # a fresh database
        code, out, _ = vorndb("tree", "--settings", path, FREQ)
        self.assertIn("1 GHz", out)
        code, out, _ = vorndb("diff", self.saved("fresh.vdb"), path)
        self.assertEqual(code, DIFFERENT)
        # An invalid real stores no unit: its limits are printed without one.
        self.assertIn("~ " + FREQ + ": <invalid> [20 .. 50000000000] -> 1 GHz [20 Hz .. 50 GHz]", out.splitlines())

    def test_nothing_is_written_unless_the_whole_command_succeeded(self):
        path = self.saved("keep.vdb", "set %s=0" % RBW)
        before = open(path, "rb").read()
        for args, exit_code in [([FREQ + "=1 GHz", RBW + "=7"], REJECTED),
                                ([FREQ + "=1 GHz", "Nope=1"], UNKNOWN_NAME),
                                ([FREQ + "=1 GHz", AUTOSCALE + "=perhaps"], REJECTED)]:
            code, _, _ = vorndb("set", "--settings", path, *args)
            self.assertEqual(code, exit_code, args)
            self.assertEqual(open(path, "rb").read(), before, args)
        self.assertEqual(sorted(os.listdir(ARGS.work)).count("keep.vdb"), 1)
        self.assertFalse(any(".tmp." in f for f in os.listdir(ARGS.work)))

    def test_bad_settings_files(self):
        code, _, err = vorndb("set", "--settings", work_path("missing.vdb"), FREQ + "=1 GHz")
        self.assertEqual(code, FILE_ERROR)
        self.assertFalse(os.path.exists(work_path("missing.vdb")))
        damaged = bytearray(open(self.saved("d.vdb"), "rb").read())
        damaged[8] = 0xFF  # inside the first child's size
        path = write("damaged.vdb", bytes(damaged))
        code, _, err = vorndb("set", "--settings", path, FREQ + "=1 GHz")
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("not a valid settings stream: at offset", err)
        self.assertEqual(open(path, "rb").read(), bytes(damaged))
        code, _, err = vorndb("get", "--settings", write("foreign.vdb", stream(group("NoSuchGroup", []))), FREQ)
        self.assertEqual(code, FILE_ERROR)
        self.assertIn("names no node of the tree", err)

    def test_a_group_file(self):
        path = work_path("pns.vdb")
        code, _, err = vorndb("run", "-", stdin="set %s=0\nsave %s %s\n" % (RBW, path, PNS))
        self.assertEqual(code, OK, err)
        code, out, err = vorndb("set", "--settings", path, RBW + "=1")
        self.assertEqual((code, err), (OK, ""))
        code, out, _ = vorndb("dump", path)
        self.assertIn("00000002  PhaseNoiseSettings  size", out)


GROUPS = {
    "files": [DumpTests, DiffTests, UsageTests, ScriptWithoutDatabaseTests],
    "database": [TreeTests, GetSetTests, DescribeTests, ScriptTests, ActivationTests],
    "settings": [SettingsTests],
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
