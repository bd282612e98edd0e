"""Watching: the daemon's Watch/Unwatch and its Changed signal, delivered to callbacks.

The daemon sends one Changed(t sequence, b overrun, a(sv) changes) per batch,
addressed to this connection alone; `sequence` counts the batches sent to it
from 1. Watch returns the sequence of the last batch sent before its snapshot
was read, so a batch numbered at or below it carries nothing newer than the
snapshot for the names that call added.

A batch that does not follow the last one handled (one was lost, by the bus
daemon or by this process not reading) or that has `overrun` set (the daemon
held batches back while this connection did not read) is a gap: every
watched name is read again with GetMany and called back with its value.
A lost batch that no later batch follows would go unseen, so once a burst
has been handled and nothing more is waiting (at most every
_SYNC_INTERVAL seconds), and on sync(), the daemon is asked for the sequence
of the last batch it sent (Watch of no names): the batches sent before its
reply arrive before the reply, so one it names that has not come was lost,
and that is a gap too. So a callback's latest value is the parameter's
latest value once the batches stop. `gaps` counts them.

Messages are dispatched by GLib's default main context (dbus-python's
DBusGMainLoop): by an application's own GLib main loop, or by
Watches.process() and wait_for() for callers that have none.
"""

import time

import dbus
import dbus.lowlevel

from ._values import INTERFACE, OBJECT_PATH, VorndbError, call, python_value

# GetMany takes at most this many names per call (the daemon's bound).
_MAX_ITEMS = 4096
# Messages dispatched by one process(0) at most, so that a flood of batches
# cannot keep it from returning.
_MAX_DISPATCH = 4096

# Least time between two automatic sync() calls of process().
_SYNC_INTERVAL = 0.1

_FAST = {dbus.Double: float, dbus.UInt32: int, dbus.Boolean: bool}


def _glib():
    try:
        from gi.repository import GLib
    except ImportError as e:
        raise VorndbError("io.vorndb.Error.Failed", "watching needs GLib from python3-gi: %s" % e) from None
    return GLib


