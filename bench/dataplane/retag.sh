#!/usr/bin/env bash
# Re-tagging IPv4 FIB routes through the library on the kernel dataplane,
# against `ip -batch` making the same kernel writes in a namespace of its
# own, and the library's own share (the same re-tag on the simulated table).
# As root.
#
#   bench/dataplane/retag.sh [--runs K] [N]       N generated /24s (default 100000)
#   bench/dataplane/retag.sh [--runs K] --realtable [--routes N] [--next-hops H]
#
# Generated: N consecutive /24s from 10.0.0.0 (gen fib); the re-tag is the
# firewall turned on over two segment prefixes covering all of them.
# --realtable: the IPv4 half of bench/realtable's table (564,579 FIB routes,
# 24,640 segment prefixes, in VRF inet), or its first N routes, leaving by
# 4,096 next hops or by H (asn2kiv.py --next-hops); the re-tag is
# its enable (asn2kiv.py --until load / --until enable). Its data must be in
# bench/realtable's cache (bench/realtable/run.sh --ipv4-only --quick
# fetches it).
#
# The writes `ip -batch` makes are the library's: a reference run on the
# simulated table prints the table before and after the re-tag (`hw`), and
# hw2ip.py turns the difference into one `route replace` per write (realm
# written, next hop kept, the route forms and protocols of the kernel
# dataplane); their number must equal the re-tag's hw writes of --stats.
# `ip -batch` starts from the table before, loaded untimed, and must end on
# the same table as the library (checked on the first run).
#
# Each kivsim figure is the difference between a run with the re-tag and the
# same run without it. K runs of each (default 3), interleaved; min, median
# and max are printed, and the ratio is taken run by run.
set -euo pipefail

# usage [STATUS]: to standard output for --help (0), else to standard error.
usage() {
   local status=${1:-2} fd=2
   ((status == 0)) && fd=1
   sed -n '7,8p' "$0" | sed 's/^#  *//' >&"$fd"
   exit "$status"
}

