# Sourced by the shell tests: a scratch folder ($tmp) and a simulated device
# for the duration of the script, both gone when it exits however it ends,
# and fail() to end it with a message.

tmp=$(mktemp -d "${TMPDIR:-/tmp}/tarn-${0##*/}-XXXXXX")
sim_pid=""
cleanup() {
  if [[ -n $sim_pid ]]; then kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; fi
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# Sets sim_pid and USBMUXD_SOCKET_ADDRESS.
#
#   start_simulator MKIMAGE DEVSIM DESCRIPTION.json
start_simulator() {
  "$1" "$3" "$tmp/image" >/dev/null
  "$2" --socket "$tmp/mux.sock" --device "$tmp/image" >"$tmp/sim.log" 2>&1 &
  sim_pid=$!
  for _ in $(seq 150); do grep -q "ready on" "$tmp/sim.log" && break; sleep 0.1; done
  grep -q "ready on" "$tmp/sim.log" || fail "the simulator did not start: $(cat "$tmp/sim.log")"
  export USBMUXD_SOCKET_ADDRESS="UNIX:$tmp/mux.sock"
}
