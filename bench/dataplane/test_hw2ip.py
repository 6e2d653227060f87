#!/usr/bin/env python3
"""Checks of hw2ip: the exact batch for a known re-tag, and the kernel's own
JSON read back into the same form.

    python3 bench/dataplane/test_hw2ip.py
"""

import json
import os
import random
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import hw2ip  # noqa: E402

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "hw2ip.py")
SCENARIO = "vrf red id 1\nvrf blue id 7 routing on\nfib red 10.0.0.0/24 adj 5\n"


class Batch(unittest.TestCase):
    def run_batch(self, before, after):
        with tempfile.TemporaryDirectory() as d:
            for name, text in (("s.kiv", SCENARIO), ("b.hw", before), ("a.hw", after)):
                with open(os.path.join(d, name), "w") as f:
                    f.write(text)
            p = subprocess.run([sys.executable, SCRIPT, "batch", *(os.path.join(d, n) for n in
                                                               ("s.kiv", "b.hw", "a.hw")), d],
                               capture_output=True, text=True)
            out = {}
            for name in ("add.txt", "replace.txt", "expected.txt"):
                path = os.path.join(d, name)
                if os.path.exists(path):
                    with open(path) as f:
                        out[name] = f.read().splitlines()
            return p, out

    def test_a_re_tag_is_one_write_per_changed_route_and_two_per_added_one(self):
        before = ("== before ==\n"
                  "blue 10.0.0.0/8 routeTypeForward adj 9 id 0\n"
                  "red 10.0.0.0/24 routeTypeForward adj 5 id 0\n"
                  "red 10.0.1.7/32 routeTypeForward adj 4194301 id 0\n"
                  "red 2001:db8::/32 routeTypeForward adj 5 id 0\n")
        after = ("== after ==\n"
                 "blue 10.0.0.0/8 routeTypeForward adj 9 id 0\n"
                 "blue 10.1.0.0/16 routeTypeForward adj 9 id 0\n"
                 "red 10.0.0.0/24 routeTypeForward adj 5 id 3\n"
                 "red 10.0.1.7/32 routeTypeForward adj 4194301 id 4\n"
                 "red 10.9.0.0/16 routeTypeDrop adj 1048578 id 3\n"
                 "red 10.0.0.0/12 routeTypeForward adj 5 id 2\n"
                 "red 2001:db8::/32 routeTypeForward adj 5 id 3\n")
        p, out = self.run_batch(before, after)
        self.assertEqual(p.returncode, 0, p.stderr)
        self.assertEqual(p.stdout, "7\n")
        self.assertEqual(out["add.txt"], [
            "route add 10.0.0.0/24 via 100.64.0.5 dev kiv0 onlink table 1 proto 75",
            "route add 10.0.1.7/32 via 100.127.255.253 dev kiv0 onlink table 1 proto 75",
            "route add 10.0.0.0/8 via 100.64.0.9 dev kiv0 onlink table 7 proto 75",
        ])
        # In table and address order; the untouched routes and IPv6 not at
        # all; an added route first without its id, then with it; one added
        # with id 0 once.
        self.assertEqual(out["replace.txt"], [
            "route replace 10.0.0.0/12 via 100.64.0.5 dev kiv0 onlink table 1 proto 76",
            "route replace 10.0.0.0/12 via 100.64.0.5 dev kiv0 onlink table 1 proto 76 realm 2",
            "route replace 10.0.0.0/24 via 100.64.0.5 dev kiv0 onlink table 1 proto 75 realm 3",
            "route replace 10.0.1.7/32 via 100.127.255.253 dev kiv0 onlink table 1 proto 75"
            " realm 4",
            "route replace blackhole 10.9.0.0/16 table 1 proto 76",
            "route replace blackhole 10.9.0.0/16 table 1 proto 76 realm 3",
            "route replace 10.1.0.0/16 via 100.64.0.9 dev kiv0 onlink table 7 proto 76",
        ])
        self.assertEqual(out["expected.txt"], [
            "1 10.0.0.0/12 via 100.64.0.5 proto 76 realm 2",
            "1 10.0.0.0/24 via 100.64.0.5 proto 75 realm 3",
            "1 10.0.1.7/32 via 100.127.255.253 proto 75 realm 4",
            "1 10.9.0.0/16 blackhole proto 76 realm 3",
            "7 10.0.0.0/8 via 100.64.0.9 proto 75 realm 0",
            "7 10.1.0.0/16 via 100.64.0.9 proto 76 realm 0",
        ])

    def test_what_is_no_re_tag_or_no_kernel_route_is_refused_by_name(self):
        cases = [
            ("red 10.0.0.0/24 routeTypeForward adj 5 id 0\n", "", "table 1 10.0.0.0/24"),
            ("", "red 10.0.0.0/24 routeTypeForward adj 4194302 id 1\n", "adjacency 4194302"),
            ("", "green 10.0.0.0/24 routeTypeForward adj 5 id 1\n", "VRF 'green'"),
            ("", "red 10.0.0.300/24 routeTypeForward adj 5 id 1\n", "'10.0.0.300/24'"),
        ]
        for before, after, named in cases:
            p, _ = self.run_batch(before, after)
            self.assertEqual(p.returncode, 1, (before, after))
            self.assertIn(named, p.stderr)
            self.assertNotIn("Traceback", p.stderr)


