#!/usr/bin/env python3
"""The kernel writes of a re-tag, as `ip -batch` lines, from kivsim's `hw`.

    hw2ip.py batch SCENARIO BEFORE.hw AFTER.hw DIR
        DIR/add.txt: the routes BEFORE holds, as the kernel dataplane writes
        them (the state the re-tag starts from); DIR/replace.txt: the writes
        that turn BEFORE into AFTER, one `route replace` per kernel write the
        library makes; DIR/expected.txt: AFTER as `state` prints a table.
        Prints the number of writes in replace.txt.
    hw2ip.py state SCENARIO < `ip -j route show table all` output
        The kernel's routes of the two protocols, one a line, in the form of
        expected.txt, to compare the table `ip -batch` left with the one the
        library left.

The route forms are those of the kernel dataplane (sim/linux): a FIB route
is protocol 75, a route of the library's own protocol 76; a forward
adjacency A is a unicast route via 100.64.0.0 + A, on link out of kiv0; a
drop route is a blackhole; the segment id is the realm, written only when
not 0. A route the library adds (a segment prefix with no FIB route) it
writes twice, as the kernel dataplane sees it: the route without an id, then
the id (one programRoute, one hardwareIdIs).
"""

import ipaddress
import json
import os
import re
import sys

PROTO_FIB = 75
PROTO_SEGMENT = 76
NEXT_HOP_BASE = int(ipaddress.IPv4Address("100.64.0.0"))
NEXT_HOP_COUNT = (1 << 22) - 2
LINK = "kiv0"


class Bad(Exception):
    pass


def vrf_tables(path):
    """{VRF name: table id} from the scenario's `vrf NAME id N ...` lines."""
    tables = {}
    with open(path) as f:
        for lineno, line in enumerate(f, 1):
            words = line.split()
            if len(words) >= 4 and words[0] == "vrf" and words[2] == "id":
                if not words[3].isdigit():
                    raise Bad(f"{path}:{lineno}: VRF id '{words[3]}' is not a number")
                tables[words[1]] = int(words[3])
    return tables


HW_LINE = re.compile(r"^(\S+) (\S+) (routeTypeForward|routeTypeDrop) adj (\d+) id (\d+)$")


def read_hw(path, tables):
    """{(table, prefix): (kind, adj, id)} of a file of `hw` lines (other
    lines, what else the scenario printed, are skipped)."""
    out = {}
    with open(path) as f:
        for lineno, line in enumerate(f, 1):
            m = HW_LINE.match(line.rstrip("\n"))
            if not m:
                continue
            vrf, prefix, kind, adj, hwid = m.groups()
            if vrf not in tables:
                raise Bad(f"{path}:{lineno}: VRF '{vrf}' has no `vrf {vrf} id N` line")
            try:
                net = ipaddress.ip_network(prefix)
            except ValueError:
                raise Bad(f"{path}:{lineno}: '{prefix}' is not a prefix")
            if net.version != 4:
                continue  # the kernel carries no realm on IPv6 routes
            adj = int(adj)
            if kind == "routeTypeForward" and adj >= NEXT_HOP_COUNT:
                raise Bad(f"{path}:{lineno}: adjacency {adj} is no next hop of kiv0")
            out[(tables[vrf], net)] = ("drop" if kind == "routeTypeDrop" else "via", adj,
                                      int(hwid))
    return out


def next_hop(adj):
    return str(ipaddress.IPv4Address(NEXT_HOP_BASE + adj))


def route_line(verb, table, net, kind, adj, proto, realm):
    words = ["route", verb]
    if kind == "drop":
        words += ["blackhole", str(net)]
    else:
        words += [str(net), "via", next_hop(adj), "dev", LINK, "onlink"]
    words += ["table", str(table), "proto", str(proto)]
    if realm:
        words += ["realm", str(realm)]
    return " ".join(words)


def state_line(table, net, kind, adj, proto, realm):
    hop = "blackhole" if kind == "drop" else "via " + next_hop(adj)
    return f"{table} {net} {hop} proto {proto} realm {realm}"


def sort_key(item):
    (table, net), _ = item
    return (table, int(net.network_address), net.prefixlen)


def batch(scenario, before_path, after_path, out_dir):
    tables = vrf_tables(scenario)
    before = read_hw(before_path, tables)
    after = read_hw(after_path, tables)
    gone = sorted(k for k in before if k not in after)
    if gone:
        table, net = gone[0]
        raise Bad(f"{len(gone)} routes of the first table are gone from the second"
                  f" (table {table} {net} first): not a re-tag")
    add, replace, expected = [], [], []
    for (table, net), (kind, adj, hwid) in sorted(before.items(), key=sort_key):
        add.append(route_line("add", table, net, kind, adj, PROTO_FIB, hwid))
    for (table, net), now in sorted(after.items(), key=sort_key):
        kind, adj, hwid = now
        was = before.get((table, net))
        proto = PROTO_FIB if was else PROTO_SEGMENT
        expected.append(state_line(table, net, kind, adj, proto, hwid))
        if was == now:
            continue
        if was is None and hwid:
            replace.append(route_line("replace", table, net, kind, adj, proto, 0))
        replace.append(route_line("replace", table, net, kind, adj, proto, hwid))
    for name, lines in (("add.txt", add), ("replace.txt", replace), ("expected.txt", expected)):
        with open(os.path.join(out_dir, name), "w") as f:
            f.write("".join(line + "\n" for line in lines))
    return len(replace)


def state(scenario, text):
    """The routes of the two protocols in `ip -j route show table all` (one
    or more arrays), in expected.txt's form, sorted the same way."""
    tables = set(vrf_tables(scenario).values())
    rows = []
    decoder = json.JSONDecoder()
    pos = 0
    while True:
        while pos < len(text) and text[pos].isspace():
            pos += 1
        if pos == len(text):
            break
        routes, pos = decoder.raw_decode(text, pos)
        for r in routes:
            proto = r.get("protocol")
            if str(proto) not in (str(PROTO_FIB), str(PROTO_SEGMENT)):
                continue
            table = int(r.get("table", 0)) if str(r.get("table", "")).isdigit() else None
            if table not in tables:
                raise Bad(f"a route of table {r.get('table')!r}, not one of the scenario's")
            dst = r["dst"] if "/" in r["dst"] else r["dst"] + "/32"
            net = ipaddress.ip_network(dst)
            if r.get("type") == "blackhole":
                kind, adj = "drop", 0
            elif "gateway" in r:
                kind = "via"
                adj = int(ipaddress.IPv4Address(r["gateway"])) - NEXT_HOP_BASE
            else:
                raise Bad(f"{dst}: neither a blackhole nor a route via a next hop")
            realm = str(r.get("flow", {}).get("to", "0"))
            if not realm.isdigit():
                raise Bad(f"{dst}: realm '{realm}' is not a number")
            rows.append(((table, net), state_line(table, net, kind, adj, int(proto), int(realm))))
    rows.sort(key=sort_key)
    return [line for _, line in rows]


def main(argv):
    try:
        if len(argv) == 5 and argv[0] == "batch":
            print(batch(*argv[1:]))
            return 0
        if len(argv) == 2 and argv[0] == "state":
            sys.stdout.write("".join(l + "\n" for l in state(argv[1], sys.stdin.read())))
            return 0
    except (Bad, OSError, ValueError, KeyError) as e:
        print(f"hw2ip: {e}", file=sys.stderr)
        return 1
    print(__doc__.split("\n\n")[1], file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
