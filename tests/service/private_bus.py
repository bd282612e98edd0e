"""A private dbus-daemon and vorndbd on it, for the tests of the tool's
--remote and of the Python client, and for bench/python_bench.py.

    daemon = PrivateBus(work, vorndbd, module, env={"VORN_DRIVES": ...})
    daemon.address        # the bus (unix:path=WORK/bus)
    daemon.socket         # the direct socket's path (WORK/direct)
    daemon.direct         # the same as an address (unix:path=WORK/direct)
    daemon.stop()
"""

import os
import socket
import subprocess

# Anyone may send, eavesdrop and own a name.
OPEN_POLICY = ('<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>'
               '<allow own="*"/></policy>')


class PrivateBus:
    """dbus-daemon on WORK/bus with `rules` (policy and limits) in its
    configuration, and vorndbd from `vorndbd` with the database of `module`
    on that bus and on WORK/direct; returns once vorndbd reported READY=1 on
    a notify socket of its own. `env` adds to the environment of vorndbd,
    `bus_stderr` is where dbus-daemon's complaints go (Popen's stderr)."""

    def __init__(self, work, vorndbd, module, env=None, rules=OPEN_POLICY, bus_stderr=None):
        self.bus = self.daemon = None
        self.socket = os.path.join(work, "direct")
        self.direct = "unix:path=" + self.socket
        config = os.path.join(work, "bus.conf")
        with open(config, "w") as f:
            f.write('<busconfig><type>session</type><listen>unix:path=%s</listen><auth>EXTERNAL</auth>%s'
                    '</busconfig>\n' % (os.path.join(work, "bus"), rules))
        notify_path = os.path.join(work, "notify")
        try:
            self.bus = subprocess.Popen(["dbus-daemon", "--config-file=" + config, "--nofork", "--print-address"],
                                        stdout=subprocess.PIPE, stderr=bus_stderr, text=True)
            self.address = self.bus.stdout.readline().strip()
            if not self.address:
                raise RuntimeError("dbus-daemon printed no address")
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
                notify.bind(notify_path)
                notify.settimeout(60)
                self.daemon = subprocess.Popen(
                    [vorndbd, "--address", self.address, "--socket", self.socket],
                    env={**os.environ, **(env or {}), "NOTIFY_SOCKET": notify_path, "VORNDB_MODULE": module,
                         "VORN_REGISTRY": os.path.join(work, "registry.reg")})
                message = notify.recv(256).decode()
            if "READY=1" not in message:
                raise RuntimeError("vorndbd did not report READY=1: %r" % message)
        except BaseException:
            self.stop()
            raise

    def stop(self, timeout=30):
        """Ends vorndbd, then dbus-daemon, with SIGTERM, or SIGKILL when one is
        still running after `timeout` seconds; False when one had to be killed."""
        stopped = True
        for process in (self.daemon, self.bus):
            if process and process.poll() is None:
                process.terminate()
                try:
                    process.wait(timeout)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
                    stopped = False
        if self.bus:
            self.bus.stdout.close()
        return stopped
