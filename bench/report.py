"""Turns the raw output of a bench/run into the table, results.json and latency.png.

    report.py DATA_DIR BENCH_DIR START_EPOCH

DATA_DIR holds raw.tsv ("key<TAB>value" lines from the scripts), the per-call samples
(*.i64, native 64-bit nanoseconds), memory.out, the print outputs and core_bench.json.
Runs under /usr/bin/python3.11 with the standard library; the picture needs matplotlib
(Debian: python3-matplotlib) and is skipped without it.
"""

import array
import json
import math
import os
import platform
import sys
import time
from dataclasses import asdict, dataclass, field
from typing import Optional


@dataclass
class Row:
    item: str
    measurement: str
    unit: str
    value: Optional[float]
    baseline: Optional[float]
    goal: str = ""
    met: Optional[bool] = None
    note: str = ""
    ratio: Optional[float] = field(default=None)

    def __post_init__(self):
        if self.value is not None and self.baseline:
            self.ratio = self.value / self.baseline


BASELINES = {
    "1": "the same command on the calling Tcl thread holding the GIL (::baseline::*): "
         "PyRun_String of the same text, result through str(); get evaluates the "
         "expression, set stores the converted value under the name",
    "2": "the same Python loop run on the Tcl thread, calling benchtools.tcl_* that do "
         "Tcl_EvalEx / Tcl_EvalObjv / Tcl_GetVar2Ex / Tcl_SetVar2Ex there and convert "
         "the result",
    "3": "as many calls made on the calling thread as in 1 and 2; each call is timed "
         "alone in C (steady_clock), on the Tcl side around Tcl_EvalObjEx of the "
         "compiled command, on the Python side around PyObject_Call of the bound function",
    "4": "standalone /usr/bin/python3.11 running the same loop, stdout to a file",
    "5": "list: building the same list in a Tcl proc with lappend (goals), and the "
         "same conversion on the calling thread; dict and string: the same conversion "
         "on the calling thread (the baseline's own small converters)",
    "6": "the same 200-level recursion with ::baseline::eval and benchtools.tcl_eval, "
         "all on the Tcl thread",
    "7": "one Python thread making the same number of calls through the bridge "
         "(ratio above 1: the threads together are faster), measured beside each figure",
    "8": "idle: a plain tclsh8.6 in its event loop; waiting: the same time.sleep(2) "
         "run on the calling thread",
    "9": "resident size after the first 100,000 calls of bench/memory.tcl",
    "A": "commands: the same Python function behind a Tcl_CreateObjCommand on the Tcl "
          "thread, called holding the GIL (benchtools.createcommand); ::pytarn::call: "
          "the same lookup and call on the Tcl thread (::baseline::call), and "
          "::python::eval {add(1, 2)} through the bridge; tcl.call: tcl.eval('set x 1') "
          "through the bridge; create/delete: resident size after the first 100,000 "
          "cycles",
    "C": "core_bench (Google Benchmark, pytarn_core linked statically): the bridge's "
         "function beside a direct C version producing the same values; the Notifier "
         "beside a plain hand-off (a condition variable per direction, notify_one "
         "after unlocking)",
}


def read_raw(data):
    raw = {}
    path = os.path.join(data, "raw.tsv")
    if os.path.exists(path):
        with open(path) as file:
            for line in file:
                key, _, value = line.rstrip("\n").partition("\t")
                try:
                    raw[key] = float(value)
                except ValueError:
                    raw[key] = value
    return raw


def samples(data, name):
    path = os.path.join(data, name + ".i64")
    if not os.path.exists(path):
        return None
    values = array.array("q")
    with open(path, "rb") as file:
        content = file.read()
    # Whole samples only: the file of a step stopped at its bound may end mid-way.
    values.frombytes(content[:len(content) - len(content) % values.itemsize])
    return sorted(values) or None


def stats(ordered):
    """Median, p99, p99.9 and maximum in microseconds (nearest rank)."""
    n = len(ordered)

    def rank(p):
        return ordered[max(0, math.ceil(round(p * n, 6)) - 1)] / 1000.0

    return {"median": rank(0.5), "p99": rank(0.99), "p99.9": rank(0.999),
            "max": ordered[-1] / 1000.0, "count": n}


