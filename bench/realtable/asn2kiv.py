#!/usr/bin/env python3
"""Turns an IP-to-ASN table into a kivsim scenario at Internet scale.

The table gives inclusive address ranges with the AS that originates them.
Each range becomes the fewest CIDR prefixes that cover it exactly, and every
such prefix is a FIB route of one VRF. Over that FIB the scenario configures
segment prefixes the way an operator would: aggregates of a few lengths,
nested, chosen where the routes are dense, so that most of the table sits
inside some segment. It then measures turning the feature on at full table
and a handful of changes made there, checking the hardware after each.

The output is a pure function of the input files and the options: the same
data gives a byte-identical scenario (nothing depends on set or dict order,
the clock or a random seed).

Standard library only; run with --help for the options.
"""

import argparse
import csv
import os
import socket
import sys

VRF = "inet"

# Aggregate lengths per family, and how many blocks of each length become
# segment prefixes at full table (the densest ones). Scaled down with the
# routes when the table is cut short.
AGGREGATES = {
    4: {8: 40, 12: 600, 16: 8000, 20: 16000},
    6: {16: 12, 24: 300, 32: 5000},
}
WIDTH = {4: 32, 6: 128}
ADJ_COUNT = 4096
SEGMENTS = 300


def mix(x, salt):
    """A 32-bit multiplicative hash: spreads ASNs over buckets, stably."""
    x = ((x ^ salt) * 0x9E3779B1) & 0xFFFFFFFF
    x ^= x >> 15
    x = (x * 0x85EBCA6B) & 0xFFFFFFFF
    return x ^ (x >> 13)


def adjacency(asn, count=ADJ_COUNT):
    # Every route of an AS leaves by the same adjacency, as if each AS had
    # one next hop; 1..4096 keeps the indices well clear of the drop ones.
    return 1 + mix(asn, 0x5BD1E995) % count


def segment_bucket(asn, segments):
    return mix(asn, 0x27D4EB2F) % segments


def cover(first, last, width):
    """The fewest prefixes (network, length) whose union is [first, last].

    Each step takes the largest block that starts at `first`: as large as
    the alignment of `first` allows and no larger than what is left.
    """
    out = []
    while first <= last:
        align = first & -first if first else 1 << width
        room = 1 << ((last - first + 1).bit_length() - 1)
        size = min(align, room)
        out.append((first, width - size.bit_length() + 1))
        first += size
    return out


def address(text, family):
    af = socket.AF_INET if family == 4 else socket.AF_INET6
    return int.from_bytes(socket.inet_pton(af, text), "big")


def prefix_text(net, length, family):
    if family == 4:
        raw = net.to_bytes(4, "big")
        return f"{socket.inet_ntop(socket.AF_INET, raw)}/{length}"
    raw = net.to_bytes(16, "big")
    return f"{socket.inet_ntop(socket.AF_INET6, raw)}/{length}"


def read_routes(path, family, stats):
    """FIB routes {(network, length): asn} from a CSV of ranges.

    Overlapping ranges can yield the same prefix twice; the first range in
    the file keeps it, so the result does not depend on anything but the
    file.
    """
    width = WIDTH[family]
    routes = {}
    with open(path, newline="", encoding="utf-8") as f:
        for lineno, row in enumerate(csv.reader(f), 1):
            if not row:
                continue
            try:
                first = address(row[0].strip(), family)
                last = address(row[1].strip(), family)
                asn = int(row[2])
            except (IndexError, ValueError, OSError) as e:
                sys.exit(f"{path}:{lineno}: not FIRST,LAST,ASN,...: {e}")
            if first > last:
                sys.exit(f"{path}:{lineno}: range ends before it starts")
            stats[f"ranges{family}"] += 1
            for p in cover(first, last, width):
                if p in routes:
                    stats["duplicates"] += 1
                else:
                    routes[p] = asn
    return routes


def unicast(net, family):
    # Segment prefixes must name unicast addresses: not the all-zeros
    # address, not multicast (224/4, ff00::/8), not 255.255.255.255.
    if net == 0:
        return False
    if family == 4:
        return net >> 28 != 0xE and net != 0xFFFFFFFF
    return net >> 120 != 0xFF


def aggregates(routes, family, quotas):
    """{length: {block: asn}}: the densest blocks of each aggregate length.

    A block's weight is the number of routes inside it (routes as long as
    the block or longer); ties go to the lower address. Its ASN is that of
    the first route inside it, which decides its segment.
    """
    width = WIDTH[family]
    chosen = {}
    for length, quota in quotas.items():
        shift = width - length
        count = {}
        first_asn = {}
        for (net, plen), asn in routes:
            if plen >= length:
                block = net >> shift
                if block in count:
                    count[block] += 1
                else:
                    count[block] = 1
                    first_asn[block] = asn
        ranked = sorted(count.items(), key=lambda kv: (-kv[1], kv[0]))
        picked = {}
        for block, _ in ranked:
            if len(picked) == quota:
                break
            if unicast(block << shift, family):
                picked[block] = first_asn[block]
        chosen[length] = picked
    return chosen


