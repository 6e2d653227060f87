# Sourced by the dataplane test scripts: exits 77 (skipped), saying why,
# unless this process may create network namespaces.
if [[ $(id -u) -ne 0 ]]; then
   echo "skipped: --dataplane linux needs root (network namespaces)"; exit 77
fi
probe="kivtest-probe-$$"
if ! ip netns add "$probe" 2>/dev/null; then
   echo "skipped: cannot create a network namespace here"; exit 77
fi
ip netns del "$probe"

# The namespaces named after a process id (kivsim's, this probe's) whose
# process is gone: what a run left behind. A kivsim of another run on this
# host at the same time has namespaces too, but its process is still there;
# comparing the whole `ip netns list` took those for ours.
left_behind() {
   ip netns list | while read -r ns _; do
      if [[ $ns =~ ^kiv(sim|test-probe)-([0-9]+) ]] && [[ ! -d /proc/${BASH_REMATCH[2]} ]]; then
         echo "$ns"
      fi
   done | sort
}
