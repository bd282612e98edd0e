"""Traces: real arrays, integer arrays and buffers through a sealed memfd.

GetTrace(s name) -> (s type, at shape, h data) and SetTrace(s name, at shape,
h data) -> i result carry the values as raw little-endian items in a memfd:
type "d" float64 (real array), "u" uint32 (integer array), "f" float32
(buffer); shape [count] or [rows, valuesPerRow]. The daemon refuses a memfd
without F_SEAL_SHRINK, F_SEAL_GROW and F_SEAL_WRITE, and the client checks
the one it receives against the type and shape before reading it.
"""

import array
import fcntl
import math
import mmap
import os
import sys

from ._values import ERROR_PREFIX, VorndbError

try:
    import numpy
except ImportError:
    numpy = None

# D-Bus type letter -> (array.array code, numpy dtype, item size)
TYPES = {"d": ("d", "<f8", 8), "u": ("I", "<u4", 4), "f": ("f", "<f4", 4)}
FAMILY_TYPES = {"real-array": "d", "int-array": "u", "buffer": "f"}

_F_ADD_SEALS = getattr(fcntl, "F_ADD_SEALS", 1033)
_SEALS = (getattr(fcntl, "F_SEAL_SHRINK", 2) | getattr(fcntl, "F_SEAL_GROW", 4) | getattr(fcntl, "F_SEAL_WRITE", 8))

assert array.array("I").itemsize == 4, "array code I must be 32 bits"


def _failed(name, message):
    return VorndbError(ERROR_PREFIX + "Failed", "%s: %s" % (name, message))


def read(name, kind, shape, fd):
    """The values in `fd` (which is closed) as a numpy array of `shape`, or a flat
    array.array when numpy is missing."""
    try:
        kind = str(kind)
        shape = [int(s) for s in shape]
        if kind not in TYPES or len(shape) not in (1, 2):
            raise _failed(name, "GetTrace sent type %r with shape %s" % (kind, shape))
        code, dtype, size = TYPES[kind]
        count = math.prod(shape)
        length = os.fstat(fd).st_size
        if length != count * size:
            raise _failed(name, "GetTrace sent %d bytes for %d items of type %s" % (length, count, kind))
        values = array.array(code)
        if length:
            with mmap.mmap(fd, length, mmap.MAP_SHARED, mmap.PROT_READ) as mapped:
                if numpy is not None:
                    return numpy.frombuffer(mapped, dtype=dtype).reshape(shape).copy()
                values.frombytes(mapped)
                if sys.byteorder == "big":
                    values.byteswap()
        if numpy is not None:
            return numpy.zeros(shape, dtype=dtype)
        return values
    finally:
        os.close(fd)


def sealed(name, kind, values, shape):
    """A sealed memfd holding `values` as type `kind`, and its shape (a list)."""
    try:
        data, shape = _bytes(kind, values, shape)
    except (OverflowError, TypeError, ValueError) as e:
        raise VorndbError(ERROR_PREFIX + "InvalidValue", "%s: not a trace of type %s: %s" % (name, kind, e)) from None
    size = TYPES[kind][2]
    count = len(data) // size
    if shape is None:
        shape = [count]
    shape = [int(s) for s in shape]
    if len(shape) not in (1, 2) or math.prod(shape) != count:
        raise VorndbError(ERROR_PREFIX + "InvalidValue", "%s: shape %s does not hold %d values" % (name, shape, count))
    fd = os.memfd_create("vorndb-trace", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    try:
        view = memoryview(data)
        while view:
            view = view[os.write(fd, view):]
        fcntl.fcntl(fd, _F_ADD_SEALS, _SEALS)
    except BaseException:
        os.close(fd)
        raise
    return fd, shape


def _bytes(kind, values, shape):
    """The values as little-endian bytes of type `kind`, and the shape (a numpy
    array's own when none is given)."""
    code, dtype, size = TYPES[kind]
    if numpy is not None and isinstance(values, numpy.ndarray):
        if shape is None:
            shape = list(values.shape)
        data = numpy.ascontiguousarray(values, dtype=dtype).tobytes()
    else:
        if not isinstance(values, array.array) or values.typecode != code:
            values = array.array(code, values)
        if sys.byteorder == "big":
            values = array.array(code, values)
            values.byteswap()
        data = values.tobytes()
    return data, shape
