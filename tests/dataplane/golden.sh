#!/usr/bin/env bash
# Runs SCENARIO under --dataplane linux and fails unless it prints EXPECTED
# byte for byte and exits 0. Exit 77 (skipped) where network namespaces
# cannot be made. Leaves no namespace behind.
set -uo pipefail
kivsim="$1" scenario="$2" expected="$3"
source "$(dirname "$0")/needs-netns.sh"
before=$(left_behind)
actual=$("$kivsim" --dataplane linux "$scenario"); rc=$?
status=0
if ((rc != 0)); then
   echo "exit status $rc"; status=1
fi
if ! diff <(echo "$actual") "$expected"; then
   echo "output differs from $expected (< actual, > expected)"; status=1
fi
if [[ "$before" != "$(left_behind)" ]]; then
   echo "network namespaces left behind"; status=1
fi
exit $status