runs=3 realtable=0 n="" routes="" hops=""
while (($#)); do
   case $1 in
   --runs) (($# >= 2)) || usage; runs=$2; shift ;;
   --realtable) realtable=1 ;;
   --routes) (($# >= 2)) || usage; routes=$2; shift ;;
   --next-hops) (($# >= 2)) || usage; hops=$2; shift ;;
   -h | --help) usage 0 ;;
   -*) usage ;;
   *) n=$1 ;;
   esac
   shift
done
for v in "$runs" ${n:+"$n"} ${routes:+"$routes"} ${hops:+"$hops"}; do
   [[ $v =~ ^[1-9][0-9]*$ ]] || { echo "retag.sh: '$v' is not a positive number" >&2; exit 2; }
done
((realtable)) && [[ -n $n ]] && { echo "retag.sh: --realtable takes --routes N, not N" >&2; exit 2; }
((!realtable)) && [[ -n $routes$hops ]] &&
   { echo "retag.sh: --routes and --next-hops go with --realtable" >&2; exit 2; }

here=$(cd "$(dirname "$0")" && pwd)
cd "$here/../.."
kivsim=$PWD/build/release/tools/kivsim/kivsim
[[ -x $kivsim ]] || { echo "retag.sh: build kivsim first" >&2; exit 2; }
[[ $(id -u) -eq 0 ]] || { echo "retag.sh: needs root" >&2; exit 2; }

tmp=$(mktemp -d)
ns="kivbench-$$"
cleanup() { ip netns del "$ns" 2>/dev/null || true; rm -rf "$tmp"; }
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

# --- the two scenarios: setup, and setup followed by the re-tag ------------
if ((realtable)); then
   version=2.3.2026061719
   csv=${KIV_REALTABLE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kivsim-realtable}/asn-$version/asn-ipv4.csv
   [[ -f $csv ]] || {
      echo "retag.sh: no $csv: bench/realtable/run.sh --ipv4-only --quick fetches it" >&2
      exit 2
   }
   for until in load enable; do
      python3 bench/realtable/asn2kiv.py --ipv4 "$csv" --ipv4-only ${routes:+--routes "$routes"} \
         ${hops:+--next-hops "$hops"} \
         --until "$until" -o "$tmp/$until.kiv" > "$tmp/convert-$until.txt"
   done
   mv "$tmp/load.kiv" "$tmp/setup.kiv"
   mv "$tmp/enable.kiv" "$tmp/retag.kiv"
   what="the real table's IPv4 routes ($(sed -n 's/^# \([0-9]*\) IPv4 .*/\1/p' "$tmp/retag.kiv") FIB routes, ${hops:-4096} next hops)"
else
   n=${n:-100000}
   printf 'vrf red id 1\ngen fib red %s 10.0.0.0/24\nsettle\n' "$n" > "$tmp/setup.kiv"
   cp "$tmp/setup.kiv" "$tmp/retag.kiv"
   printf 'segment red web\nprefix red 10.0.0.0/8 web\nprefix red 11.0.0.0/8 web\nfirewall on\nsettle\n' \
      >> "$tmp/retag.kiv"
   what="$n generated /24s"
fi
setupLines=$(wc -l < "$tmp/setup.kiv")
cmp -s "$tmp/setup.kiv" <(head -n "$setupLines" "$tmp/retag.kiv") ||
   { echo "retag.sh: the re-tag scenario does not start with the setup" >&2; exit 1; }

# --- the reference run: the table before and after, the library's writes --
{
   cat "$tmp/setup.kiv"
   echo "echo == before =="
   echo "hw"
   tail -n +"$((setupLines + 1))" "$tmp/retag.kiv"
   echo "echo == after =="
   echo "hw"
} > "$tmp/reference.kiv"
"$kivsim" --stats "$tmp/reference.kiv" > "$tmp/reference.out" 2> "$tmp/reference.stats"
sed -n '/^== before ==$/,/^== after ==$/p' "$tmp/reference.out" > "$tmp/before.hw"
sed -n '/^== after ==$/,$p' "$tmp/reference.out" > "$tmp/after.hw"
writes=$(grep '^settle ' "$tmp/reference.stats" | tail -1 | sed -n 's/.* \([0-9]*\) hw writes.*/\1/p')
batchWrites=$(python3 "$here/hw2ip.py" batch "$tmp/retag.kiv" "$tmp/before.hw" "$tmp/after.hw" "$tmp")
if [[ $writes != "$batchWrites" ]]; then
   echo "retag.sh: the library made $writes writes in the re-tag, the batch has $batchWrites" >&2
   exit 1
fi
before=$(wc -l < "$tmp/add.txt")
segmentRoutes=$(($(wc -l < "$tmp/expected.txt") - before))

# --- the timed runs ----------------------------------------------------------
seconds() {
   local s e
   s=$(date +%s.%N)
   "$@" > /dev/null || return
   e=$(date +%s.%N)
   echo "$e - $s" | bc
}

# A namespace holding the table before the re-tag, as the kernel dataplane
# lays it out (the veth kiv0 with the next hops' subnet on link).
batchNamespace() {
   ip netns add "$ns"
   ip -n "$ns" link add kiv0 type veth peer name kiv1
   ip -n "$ns" addr add 100.127.255.254/10 dev kiv0
   ip -n "$ns" link set kiv0 up
   ip -n "$ns" link set kiv1 up
   ip -n "$ns" -batch "$tmp/add.txt"
}

declare -a sim linux batch
for ((r = 0; r < runs; r++)); do
   s0=$(seconds "$kivsim" "$tmp/setup.kiv")
   s1=$(seconds "$kivsim" "$tmp/retag.kiv")
   l0=$(seconds "$kivsim" --dataplane linux "$tmp/setup.kiv")
   l1=$(seconds "$kivsim" --dataplane linux "$tmp/retag.kiv")
   batchNamespace
   b=$(seconds ip -n "$ns" -batch "$tmp/replace.txt")
   if ((r == 0)); then
      ip -n "$ns" -j route show table all | python3 "$here/hw2ip.py" state "$tmp/retag.kiv" \
         > "$tmp/batch-state.txt"
      cmp -s "$tmp/expected.txt" "$tmp/batch-state.txt" || {
         echo "retag.sh: ip -batch did not leave the library's table:" >&2
         diff "$tmp/expected.txt" "$tmp/batch-state.txt" | head -5 >&2
         exit 1
      }
   fi
   ip netns del "$ns"
   sim+=("$(echo "$s1 - $s0" | bc)")
   linux+=("$(echo "$l1 - $l0" | bc)")
   batch+=("$b")
done

printf '%s\n' "${sim[@]}" > "$tmp/sim"
printf '%s\n' "${linux[@]}" > "$tmp/linux"
printf '%s\n' "${batch[@]}" > "$tmp/batch"
# min / median / max of a column of numbers.
spread() { sort -g | awk -v f="${1:-%.2f}" '{ v[NR] = $1 } END {
   m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2;
   printf f " / " f " / " f, v[1], m, v[NR] }'; }
median() { spread "%.0f" | awk -F' / ' '{ print $2 }'; }

echo "re-tag of $what: $runs runs, min / median / max"
echo "  kernel writes:              $writes ($before routes before it; $segmentRoutes segment routes added)"
echo "  library on the kernel:      $(spread < "$tmp/linux") s"
echo "  ip -batch, the same writes: $(spread < "$tmp/batch") s"
echo "  ratio, run by run:          $(paste -d' ' "$tmp/linux" "$tmp/batch" |
   awk '{ print $1 / $2 }' | spread)x"
echo "  the library alone (simulated table): $(spread < "$tmp/sim") s," \
   "$(paste -d' ' "$tmp/sim" "$tmp/linux" | awk '{ print 100 * $1 / $2 }' | median)% of the kernel run (median)"
