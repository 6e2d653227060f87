#!/usr/bin/env python3
"""Whose heap is it: the library's, the simulated switch's or the bench's.

Runs FullTableBench under heaptrack with KIV_STOP_AFTER_ENABLE=1, so the
switch is still standing when the process ends and everything it holds after
the enable shows as left in use, then charges each block to an owner by its
allocation stack:

  library   a frame of the library (Kiv::) is on the stack: its records,
            tries, lists, reactors, and what it writes into the platform's
            collections (hardware entries of segment prefixes, watches);
  switch    otherwise a frame of the simulated switch or the platform
            (sim::, Routing::, L3::, Firewall::, Segment::, Zop::, Ruv::...);
  bench     everything else: the benchmark's workload and bookkeeping.

Blocks of 1 MB and up that the platform maps itself (Zop::tableMemory) are
not seen by heaptrack; FullTableBench's heap figures include them.

usage: bench/heap_owners.py [--bench build/release/bench/FullTableBench]
                            [--data existing.zst] [--top N]
"""
import argparse
import collections
import glob
import os
import re
import subprocess
import sys
import tempfile

LIBRARY = re.compile(r"\bKiv::")
SWITCH = re.compile(r"\b(sim|Routing|Routing6|L3|Firewall|Segment|Quarn|Zop|Ruv|Trace|Agent|lumo)::")
# Frames that only carry the allocation (containers, smart pointers).
PLUMBING = re.compile(r"\bZop::(Ptr|makePtr|MapAttr|ScalarAttr|SetAttr|detail|OpenTable|Growing|Stepped)|^std::")


def owner(frames):
    """The library if one of its frames is on the stack, else the switch if
    one of the switch's or the platform's is, else the bench (its workload,
    the benchmark library, the C++ runtime)."""
    if any(LIBRARY.search(f) for f in frames):
        return "library"
    if any(SWITCH.search(f) for f in frames):
        return "switch"
    return "bench"


def site(frames):
    for f in reversed(frames):
        if (LIBRARY.search(f) or SWITCH.search(f)) and not PLUMBING.search(f):
            return re.sub(r"\(.*", "", f)[:100]
    return re.sub(r"\(.*", "", frames[-1])[:100]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--bench", default="build/release/bench/FullTableBench")
    ap.add_argument("--data", help="a heaptrack file of such a run, instead of running one")
    ap.add_argument("--top", type=int, default=12, help="sites listed per owner")
    args = ap.parse_args()

    mapped = None
    with tempfile.TemporaryDirectory() as tmp:
        data = args.data
        if not data:
            env = dict(os.environ, KIV_STOP_AFTER_ENABLE="1")
            out = os.path.join(tmp, "heap")
            run = subprocess.run(["heaptrack", "-o", out, args.bench, "--benchmark_filter=Enable"],
                                 env=env, check=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL, text=True)
            # heaptrack names its file after the compression it has.
            found = sorted(glob.glob(out + ".*"))
            if not found:
                sys.exit("heap_owners.py: heaptrack wrote no file")
            data = found[0]
            mapped = re.search(r"tables mapped: ([0-9.]+) MB", run.stdout)
        flame = os.path.join(tmp, "flame.txt")
        subprocess.run(["heaptrack_print", "-f", data, "--print-flamegraph", flame,
                        "--flamegraph-cost-type", "leaked"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        totals = collections.Counter()
        sites = collections.defaultdict(collections.Counter)
        with open(flame) as f:
            for line in f:
                stack, _, cost = line.rstrip("\n").rpartition(" ")
                frames = stack.split(";")
                who = owner(frames)
                totals[who] += int(cost)
                sites[who][site(frames)] += int(cost)

    mb = 1024.0 * 1024.0
    print("heap left in use after the enable, by owner (MB):")
    for who in ("library", "switch", "bench"):
        print(f"  {who:8} {totals[who] / mb:9.1f}")
    if mapped:
        print(f"  and {mapped.group(1)} MB of tables the platform mapped (review lists, watch list,"
              " resolver answers, adjacencies), which heaptrack does not see")
    for who in ("library", "switch"):
        print(f"\n{who}, by site:")
        for name, cost in sites[who].most_common(args.top):
            print(f"  {cost / mb:9.2f}  {name}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
