#!/usr/bin/env bash
# Runs every example and golden scenario on the simulated table and under
# --dataplane linux, and fails on any difference in what they print or how
# they end (the `status` lines naming the dataplane aside). Exit 77 (skipped)
# where network namespaces cannot be made. Leaves no namespace behind.
set -uo pipefail
kivsim="$1"; shift
source "$(dirname "$0")/needs-netns.sh"
before=$(left_behind)
failed=0; ran=0
for f in "$@"; do
   sim=$(cd "$(dirname "$f")" && "$kivsim" "$(basename "$f")" 2>&1; echo "exit $?")
   linux=$(cd "$(dirname "$f")" && "$kivsim" --dataplane linux "$(basename "$f")" 2>&1 |
           grep -v '^dataplane'; echo "exit ${PIPESTATUS[0]}")
   ran=$((ran + 1))
   if [[ "$sim" != "$linux" ]]; then
      echo "DIFFERS: $f (< simulated table, > kernel)"
      diff <(echo "$sim") <(echo "$linux") | head -40
      failed=$((failed + 1))
   fi
done
after=$(left_behind)
if [[ "$before" != "$after" ]]; then
   echo "network namespaces left behind:"; diff <(echo "$before") <(echo "$after"); failed=$((failed + 1))
fi
echo "$ran scenarios, $failed differing"
((failed == 0))
