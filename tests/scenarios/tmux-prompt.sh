#!/usr/bin/env bash
# A prompt session typed into kivsim inside tmux, as a user would: a line,
# a line cancelled with Ctrl-C (the program goes on and never runs it), a
# command word and the names in use completed with Tab, '?' for a command's
# usage, a change seen by hw without a settle, quit. The pane is read back and searched for each step.
#   tmux-prompt.sh KIVSIM
set -euo pipefail
kivsim=$1
socket="kivsim-test-$$"
t() { tmux -L "$socket" "$@"; }
trap 't kill-server 2>/dev/null || true' EXIT

t new-session -d -s prompt -x 100 -y 40 "$kivsim; echo \"kivsim exited with \$?\"; sleep 30"
# Each step waits until the pane shows what the step before it printed.
wait_for() {
   for _ in $(seq 1 100); do
      if t capture-pane -t prompt -p | grep -qF -- "$1"; then
         return 0
      fi
      sleep 0.05
   done
   echo "tmux-prompt: no '$1' in the pane:"
   t capture-pane -t prompt -p
   exit 1
}
wait_for "kivsim>"
t send-keys -t prompt 'vrf red id 1' Enter
t send-keys -t prompt 'vrf red del'
t send-keys -t prompt C-c
t send-keys -t prompt 'fib red 10.9.0.0/16 adj 3' Enter 'hw' Enter
wait_for "red 10.9.0.0/16 routeTypeForward adj 3 id 0"
t send-keys -t prompt 'sta' Tab '?' Enter
wait_for "usage: status"
# Names in use complete too: the VRF, then the segment.
t send-keys -t prompt 'segment red web' Enter
t send-keys -t prompt 'prefix r' Tab '10.9.0.0/16 w' Tab Enter
wait_for "kivsim> prefix red 10.9.0.0/16 web"
t send-keys -t prompt 'quit' Enter
wait_for "kivsim exited with 0"
pane=$(t capture-pane -t prompt -p)
# The cancelled line did not run: the VRF is still there (hw above), and the
# completion wrote the whole word.
grep -qF "kivsim> status ?" <<<"$pane" || { echo "tmux-prompt: Tab did not complete 'sta':"; echo "$pane"; exit 1; }
echo "tmux-prompt: ok"
