"""Names, errors and values shared by the client's modules."""

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


_SCALARS = {dbus.Boolean: bool, dbus.Double: float, dbus.String: str, dbus.ObjectPath: str, dbus.Signature: str,
            **dict.fromkeys((dbus.Byte, dbus.Int16, dbus.UInt16, dbus.Int32, dbus.UInt32, dbus.Int64,
                             dbus.UInt64), int)}


def python_value(value):
    """A D-Bus value as the plain Python value."""
    convert = _SCALARS.get(type(value))
    if convert is not None:
        return convert(value)
    if isinstance(value, dbus.Dictionary):
        return {python_value(k): python_value(v) for k, v in value.items()}
    if isinstance(value, (dbus.Array, dbus.Struct, list, tuple)):
        items = [python_value(v) for v in value]
        return tuple(items) if isinstance(value, dbus.Struct) else items
    return value


def call(method, *args, **kwargs):
    """method(*args), a D-Bus error raised as VorndbError."""
    try:
        return method(*args, **kwargs)
    except dbus.exceptions.DBusException as e:
        raise VorndbError(e.get_dbus_name() or "org.freedesktop.DBus.Error.Failed",
                          e.get_dbus_message() or "") from None
