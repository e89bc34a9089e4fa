"""Time series of the kelts storage as numpy arrays and pandas objects.

    import kelts
    s = kelts.Series("/data/ts/boiler1", "double")
    times, values = s.read("2024-05-07", "2024-05-08")              # raw records
    hourly = s.to_pandas("first", "last", method="meanA", interval="1h", align=True)
    s.write(times, values + 1.0)

Times are numpy datetime64[ms] in UTC. Range bounds take datetime,
numpy.datetime64, pandas.Timestamp, ISO 8601 text, milliseconds since 1970,
and "first", "last" or "now". Intervals are seconds or the texts of
``kelts read --interval``: "15m", "1h", "day", "week", "month", ... Method
strings are those of ``kelts read --method`` and must start with a method
name. The library's log lines go to logging.getLogger("kelts"); a call the
storage refuses raises OSError with its message, a bad argument ValueError.
"""

import datetime as _datetime
import json as _json
import os as _os

import numpy as _np

from . import _kelts

__all__ = ["Series", "series"]

_ANCHORS = {"now": _kelts.TS_NOW, "first": _kelts.TS_FIRST_RECORD, "last": _kelts.TS_LAST_RECORD}


def _ms(t, name):
    """Milliseconds since 1970 UTC, or the library's anchor, for a bound."""
    if t is None:
        raise ValueError(f"{name}: give a time")
    if isinstance(t, str):
        if t in _ANCHORS:
            return _ANCHORS[t]
        return _kelts.parse_time(t)
    if isinstance(t, (bool, _np.bool_)):
        raise ValueError(f"{name}: {t!r} is not a time")
    if isinstance(t, (int, _np.integer)):
        return int(t)
    if isinstance(t, _np.datetime64):
        return int(t.astype("datetime64[ms]").astype(_np.int64))
    if hasattr(t, "to_datetime64"):  # pandas.Timestamp
        if getattr(t, "tzinfo", None) is None:
            raise ValueError(f"{name}: {t!r} has no time zone; give a UTC time")
        return int(t.tz_convert("UTC").to_datetime64().astype("datetime64[ms]").astype(_np.int64))
    if isinstance(t, _datetime.datetime):
        if t.tzinfo is None:
            raise ValueError(f"{name}: {t!r} has no time zone; give tzinfo=datetime.timezone.utc")
        return int(round(t.timestamp() * 1000))
    if isinstance(t, _datetime.date):
        return _kelts.parse_time(t.isoformat())
    raise ValueError(f"{name}: {t!r} is not a time")


def _times(ms):
    return ms.astype("datetime64[ms]")


def _times_ms(times):
    """int64 milliseconds of what write takes as times."""
    if hasattr(times, "index") and hasattr(times, "values") and not isinstance(times, _np.ndarray):
        times = times.index
    if hasattr(times, "tz") and times.tz is not None:  # pandas.DatetimeIndex
        times = times.tz_convert("UTC").tz_localize(None)
    a = _np.asarray(times)
    if a.dtype.kind == "M":
        return a.astype("datetime64[ms]", copy=False).view(_np.int64)
    if a.dtype.kind in "iu":
        return a.astype(_np.int64)
    if a.dtype.kind in "OU":
        return _np.array([_ms(t, "times") for t in a], dtype=_np.int64)
    raise ValueError(f"times of dtype {a.dtype} are not times")


class Series:
    """One series: a directory and a value type ("double", "int", "string", ...)."""

    def __init__(self, path, type, max_file_size=4 * 1024 * 1024):
        self._s = _kelts._Series(_os.fspath(path), type, int(max_file_size))

    @property
    def path(self):
        return self._s.path

    @property
    def type(self):
        return self._s.type

    def __repr__(self):
        return f"kelts.Series({self.path!r}, {self.type!r})"

    def read(self, start=None, end=None, method=None, interval=None, align=False, label_start=False,
             offset_min=0, filters=None, template=None, limit=0):
        """(times, values): the records of [start, end], raw or condensed.

        start and end default to the first and the last record. times is
        datetime64[ms] (UTC); values has the series' dtype (float64 for a
        condensed read of whole numbers with a missing value, object for
        text and JSON), NaN or None where a value is missing.
        """
        ms, values = self._s.read(_ms("first" if start is None else start, "start"),
                                  _ms("last" if end is None else end, "end"),
                                  method or "", interval, bool(align), bool(label_start), int(offset_min),
                                  "" if filters is None else _json.dumps(filters), template or "", int(limit))
        return _times(ms), values

    def to_pandas(self, *args, **kwargs):
        """The read as a pandas.Series with a UTC DatetimeIndex."""
        import pandas as pd
        times, values = self.read(*args, **kwargs)
        return pd.Series(values, index=pd.DatetimeIndex(times, tz="UTC", name="timestamp"), name=_os.path.basename(self.path.rstrip("/")))

    def write(self, times, values=None, backfill=False, overwritten=False):
        """Writes records; times and values as arrays or lists, or one pandas.Series."""
        if values is None:
            if not hasattr(times, "index"):
                raise ValueError("give times and values, or a pandas.Series")
            values = times.values
        ms = _times_ms(times)
        if not isinstance(values, _np.ndarray) or values.dtype.kind == "O":
            values = list(values)
        return self._s.write(ms, values, bool(backfill), bool(overwritten))

    def count(self, start=None, end=None, method=None, interval=None):
        """The records of [start, end], or the values a condensed read gives."""
        return self._s.count(_ms("first" if start is None else start, "start"), _ms("last" if end is None else end, "end"),
                             method or "", interval)

    def _record(self, found):
        if found is None:
            return None
        return _np.datetime64(found[0], "ms"), found[1]

    def first(self):
        """(time, value) of the first record, or None."""
        return self._record(self._s.first())

    def last(self):
        """(time, value) of the last record, or None."""
        return self._record(self._s.last())

    def find(self, t):
        """(time, value) of the record stamped exactly t, or None."""
        return self._record(self._s.find(_ms(t, "t")))

    def prev(self, t):
        """(time, value) of the last record stamped before t, or None."""
        return self._record(self._s.prev(_ms(t, "t")))

    def delete(self, start, end, marker=""):
        """Deletes the records of [start, end]; returns how many went."""
        return self._s.delete(_ms(start, "start"), _ms(end, "end"), marker)


_MARKER_TYPES = {"B": "bool", "W": "short", "I": "int", "L": "long", "F": "float", "D": "double", "V": "variant"}


def series(root):
    """Every series under a directory: a list of kelts.Series, one per value directory."""
    found = []
    root = _os.fspath(root)
    for dirpath, dirnames, _files in _os.walk(root):
        markers = sorted(d for d in dirnames if d in _MARKER_TYPES)
        if markers:
            found.extend(Series(dirpath, _MARKER_TYPES[m]) for m in markers)
            dirnames[:] = []   # a series' own directories are not searched further
        else:
            dirnames.sort()
    return found
