#!/usr/bin/env python3
"""vorndb --remote end to end: the same commands run by the tool on a database
of its own and, with --remote, against vorndbd on a private dbus-daemon (over
the bus and over the direct socket); standard output, standard error and the
exit code must be the same.

    test_remote.py --tool BIN --daemon BIN --module LIB --work DIR

Every case starts from a reset tree on both sides: scripts begin with
`reset`, and the daemon is reset before a single command (whose local run
starts from a fresh tree; those cases read parameters whose fresh and reset
values agree). Prints "SKIPPED: ..." and exits 0 when dbus-daemon is
missing.
"""
import argparse
import os
import shutil
import subprocess
import sys

from private_bus import PrivateBus

PNS = "UserSettings.PhaseNoiseSettings"
FREQ = PNS + ".SignalFreq"
RBW = PNS + ".RbwToVbw"
AUTOSCALE = PNS + ".Autoscale"
TOP = PNS + ".YAxisTop"
SCREEN = "DisplaySettings.ScreenTraceConfig"
TRACE = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0]"

# (name, command words or a script (a str))
CASES = [
    # First, while the daemon's tree has the history of a fresh one.
    ("the whole tree", "reset\ntree\n"),
    ("get values", ["get", FREQ, RBW, AUTOSCALE, TOP]),
    ("get a group", "reset\nget %s\n" % PNS),
    ("get an unknown name", ["get", PNS + ".SignalFrq"]),
    ("set and read back", ["set", FREQ + "=10 kHz", RBW + "=1TO10", AUTOSCALE + "=off"]),
    ("set an unchanged value", "reset\nset '%s=10 kHz'\nset '%s=10 kHz'\n" % (FREQ, FREQ)),
    ("set above the limit", ["set", FREQ + "=100 GHz"]),
    ("set text that is no value", ["set", FREQ + "=10 furlongs"]),
    ("set an unknown member", ["set", RBW + "=1TO7"]),
    ("set a group", ["set", PNS + "=1"]),
    ("set an array", "reset\nset '%s=1, 0'\nget %s\n" % (SCREEN, SCREEN)),
    ("set an array too long", "reset\nset '%s=1, 0, 1'\n" % SCREEN),
    ("tree of a group", ["tree", PNS, "--depth", "1"]),
    # The same history on both sides: a reset after a write leaves an array
    # valid and empty, where a fresh one is invalid.
    ("tree with arrays", "reset\nset '%s=1, 0'\nreset\ntree DisplaySettings --depth 1\n" % SCREEN),
    ("tree cuts long arrays",
     "reset\nset '%s.Y=1, 2, 3, 4, 5, 6, 7, 8, 9, 10'\ntree %s --depth 1\n" % (TRACE, TRACE)),
    ("tree of an unknown name", ["tree", "UserSetings"]),
    ("describe a parameter", ["describe", FREQ]),
    ("reset a node", "reset\nset '%s=10 kHz'\nreset %s\nget %s\n" % (FREQ, PNS, FREQ)),
    ("tables", "reset\ntables 0\n"),
    ("a failing script line", "reset\nget %s\nset %s=-5\nget %s\n" % (FREQ, FREQ, FREQ)),
    ("watch and wait", "reset\nwatch %s\nset '%s=2 kHz'\nwait\nunwatch %s\nunwatch\n" % (FREQ, FREQ, FREQ)),
    ("watch a group", "reset\nwatch %s\nset '%s=3 kHz'\nwait\nunwatch\n" % (PNS, FREQ)),
    ("save and load", "reset\nset '%s=7 kHz'\nsave {dir}/s.vds %s\nreset\nload {dir}/s.vds\nget %s\n"
     % (FREQ, PNS, FREQ)),
    ("load a damaged file", "reset\nload {dir}/damaged.vds\n"),
    ("export", "reset\nexport D:\\User\\out.csv --all-traces\n"),
    ("an export that cannot be written", "reset\nexport D:\\NoSuchDirectory\\x.csv\n"),
]

# Files a case writes, compared after each run but for their Date and Time
# lines.
WRITES = {"export": "drives/d/User/out.csv"}

# Commands with no remote meaning: (command words or a script, exit code,
# text in the message).
REMOTE_ONLY = [
    ("suppress\n", 2, "suppress: only for the tool's own database"),
    ("restart\n", 2, "restart: only for the tool's own database"),
    ("stats\n", 2, "stats: only for the tool's own database"),
    # The daemon writes exports only on its drives.
    ("export /tmp/x.csv\n", 4, "the daemon writes files only on its drives"),
    (["get", FREQ, "--settings", "x.vds"], 2, "--settings is not used with --remote"),
]