def memory_rows(data):
    path = os.path.join(data, "memory.out")
    points = []
    if os.path.exists(path):
        with open(path) as file:
            for line in file:
                words = line.split()
                if line.startswith("resident after"):
                    points.append((int(words[2]), int(words[4])))
    return points


def count_lines(path):
    if not os.path.exists(path):
        return None
    with open(path, "rb") as file:
        return sum(chunk.count(b"\n") for chunk in iter(lambda: file.read(1 << 20), b""))


def core_bench(data, name="core_bench"):
    path = os.path.join(data, name + ".json")
    if not os.path.exists(path):
        return {}
    try:
        with open(path) as file:
            report = json.load(file)
    except ValueError:  # cut short: its step overran its bound
        return {}
    scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
    # Of repeated benchmarks only the median counts.
    return {b["name"].split("/")[0]: b["real_time"] * scale[b["time_unit"]]
            for b in report.get("benchmarks", [])
            if "real_time" in b and b.get("aggregate_name", "median") == "median"}


def build_rows(raw, latency, memory, cpp, data, line):
    """LINE: one cache line's round trip in us, the smaller of the figures taken just
    before and after the calls (None without core_bench)."""
    rows = []
    busy = "busy.processes" in raw
    us = lambda key: raw[key] / 1000.0 if key in raw else None
    ms = lambda key: raw[key] / 1e6 if key in raw else None

    def pair(item, label, unit, key, scale, goal="", limit=None):
        value, base = scale(key + ".bridge"), scale(key + ".baseline")
        met = None
        if limit is not None and value is not None and base:
            met = value / base <= limit
        rows.append(Row(item, label, unit, value, base, goal, met))

    crossings = []

    def crossing(item, label, key):
        """A crossing's goal: on a quiet machine its same-thread baseline plus two
        cache-line round trips; beside the spinners, 3x the baseline."""
        if busy:
            pair(item, label, "us/call", key, us, "<= 3x", 3.0)
            return
        pair(item, label, "us/call", key, us)
        row = rows[-1]
        if row.value is None or row.baseline is None:
            return
        row.goal = "<= base + 2 lines"
        crossings.append(row)

    def judge_crossings():
        """Any crossing moves at least one line there and back, so a line dearer than
        the cheapest whole crossing was measured while a partner had lost its core:
        against it no goal is judged."""
        overheads = [row.value - row.baseline for row in crossings]
        trusted = line and crossings and line <= min(row.value for row in crossings)
        for row, overhead in zip(crossings, overheads):
            if not line:
                row.note = f"overhead {overhead:.2f} us; no cache-line figure"
            elif not trusted:
                row.note = f"overhead {overhead:.2f} us; line figure too high to judge"
            else:
                row.met = overhead <= 2 * line
                row.note = (f"overhead {overhead / line:.1f} lines, "
                            f"limit {row.baseline + 2 * line:.2f} us")

    if busy:
        pair("1", "::python::eval 1", "us/call", "tcl2py.eval", us, "<= 1.5x", 1.5)
    else:
        pair("1", "::python::eval 1", "us/call", "tcl2py.eval", us, "<= 1.2x", 1.2)
    pair("1", "::python::exec {x = 1}", "us/call", "tcl2py.exec", us)
    crossing("1", "::python::get x", "tcl2py.get")
    crossing("1", "::python::set x 1", "tcl2py.set")
    crossing("2", "tcl.eval('set x 1')", "py2tcl.eval")
    crossing("2", "tcl.call('set', 'x', 1)", "py2tcl.call")
    crossing("2", "tcl.get('x')", "py2tcl.get")
    crossing("2", "tcl.set('x', 1)", "py2tcl.set")

    calls = int(raw.get("latency.calls", 0))
    for direction, label in (("tcl2py", "::python::eval 1"), ("py2tcl", "tcl.eval('set x 1')")):
        bridge, base = latency.get(direction + ".bridge"), latency.get(direction + ".baseline")
        if not bridge or not base:
            continue
        for stat in ("median", "p99", "p99.9", "max"):
            goal, met, note = "", None, f"{calls:,} calls" if stat == "median" else ""
            if busy and stat in ("p99", "max"):
                note = "its goal is for a quiet machine"
            elif stat == "p99":
                goal, met = "< 50 us", bridge[stat] < 50
            elif stat == "max":
                goal, met = "< 20 ms", bridge[stat] < 20000
            rows.append(Row("3", f"{label} latency {stat}", "us", bridge[stat], base[stat],
                            goal, met, note))

    lines = int(raw.get("print.lines", 0))
    bridge_lines = count_lines(os.path.join(data, "print.bridge.out"))
    standalone_lines = count_lines(os.path.join(data, "print.standalone.out"))
    note = "" if bridge_lines == standalone_lines == lines else \
        f"lines written: {bridge_lines} and {standalone_lines}, expected {lines}"
    value, base = ms("print.bridge"), ms("print.standalone")
    rows.append(Row("4", f"print {lines:,} lines to Tcl stdout (a file)", "ms", value, base,
                    "<= 3x", value / base <= 3 if value and base else None, note))

    size = int(raw.get("convert.list.size", 0))
    lappend = ms("convert.list.lappend")
    for direction, label, limit in (("py2tcl", "Python->Tcl", 1.0),
                                    ("tcl2py", "Tcl->Python", 3.0)):
        value = ms(f"convert.list.{direction}.bridge")
        rows.append(Row("5", f"list of {size:,} ints {label}", "ms", value, lappend,
                        f"<= {limit:g}x lappend",
                        value / lappend <= limit if value and lappend else None,
                        "baseline: lappend"))
    for kind, label in (("list", f"list of {size:,} ints"),
                        ("dict", f"dict of {int(raw.get('convert.dict.size', 0)):,} entries"),
                        ("text", f"{raw.get('convert.text.bytes', 0) / 1048576:.3g} MiB string")):
        for direction, arrow in (("tcl2py", "Tcl->Python"), ("py2tcl", "Python->Tcl")):
            if kind != "list" and direction == "tcl2py":
                pair("5", f"{label} {arrow}", "ms", f"convert.{kind}.{direction}", ms,
                     "<= 1.2x", 1.2)
            else:
                pair("5", f"{label} {arrow}", "ms", f"convert.{kind}.{direction}", ms)
            rows[-1].note = "baseline: same conversion in-thread"
    pair("5", f"dict of {int(raw.get('convert.dict.size', 0)):,} entries Tcl->Python by tcl.get",
         "ms", "convert.dict.get", ms, "<= 1.2x", 1.2)
    rows[-1].note = "baseline: benchtools.tcl_get in-thread"

    depth = int(raw.get("nest.depth", 0))
    pair("6", f"nesting Tcl->Python->Tcl, per level ({depth} levels)", "us/level", "nest", us)

    value, base = raw.get("threads.bridge"), raw.get("threads.baseline")
    rows.append(Row("7", "4 Python threads calling tcl.eval, total", "calls/s", value, base,
                    ">= 1.0x", value / base >= 1.0 if value and base else None,
                    "baseline: 1 thread"))
    value, base = raw.get("threads.64.bridge"), raw.get("threads.64.baseline")
    rows.append(Row("7", "64 Python threads calling tcl.eval, total", "calls/s", value, base,
                    note="baseline: 1 thread; no goal, nothing may collapse"))

    for key, label, base_key in (("idle.bridge", "CPU while idle 2 s in the event loop",
                                  "idle.host"),
                                 ("idle.wait.bridge", "CPU while waiting for a 2 s sleep",
                                  "idle.wait.baseline")):
        value = raw[key] / 1000.0 if key in raw else None
        base = raw[base_key] / 1000.0 if base_key in raw else None
        rows.append(Row("8", label, "ms CPU", value, base, "< 20 ms",
                        value < 20 if value is not None else None))

    if len(memory) >= 2:
        (first_calls, first_kib), (last_calls, last_kib) = memory[0], memory[-1]
        growth = last_kib - first_kib
        rows.append(Row("9", f"resident after {last_calls:,} mixed calls", "KiB",
                        float(last_kib), float(first_kib), "growth < 1 MB", growth < 1024,
                        f"growth {growth:+,} KiB after {first_calls:,}"))

    crossing("A", "command from tcl.createcommand, 2 args", "created.command")
    crossing("A", "command from ::pytarn::createFunction, 2 args", "created.function")
    crossing("A", "::pytarn::call add 1 2", "calls.pytarn.thread")
    judge_crossings()
    pair("A", "tcl.call('set', 'x', 1)", "us/call", "calls.call", us, "<= 1.2x", 1.2)
    rows[-1].note = "baseline: tcl.eval('set x 1')"
    pair("A", "::pytarn::call add 1 2", "us/call", "calls.pytarn", us, "<= 1.2x", 1.2)
    rows[-1].note = "baseline: ::python::eval {add(1, 2)}"
    if "lifetime.last.kib" in raw and "lifetime.first.kib" in raw:
        first, last = raw["lifetime.first.kib"], raw["lifetime.last.kib"]
        growth = int(last - first)
        rows.append(Row("A", f"resident after {int(raw['lifetime.cycles']):,} "
                        "createcommand/deletecommand", "KiB", last, first, "growth < 1 MB",
                        growth < 1024,
                        f"growth {growth:+,} KiB after {int(raw['lifetime.first.cycles']):,}"))

    for name, direct, label, unit in (
            ("fromTcl_list", "fromTcl_list", "fromTcl, list of 1,000,000 ints", "ms"),
            ("toTcl_list", "toTcl_list", "toTcl, list of 1,000,000 ints", "ms"),
            ("detachedCopy_list", "copy_list", "detachedCopy, list of 1,000,000 ints", "ms"),
            ("notifier_round_trip", "condvar_round_trip", "Notifier round trip, 2 threads",
             "us")):
        value, base = cpp.get("BM_" + name), cpp.get("BM_direct_" + direct)
        if value is None:
            continue
        scale = 1e-3 if unit == "ms" else 1.0
        rows.append(Row("C", label, unit, value * scale, base * scale if base else None))
    if "BM_line_round_trip" in cpp:
        rows.append(Row("C", "one cache line passed there and back, 2 threads", "us",
                        cpp["BM_line_round_trip"], None, "",
                        None, "the floor under any crossing"))
    return rows


