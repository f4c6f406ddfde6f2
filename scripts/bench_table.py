#!/usr/bin/env python3
"""Makes a table of a Google Benchmark run: a line for each kernel, a column for each form.

Rows named KERNEL/.../FORM with a counter "px" (seconds a pixel) become a line in nanoseconds a pixel; all others
are listed with their own time and counters. The minimum over the repetitions counts.
"""
import json
import sys

FORMS = ["plain", "SSE4", "AVX2", "AVX3", "NEON"]


def main(path):
    with open(path) as file:
        run = json.load(file)
    rows, peers, others = {}, {}, []
    for b in run["benchmarks"]:
        if b.get("aggregate_name", "min") != "min" or b.get("run_type") == "aggregate" and b["aggregate_name"] != "min":
            continue
        name = b["run_name"]
        head, _, form = name.rpartition("/")
        if "px" in b and form in FORMS:
            rows.setdefault(head, {})[form] = b["px"] * 1e9
        elif "px" in b:
            peers[name] = b["px"] * 1e9
        elif b.get("run_type") != "aggregate":
            others.append(b)
    context = run["context"]
    print(f"Run on {context['date'][:10]}: {context['num_cpus']} x {context['mhz_per_cpu']} MHz; "
          + "; ".join(f"{key} {value}" for key, value in context.items()
                      if key in ("compiler", "flags", "vector form", "cpu")) + "\n")
    print("| kernel, ns a pixel | " + " | ".join("AVX-512" if f == "AVX3" else f for f in FORMS[:4]) + " |")
    print("|---|" + "---|" * 4)
    for head, forms in rows.items():
        print(f"| {head} | " + " | ".join(f"{forms[f]:.2f}" if f in forms else "" for f in FORMS[:4]) + " |")
    print("\n| peer or bound, ns a pixel | |\n|---|---|")
    for name, value in peers.items():
        print(f"| {name} | {value:.3f} |")
    print("\n| whole | time | |\n|---|---|---|")
    best = {}
    for b in others:
        if b["name"] not in best or b["real_time"] < best[b["name"]]["real_time"]:
            best[b["name"]] = b
    for name, b in best.items():
        known = ("name", "run_name", "run_type", "repetitions", "repetition_index", "threads", "iterations",
                 "real_time", "cpu_time", "time_unit", "family_index", "per_family_instance_index", "label")
        counters = ", ".join(f"{key} {value:.4g}" for key, value in b.items()
                             if key not in known and isinstance(value, (int, float)))
        print(f"| {name} | {b['real_time']:.1f} {b['time_unit']} | {counters} |")


main(sys.argv[1])
