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