def number(value):
    if value is None:
        return "-"
    magnitude = abs(value)
    if magnitude >= 10000:
        return f"{value:,.0f}"
    if magnitude >= 100:
        return f"{value:.0f}"
    if magnitude >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}"


def table(rows, header):
    lines = [header, ""]
    layout = "{:<2} {:<52} {:<9} {:>10} {:>10} {:>8}  {:<17} {:<4} {}"
    lines.append(layout.format("#", "measurement", "unit", "pytarn", "baseline", "ratio",
                               "goal", "met", "note"))
    lines.append("-" * 124)
    last_item = None
    for row in rows:
        if last_item is not None and row.item != last_item:
            lines.append("")
        last_item = row.item
        met = "" if row.met is None else ("yes" if row.met else "NO")
        ratio = f"{row.ratio:.2f}x" if row.ratio is not None else "-"
        lines.append(layout.format(row.item, row.measurement, row.unit, number(row.value),
                                   number(row.baseline), ratio, row.goal, met,
                                   row.note).rstrip())
    lines.append("")
    lines.append("Baselines, measured in the same run:")
    for item, text in BASELINES.items():
        lines.append(f" {item}  {text}")
    return "\n".join(lines)


def draw(latency, path, calls):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        return "matplotlib is missing (Debian: python3-matplotlib): latency.png not drawn"
    figure, axes = plt.subplots(1, 2, figsize=(13, 5), sharey=True)
    panels = (("tcl2py", "Tcl -> Python: ::python::eval 1"),
              ("py2tcl", "Python -> Tcl: tcl.eval('set x 1')"))
    for axis, (direction, title) in zip(axes, panels):
        bridge = latency.get(direction + ".bridge.samples")
        base = latency.get(direction + ".baseline.samples")
        if not bridge:
            continue
        low = max(0.05, min(bridge[0], base[0] if base else bridge[0]) / 1000.0)
        high = max(bridge[-1], base[-1] if base else 0) / 1000.0 * 1.1
        bins = [low * (high / low) ** (i / 200) for i in range(201)]
        if base:
            axis.hist([v / 1000.0 for v in base], bins=bins, color="#999999",
                      alpha=0.6, histtype="stepfilled", label="baseline (same thread)")
        axis.hist([v / 1000.0 for v in bridge], bins=bins, color="#1f77b4", alpha=0.7,
                  histtype="stepfilled", label="pytarn")
        numbers = latency[direction + ".bridge"]
        for stat, style in (("median", "-"), ("p99", "--"), ("p99.9", ":")):
            axis.axvline(numbers[stat], color="#d62728", linestyle=style,
                         label=f"pytarn {stat} {numbers[stat]:.1f} us")
        axis.axvline(numbers["max"], color="black", linestyle="-.",
                     label=f"pytarn max {numbers['max']:.0f} us")
        axis.axvline(50, color="#2ca02c", linewidth=2, alpha=0.5, label="p99 goal 50 us")
        axis.set_xscale("log")
        axis.set_yscale("log")
        axis.set_xlabel("microseconds per call (log)")
        axis.set_title(title)
        axis.legend(fontsize=8)
        axis.grid(True, which="major", alpha=0.3)
    axes[0].set_ylabel("calls (log)")
    figure.suptitle(f"pytarn round-trip latency, {calls:,} calls each way")
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)
    return ""


