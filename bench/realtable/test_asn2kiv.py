#!/usr/bin/env python3
"""Checks of asn2kiv against slow, obviously right versions of the same.

    python3 bench/realtable/test_asn2kiv.py
"""

import ipaddress
import os
import random
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import asn2kiv  # noqa: E402

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "asn2kiv.py")


def reference_cover(first, last, width):
    cls = ipaddress.IPv4Address if width == 32 else ipaddress.IPv6Address
    return [(int(n.network_address), n.prefixlen)
            for n in ipaddress.summarize_address_range(cls(first), cls(last))]


class Cover(unittest.TestCase):
    def test_matches_the_minimal_cover(self):
        rng = random.Random(7)
        for width in (32, 128):
            top = (1 << width) - 1
            cases = [(0, 0), (0, top), (top, top), (1, top), (0, top - 1), (5, 5)]
            for _ in range(3000):
                # Both small ranges near alignment boundaries and wide ones.
                a = rng.randrange(top + 1)
                b = min(top, a + rng.choice([0, 1, 255, 256, 1 << rng.randrange(width)]))
                a &= ~((1 << rng.randrange(width // 2)) - 1)
                cases.append((a, b))
            for a, b in cases:
                self.assertEqual(asn2kiv.cover(a, b, width), reference_cover(a, b, width),
                                 (width, a, b))


def contains(outer, inner, width):
    (onet, olen), (inet, ilen) = outer, inner
    return olen <= ilen and (inet >> (width - olen)) == (onet >> (width - olen))


class Coverage(unittest.TestCase):
    def random_table(self, rng, family, n):
        width = asn2kiv.WIDTH[family]
        lengths = [8, 12, 16, 20, 22, 24] if family == 4 else [16, 24, 32, 40, 48]
        routes = {}
        while len(routes) < n:
            plen = rng.choice(lengths)
            # A narrow address space, so that routes nest and share blocks.
            net = (rng.randrange(1, 4) << (width - 8)) | (rng.randrange(1 << 16) << (width - 24))
            net &= ~((1 << (width - plen)) - 1)
            routes[(net, plen)] = rng.randrange(1, 70000)
        return sorted(routes.items())

    def test_covered_counts_routes_inside_some_aggregate(self):
        rng = random.Random(11)
        for family in (4, 6):
            width = asn2kiv.WIDTH[family]
            for _ in range(20):
                routes = self.random_table(rng, family, 300)
                quotas = {L: rng.randrange(1, 8) for L in asn2kiv.AGGREGATES[family]}
                chosen = asn2kiv.aggregates(routes, family, quotas)
                aggs = [(b << (width - L), L) for L, blocks in chosen.items() for b in blocks]
                want = sum(1 for p, _ in routes if any(contains(a, p, width) for a in aggs))
                self.assertEqual(asn2kiv.covered(routes, family, chosen), want)

    def test_aggregates_are_the_densest_blocks(self):
        rng = random.Random(13)
        routes = self.random_table(rng, 4, 400)
        chosen = asn2kiv.aggregates(routes, 4, {16: 5})
        count = {}
        for (net, plen), _ in routes:
            if plen >= 16:
                count[net >> 16] = count.get(net >> 16, 0) + 1
        best = sorted(count, key=lambda b: (-count[b], b))[:5]
        self.assertEqual(list(chosen[16]), best)
        for block, asn in chosen[16].items():
            first = min(p for p, _ in routes if p[1] >= 16 and p[0] >> 16 == block)
            self.assertEqual(asn, dict(routes)[first])

    def test_empty_slot_leaves_a_block_that_a_route_ends_against(self):
        routes = sorted({(0x0A000000, 24): 1, (0x0A0001FF, 32): 2, (0x0A000300, 24): 3}.items())
        chosen = asn2kiv.aggregates(routes, 4, {8: 1})
        self.assertEqual(asn2kiv.empty_slot(routes, chosen), (0x0A000200, 24))

    def test_empty_slot_is_the_first_free_block_inside_an_aggregate(self):
        rng = random.Random(17)
        for _ in range(30):
            routes = self.random_table(rng, 4, 200)
            chosen = asn2kiv.aggregates(routes, 4, {8: 2, 12: 3, 16: 4, 20: 6})
            got = asn2kiv.empty_slot(routes, chosen)
            aggs = [(b << (32 - L), L) for L, blocks in chosen.items() for b in blocks]
            if got is None:
                continue
            slot = got
            self.assertEqual(slot[1], 24)
            self.assertTrue(any(contains(a, slot, 32) for a in aggs))
            # Nothing of the FIB inside it, at it, or around it.
            for p, _ in routes:
                self.assertFalse(contains(slot, p, 32) or contains(p, slot, 32), (slot, p))


class Scenario(unittest.TestCase):
    CSV4 = ("1.0.0.0,1.0.0.255,13335,\"A, Inc.\"\n"
            "1.0.4.0,1.0.7.255,38803,B\n"
            "1.0.16.0,1.0.16.255,2519,C\n"
            "1.0.64.0,1.0.127.255,18144,D\n"
            "1.0.128.0,1.0.196.255,23969,E\n"
            "1.0.4.0,1.0.7.255,64500,B2\n"
            "2.16.0.0,2.16.3.255,20940,F\n"
            "2.16.8.0,2.16.9.255,20940,F\n")
    CSV6 = ("2001::,2001::ffff:ffff:ffff:ffff:ffff:ffff,6939,G\n"
            "2001:200::,2001:200:1b9:ffff:ffff:ffff:ffff:ffff,2500,H\n"
            "2001:200:1ba::,2001:200:1ba:ffff:ffff:ffff:ffff:ffff,24047,I\n")

    def generate(self, d, name, *extra):
        for fname, text in (("v4.csv", self.CSV4), ("v6.csv", self.CSV6)):
            with open(os.path.join(d, fname), "w") as f:
                f.write(text)
        out = os.path.join(d, name)
        subprocess.run([sys.executable, SCRIPT, "--ipv4", os.path.join(d, "v4.csv"),
                        "--ipv6", os.path.join(d, "v6.csv"), "-o", out, *extra],
                       check=True, stdout=subprocess.DEVNULL)
        with open(out) as f:
            return f.read()

    def test_same_data_same_scenario_and_every_range_routed(self):
        with tempfile.TemporaryDirectory() as d:
            a = self.generate(d, "a.kiv")
            b = self.generate(d, "b.kiv")
            self.assertEqual(a, b)
            fib = [line.split()[2] for line in a.splitlines() if line.startswith("fib ")]
            self.assertEqual(len(fib), len(set(fib)))
            # Exactly the minimal covers of the ranges, each prefix once.
            want = set()
            for row in (self.CSV4 + self.CSV6).splitlines():
                first, last = (ipaddress.ip_address(x) for x in row.split(",")[:2])
                want.update(str(n) for n in ipaddress.summarize_address_range(first, last))
            self.assertEqual(set(fib), want)
            # A prefix two overlapping ranges give keeps the first one's AS.
            self.assertIn(f"fib inet 1.0.4.0/22 adj {asn2kiv.adjacency(38803)}", a.splitlines())
            # The enable is measured over a FIB that is already there.
            lines = a.splitlines()
            first_settle = lines.index("settle")
            self.assertLess(max(i for i, l in enumerate(lines) if l.startswith("fib ")),
                            first_settle)
            self.assertEqual(lines[first_settle + 2], "firewall on")
            self.assertEqual(lines[-1], "check")

    def test_ipv4_only_and_limit(self):
        with tempfile.TemporaryDirectory() as d:
            text = self.generate(d, "c.kiv", "--ipv4-only", "--routes", "3")
            fib = [line.split()[2] for line in text.splitlines() if line.startswith("fib ")]
            self.assertEqual(fib, ["1.0.0.0/24", "1.0.4.0/22", "1.0.16.0/24"])

    def test_until_cuts_after_the_load_or_the_enable(self):
        with tempfile.TemporaryDirectory() as d:
            full = self.generate(d, "all.kiv", "--ipv4-only").splitlines()
            load = self.generate(d, "load.kiv", "--ipv4-only", "--until", "load").splitlines()
            enable = self.generate(d, "en.kiv", "--ipv4-only", "--until", "enable").splitlines()
            # The load ends at the first settle: everything configured, the
            # firewall never turned on.
            self.assertEqual(load[-1], "settle")
            self.assertEqual(load.count("settle"), 1)
            self.assertNotIn("firewall on", load)
            self.assertTrue(any(l.startswith("prefix ") for l in load))
            # The enable is the load and then the firewall turned on and
            # settled, nothing after it; both are how the whole run starts.
            self.assertEqual(enable[: len(load)], load)
            self.assertEqual([l for l in enable[len(load):] if not l.startswith("echo ")],
                             ["firewall on", "settle"])
            self.assertEqual(full[: len(enable)], enable)
            self.assertGreater(len(full), len(enable))

    def test_next_hops_only_changes_the_adjacencies(self):
        with tempfile.TemporaryDirectory() as d:
            full = self.generate(d, "all.kiv").splitlines()
            few = self.generate(d, "few.kiv", "--next-hops", "2").splitlines()
            self.assertEqual(len(full), len(few))
            adjs = set()
            for a, b in zip(full, few):
                if not a.startswith("fib "):
                    self.assertEqual(a, b)
                    continue
                # The same route, its AS now hashed into 1..2.
                self.assertEqual(a.split()[:3], b.split()[:3])
                net = ipaddress.ip_network(a.split()[2])
                asn = next(int(r.split(",")[2]) for r in (self.CSV4 + self.CSV6).splitlines()
                           if net.version == ipaddress.ip_address(r.split(",")[0]).version
                           and ipaddress.ip_address(r.split(",")[0]) <= net[0]
                           and net[-1] <= ipaddress.ip_address(r.split(",")[1]))
                self.assertEqual(int(b.split()[-1]), asn2kiv.adjacency(asn, 2))
                adjs.add(int(b.split()[-1]))
            self.assertEqual(adjs, {1, 2})


if __name__ == "__main__":
    unittest.main()
