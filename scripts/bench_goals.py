#!/usr/bin/env python3
"""Check the benchmark results of one run against the goals.

    scripts/bench_goals.py build/release/bench-results

Reads the Google Benchmark JSON files and the footprint and resident-memory
texts that scripts/bench.sh writes, takes the medians, and prints the goal
table of issue 27 (measure | before | goal | now | verdict), then one line
per older goal that still holds. Ratios are taken between figures of the
same run, so the load of a shared machine mostly cancels.

Verdicts: "met", "MISS", "not judged" (no figure: that benchmark did not
run), or "spread too large": the run's own spread (the
coefficient of variation of its repetitions, combined over the figures a
ratio divides) is larger than the distance between the figure and its goal,
so this run cannot tell a pass from noise. Exit status: 1 when a goal is
missed, 3 when none is missed but a figure could not be judged, else 0.
"""
import json
import math
import os
import re
import sys

results = sys.argv[1] if len(sys.argv) > 1 else "build/release/bench-results"
misses = 0
undecided = 0


def load(executable):
    path = os.path.join(results, executable + ".json")
    if not os.path.exists(path):
        return None, None
    with open(path) as f:
        data = json.load(f)["benchmarks"]
    med = {b["run_name"]: b for b in data if b.get("aggregate_name") == "median"}
    cv = {b["run_name"]: b for b in data if b.get("aggregate_name") == "cv"}
    return med, cv


def text_of(name):
    path = os.path.join(results, name)
    return open(path).read() if os.path.exists(path) else ""


TO_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def spread(cv, *parts):
    """Combined relative spread of the figures (run name, field) that a measure divides or quotes."""
    total = 0.0
    for name, field in parts:
        total += cv.get(name, {}).get(field, 0.0) ** 2
    return math.sqrt(total)


def verdict(now, goal, at_most, rel_spread):
    """'met', 'MISS' or 'spread too large' for one figure against its goal."""
    global misses, undecided
    ok = now <= goal if at_most else now >= goal
    margin = abs(goal - now) / abs(goal) if goal else float("inf")
    if rel_spread > margin:
        undecided += 1
        return f"spread too large (cv {100 * rel_spread:.1f} %, margin {100 * margin:.1f} %)"
    if not ok:
        misses += 1
        return "MISS"
    return "met"


# "before": the lean round's measuring commit on the machine of docs/benchmarks.md (same scripts, main's
# registry, simulator and module), so that before and now come from one machine
rows = []  # measure, before, goal text, now text, verdict


def row(label, before, goal, now, at_most=True, unit="", rel_spread=0.0, fmt="{:,.2f}"):
    global undecided
    if now is None:
        undecided += 1  # a goal without a figure is not met either
        rows.append((label, before, ("<= " if at_most else ">= ") + fmt.format(goal) + unit, "not measured",
                     "not judged"))
        return
    rows.append((label, before, ("<= " if at_most else ">= ") + fmt.format(goal) + unit, fmt.format(now) + unit,
                 verdict(now, goal, at_most, rel_spread)))


report, report_cv = load("sf_bench_report")
passes, passes_cv = load("sf_bench_passes")
e2e, e2e_cv = load("sf_bench_e2e")

# --- code size: the 32-bit ARM row of scripts/footprint.sh
arm = re.search(r"^\| ARM 32-bit[^|]*\| (\d+) \|", text_of("footprint.txt"), re.M)
row("libsmart_frame.a, 32-bit ARM, -Os, text + read-only data", "25.4 KiB", 20.0,
    int(arm.group(1)) / 1024 if arm else None, unit=" KiB", fmt="{:,.1f}")

# --- registry heap (bench/heap_footprint.cpp, machine-readable lines)
heap = {}
for what, subs, value in re.findall(r"^(heap_per_\w+) (\d+) ([\d.]+)$", text_of("footprint.txt"), re.M):
    heap[(what, int(subs))] = float(value)
for subs, before in ((2000, "1,391 B"), (100000, "1,400 B")):
    row(f"registry heap per sub-device with one bool DP ({subs:,} loaded)", before, 512,
        heap.get(("heap_per_device_one_bool", subs)), unit=" B", fmt="{:,.0f}")
for subs, before in ((2000, "77 B"), (100000, "80 B")):
    row(f"registry heap per further value DP ({subs:,} loaded)", before, 24, heap.get(("heap_per_value_dp", subs)),
        unit=" B", fmt="{:,.0f}")

# --- the report path against its cJSON parse + print floor
if report:
    def ratio(dps):
        a, b = f"BM_ReportPath/dps:{dps}", f"BM_Baseline_ParsePrint/dps:{dps}"
        return (report[a]["cpu_time"] / report[b]["cpu_time"],
                spread(report_cv, (a, "cpu_time"), (b, "cpu_time")))

    for dps, before, goal in ((1, "2.75 x", 2.0), (4, "1.13 x", 1.11), (16, "0.52 x", 0.53)):
        now, s = ratio(dps)
        row(f"{dps}-DP object report / cJSON parse+print of its text", before, goal, now, unit=" x", rel_spread=s)
    row("heap calls per 1-DP report", "7", 5, report["BM_ReportPath/dps:1"]["mallocs_per_op"], fmt="{:,.1f}")
    small, large = "BM_ReportScale/subs:10", "BM_ReportScale/subs:100000"
    if large in report:
        row("4-DP report with 100,000 sub-devices / with 10", "1.06 x", 1.1,
            report[large]["cpu_time"] / report[small]["cpu_time"], unit=" x",
            rel_spread=spread(report_cv, (small, "cpu_time"), (large, "cpu_time")))
