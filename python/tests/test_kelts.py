"""The kelts module against the kelts tool: what one writes the other reads."""

import csv
import datetime
import io
import json
import logging
import os
import subprocess

import numpy as np
import pandas as pd
import pytest

import kelts

KELTS = os.environ.get("KELTS_BINARY", "kelts")
T0 = 1714521600000  # 2024-05-01T00:00:00Z


def tool(*args, stdin=None):
    r = subprocess.run([KELTS, *args], input=stdin, capture_output=True, text=True)
    assert r.returncode == 0, r.stderr
    return r.stdout


def tool_rows(series_dir, type_, *extra):
    out = tool("read", series_dir, "--type", type_, "--time", "ms", *extra)
    return [line.split(",", 1) for line in out.splitlines()[1:]]


@pytest.mark.parametrize("type_,values", [
    ("bool", [True, False, True]),
    ("char", [-128, 0, 127]),
    ("uchar", [0, 7, 255]),
    ("short", [-32768, 5, 32767]),
    ("ushort", [0, 5, 65535]),
    ("int", [-2147483648, 0, 2147483647]),
    ("uint", [0, 1, 4294967295]),
    ("long", [-9223372036854775808, 0, 9223372036854775807]),
    ("ulong", [0, 1, 18446744073709551615]),
    ("float", [1.5, -0.25, float("inf")]),
    ("double", [0.1, -1e300, float("nan")]),
    ("string", ["plain", "say \"hi\", then go", "two\nlines"]),
    ("variant", [42, {"a": [1, 2]}, "text"]),
])
def test_every_type_round_trips_with_the_tool(tmp_path, type_, values):
    times = np.array([T0, T0 + 1000, T0 + 2000], dtype="datetime64[ms]")
    py_dir, cli_dir = str(tmp_path / "py"), str(tmp_path / "cli")
    assert kelts.Series(py_dir, type_).write(times, values) == 3
    # What Python wrote, the tool reads as Python reads it; what the tool
    # writes from that, Python reads the same again.
    printed = tool("read", py_dir, "--type", type_, "--time", "ms")
    tool("write", cli_dir, "--type", type_, stdin=printed)
    rows = list(csv.reader(io.StringIO(printed)))
    for d in (py_dir, cli_dir):
        t, v = kelts.Series(d, type_).read()
        assert v.dtype == kelts._kelts.dtype_of(type_)
        assert [str(x) for x in t.astype(np.int64)] == [r[0] for r in rows[1:]]
        if type_ != "float":  # Float series read by their declared length: see docs/storage.md
            for got, want in zip(v, values):
                if isinstance(want, float) and np.isnan(want):
                    assert np.isnan(got)
                else:
                    assert got == want


def test_condensed_reads_equal_the_tool(tmp_path):
    s = kelts.Series(tmp_path / "temp", "double")
    t = T0 + np.arange(0, 3 * 86400, 60, dtype=np.int64) * 1000
    s.write(t, 20 + np.sin(np.arange(len(t)) / 60.0))
    for method, interval in [("meanA", "1h"), ("minMax", "day"), ("max", 900), ("meanAFillNull", "15m")]:
        times, values = s.read("first", "last", method=method, interval=interval, align=True)
        rows = tool_rows(str(tmp_path / "temp"), "double", "--method", method, "--interval", str(interval), "--align")
        assert [int(r[0]) for r in rows] == list(times.astype(np.int64))
        assert [float(r[1]) if r[1] else None for r in rows] == [None if np.isnan(v) else v for v in values]
    hourly = s.to_pandas("2024-05-01T00:00:00Z", datetime.datetime(2024, 5, 2, tzinfo=datetime.timezone.utc),
                         method="meanA", interval="1h", align=True, label_start=True)
    assert isinstance(hourly.index, pd.DatetimeIndex) and str(hourly.index.tz) == "UTC"
    rows = tool_rows(str(tmp_path / "temp"), "double", "--from", "2024-05-01T00:00:00Z", "--to", "2024-05-02T00:00:00Z",
                     "--method", "meanA", "--interval", "1h", "--align", "--label-start")
    assert [pd.Timestamp(int(r[0]), unit="ms", tz="UTC") for r in rows] == list(hourly.index)
    assert [float(r[1]) for r in rows] == list(hourly.values)
    assert hourly.index[0] == pd.Timestamp("2024-05-01T00:00:00Z")
    assert s.count() == len(t)
    assert s.count(method="meanA", interval="1h", start="first", end="last") == len(s.read(method="meanA", interval="1h")[0])


def test_lookups_bounds_and_pandas_writes(tmp_path):
    s = kelts.Series(tmp_path / "p", "int")
    index = pd.date_range("2024-05-01", periods=5, freq="h", tz="UTC")
    s.write(pd.Series(np.arange(5, dtype=np.int32), index=index))
    assert s.first() == (np.datetime64(T0, "ms"), 0)
    assert s.last() == (np.datetime64(T0 + 4 * 3600000, "ms"), 4)
    assert s.find(pd.Timestamp("2024-05-01T02:00:00Z"))[1] == 2
    assert s.find(T0 + 1) is None
    assert s.prev(np.datetime64("2024-05-01T02:00:00", "ms"))[1] == 1
    times, _ = s.read(T0 + 3600000, "2024-05-01T03:00:00Z")
    assert len(times) == 3
    assert s.delete("first", T0 + 3600000) == 2
    assert s.count() == 3
    assert [x.path.rstrip("/").split("/")[-1] for x in kelts.series(tmp_path)] == ["p"]


def test_bad_arguments_raise_and_failures_are_logged(tmp_path, caplog):
    with pytest.raises(ValueError, match="decimal"):
        kelts.Series(tmp_path / "x", "decimal")
    s = kelts.Series(tmp_path / "x", "int")
    with pytest.raises(ValueError, match="whole number"):
        s.write([T0], ["abc"])
    with pytest.raises(ValueError):
        s.write([T0, T0 + 1], [1])
    with pytest.raises(ValueError, match="no method name"):
        s.read(method="mean", interval="1h")
    with pytest.raises(ValueError):
        s.read("yesterday")
    with pytest.raises(ValueError, match="time zone"):
        s.read(datetime.datetime(2024, 5, 1))
    with pytest.raises(ValueError):
        s.read(interval="90 minutes")
    blocked = tmp_path / "blocked"
    blocked.write_text("a file where the series' directory should be")
    caplog.set_level(logging.WARNING, logger="kelts")
    with pytest.raises(OSError, match="could not write"):
        kelts.Series(blocked, "int").write([T0], [1])
    assert any(r.name == "kelts" for r in caplog.records)
