"""Client of vorndbd, the parameter database served over D-Bus.

    import vorndb
    db = vorndb.connect(bus="session")          # or address="unix:path=..."
    db["UserSettings.PhaseNoiseSettings.SignalFreq"] = "10 kHz"
    db["UserSettings.PhaseNoiseSettings.SignalFreq"]        # 10000.0

    db.watch(["UserSettings.PhaseNoiseSettings.SignalFreq"], lambda name, value: print(name, value))
    db.process(1.0)                             # or a GLib main loop; db.wait_for(predicate, timeout)
    db.trace("MeasurementResults.PhaseNoiseResults.SweepPoints")   # array.array or numpy array

Values travel by family (docs/service.md, "Python client"): booleans as
bool, integers and enumerations as int, reals as float in the parameter's
own unit, strings as str, arrays as lists. A str written to a parameter that is not a string is
read by the daemon as the tool reads it: units, prefixes, enumeration names.
"""

from ._client import (BUS_NAME, INTERFACE, OBJECT_PATH, Database, VorndbError,
                      connect)

__all__ = ["connect", "Database", "VorndbError", "BUS_NAME", "OBJECT_PATH", "INTERFACE"]