else:
    row("1-DP object report / cJSON parse+print of its text", "2.3-2.7 x", 2.0, None, unit=" x")

# --- the heartbeat pass
hb_name = "BM_HeartbeatPass/subs:100000"
if passes and hb_name in passes:
    hb = passes[hb_name]
    row("heartbeat pass over 100,000 devices, steady state", "26.4 ms", 5.0,
        hb["cpu_time"] * TO_MS[hb["time_unit"]], unit=" ms", rel_spread=spread(passes_cv, (hb_name, "cpu_time")))
    row("heap calls of that pass", "0", 0, hb["mallocs_per_pass"], fmt="{:,.1f}")
else:
    row("heartbeat pass over 100,000 devices, steady state", "not measured", 5.0, None, unit=" ms")

# --- sfgw resident memory (scripts/sfgw_rss.sh: "sfgw_rss_kib <devices> <KiB>")
rss = {int(n): int(kib) for n, kib in re.findall(r"^sfgw_rss_kib (\d+) (\d+)$", text_of("sfgw_rss.txt"), re.M)}
if 1000 in rss:
    rows.append(("sfgw resident memory, 1,000 simulated switches, state file on, after 25 s", "11.6 MB", "(quoted)",
                 f"{rss[1000] / 1024:,.1f} MB", "info"))
row("sfgw resident memory, 10,000 simulated switches, state file on, after 25 s", "51.2 MB", 32.0,
    rss[10000] / 1024 if 10000 in rss else None, unit=" MB", fmt="{:,.1f}")

# --- end to end against the bare publisher, in alternating iterations of the same benchmark (BM_EndToEndRatio)
for window, before in ((1, "0.70-0.74 x"), (8, "0.73-0.92 x"), (64, "0.85-0.92 x")):
    name = f"BM_EndToEndRatio/window:{window}/manual_time"
    label = f"confirmed reports per second / bare libmosquitto publisher, window {window}"
    if e2e and name in e2e:
        row(label, before, 0.9, e2e[name]["ratio"], at_most=False, unit=" x", rel_spread=spread(e2e_cv, (name, "ratio")))
    else:
        row(label, before, 0.9, None, at_most=False, unit=" x")

print("| measure | before | goal | now | verdict |")
print("|---|---|---|---|---|")
for r in rows:
    print("| " + " | ".join(r) + " |")
print()


# --- the older goals (docs/benchmarks.md), one line each
def check(label, measured, limit, at_most=True, unit="", rel_spread=0.0):
    v = verdict(measured, limit, at_most, rel_spread)
    sign = "<=" if at_most else ">="
    print(f"{v if v != 'met' else 'ok'}: {label}: {measured:,.2f}{unit} (goal {sign} {limit:,.2f}{unit})")


command, command_cv = load("sf_bench_command")
if command:
    name = "BM_CommandThroughput/manual_time"
    check("commands per second", command[name]["commands_per_s"], 100000, at_most=False,
          rel_spread=spread(command_cv, (name, "commands_per_s")))

confirmed = {name: b for name, b in (e2e or {}).items() if name.startswith("BM_ConfirmedReports")}
if confirmed:
    check("confirmed reports per second (best window)", max(b["reports_per_s"] for b in confirmed.values()), 20000,
          at_most=False)
    best_of = lambda store: max(b["reports_per_s"] for name, b in confirmed.items() if f"/store:{store}/" in name)
    if any("/store:1/" in name for name in confirmed) and any("/store:0/" in name for name in confirmed):
        check("throughput lost to the state store (best window)", 100.0 * (1 - best_of(1) / best_of(0)), 10,
              unit=" %")
    with open(os.path.join(results, "sf_bench_e2e.json")) as f:
        for b in json.load(f)["benchmarks"]:
            if b["name"].startswith("BM_StateWriteVolume"):
                print(f"info state file at {b['name'].split(':')[1].split('/')[0]} reports/s: "
                      f"{b['write_bytes_per_report']:,.0f} bytes written, "
                      f"{b['disk_bytes_per_report']:,.0f} bytes to the disk per report")
    # the metrics (docs/metrics.md): counting and the reporter cost at most 3 % of the throughput and of the
    # median latency, in the same run; judged against the run's own spread like every other figure
    off_name, on_name = "BM_MetricsCost/metrics:0/manual_time", "BM_MetricsCost/metrics:1/manual_time"
    if off_name in e2e and on_name in e2e:
        off, on = e2e[off_name], e2e[on_name]
        check("confirmed reports per second, metrics on / off", on["reports_per_s"] / off["reports_per_s"], 0.97,
              at_most=False, unit=" x",
              rel_spread=spread(e2e_cv, (off_name, "reports_per_s"), (on_name, "reports_per_s")))
        check("report latency p50, metrics on / off", on["p50_us"] / off["p50_us"], 1.03, unit=" x",
              rel_spread=spread(e2e_cv, (off_name, "p50_us"), (on_name, "p50_us")))

if misses:
    print(f"{misses} goal(s) missed", file=sys.stderr)
    sys.exit(1)
if undecided:
    print(f"{undecided} figure(s) spread too much to be judged on this run", file=sys.stderr)
    sys.exit(3)
sys.exit(0)
