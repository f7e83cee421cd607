#!/usr/bin/env python3
"""Prints the benchmark table from the JSON output of zelk_bench runs: medians over repetitions."""
import json
import sys

# Target ratio (library / floor) per operation and size; None: an absolute time, no target.
def target(operation, size):
    if operation in ("getProcessCpuFreqTimes", "getKthreadCpuFreqTimes"):
        # Batches: under the key-by-key floor, and at 100 keys at least no slower than it.
        return {"keys:100": 1.0, "keys:1000": 0.5, "keys:10000": 0.5}.get(size)
    if operation == "clearProcessTimes":
        return 1.05
    if operation in ("getTotalCpuFreqTimes", "getCpuFreqTimesFromProcess"):
        return 1.5
    if operation == "getProcessTopTimes":
        return 1.2
    return None


# Target ratio (library / batch floor), for the operations that have one.
def batch_target(operation, size):
    if operation in ("getProcessCpuFreqTimes", "getKthreadCpuFreqTimes"):
        return {"keys:10000": 2.0}.get(size)
    return None


def verdict_text(ratio, goal):
    return f"<= {goal:.2f} {'met' if ratio <= goal else 'NOT met'}"


def fmt_size(parts):
    words = {"keys": "keys", "pids": "pids", "names": "names", "policies": "policies"}
    out = []
    for part in parts:
        name, _, value = part.partition(":")
        if name in words and value:
            out.append(f"{value} {words[name][:-1] if value == '1' else words[name]}")
        else:
            out.append(part)
    return ", ".join(out)


def fmt_time(us):
    return f"{us / 1000:.2f} ms" if us >= 1000 else f"{us:.1f} us"


def rows(path):
    with open(path) as f:
        data = json.load(f)
    freqs = data["context"].get("freqs", "?")
    for run in data["benchmarks"]:
        if run.get("aggregate_name") != "median":
            continue
        parts = [p for p in run["run_name"].split("/")
                 if p != "manual_time" and not p.startswith("iterations:")]
        operation, size = parts[0], ",".join(parts[1:])
        size_text = fmt_size(parts[1:])
        scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}[run["time_unit"]]
        library = run["real_time"] * scale
        floor = run.get("floor_ns", 0) / 1000
        ratio = run.get("ratio")
        keys = run.get("keys", 1)
        allocs = run.get("allocs_per_key")
        own = run.get("own_per_key")
        goal = target(operation, size)
        if "floor_ns" not in run:
            library_text, ratio_text, verdict = fmt_time(library), "-", "absolute"
        else:
            library_text, ratio_text = fmt_time(library), f"{ratio:.3f}"
            verdict = "-" if goal is None else verdict_text(ratio, goal)
        batch_floor_text, batch_ratio_text = "-", "-"
        if "batch_floor_ns" in run:
            batch_floor_text = fmt_time(run["batch_floor_ns"] / 1000)
            batch_ratio_text = f"{run['batch_ratio']:.3f}"
            batch_goal = batch_target(operation, size)
            if batch_goal is not None:
                batch_verdict = "batch " + verdict_text(run["batch_ratio"], batch_goal)
                verdict = batch_verdict if verdict == "-" else f"{verdict}; {batch_verdict}"
        if allocs is None:
            alloc_text, extra_text = "-", "-"
        else:
            alloc_text = f"{allocs:.3f} ({own:.3f})"
            extra_text = f"{(allocs - own) * keys:.0f}"
        floor_text = "-" if "floor_ns" not in run else fmt_time(floor)
        yield [operation, size_text, freqs, library_text, floor_text, ratio_text,
               batch_floor_text, batch_ratio_text, alloc_text, extra_text, verdict]


def main():
    header = ["operation", "size", "freqs", "library", "floor", "ratio", "batch floor",
              "batch ratio", "allocs/key (own)", "extra allocs/call", "target"]
    table = [header]
    for path in sys.argv[1:]:
        table.extend(rows(path))
    widths = [max(len(row[i]) for row in table) for i in range(len(header))]
    for n, row in enumerate(table):
        print("| " + " | ".join(cell.ljust(widths[i]) for i, cell in enumerate(row)) + " |")
        if n == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")


if __name__ == "__main__":
    main()
