# Sourced by the shell tests: a simulated device for the duration of the
# script. Needs $tmp (a scratch folder) and fail(); sets sim_pid and
# USBMUXD_SOCKET_ADDRESS. The caller's cleanup kills $sim_pid.
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
