"""The Python client (python/vorndb) against vorndbd on a private bus.

    test_python_client.py VORNDBD MODULE PYTHON_DIR [CMAKE BUILD_DIR]

Starts a private dbus-daemon and vorndbd (waiting for READY=1 on a notify
socket of its own), then drives the client: typed reads and writes with
units and enumeration names, a refused write, describe and list, the
direct socket, watching, traces, and `python3 -m vorndb`, also as installed
by `cmake --install BUILD_DIR --component python` when CMAKE and BUILD_DIR
are given. Prints SKIPPED when python3-dbus or dbus-daemon is missing.
"""

import array
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

try:
    import dbus  # noqa: F401
except ImportError as e:
    print("SKIPPED: python3-dbus is not importable by %s (%s)" % (sys.executable, e))
    sys.exit(0)
if shutil.which("dbus-daemon") is None:
    print("SKIPPED: dbus-daemon not found")
    sys.exit(0)

VORNDBD, MODULE, PYTHON_DIR = sys.argv[1:4]
CMAKE, BUILD_DIR = sys.argv[4:6] if len(sys.argv) >= 6 else (None, None)
del sys.argv[1:6 if CMAKE else 4]
sys.path.insert(0, PYTHON_DIR)
import vorndb  # noqa: E402
from private_bus import OPEN_POLICY, PrivateBus  # noqa: E402

FREQ = "UserSettings.PhaseNoiseSettings.SignalFreq"  # real, Hz, 20 Hz .. 50 GHz
RBW = "UserSettings.PhaseNoiseSettings.RbwToVbw"  # enumeration eRBWTOVBW, 0 .. 2
TRACE = "MeasurementResults.PhaseNoiseResults.SweepPoints"  # real array, at most 102400
COLORS = "EquipSettings.BaseColors"  # integer array, at most 64

work = bus_address = direct_address = None


def setUpModule():
    global work, bus_address, direct_address
    work = tempfile.mkdtemp(prefix="vorndb-pyclient-")
    unittest.addModuleCleanup(shutil.rmtree, work, ignore_errors=True)
    # Its complaints (signals dropped for the stalled watcher) go to a file.
    with open(os.path.join(work, "bus.log"), "w") as log:
        daemon = PrivateBus(work, VORNDBD, MODULE, env={"VORN_DRIVES": os.path.join(work, "drives")},
                            rules=OPEN_POLICY + '<limit name="max_outgoing_bytes">4000000</limit>', bus_stderr=log)
    unittest.addModuleCleanup(daemon.stop, 10)
    bus_address, direct_address = daemon.address, daemon.direct


