"""The Database object: the methods of io.vorndb.Database1 with Python values."""

import dbus

BUS_NAME = "io.vorndb.Database1"
OBJECT_PATH = "/io/vorndb/Database"
INTERFACE = "io.vorndb.Database1"
ERROR_PREFIX = "io.vorndb.Error."


class VorndbError(Exception):
    """A refused call: `name` is the D-Bus error name (io.vorndb.Error.<Name>,
    or a bus error such as org.freedesktop.DBus.Error.ServiceUnknown),
    `reason` the daemon's message."""

    def __init__(self, name, reason):
        super().__init__("%s: %s" % (name, reason))
        self.name = name
        self.reason = reason

    @property
    def short_name(self):
        """The name without io.vorndb.Error. (`InvalidArgument`)."""
        return self.name[len(ERROR_PREFIX):] if self.name.startswith(ERROR_PREFIX) else self.name


def _python(value):
    """A D-Bus value as the plain Python value."""
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.UInt16, dbus.Int32, dbus.UInt32, dbus.Int64,
                          dbus.UInt64)):
        return int(value)
    if isinstance(value, dbus.Double):
        return float(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, dbus.Dictionary):
        return {_python(k): _python(v) for k, v in value.items()}
    if isinstance(value, (dbus.Array, dbus.Struct, list, tuple)):
        items = [_python(v) for v in value]
        return tuple(items) if isinstance(value, dbus.Struct) else items
    return value


def _call(method, *args):
    try:
        return method(*args)
    except dbus.exceptions.DBusException as e:
        raise VorndbError(e.get_dbus_name() or "org.freedesktop.DBus.Error.Failed",
                          e.get_dbus_message() or "") from None


class Database:
    """One connection to the daemon's database object."""

    def __init__(self, connection, bus_name=BUS_NAME):
        self._connection = connection
        self._object = connection.get_object(bus_name, OBJECT_PATH, introspect=False)
        self._iface = dbus.Interface(self._object, INTERFACE)
        self._families = {}

    @property
    def connection(self):
        return self._connection

    def close(self):
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
        return _python(_call(self._iface.Get, dbus.String(name)))

    def text(self, name):
        """(value, status, limits) as the tool prints them: ("1.5 MHz", "valid", "[20 Hz .. 50 GHz]")."""
        value, status, limits = _call(self._iface.GetText, dbus.String(name))
        return str(value), str(status), str(limits)

    def get_many(self, names):
        """Per name (result, reason, value); value is None where the read failed."""
        out = []
        for result, reason, value in _call(self._iface.GetMany, dbus.Array(names, signature="s")):
            out.append((int(result), str(reason), _python(value) if int(result) >= 0 else None))
        return out

    def describe(self, name):
        """The daemon's description as a dict: Name, Family, Status, Unit, Minimum, Maximum,
        Enumeration, Members (list of (name, value)), Size, MaxSize where they apply."""
        described = _python(_call(self._iface.Describe, dbus.String(name)))
        if "Members" in described:
            described["Members"] = [tuple(m) for m in described["Members"]]
        self._families[name] = described["Family"]
        return described

    def list(self, name="", depth=1):
        """[(full name, family)] of the nodes below `name`, `depth` levels down (0: all)."""
        nodes = [(str(n), str(f)) for n, f in _call(self._iface.List, dbus.String(name), dbus.UInt32(depth))]
        for n, f in nodes:
            self._families[n] = f
        return nodes

    # Writing

    def __setitem__(self, name, value):
        self.set(name, value)

    def set(self, name, value):
        """Writes; True when the value changed (S_OK), False when it was already so (S_FALSE)."""
        return int(_call(self._iface.Set, dbus.String(name), self._variant(name, value))) == 0

    def set_many(self, items):
        """Writes (name, value) pairs in order; [(result, reason)] per item tried."""
        if isinstance(items, dict):
            items = items.items()
        array = dbus.Array([dbus.Struct((dbus.String(n), self._variant(n, v)), signature="sv") for n, v in items],
                           signature="(sv)")
        return [(int(r), str(reason)) for r, reason in _call(self._iface.SetMany, array)]

    def reset(self, name=""):
        """Resets the node (`""`: the whole database); True when it changed."""
        return int(_call(self._iface.Reset, dbus.String(name))) == 0

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


def connect(bus="system", address=None, peer=False):
    """A Database on the system or session bus, or on the bus at `address`;
    with peer=True, `address` is the daemon's direct socket (no bus)."""
    try:
        if address is not None:
            if peer:
                return Database(dbus.connection.Connection(address), bus_name=None)
            return Database(dbus.bus.BusConnection(address))
        if bus == "system":
            return Database(dbus.SystemBus(private=True))
        if bus == "session":
            return Database(dbus.SessionBus(private=True))
    except dbus.exceptions.DBusException as e:
        raise VorndbError(e.get_dbus_name() or "org.freedesktop.DBus.Error.Failed",
                          e.get_dbus_message() or "") from None
    raise ValueError("bus must be 'system' or 'session'")