def covered(routes, family, chosen):
    """How many routes lie inside some segment prefix (or are one)."""
    width = WIDTH[family]
    levels = sorted(chosen.items())
    n = 0
    for (net, plen), _ in routes:
        for length, blocks in levels:
            if length > plen:
                break
            if (net >> (width - length)) in blocks:
                n += 1
                break
    return n


def empty_slot(routes, chosen, length=24):
    """The first /length block that holds no FIB route, is no FIB route, and
    lies inside a segment aggregate (so it nests), or None.

    Only the first aligned block of each gap between routes is tried: the
    gaps are many, and some of them are inside aggregates.
    """
    width = WIDTH[4]
    size = 1 << (width - length)
    levels = sorted(chosen.items())
    end = -1  # last address covered by the routes seen so far
    starts = [net for (net, _), _ in routes]
    ends = [net + (1 << (width - plen)) - 1 for (net, plen), _ in routes]
    for i, start in enumerate(starts):
        if start > end + 1:
            slot = (end + 1 + size - 1) // size * size
            if slot + size - 1 < start and unicast(slot, 4):
                for plen, blocks in levels:
                    if (slot >> (width - plen)) in blocks:
                        return slot, length
        end = max(end, ends[i])
    return None


def limit_routes(v4, v6, limit):
    """The first routes of each family in address order, shared between the
    families in proportion to their sizes, when the table is cut short."""
    total = len(v4) + len(v6)
    if limit is None or limit >= total:
        return v4, v6
    keep4 = round(limit * len(v4) / total) if v6 else limit
    return v4[:keep4], v6[: limit - keep4]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--ipv4", required=True, help="CSV of IPv4 ranges")
    ap.add_argument("--ipv6", help="CSV of IPv6 ranges")
    ap.add_argument("--ipv4-only", action="store_true", help="leave IPv6 out")
    ap.add_argument("--routes", type=int, help="keep at most this many FIB routes")
    ap.add_argument("--segments", type=int, default=SEGMENTS,
                    help=f"segment buckets (default {SEGMENTS})")
    ap.add_argument("--next-hops", type=int, default=ADJ_COUNT,
                    help="adjacencies the FIB routes leave by, 1..N by a hash of the AS"
                         f" (default {ADJ_COUNT}; a router with a few upstreams has a few)")
    ap.add_argument("--until", choices=("load", "enable", "all"), default="all",
                    help="end the scenario after the settle of the load (firewall off),"
                         " after that of the enable (firewall on), or run every change"
                         " (default all)")
    ap.add_argument("--source", default="", help="where the data came from, for the header")
    ap.add_argument("-o", "--output", required=True, help="scenario file to write")
    args = ap.parse_args()
    if args.routes is not None and args.routes < 1:
        ap.error("--routes must be at least 1")
    if not 1 <= args.next_hops <= ADJ_COUNT:
        ap.error(f"--next-hops must be 1 to {ADJ_COUNT}")
    if args.segments < 2:
        ap.error("--segments must be at least 2")

    stats = {"ranges4": 0, "ranges6": 0, "duplicates": 0}
    r4 = read_routes(args.ipv4, 4, stats)
    r6 = {}
    if args.ipv6 and not args.ipv4_only:
        r6 = read_routes(args.ipv6, 6, stats)
    all4 = sorted(r4.items())
    all6 = sorted(r6.items())
    full = len(all4) + len(all6)
    v4, v6 = limit_routes(all4, all6, args.routes)
    scale = (len(v4) + len(v6)) / full if full else 1.0

    def quotas(family):
        return {L: max(1, round(q * scale)) for L, q in AGGREGATES[family].items()}

    chosen = {4: aggregates(v4, 4, quotas(4))}
    if v6:
        chosen[6] = aggregates(v6, 6, quotas(6))

    # Segment prefixes, in address order per family, each with its segment.
    prefixes = []  # (family, net, length, segment)
    for family in chosen:
        width = WIDTH[family]
        for length, blocks in chosen[family].items():
            for block, asn in blocks.items():
                seg = f"seg{segment_bucket(asn, args.segments):03d}"
                prefixes.append((family, block << (width - length), length, seg))
    prefixes.sort()
    segments = sorted({p[3] for p in prefixes})

    cov4 = covered(v4, 4, chosen[4])
    cov6 = covered(v6, 6, chosen[6]) if v6 else 0

    # The changes made at full table.
    assign = {(f, n, l): s for f, n, l, s in prefixes}

    def ranked_first(family, length):
        blocks = chosen.get(family, {}).get(length, {})
        # aggregates() filled each dict densest first.
        for block in blocks:
            return (family, block << (WIDTH[family] - length), length)
        return None

    def other_segment(seg):
        return segments[(segments.index(seg) + 1) % len(segments)]

    changes = []  # (label, lines)
    slot = empty_slot(v4, chosen[4])
    if slot is not None:
        net, length = slot
        # It lands in a segment other than that of the aggregate around it
        # (when there is another), so its entry carries an id of its own.
        outer = max(l for l in chosen[4] if (net >> (32 - l)) in chosen[4][l])
        seg = other_segment(assign[(4, (net >> (32 - outer)) << (32 - outer), outer)])
        text = prefix_text(net, length, 4)
        changes.append((f"add {text} to {seg}, no FIB route inside it",
                        [f"prefix {VRF} {text} {seg}"]))
        assign[(4, net, length)] = seg
    removed = ranked_first(4, 16)
    if removed is not None:
        text = prefix_text(removed[1], removed[2], 4)
        changes.append((f"remove {text}, the /16 with the most routes inside",
                        [f"prefix {VRF} {text} delete"]))
        del assign[removed]
    moved = ranked_first(4, 12)
    if moved is not None and len(segments) >= 2:
        to = other_segment(assign[moved])
        text = prefix_text(moved[1], moved[2], 4)
        changes.append((f"move {text}, the densest /12, from {assign[moved]} to {to}",
                        [f"prefix {VRF} {text} {to}"]))
        assign[moved] = to
    held = {}
    for seg in assign.values():
        held[seg] = held.get(seg, 0) + 1
    if held:
        gone = min(held, key=lambda s: (-held[s], s))
        changes.append((f"delete segment {gone}, the one with the most prefixes ({held[gone]})",
                        [f"segment {VRF} {gone} delete"]))
    changes.append(("firewall off", ["firewall off"]))
    changes.append(("firewall on again", ["firewall on"]))

    per_length = {}
    for f, _, l, _ in prefixes:
        per_length[(f, l)] = per_length.get((f, l), 0) + 1

    settles = []  # (line number, label)
    lines = []

    def emit(text):
        lines.append(text)

    def settle(label):
        emit("settle")
        settles.append((len(lines), label))

    emit("# A real routing table, generated by bench/realtable/asn2kiv.py")
    if args.source:
        emit(f"# from {args.source}")
    emit("# (data CC BY 4.0: RouteViews, DB-IP and NRO; see bench/realtable/README.md).")
    emit(f"# {len(v4)} IPv4 and {len(v6)} IPv6 FIB routes"
         + ("" if len(v4) + len(v6) == full else f" (the first {len(v4) + len(v6)} of {full})")
         + f", {len(prefixes)} segment prefixes in {len(segments)} segments.")
    emit("#")
    emit("# The VRF routes both families, as one carrying an Internet table does. That")
    emit("# is also the most work for the library: a segment prefix that is not a FIB")
    emit("# route is watched, resolved to its covering route and programmed forwarding")
    emit("# as resolved (in a VRF that does not route it is only a drop route).")
    emit(f"vrf {VRF} id 1 routing on routing6 on")
    for family, routes in ((4, v4), (6, v6)):
        for (net, plen), asn in routes:
            emit(f"fib {VRF} {prefix_text(net, plen, family)} adj {adjacency(asn, args.next_hops)}")
    for seg in segments:
        emit(f"segment {VRF} {seg}")
    for family, net, length, seg in prefixes:
        emit(f"prefix {VRF} {prefix_text(net, length, family)} {seg}")
    emit("# FIB and configuration in place, the feature not running yet.")
    settle("FIB and configuration loaded, firewall off")
    emit("echo == loaded ==")
    emit("firewall on")
    settle("firewall on (the enable)")
    emit("echo == firewall on ==")
    emit("status")
    emit("check")
    for label, change in changes:
        emit(f"echo == {label} ==")
        lines.extend(change)
        settle(label)
        emit("check")

    # A shorter run is the same lines cut after one settle, so a run up to the
    # load and one up to the enable differ in the enable alone.
    if args.until != "all":
        keep = settles[0 if args.until == "load" else 1][0]
        del lines[keep:]
        settles = [s for s in settles if s[0] <= keep]

    tmp = args.output + ".tmp"
    with open(tmp, "w", encoding="ascii", newline="\n") as f:
        f.write("\n".join(lines) + "\n")
    os.replace(tmp, args.output)

    routes = len(v4) + len(v6)
    print(f"ranges read:          {stats['ranges4'] + stats['ranges6']}"
          f" (IPv4 {stats['ranges4']}, IPv6 {stats['ranges6']};"
          f" {stats['duplicates']} prefixes repeated by overlapping ranges, kept once)")
    if routes < full:
        print(f"routes kept:          {routes} of {full} (the first in address order)")
    print(f"FIB routes written:   {routes} (IPv4 {len(v4)}, IPv6 {len(v6)})")
    print(f"segment prefixes:     {len(prefixes)} ("
          + ", ".join(f"{n} /{l} IPv{f}" for (f, l), n in sorted(per_length.items())) + ")")
    print(f"segments:             {len(segments)}")

    def pct(a, b):
        return f"{100.0 * a / b:.1f}%" if b else "-"

    print(f"routes covered:       {cov4 + cov6} of {routes}, {pct(cov4 + cov6, routes)}"
          f" (IPv4 {pct(cov4, len(v4))}, IPv6 {pct(cov6, len(v6))})")
    print(f"scenario:             {args.output}, {len(lines)} lines")
    print("settles:")
    for lineno, label in settles:
        print(f"  line {lineno}: {label}")


if __name__ == "__main__":
    main()
