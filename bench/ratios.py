#!/usr/bin/env python3
"""Prints the medians of a benchmark run (JSON from --benchmark_out, run with
--benchmark_repetitions) as Markdown tables with each result's ratio to its
floor from the same run.

  bench/ratios.py updates.json image.json
"""
import json
import re
import sys

# Benchmark name prefix -> (floor name template, what the ratio means).
FLOORS = {
    "BM_UpdateEvent": "BM_ParseFloorEvent/entries:{entries}",
    "BM_UpdateRest": "BM_ParseFloorRest/entries:{entries}",
    "BM_ImageFromDataPng": "BM_SpngDirect",
    "BM_ImageFromDataJpeg": "BM_TurboJpegDirect",
    "BM_ImageEqualSame": "BM_MemcmpPixels",
    "BM_ImageEqualLastPixelDiffers": "BM_MemcmpPixels",
}

UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(paths):
    result = {}
    for path in paths:
        with open(path) as f:
            run = json.load(f)
        for b in run["benchmarks"]:
            if b.get("aggregate_name") != "median":
                continue
            scale = UNITS[b.get("time_unit", "ns")]
            result[b["run_name"]] = (b["cpu_time"] * scale, b["real_time"] * scale)
    return result


def pretty(ns):
    for unit, scale in (("ms", 1e6), ("µs", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


def main(paths):
    found = medians(paths)
    print("| benchmark | median CPU | median wall | floor | ratio (CPU) |")
    print("|---|---:|---:|---|---:|")
    for name, (cpu, wall) in found.items():
        prefix = name.split("/")[0]
        floor = FLOORS.get(prefix)
        ratio = ""
        if floor:
            args = dict(re.findall(r"(\w+):(\d+)", name))
            floor = floor.format(**args)
            if floor in found:
                ratio = f"{cpu / found[floor][0]:.3g}x"
        print(f"| {name} | {pretty(cpu)} | {pretty(wall)} | {floor or '(floor)'} | {ratio} |")


if __name__ == "__main__":
    main(sys.argv[1:])
