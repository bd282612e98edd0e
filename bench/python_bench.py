"""What the Python client (python/vorndb) costs against vorndbd.

    /usr/bin/python3 bench/python_bench.py [--build DIR] [--count N] [--seconds S]
    /usr/bin/python3 bench/python_bench.py --address BUS [--direct SOCKET] ...

Without --address it starts a private dbus-daemon and vorndbd from DIR
(default build/default) and stops them at the end. Measures, on the bus and
on the direct socket:

- get and set of one real: median and p99 of N single calls (a set
  alternates two values, so every call writes);
- trace read: 51,200 reals (400 KB) written to a real array once, then read
  N/10 times with trace() (GetTrace, a sealed memfd) and, for comparison,
  with get() (the same values as `ad`);
- notifications: one Python watcher on the real parameters a second
  process writes with SetMany (all of them per call, two values
  alternating) for S seconds; the figure is changes delivered to the
  callback per second of writing. The daemon coalesces per watcher, so what
  the watcher cannot take becomes fewer, later changes, never stale ones:
  after the writer stops, every watched value must equal a fresh GetMany.
  The watcher's CPU time gives what it could take if the daemon wrote
  faster (changes per second of its CPU). A second run lets the watcher not
  read for 60% of the writing time, which on the direct socket must show up
  as gaps (the daemon's overrun) and still end with every value right.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "python"), os.path.join(HERE, "..", "tests", "service")]
import dbus  # noqa: E402
import vorndb  # noqa: E402
from private_bus import PrivateBus  # noqa: E402

REAL = "UserSettings.PhaseNoiseSettings.SignalFreq"
TRACE = "MeasurementResults.PhaseNoiseResults.SweepPoints"
TRACE_POINTS = 51200


def figures(samples):
    samples = sorted(samples)
    return statistics.median(samples), samples[min(len(samples) - 1, int(len(samples) * 0.99))]


def timed(count, action):
    out = []
    for i in range(count):
        start = time.perf_counter_ns()
        action(i)
        out.append((time.perf_counter_ns() - start) / 1000.0)
    return figures(out)


def latency(db, count):
    db.set(REAL, 1e6)
    rows = [("get one real", timed(count, lambda i: db.get(REAL)))]
    rows.append(("set one real", timed(count, lambda i: db.set(REAL, 1e6 + (i & 1) * 1e3))))
    points = [float(i) for i in range(TRACE_POINTS)]
    if has_trace(db):
        db.set_trace(TRACE, points)
        rows.append(("trace 51,200 reals (GetTrace)", timed(max(10, count // 10), lambda i: db.trace(TRACE))))
    else:
        db.set(TRACE, points)
    rows.append(("51,200 reals as ad (Get)", timed(max(10, count // 10), lambda i: db.get(TRACE))))
    return rows


def has_trace(db):
    try:
        db.trace(TRACE)
        return True
    except vorndb.VorndbError as e:
        if e.name == "org.freedesktop.DBus.Error.UnknownMethod":
            return False
        raise


def writable_reals(db):
    """Reals that take two values inside their limits; two rounds of SetMany drop
    the ones a rule refuses once others changed."""
    chosen = []
    for name, family in db.list("", 0):
        if family != "real" or len(chosen) >= 4096:
            continue
        described = db.describe(name)
        low, high = described.get("Minimum"), described.get("Maximum")
        if low is None or high is None or not high > low:
            continue
        pair = (low + (high - low) * 0.25, low + (high - low) * 0.75)
        try:
            if db.set(name, pair[0]) and db.set(name, pair[1]):
                chosen.append((name, pair))
        except vorndb.VorndbError:
            pass
    for _ in range(4):
        refused = set()
        for side in (0, 1, 0):
            items = [(n, p[side]) for n, p in chosen if n not in refused]
            done = db.set_many(items)
            refused.update(n for (n, _), (r, _) in zip(items, done) if r < 0)
            if len(done) < len(items) and not done[-1][0] < 0:
                refused.add(items[len(done)][0])
        if not refused:
            break
        chosen = [(n, p) for n, p in chosen if n not in refused]
    return chosen


def writer(address, seconds, pairs_file):
    """The second process: SetMany of every pair, alternating sides, for `seconds`."""
    pairs = []
    with open(pairs_file) as f:
        for line in f:
            name, a, b = line.split()
            pairs.append((name, (float(a), float(b))))
    db = vorndb.connect(address=address, peer=True)
    # The two calls are marshalled once; the loop only sends them.
    calls = [dbus.Array([dbus.Struct((dbus.String(n), dbus.Double(p[side], variant_level=1)), signature="sv")
                         for n, p in pairs], signature="(sv)") for side in (0, 1)]
    method = db.connection.get_object(None, vorndb.OBJECT_PATH, introspect=False).get_dbus_method(
        "SetMany", vorndb.INTERFACE)
    end = time.monotonic() + seconds
    done = 0
    while time.monotonic() < end:
        method(calls[done & 1])
        done += 1
    print(done * len(pairs))


def notifications(watch_address, peer, direct, pairs_file, names, seconds, stall):
    db = vorndb.connect(address=watch_address, peer=peer)
    latest = {}
    delivered = [0]

    def changed(name, value):
        latest[name] = value
        delivered[0] += 1

    db.watch(names, changed)
    delivered[0] = 0
    process = subprocess.Popen([sys.executable, os.path.abspath(__file__), "--writer", direct, str(seconds),
                                pairs_file], stdout=subprocess.PIPE, text=True)
    start = time.monotonic()
    cpu = time.process_time()
    stalled = False
    while process.poll() is None:
        if stall and not stalled and time.monotonic() - start > seconds * 0.2:
            time.sleep(seconds * 0.6)
            stalled = True
        db.process(0.05)
    elapsed = time.monotonic() - start
    cpu = time.process_time() - cpu
    written = int(process.stdout.read() or 0)
    process.stdout.close()
    # Drain what is still coming, then compare with the daemon's values.
    while db.process(0.3):
        pass
    during = delivered[0]
    fresh = {n: v for n, (_, _, v) in zip(names, db.get_many(names))}
    wrong = sum(1 for n in names if latest.get(n) != fresh[n])
    stats = db.watch_stats
    db.close()
    return during / elapsed, written / elapsed, during / cpu if cpu else 0.0, stats, wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build", "default"))
    parser.add_argument("--address", help="a running daemon's bus (the private one is started otherwise)")
    parser.add_argument("--direct", help="with --address: the daemon's direct socket (unix:path=...)")
    parser.add_argument("--count", type=int, default=2000, help="calls per latency figure")
    parser.add_argument("--seconds", type=float, default=3.0, help="writing time per notification run")
    parser.add_argument("--only", choices=("latency", "notifications"), help="one part only")
    parser.add_argument("--writer", nargs=3, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.writer:
        writer(args.writer[0], float(args.writer[1]), args.writer[2])
        return 0

    work = daemon = None
    if args.address:
        bus, direct = args.address, args.direct
    else:
        build = os.path.abspath(args.build)
        work = tempfile.mkdtemp(prefix="vorndb-pybench-")
        daemon = PrivateBus(work, os.path.join(build, "bin", "vorndbd"), os.path.join(build, "lib", "libvorndb.so"),
                            rules='<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/>'
                                  '<allow own="*"/></policy>')
        bus, direct = daemon.address, daemon.direct
    try:
        print("%-34s %10s %10s" % ("", "median us", "p99 us"))
        for label, address, peer in (("bus", bus, False), ("direct", direct, True)):
            if address is None or args.only == "notifications":
                continue
            with vorndb.connect(address=address, peer=peer) as db:
                for what, (median, p99) in latency(db, args.count):
                    print("%-34s %10.1f %10.1f" % ("%s: %s" % (label, what), median, p99))
        if args.only == "latency":
            return 0
        if direct is None:
            print("notifications: need the direct socket for the writer (--direct)")
            return 0
        with vorndb.connect(address=bus) as db:
            pairs = writable_reals(db)
        names = [n for n, _ in pairs]
        with tempfile.NamedTemporaryFile("w", suffix=".pairs", delete=False) as f:
            for n, (a, b) in pairs:
                f.write("%s %r %r\n" % (n, a, b))
        try:
            print("notifications: %d reals written by SetMany from a second process on the direct socket"
                  % len(names))
            for label, address, peer in (("bus", bus, False), ("direct", direct, True)):
                for stall in (False, True):
                    rate, writes, capacity, stats, wrong = notifications(address, peer, direct, f.name, names,
                                                                         args.seconds, stall)
                    print("  watcher on %-6s%-9s %7.0f changes/s delivered, %7.0f written/s, %7.0f per watcher CPU"
                          " second; batches %d, gaps %d (overruns %d), wrong at the end %d" %
                          (label, ", stalled" if stall else "", rate, writes, capacity, stats["batches"],
                           stats["gaps"], stats["overruns"], wrong))
        finally:
            os.unlink(f.name)
    finally:
        if daemon:
            daemon.stop()
        if work:
            shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