class ClientTest(unittest.TestCase):
    def setUp(self):
        self.db = vorndb.connect(address=bus_address)
        self.addCleanup(self.db.close)

    # Values by family: text with units and enumeration names is read by the
    # daemon, numbers go with the family's type, reads come back typed.
    def test_reads_and_writes(self):
        db = self.db
        db[FREQ] = "10 kHz"
        self.assertEqual(db[FREQ], 10e3)
        self.assertIsInstance(db[FREQ], float)
        self.assertEqual(db.text(FREQ), ("10 kHz", "valid", "[20 Hz .. 50 GHz]"))
        self.assertTrue(db.set(FREQ, 1.5e6))
        self.assertEqual(db.text(FREQ)[0], "1.5 MHz")
        self.assertFalse(db.set(FREQ, "1.5 MHz"))  # S_FALSE: unchanged
        db[FREQ] = 2000  # an int for a real goes as a double
        self.assertEqual(db.text(FREQ)[0], "2 kHz")

        members = dict(db.describe(RBW)["Members"])
        for member, value in members.items():
            db[RBW] = member
            self.assertEqual(db[RBW], value)
            self.assertIsInstance(db[RBW], int)
            self.assertEqual(db.text(RBW)[0], "%s (%d)" % (member, value))
        first = min(members.values())
        db[RBW] = first
        self.assertEqual(db[RBW], first)

    # A refused call is a VorndbError with the daemon's error name and reason,
    # and leaves the value as it was.
    def test_refusals(self):
        db = self.db
        db[FREQ] = "2 MHz"
        cases = [
            (FREQ, "100 GHz", "io.vorndb.Error.InvalidArgument", "100 GHz is above the upper limit 50 GHz"),
            (FREQ, 100e9, "io.vorndb.Error.InvalidArgument", "above the upper limit"),
            ("UserSettings.PhaseNoiseSettings.SignalFrq", "1 kHz", "io.vorndb.Error.UnknownName", FREQ),
        ]
        before = db.text(RBW)
        for name, value, error, reason in cases:
            with self.subTest(name=name, value=value):
                with self.assertRaises(vorndb.VorndbError) as raised:
                    db[name] = value
                self.assertEqual(raised.exception.name, error)
                self.assertIn(reason, raised.exception.reason)
                self.assertEqual(raised.exception.short_name, error.rsplit(".", 1)[1])
        self.assertEqual(db[FREQ], 2e6)
        self.assertEqual(db.text(RBW), before)
        with self.assertRaises(vorndb.VorndbError) as raised:
            db["UserSettings.NoSuchThing"]
        self.assertEqual(raised.exception.name, "io.vorndb.Error.UnknownName")

    def test_describe_and_list(self):
        db = self.db
        described = db.describe(FREQ)
        self.assertEqual((described["Name"], described["Family"], described["Unit"]), (FREQ, "real", "Hz"))
        self.assertEqual((described["Minimum"], described["Maximum"]), (20.0, 50e9))
        self.assertEqual(sorted(v for _, v in db.describe(RBW)["Members"]), [0, 1, 2])
        self.assertIn(("UserSettings", "group"), db.list("", 1))
        self.assertIn((FREQ, "real"), db.list("UserSettings.PhaseNoiseSettings", 1))
        self.assertIn((FREQ, "real"), db.list("UserSettings", 0))
        self.assertNotIn((FREQ, "real"), db.list("UserSettings", 1))

    # Reset gives the parameter its default back.
    def test_reset(self):
        db = self.db
        db.reset(FREQ)
        default = db.text(FREQ)
        db[FREQ] = "7 kHz" if default[0] != "7 kHz" else "8 kHz"
        self.assertTrue(db.reset(FREQ))
        self.assertEqual(db.text(FREQ), default)

    # The direct socket serves the same object without a bus; each new
    # connection's first call comes in the packet that ends its
    # authentication, which the daemon must not leave unread.
    def test_direct_socket(self):
        for i in range(10):
            with vorndb.connect(address=direct_address, peer=True) as direct:
                direct[FREQ] = 3e3 + i
                self.assertEqual(self.db[FREQ], 3e3 + i)
                self.assertEqual(direct.text(FREQ)[0], "3.00%d kHz" % i if i else "3 kHz")

    def test_get_many_and_set_many(self):
        db = self.db
        self.assertEqual(db.set_many([(FREQ, "5 kHz"), (RBW, 1)]), [(0, ""), (0, "")])
        self.assertEqual([(r, v) for r, _, v in db.get_many([FREQ, RBW])], [(0, 5e3), (0, 1)])
        # The first refusal stops the call: the item after it is not tried.
        done = db.set_many([(FREQ, "6 kHz"), (RBW, 3), (FREQ, "7 kHz")])
        self.assertEqual(len(done), 2)
        self.assertLess(done[1][0], 0)
        self.assertIn("3 is not a member", done[1][1])
        self.assertEqual(db[FREQ], 6e3)
        with self.assertRaises(vorndb.VorndbError) as raised:
            db.set_many([(FREQ, "8 kHz"), ("UserSettings.NoSuchThing", 1.0)])
        self.assertEqual(raised.exception.short_name, "UnknownName")
        self.assertEqual(db[FREQ], 6e3)

    # A watcher on the bus and one on the direct socket get the current value
    # at once, every change another connection makes, and nothing after
    # unwatch.
    def test_watch(self):
        for label, address, peer in (("bus", bus_address, False), ("direct", direct_address, True)):
            with self.subTest(label), vorndb.connect(address=address, peer=peer) as watcher:
                self.db[FREQ] = "1 kHz"
                seen = []
                watcher.watch([FREQ, RBW], lambda name, value: seen.append((name, value)))
                self.assertEqual(seen, [(FREQ, 1e3), (RBW, self.db[RBW])])
                del seen[:]
                for value in (2e3, 3e3, 4e3):
                    self.db[FREQ] = value
                self.assertTrue(watcher.wait_for(lambda: (FREQ, 4e3) in seen, 10), seen)
                # Changes made before a batch is drained travel as the latest
                # one: the values come in the order written, the last last
                # (a value may come twice, when a change arrives as its batch
                # is read).
                values = [v for n, v in seen if n == FREQ]
                self.assertEqual(values, sorted(values))
                self.assertTrue(set(values) <= {2e3, 3e3, 4e3}, values)
                watcher.unwatch(FREQ)
                self.db[FREQ] = 5e3
                self.db[RBW] = (self.db[RBW] + 1) % 3
                self.assertTrue(watcher.wait_for(lambda: seen[-1][0] == RBW, 10), seen)
                self.assertNotIn((FREQ, 5e3), seen)
                self.assertEqual(watcher.watch_stats["gaps"], 0)
                for call, names, error in ((watcher.unwatch, FREQ, "NotWatched"),
                                           (watcher.watch, "UserSettings.NoSuchThing", "UnknownName"),
                                           (watcher.watch, "UserSettings", "WrongType")):
                    with self.assertRaises(vorndb.VorndbError) as raised:
                        call(names, lambda *_: None)
                    self.assertEqual(raised.exception.short_name, error)

    # A watcher that does not read while many large batches are sent (48 MB)
    # finds the gap and reads every watched name again, so its values end up
    # the daemon's. On the direct socket the daemon holds batches back beyond
    # the 8 MB socket buffer sd-bus asks for and 64 queued ones and marks the
    # next one overrun; on the bus the bus daemon drops what exceeds the
    # watcher's 4 MB outgoing limit (bus.conf), which only the sequence
    # numbers tell.
    def test_gap_reread(self):
        points = [float(i) for i in range(20000)]
        for label, address, peer, stat in (("direct", direct_address, True, "overruns"),
                                           ("bus", bus_address, False, "gaps")):
            with self.subTest(label), vorndb.connect(address=address, peer=peer) as watcher:
                seen = {}
                watcher.watch([FREQ, TRACE], seen.__setitem__)
                with vorndb.connect(address=direct_address, peer=True) as writer:
                    for i in range(300):
                        points[0] = float(i)
                        writer[TRACE] = points
                        # Each write its own batch, however slow the machine:
                        # the wait answers once the change has gone out.
                        writer.invoke("WaitForNotifications", "u", 10000)
                    writer[FREQ] = 12345.0 + len(label)
                self.assertTrue(watcher.wait_for(
                    lambda: seen[FREQ] == 12345.0 + len(label) and seen[TRACE][0] == 299.0, 30))
                self.assertEqual(seen[TRACE], points)
                stats = watcher.watch_stats
                self.assertGreaterEqual(stats[stat], 1, stats)

    # Traces travel in a sealed memfd both ways, in the order written, with
    # the element type of the family; a refusal names the parameter and limit.
    def test_trace_round_trip(self):
        db = self.db
        for name, values, typecode in ((TRACE, [0.5 * i for i in range(51200)], "d"), (TRACE, [], "d"),
                                       (COLORS, [1, 2, 0xFFFFFFFF], "I")):
            with self.subTest(name=name, count=len(values)):
                db.set_trace(name, values)
                read = db.trace(name)
                if hasattr(read, "ravel"):
                    read = array.array(typecode, read.ravel().tobytes())
                self.assertEqual((read.typecode, read.tolist()), (typecode, values))
                self.assertEqual(db[name], values)
        for name, values, error, reason in (
                (TRACE, [1.0] * 102401, "InvalidArgument", "count 102401 is beyond the capacity 102400 (%s)" % TRACE),
                (COLORS, [-1], "InvalidValue", COLORS + ": not a trace of type u"),
                (COLORS, [1, 2, 3, 4], "InvalidValue", "takes a trace of the shape [count], not [2, 2]"),
                (FREQ, [1.0], "WrongType", FREQ + ": a real parameter has no trace")):
            with self.subTest(name=name, count=len(values)):
                with self.assertRaises(vorndb.VorndbError) as raised:
                    db.set_trace(name, values, shape=[2, 2] if len(values) == 4 else None)
                self.assertEqual(raised.exception.short_name, error)
                self.assertIn(reason, raised.exception.reason)
        self.assertEqual(db[COLORS], [1, 2, 0xFFFFFFFF])

    def run_tool(self, *args, path=PYTHON_DIR):
        return subprocess.run([sys.executable, "-m", "vorndb", "--address", bus_address] + list(args),
                              env=dict(os.environ, PYTHONPATH=path), capture_output=True, text=True, timeout=60)

    def test_command_line(self):
        run = self.run_tool

        out = run("set", FREQ + "=250 kHz")
        self.assertEqual((out.returncode, out.stdout, out.stderr), (0, FREQ + " = 250 kHz\n", ""))
        out = run("set", FREQ + "=250 kHz")
        self.assertEqual(out.stdout, FREQ + " = 250 kHz (unchanged)\n")
        out = run("get", FREQ)
        self.assertEqual((out.returncode, out.stdout), (0, FREQ + " = 250 kHz\n"))
        out = run("set", FREQ + "=100 GHz")
        self.assertEqual((out.returncode, out.stdout), (4, ""))
        self.assertIn("vorndb: %s: value '100 GHz' rejected: InvalidArgument: 100 GHz is above" % FREQ, out.stderr)
        self.assertIn("limits [20 Hz .. 50 GHz]", out.stderr)
        out = run("get", "UserSettings.PhaseNoiseSettings.SignalFrq")
        self.assertEqual((out.returncode, out.stdout), (3, ""))
        self.assertIn(FREQ, out.stderr)
        out = run("get", "UserSettings.PhaseNoiseSettings")
        self.assertEqual(out.returncode, 0)
        self.assertIn(FREQ + " = 250 kHz\n", out.stdout)
        self.assertTrue(all(" = " in line for line in out.stdout.splitlines()))

    # describe, list, tree, reset and watch; the package as installed.
    def test_more_commands(self):
        run = self.run_tool
        out = run("describe", RBW)
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn("Family: integer\n", out.stdout)
        self.assertIn("Members: eRBWTOVBW_10TO1 (0), eRBWTOVBW_1TO1 (1), eRBWTOVBW_1TO10 (2)\n", out.stdout)
        out = run("list", "UserSettings.PhaseNoiseSettings")
        self.assertIn("%s real\n" % FREQ, out.stdout)
        out = run("tree", "UserSettings")
        lines = out.stdout.splitlines()
        self.assertIn("  SignalFreq real", lines[lines.index("PhaseNoiseSettings group"):])
        self.assertEqual(run("list", "--depth", "-1").returncode, 2)
        self.db[FREQ] = "9 kHz"
        out = run("reset", FREQ)
        self.assertEqual((out.returncode, out.stdout), (0, FREQ + " reset\n"))
        self.assertNotEqual(self.db.text(FREQ)[0], "9 kHz")

        self.db[FREQ] = "1 kHz"
        watcher = subprocess.Popen([sys.executable, "-m", "vorndb", "--address", bus_address, "watch", FREQ,
                                    "--count", "1"], env=dict(os.environ, PYTHONPATH=PYTHON_DIR),
                                   stdout=subprocess.PIPE, text=True)
        self.assertEqual(watcher.stdout.readline(), FREQ + " = 1000.0\n")
        self.db[FREQ] = "2 kHz"
        self.assertEqual(watcher.communicate(timeout=30)[0], FREQ + " = 2000.0\n")
        self.assertEqual(watcher.returncode, 0)

        if not CMAKE:
            return
        prefix = os.path.join(work, "install")
        subprocess.run([CMAKE, "--install", BUILD_DIR, "--prefix", prefix, "--component", "python"], check=True,
                       capture_output=True, timeout=60)
        out = run("get", FREQ, path=os.path.join(prefix, "lib", "python3", "dist-packages"))
        self.assertEqual((out.returncode, out.stdout, out.stderr), (0, FREQ + " = 2 kHz\n", ""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