# Options that do not name one daemon: (options, text in the message).
OPTION_ERRORS = [
    (["--remote=tcp"], "--remote takes bus or socket, not 'tcp'"),
    (["--remote", "--address", "tcp:host=localhost,port=1"], "only unix: addresses"),
    (["--remote=socket", "--session"], "choose a bus, not the direct socket"),
    (["--remote=bus", "--socket", "/x"], "--socket names the direct socket"),
    (["--remote", "--bogus"], "unknown option '--bogus'"),
]


def run(tool, prefix, case, work, env):
    """(exit code, stdout, stderr) of one case."""
    words, stdin = (["run", "-"], case.replace("{dir}", work)) if isinstance(case, str) else (case, None)
    p = subprocess.run([tool] + prefix + words, input=stdin, capture_output=True, text=True, env=env, cwd=work,
                       timeout=120)
    return p.returncode, p.stdout, p.stderr


def watch_lines_apart(result):
    """The "watch:" lines sorted after the others: they come from the
    notification thread locally, at no fixed place between the command's own
    lines, and by batch in name order remotely."""
    code, out, err = result
    lines = out.splitlines()
    return code, [l for l in lines if not l.startswith("watch: ")] + sorted(
        l for l in lines if l.startswith("watch: ")), err


def content(work, name):
    """A written file's lines but its Date and Time; it is removed."""
    if not name or not os.path.exists(os.path.join(work, name)):
        return None
    with open(os.path.join(work, name)) as f:
        lines = [line for line in f if not line.startswith(("Date;", "Time;"))]
    os.remove(os.path.join(work, name))
    return lines


def main():
    parser = argparse.ArgumentParser()
    for option in ("--tool", "--daemon", "--module", "--work"):
        parser.add_argument(option, required=True)
    args = parser.parse_args()
    args.tool, args.daemon, args.module = (os.path.abspath(p) for p in (args.tool, args.daemon, args.module))
    if not shutil.which("dbus-daemon"):
        print("SKIPPED: dbus-daemon is not installed")
        return 0
    work = os.path.abspath(args.work)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(os.path.join(work, "drives", "d", "User"))
    env = dict(os.environ, VORNDB_MODULE=args.module, VORN_REGISTRY=os.path.join(work, "registry.reg"),
               XDG_CONFIG_HOME=os.path.join(work, "config"), XDG_STATE_HOME=os.path.join(work, "state"),
               VORN_DRIVES=os.path.join(work, "drives"))
    with open(os.path.join(work, "damaged.vds"), "wb") as f:
        f.write(b"\x01\x50\x07\x00abc")
    daemon = PrivateBus(work, args.daemon, args.module, env, bus_stderr=subprocess.DEVNULL)
    paths = {"bus": ["--remote", "--address", daemon.address], "socket": ["--remote=socket", "--socket", daemon.socket]}
    failures = []
    try:
        for name, case in CASES:
            local = run(args.tool, [], case, work, env)
            written = content(work, WRITES.get(name))
            for path, prefix in paths.items():
                if not isinstance(case, str):
                    run(args.tool, prefix, "reset\n", work, env)
                remote = run(args.tool, prefix, case, work, env)
                expected = local
                if isinstance(case, str) and "\nwatch " in case:
                    expected, remote = watch_lines_apart(local), watch_lines_apart(remote)
                if content(work, WRITES.get(name)) != written:
                    failures.append("%s (%s): %s differs" % (name, path, WRITES[name]))
                if remote != expected:
                    failures.append("%s (%s):\n  local  %r\n  remote %r" % (name, path, local, remote)
                                    if len(repr(local)) < 4000 else "%s (%s): the outputs differ" % (name, path))
            print("ok: %s (exit %d)" % (name, local[0]))
        for case, code, text in REMOTE_ONLY:
            for path, prefix in paths.items():
                got, _, err = run(args.tool, prefix, case, work, env)
                if got != code or text not in err:
                    failures.append("%r (%s): exit %d, stderr %r; expected exit %d with %r"
                                    % (case, path, got, err, code, text))
        for argv, text in OPTION_ERRORS:
            code, _, err = run(args.tool, argv, ["get", FREQ], work, env)
            if code != 2 or text not in err:
                failures.append("%s: exit %d, stderr %r; expected exit 2 with %r" % (argv, code, err, text))
        # A daemon that is not there is named with the place looked at.
        none = os.path.join(work, "none")
        code, _, err = run(args.tool, ["--remote=socket", "--socket", none], ["get", FREQ], work, env)
        if code != 1 or "cannot connect to vorndbd on the socket " + none not in err:
            failures.append("no daemon: exit %d, stderr %r" % (code, err))
    finally:
        if not daemon.stop():
            failures.append("vorndbd or dbus-daemon did not end within 30 s of SIGTERM")
    for f in failures:
        print("FAILED: " + f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
