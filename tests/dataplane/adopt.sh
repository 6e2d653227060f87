#!/usr/bin/env bash
# kivsim --adopt from the command line: a route `ip` adds before kivsim
# starts and one it adds while kivsim reads its scenario from a pipe are FIB
# routes after a settle; one replaced without its realm has it again; a
# blackhole is skipped with one line; at the end the realms are gone and the
# routes stay. Exit 77 (skipped) where network namespaces cannot be made.
set -uo pipefail
kivsim="$1"
if [[ $(id -u) -ne 0 ]]; then
   echo "skipped: --dataplane linux needs root (network namespaces)"; exit 77
fi
ns="kivadopt-sh-$$"
if ! ip netns add "$ns" 2>/dev/null; then
   echo "skipped: cannot create a network namespace here"; exit 77
fi
trap 'ip netns del "$ns"' EXIT
n() { ip -n "$ns" "$@"; }
n link add up0 type veth peer name up1 && n link set up0 up && n link set up1 up &&
   n addr add 192.0.2.1/24 dev up0 &&
   n route add 10.1.1.0/24 via 192.0.2.9 table 1 &&
   n route add blackhole 10.1.9.0/24 table 1 || exit 1
status=0
err=$(mktemp) during=$(mktemp)
# What table 1 holds while kivsim runs, after the owner's changes.
duringExpected=$(printf '%s \n' 'blackhole 10.1.0.0/16 proto 76 realm 1' \
   '10.1.1.0/24 via 192.0.2.9 dev up0 realm 1' '10.1.4.0/24 via 192.0.2.9 dev up0 realm 1' \
   'blackhole 10.1.9.0/24')
# Waits (up to 30 s) until `ip route show table T` passes the test `$2`: the
# kernel is the only clock shared with kivsim, whose output is not flushed
# line by line into the pipe, so a fixed sleep would race a slow run.
waitTable() {
   local i
   for ((i = 0; i < 300; i++)); do
      eval "$2" && return 0
      sleep 0.1
   done
   return 1
}
out=$({
   printf 'vrf red id 1\nprefix red 10.1.0.0/16 web\nfirewall on\nsettle\nhw\n'
   # A mark kivsim writes after the first hw: a FIB route of a second VRF.
   printf 'vrf mark id 7\nfib mark 10.9.9.0/24\nsettle\n'
   waitTable 7 'n route show table 7 | grep -q "^10.9.9.0/24"'
   n route add 10.1.4.0/24 via 192.0.2.9 table 1
   n route replace 10.1.1.0/24 via 192.0.2.9 table 1
   printf 'settle\nhw red\ncheck\n'
   waitTable 1 '[[ $(n route show table 1) == "$duringExpected" ]]'
   n route show table 1 >"$during"
} | "$kivsim" --dataplane linux --netns "$ns" --adopt 2>"$err"; echo "exit $?")
expected='red 10.1.0.0/16 routeTypeDrop adj 1048578 id 1
red 10.1.1.0/24 routeTypeForward adj 2553252 id 1
red 10.1.0.0/16 routeTypeDrop adj 1048578 id 1
red 10.1.1.0/24 routeTypeForward adj 2553252 id 1
red 10.1.4.0/24 routeTypeForward adj 2553252 id 1
check: ok
exit 0'
if ! diff <(echo "$out") <(echo "$expected"); then
   echo "output differs (< actual, > expected)"; status=1
fi
# While kivsim ran: the owner's routes with the realms, the replaced one too.
if ! diff "$during" <(echo "$duringExpected"); then
   echo "table 1 while kivsim ran differs (< actual, > expected)"; status=1
fi
if ! diff "$err" <(echo "kivsim: adopt: vrf red 10.1.9.0/24: skipped: a blackhole route is not a forward route"); then
   echo "standard error differs"; status=1
fi
rm -f "$err" "$during"
after=$(n route show table 1)
if [[ "$after" != $'10.1.1.0/24 via 192.0.2.9 dev up0 \n10.1.4.0/24 via 192.0.2.9 dev up0 \nblackhole 10.1.9.0/24 ' ]]; then
   echo "at the end, table 1 holds:"; echo "$after"; status=1
fi
if [[ $(echo status | "$kivsim" --dataplane linux --netns "$ns" --adopt 2>/dev/null |
   grep '^dataplane') != "dataplane: linux (VRF id N is kernel table N; IPv4 ids are route realms)
dataplaneIpv6Ids: kept beside the kernel table (the kernel carries no realm on IPv6 routes)
dataplaneAdopt: on (other programs' routes in table N are FIB routes of the VRF with id N)" ]]; then
   echo "status does not say adopt mode is on"; status=1
fi
exit $status