class Watches:
    """The watches of one Database: callbacks per name, sequence bookkeeping."""

    def __init__(self, database):
        self._db = database
        self._callbacks = {}  # name -> [callback]
        self._fence = {}  # name -> sequence of the Watch that added it
        self._max_fence = 0
        self._last = 0  # sequence of the last batch handled
        self._owner = None  # the daemon's unique name on a bus; None on the direct socket
        self._filter = None
        self._error = None
        self._pumping = False
        self._synced = 0.0  # time of the last sync
        self._unsynced = False  # batches handled since then
        self.batches = 0
        self.changes = 0
        self.gaps = 0
        self.overruns = 0

    def watch(self, names, callback):
        if isinstance(names, str):
            names = [names]
        names = list(dict.fromkeys(names))
        if self._filter is None:
            self._start()
        new = [n for n in names if n not in self._callbacks]
        current = {}
        if new:
            sequence, snapshot = self._db.invoke("Watch", "as", new)
            sequence = int(sequence)
            if not self._callbacks:
                # Nothing was watched: batches still on their way carry nothing we want.
                self._last = max(self._last, sequence)
            else:
                for name in new:
                    self._fence[name] = sequence
                self._max_fence = max(self._max_fence, sequence)
            for name, value in snapshot:
                current[str(name)] = self._value(str(name), value)
        if len(current) < len(names):
            old = [n for n in names if n not in current]
            for name, (result, reason, value) in zip(old, self._db.get_many(old)):
                current[name] = value
        for name in names:
            self._callbacks.setdefault(name, []).append(callback)
        for name in names:
            callback(name, current[name])

    def unwatch(self, names, callback=None):
        if isinstance(names, str):
            names = [names]
        for name in names:
            if name not in self._callbacks:
                raise VorndbError("io.vorndb.Error.NotWatched", "%s is not watched by this client" % name)
        gone = []
        for name in dict.fromkeys(names):
            kept = [c for c in self._callbacks[name] if callback is not None and c != callback]
            if kept:
                self._callbacks[name] = kept
            else:
                gone.append(name)
        if gone:
            self._db.invoke("Unwatch", "as", gone)
            for name in gone:
                del self._callbacks[name]
                self._fence.pop(name, None)

    def process(self, timeout=0.0):
        """Dispatches what has arrived; waits up to `timeout` seconds for a batch when none
        has. Returns the number of batches handled. A callback's exception comes out here."""
        glib = _glib()
        context = glib.MainContext.default()
        deadline = time.monotonic() + timeout
        before = self.batches
        self._pumping = True
        try:
            while True:
                idle = self._dispatch(context)
                if idle and self._unsynced and time.monotonic() - self._synced >= _SYNC_INTERVAL:
                    self.sync()
                    self._dispatch(context)
                remaining = deadline - time.monotonic()
                if self.batches != before or remaining <= 0:
                    break
                source = glib.timeout_source_new(int(remaining * 1000) + 1)
                source.set_callback(lambda *_: False)
                source.attach(context)
                context.iteration(True)
                source.destroy()
                self._raise()
        finally:
            self._pumping = False
        return self.batches - before

    def sync(self):
        """Asks the daemon for the sequence of the last batch it sent this client and
        handles what came before it; when one of those never came, every watched name
        is read again (a gap)."""
        self._synced = time.monotonic()
        self._unsynced = False
        if not self._callbacks:
            return
        sequence = int(self._db.invoke("Watch", "as", [])[0])
        self._dispatch(_glib().MainContext.default())
        if sequence > self._last:
            self._last = sequence
            self.gaps += 1
            self._reread()

    def _dispatch(self, context):
        """Dispatches what is waiting, at most _MAX_DISPATCH messages; True when
        nothing is left."""
        for _ in range(_MAX_DISPATCH):
            if not context.iteration(False):
                return True
            self._raise()
        return False

    def wait_for(self, predicate, timeout=None):
        """Processes batches until predicate() is true (True) or `timeout` seconds
        passed (False); None waits without end."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while not predicate():
            remaining = 3600.0 if deadline is None else deadline - time.monotonic()
            if remaining <= 0:
                return False
            self.process(remaining)
        return True

    def close(self):
        if self._filter is not None:
            self._db.connection.remove_message_filter(self._filter)
            self._filter = None

    # Internals

    def _start(self):
        if self._db.mainloop is None:
            raise VorndbError("io.vorndb.Error.Failed",
                              "watching needs a connection made with a main loop (dbus.mainloop.glib)")
        _glib()
        if self._db.bus_name is not None:
            self._owner = str(call(self._db.connection.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                                  introspect=False).GetNameOwner,
                                   self._db.bus_name, dbus_interface="org.freedesktop.DBus"))
        self._filter = self._on_message
        self._db.connection.add_message_filter(self._filter)

    def _raise(self):
        if self._error is not None:
            error, self._error = self._error, None
            raise error

    def _on_message(self, connection, message):
        if (not isinstance(message, dbus.lowlevel.SignalMessage) or message.get_member() != "Changed"
                or message.get_interface() != INTERFACE or message.get_path() != OBJECT_PATH
                or (self._owner is not None and message.get_sender() != self._owner)):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        try:
            self._batch(*message.get_args_list())
        except Exception as e:  # noqa: BLE001 - handed to process(), or printed by dbus-python
            if not self._pumping:
                raise
            if self._error is None:
                self._error = e
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def _batch(self, sequence, overrun, changes):
        sequence = int(sequence)
        if sequence <= self._last:
            return
        self.batches += 1
        self._unsynced = True
        gap = sequence != self._last + 1
        self._last = sequence
        if gap or overrun:
            self.gaps += 1
            self.overruns += bool(overrun)
            self._reread()
            return
        callbacks = self._callbacks
        fenced = sequence <= self._max_fence
        delivered = 0
        for name, value in changes:
            targets = callbacks.get(name)
            if not targets or (fenced and sequence <= self._fence.get(name, 0)):
                continue
            name = str(name)
            convert = _FAST.get(type(value))
            value = convert(value) if convert else self._value(name, value)
            delivered += 1
            for callback in targets:
                callback(name, value)
        self.changes += delivered

    def _reread(self):
        names = list(self._callbacks)
        for start in range(0, len(names), _MAX_ITEMS):
            chunk = names[start:start + _MAX_ITEMS]
            for name, (result, reason, value) in zip(chunk, self._db.get_many(chunk)):
                for callback in list(self._callbacks.get(name, ())):
                    callback(name, value)
                self.changes += 1

    def _value(self, name, value):
        """A batch's value as Python; an invalid value travels as "" and is None
        unless the parameter is a string."""
        value = python_value(value)
        if value == "" and self._db.family(name) != "string":
            return None
        return value