def load_average():
    try:
        with open("/proc/loadavg") as file:
            return float(file.read().split()[0])
    except OSError:
        return None


def main():
    data, bench, start = sys.argv[1], sys.argv[2], float(sys.argv[3])
    raw = read_raw(data)
    latency = {}
    for name in ("tcl2py.bridge", "tcl2py.baseline", "py2tcl.bridge", "py2tcl.baseline"):
        ordered = samples(data, name)
        if ordered:
            latency[name] = stats(ordered)
            latency[name + ".samples"] = ordered
    memory = memory_rows(data)
    cpp = core_bench(data)
    floors = [core_bench(data, "floor." + when).get("BM_line_round_trip")
              for when in ("before", "after")]
    # The smaller: a figure inflated by a partner that lost its core must not
    # loosen the goals.
    known = [floor for floor in floors if floor is not None]
    line = min(known) if known else None
    rows = build_rows(raw, latency, memory, cpp, data, line)
    calls = int(raw.get("latency.calls", 0))
    problem = draw(latency, os.path.join(bench, "latency.png"), calls)

    elapsed = time.time() - start
    load_start = raw.get("load.start")
    load_end = load_average()
    busy = int(raw.get("busy.processes", 0))
    header = (f"pytarn benchmark suite: {os.cpu_count()} cores, load average "
              f"{load_start} at start and {load_end} at end, {elapsed:.0f} s in all")
    if busy:
        header += (f"\nbusy: {busy} spinning processes (one per core) ran beside every "
                   "step; goals are ratios to baselines measured under the same load")
    if None not in floors:
        header += ("\none cache line there and back between the two cores: "
                   f"{floors[0]:.2f} us just before items 1-3, {floors[1]:.2f} us just after")
        if not busy:
            header += f" (goals use {line:.2f} us)"
    text = table(rows, header)
    if problem:
        text += "\n\n" + problem
    failures = {k[len("failed."):]: v for k, v in raw.items() if k.startswith("failed.")}
    if failures:
        text += "\n\nSteps that did not finish (their rows are missing or partial): " + \
            "; ".join(f"{name}: {why}" for name, why in failures.items())
    # The load at the end counts the suite's own busy threads; only the start tells
    # whether something else was running.
    if load_start is not None and load_start > 1.0:
        text += ("\n\nNote: other work was running on this machine (load average above 1): "
                 "timings are noisier than on an idle one.")
    print(text)

    results = {
        "generated": time.strftime("%Y-%m-%dT%H:%M:%S%z"),
        "mode": "busy" if busy else "quiet",
        "busy_processes": busy,
        "failed_steps": failures,
        "machine": {"cores": os.cpu_count(), "load_average_start": load_start,
                    "load_average_end": load_end, "kernel": platform.release(),
                    "line_round_trip_us": {"before_calls": floors[0],
                                           "after_calls": floors[1], "used": line}},
        "elapsed_seconds": round(elapsed, 1),
        "rows": [asdict(row) for row in rows],
        "baselines": BASELINES,
        "latency_us": {k: v for k, v in latency.items() if not k.endswith(".samples")},
        "memory_kib": [{"calls": calls_at, "resident": kib} for calls_at, kib in memory],
        "core_bench_us": cpp,
        "raw": raw,
    }
    with open(os.path.join(bench, "results.json"), "w") as file:
        json.dump(results, file, indent=2)
        file.write("\n")


if __name__ == "__main__":
    main()
