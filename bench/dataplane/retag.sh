#!/usr/bin/env bash
# Re-tagging N IPv4 FIB routes through the library on the kernel dataplane,
# against `ip -batch` doing the same route replaces (realm written, next hop
# kept) in a namespace of its own, and the library's own share (the same
# re-tag on the simulated table). As root.
#
#   bench/dataplane/retag.sh [N]        (default 100000)
#
# The routes are N consecutive /24s from 10.0.0.0 (gen fib); the re-tag is
# the firewall turned on over two segment prefixes covering all of them, so
# every route gets the segment's id. Each figure is the difference between a
# run with the re-tag and the same run without it.
set -euo pipefail
n="${1:-100000}"
cd "$(dirname "$0")/../.."
kivsim=build/release/tools/kivsim/kivsim
[[ -x $kivsim ]] || { echo "build kivsim first"; exit 2; }
[[ $(id -u) -eq 0 ]] || { echo "needs root"; exit 2; }
tmp=$(mktemp -d)
ns="kivbench-$$"
trap 'ip netns del "$ns" 2>/dev/null || true; rm -rf "$tmp"' EXIT

printf 'vrf red id 1\ngen fib red %s 10.0.0.0/24\nsettle\n' "$n" > "$tmp/setup.kiv"
cp "$tmp/setup.kiv" "$tmp/retag.kiv"
printf 'segment red web\nprefix red 10.0.0.0/8 web\nprefix red 11.0.0.0/8 web\nfirewall on\nsettle\n' \
   >> "$tmp/retag.kiv"

seconds() { local s e; s=$(date +%s.%N); "$@" > /dev/null; e=$(date +%s.%N); echo "$e - $s" | bc; }

simSetup=$(seconds $kivsim "$tmp/setup.kiv")
simRetag=$(seconds $kivsim "$tmp/retag.kiv")
linuxSetup=$(seconds $kivsim --dataplane linux "$tmp/setup.kiv")
linuxRetag=$(seconds $kivsim --dataplane linux "$tmp/retag.kiv")

# The same routes in a namespace (not timed), then the same replaces, timed.
ip netns add "$ns"
ip -n "$ns" link add kiv0 type veth peer name kiv1
ip -n "$ns" addr add 100.127.255.254/10 dev kiv0
ip -n "$ns" link set kiv0 up
ip -n "$ns" link set kiv1 up
python3 - "$n" "$tmp" <<'PY'
import sys
n, tmp = int(sys.argv[1]), sys.argv[2]
with open(tmp + "/add.txt", "w") as add, open(tmp + "/replace.txt", "w") as rep:
    for i in range(n):
        a = (10 << 24) + (i << 8)
        p = "%d.%d.%d.0/24" % (a >> 24, (a >> 16) & 255, (a >> 8) & 255)
        add.write("route add %s via 100.64.0.1 dev kiv0 onlink table 1 proto 75\n" % p)
        rep.write("route replace %s via 100.64.0.1 dev kiv0 onlink table 1 proto 75 realm 1\n" % p)
PY
ip -n "$ns" -batch "$tmp/add.txt"
batch=$(seconds ip -n "$ns" -batch "$tmp/replace.txt")

awk -v n="$n" -v ss="$simSetup" -v sr="$simRetag" -v ls="$linuxSetup" -v lr="$linuxRetag" \
    -v b="$batch" 'BEGIN {
   lib = sr - ss; kern = lr - ls;
   printf "%d routes re-tagged\n", n;
   printf "  library on the kernel:      %.2f s\n", kern;
   printf "  ip -batch, the same writes: %.2f s\n", b;
   printf "  ratio:                      %.2fx\n", kern / b;
   printf "  the library alone (simulated table): %.2f s (%.0f%% of the kernel run)\n", lib, 100 * lib / kern;
}'
