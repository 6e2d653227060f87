#!/usr/bin/env bash
# kivsim on a real Internet routing table: fetches the IP-to-ASN data (once,
# into a cache outside the tree), turns it into a scenario with asn2kiv.py,
# builds kivsim when it is out of date and runs the scenario with --stats
# --floor.
# See README.md next to this file.
set -euo pipefail

usage() {
   cat <<EOF
usage: $0 [--ipv4-only] [--routes N | --quick] [-h]
  --ipv4-only   leave the IPv6 table out
  --routes N    keep only the first N FIB routes (also KIV_REALTABLE_ROUTES=N)
  --quick       the same as --routes 20000
Environment: KIV_REALTABLE_CACHE (download and scenario directory, default
\${XDG_CACHE_HOME:-\$HOME/.cache}/kivsim-realtable), KIVSIM (a kivsim to run
instead of building build/release), KIVSIM_ARGS (more kivsim options, e.g.
--slice-us 2000), CMAKE_BUILD_PARALLEL_LEVEL (build jobs).
EOF
}

seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", b - a }'; }

package=@ip-location-db/asn
version=2.3.2026061719
# The tarball the registry served for that version; a different one means
# different data, and the figures would no longer compare.
tarball_sha256=b9425daf2f011c28f8586685d4f89166e77627e2c15fd93c6262c3e2dead6153

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
cache=${KIV_REALTABLE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kivsim-realtable}
routes=${KIV_REALTABLE_ROUTES:-}
ipv4_only=0

while (($#)); do
   case $1 in
   --ipv4-only) ipv4_only=1 ;;
   --routes)
      (($# >= 2)) || { usage >&2; exit 2; }
      routes=$2
      shift
      ;;
   --quick) routes=20000 ;;
   -h | --help)
      usage
      exit 0
      ;;
   *)
      usage >&2
      exit 2
      ;;
   esac
   shift
done
if [[ -n $routes && ! $routes =~ ^[1-9][0-9]*$ ]]; then
   echo "run.sh: --routes wants a positive number, not '$routes'" >&2
   exit 2
fi

# --- the data --------------------------------------------------------------
data=$cache/asn-$version
if [[ ! -f $data/asn-ipv4.csv || ! -f $data/asn-ipv6.csv ]]; then
   mkdir -p "$cache"
   work=$(mktemp -d "$cache/fetch.XXXXXX")
   trap 'rm -rf "$work"' EXIT
   echo "fetching $package@$version into $cache"
   (cd "$work" && npm pack --silent --ignore-scripts "$package@$version" >/dev/null)
   tgz=$(find "$work" -maxdepth 1 -name '*.tgz' -print -quit)
   [[ -n $tgz ]] || { echo "run.sh: npm pack left no tarball" >&2; exit 1; }
   echo "$tarball_sha256  $tgz" | sha256sum --check --quiet - || {
      echo "run.sh: $package@$version is not the tarball this benchmark was made with" >&2
      exit 1
   }
   mkdir "$work/x"
   tar -xzf "$tgz" -C "$work/x" package/asn-ipv4.csv package/asn-ipv6.csv \
      package/README.md package/DBIP-LICENSE package/ROUTEVIEWS-LICENSE package/NRO_LICENSE
   # In place all at once, so an interrupted fetch is fetched again.
   rm -rf "$data"
   mv "$work/x/package" "$data"
   rm -rf "$work"
   trap - EXIT
fi

# --- the scenario ----------------------------------------------------------
name=realtable
convert=(--ipv4 "$data/asn-ipv4.csv" --source "npm package $package@$version")
if ((ipv4_only)); then
   name+=-v4
   convert+=(--ipv4-only)
else
   convert+=(--ipv6 "$data/asn-ipv6.csv")
fi
if [[ -n $routes ]]; then
   name+=-$routes
   convert+=(--routes "$routes")
fi
scenario=$cache/$name.kiv
echo "== converting =="
t0=$(date +%s.%N)
python3 "$here/asn2kiv.py" "${convert[@]}" -o "$scenario"
t1=$(date +%s.%N)
echo "converter time:       $(seconds "$t0" "$t1") s"

# --- kivsim ----------------------------------------------------------------
kivsim=${KIVSIM:-}
if [[ -z $kivsim ]]; then
   echo "== building kivsim =="
   (
      cd "$root"
      # The build reconfigures by itself when it must; the preset is only
      # needed the first time.
      if [[ ! -f build/release/CMakeCache.txt ]]; then
         cmake --preset release
      fi
      cmake --build --preset release --target kivsim
   )
   kivsim=$root/build/release/tools/kivsim/kivsim
fi

out=$cache/$name.out
err=$cache/$name.stats
# KIVSIM_ARGS: more kivsim options, e.g. --slice-us 2000 (real-time slices).
read -r -a extra <<<"${KIVSIM_ARGS:-}"
echo "== running $kivsim --stats --floor ${extra[*]} $scenario =="
t0=$(date +%s.%N)
status=0
"$kivsim" --stats --floor "${extra[@]}" "$scenario" >"$out" 2>"$err" || status=$?
t1=$(date +%s.%N)
cat "$out"
echo "== --stats =="
cat "$err"
echo "== done =="
echo "kivsim wall time:     $(seconds "$t0" "$t1") s (exit status $status)"
checks=$(grep -c '^check: ok$' "$out" || true)
echo "checks passed:        $checks of $(grep -c '^check$' "$scenario")"
exit "$status"