class State(unittest.TestCase):
    # What `ip -j route show table all` printed for routes of both forms,
    # with one of another protocol and the kernel's own local table.
    KERNEL = ('[{"dst":"1.0.0.0/24","gateway":"100.64.0.5","dev":"kiv0","table":"1",'
              '"protocol":"75","flags":["onlink"],"flow":{"to":"7"}},'
              '{"type":"blackhole","dst":"2.0.0.0/8","table":"1","protocol":"76","flags":[],'
              '"flow":{"to":"3"}},'
              '{"dst":"3.3.3.3","gateway":"100.64.0.9","dev":"kiv0","table":"1",'
              '"protocol":"76","flags":["onlink"]},'
              '{"dst":"0.0.0.0/0","gateway":"100.64.0.1","dev":"kiv0","table":"1",'
              '"protocol":"static","flags":[]},'
              '{"type":"local","dst":"100.127.255.254","dev":"kiv0","table":"local",'
              '"protocol":"kernel","scope":"host","prefsrc":"100.127.255.254","flags":[]}]\n')

    def test_the_kernels_json_reads_as_expected_txt(self):
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "s.kiv")
            with open(path, "w") as f:
                f.write(SCENARIO)
            self.assertEqual(hw2ip.state(path, self.KERNEL), [
                "1 1.0.0.0/24 via 100.64.0.5 proto 75 realm 7",
                "1 2.0.0.0/8 blackhole proto 76 realm 3",
                "1 3.3.3.3/32 via 100.64.0.9 proto 76 realm 0",
            ])

    def test_batch_then_state_round_trips_random_tables(self):
        # A random re-tag, its batch applied by a model of `ip route` (add
        # and replace keyed by table and prefix, the last write wins) and
        # printed as the kernel's JSON, reads back as expected.txt.
        rng = random.Random(5)
        with tempfile.TemporaryDirectory() as d:
            scenario = os.path.join(d, "s.kiv")
            with open(scenario, "w") as f:
                f.write(SCENARIO)
            for _ in range(30):
                before, after = [], []
                for i in range(rng.randrange(1, 40)):
                    vrf = rng.choice(["red", "blue"])
                    prefix = f"{rng.randrange(1, 224)}.{i}.{rng.randrange(256)}.0/24"
                    adj = rng.randrange(1, 5000)
                    line = f"{vrf} {prefix} routeTypeForward adj {adj} id "
                    if rng.random() < 0.7:
                        before.append(line + "0")
                    kind = rng.choice(["routeTypeForward", "routeTypeDrop"])
                    after.append(line + str(rng.randrange(3)))
                    if rng.random() < 0.3:
                        after.append(f"{vrf} {rng.randrange(1, 224)}.{i}.0.0/16 {kind} adj {adj}"
                                     f" id {rng.randrange(3)}")
                files = {}
                for name, lines in (("b.hw", before), ("a.hw", after)):
                    files[name] = os.path.join(d, name)
                    with open(files[name], "w") as f:
                        f.write("".join(sorted(set(l + "\n" for l in lines))))
                hw2ip.batch(scenario, files["b.hw"], files["a.hw"], d)
                table = {}
                for name in ("add.txt", "replace.txt"):
                    with open(os.path.join(d, name)) as f:
                        for line in f:
                            w = line.split()
                            dst = w[3] if w[2] == "blackhole" else w[2]
                            route = {"dst": dst, "table": w[w.index("table") + 1],
                                     "protocol": w[w.index("proto") + 1]}
                            if w[2] == "blackhole":
                                route["type"] = "blackhole"
                            else:
                                route["gateway"] = w[4]
                            if "realm" in w:
                                route["flow"] = {"to": w[w.index("realm") + 1]}
                            table[(route["table"], dst)] = route
                with open(os.path.join(d, "expected.txt")) as f:
                    want = f.read().splitlines()
                self.assertEqual(hw2ip.state(scenario, json.dumps(list(table.values()))), want)


if __name__ == "__main__":
    unittest.main()
