"""The Database object: the methods of io.vorndb.Database1 with Python values."""

import os

import dbus

from . import _trace
from ._values import BUS_NAME, ERROR_PREFIX, INTERFACE, OBJECT_PATH, VorndbError, call, python_value
from ._watch import Watches


class Database:
    """One connection to the daemon's database object."""

    def __init__(self, connection, bus_name=BUS_NAME, mainloop=None):
        self._connection = connection
        self.bus_name = bus_name
        self.mainloop = mainloop
        self._families = {}
        self._watches = Watches(self)

    @property
    def connection(self):
        return self._connection

    def invoke(self, method, signature, *args):
        """Calls `method` of the database object with `args` marshalled by `signature`;
        a D-Bus error is raised as VorndbError."""
        return call(self._connection.call_blocking, self.bus_name, OBJECT_PATH, INTERFACE, method, signature, args)

    def close(self):
        self._watches.close()
        self._connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # Reading

    def __getitem__(self, name):
        return self.get(name)

    def get(self, name):
        """The typed value; an invalid value raises VorndbError InvalidData."""
        return python_value(self.invoke("Get", "s", name))

    def text(self, name):
        """(value, status, limits) as the tool prints them: ("1.5 MHz", "valid", "[20 Hz .. 50 GHz]")."""
        value, status, limits = self.invoke("GetText", "s", name)
        return str(value), str(status), str(limits)

    def get_many(self, names):
        """Per name (result, reason, value); value is None where the read failed."""
        out = []
        for result, reason, value in self.invoke("GetMany", "as", names):
            out.append((int(result), str(reason), python_value(value) if int(result) >= 0 else None))
        return out

    def describe(self, name):
        """The daemon's description as a dict: Name, Family, Status, Unit, Minimum, Maximum,
        Enumeration, Members (list of (name, value)), Size, MaxSize where they apply."""
        described = python_value(self.invoke("Describe", "s", name))
        self._families[name] = described["Family"]
        return described

    def list(self, name="", depth=1):
        """[(full name, family)] of the nodes below `name`, `depth` levels down (0: all)."""
        nodes = [(str(n), str(f)) for n, f in self.invoke("List", "su", name, depth)]
        for n, f in nodes:
            self._families[n] = f
        return nodes

    # Writing

    def __setitem__(self, name, value):
        self.set(name, value)

    def set(self, name, value):
        """Writes; True when the value changed (S_OK), False when it was already so (S_FALSE)."""
        return int(self.invoke("Set", "sv", name, self._variant(name, value))) == 0

    def set_many(self, items):
        """Writes (name, value) pairs in order; [(result, reason)] per item tried."""
        if isinstance(items, dict):
            items = items.items()
        array = dbus.Array([dbus.Struct((dbus.String(n), self._variant(n, v)), signature="sv") for n, v in items],
                           signature="(sv)")
        return [(int(r), str(reason)) for r, reason in self.invoke("SetMany", "a(sv)", array)]

    def reset(self, name=""):
        """Resets the node (`""`: the whole database); True when it changed."""
        return int(self.invoke("Reset", "s", name)) == 0

    # Traces

    def trace(self, name):
        """The values of a real array, integer array or buffer: a numpy array of the
        daemon's shape when numpy is importable, else a flat array.array ('d', 'I', 'f')."""
        kind, shape, data = self.invoke("GetTrace", "s", name)
        return _trace.read(name, kind, shape, data.take())

    def set_trace(self, name, values, shape=None):
        """Writes a real array, integer array or buffer from a sequence, an array.array
        or a numpy array; `shape` [count] or [rows, valuesPerRow] (default: the
        array's own). True when the value changed (S_OK), False when it was already so."""
        family = self.family(name)
        if family not in _trace.FAMILY_TYPES:
            raise VorndbError(ERROR_PREFIX + "WrongType", "%s: a %s parameter has no trace" % (name, family))
        fd, shape = _trace.sealed(name, _trace.FAMILY_TYPES[family], values, shape)
        try:
            data = dbus.types.UnixFd(fd)
        finally:
            os.close(fd)
        return int(self.invoke("SetTrace", "sath", name, shape, data)) == 0

    # Watching (_watch.py)

    def watch(self, names, callback):
        """Calls callback(name, value) with the current value of each name now, and
        with every change from then on (None for an invalid value), as batches are
        processed: by process()/wait_for(), or by the caller's GLib main loop. After
        a lost or held-back batch every watched name is read again and called back."""
        self._watches.watch(names, callback)

    def unwatch(self, names, callback=None):
        """Stops calling `callback` (None: every callback) for the names; a name no
        callback is left for is no longer watched."""
        self._watches.unwatch(names, callback)

    def process(self, timeout=0.0):
        """Handles the batches received; waits up to `timeout` seconds for one if none
        has come. Returns the number of batches handled."""
        return self._watches.process(timeout)

    def wait_for(self, predicate, timeout=None):
        """Processes batches until predicate() is true (True) or `timeout` seconds
        passed (False)."""
        return self._watches.wait_for(predicate, timeout)

    def sync(self):
        """Makes sure no batch was lost unseen: asks the daemon which batch it sent
        last, handles the batches before it, and reads every watched name again when
        one never came. process() does this by itself after a burst of batches."""
        self._watches.sync()

    @property
    def watch_stats(self):
        """Batches handled, changes delivered, gaps (lost or held-back batches, each
        followed by a re-read of every watched name), and overruns among those gaps."""
        w = self._watches
        return {"batches": w.batches, "changes": w.changes, "gaps": w.gaps, "overruns": w.overruns}

    def family(self, name):
        if name not in self._families:
            self.describe(name)
        return self._families[name]

    def _variant(self, name, value):
        """The value with the D-Bus type of its family. Text goes as `s` (the daemon reads it);
        a number or list takes the type of the parameter's family."""
        if isinstance(value, str):
            return dbus.String(value, variant_level=1)
        if isinstance(value, bool):
            return dbus.Boolean(value, variant_level=1)
        family = self.family(name)
        if isinstance(value, (int, float)):
            if family == "real":
                return dbus.Double(value, variant_level=1)
            if family == "integer" and isinstance(value, int):
                return dbus.UInt32(value, variant_level=1)
            if family == "boolean" and isinstance(value, int):
                return dbus.Boolean(value, variant_level=1)
        elif isinstance(value, (list, tuple)):
            if family == "real-array":
                return dbus.Array([float(v) for v in value], signature="d", variant_level=1)
            if family == "int-array":
                return dbus.Array([int(v) for v in value], signature="u", variant_level=1)
        raise VorndbError(ERROR_PREFIX + "WrongType",
                          "%s: a %s value for a %s parameter" % (name, type(value).__name__, family))


def _main_loop():
    try:
        import dbus.mainloop.glib
    except ImportError:
        return None
    return dbus.mainloop.glib.DBusGMainLoop()


def connect(bus="system", address=None, peer=False):
    """A Database on the system or session bus, or on the bus at `address`;
    with peer=True, `address` is the daemon's direct socket (no bus). The
    connection is dispatched by GLib's default main context when dbus.mainloop.glib
    is there (needed for watch())."""
    loop = _main_loop()
    if address is not None:
        opened = call(dbus.connection.Connection if peer else dbus.bus.BusConnection, address, mainloop=loop)
    elif bus in ("system", "session"):
        opened = call(dbus.SystemBus if bus == "system" else dbus.SessionBus, private=True, mainloop=loop)
    else:
        raise ValueError("bus must be 'system' or 'session'")
    return Database(opened, bus_name=None if address is not None and peer else BUS_NAME, mainloop=loop)
