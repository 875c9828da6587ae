#!/usr/bin/env bash
# The window as a screen reader meets it: tarn-desktop on a virtual X
# display with Qt's AT-SPI bridge on, in a D-Bus session of its own with the
# accessibility bus, against a simulated iPod; a11y_walk.py then walks the
# tree through pyatspi.
#
#   a11y_test.sh SOURCE_DIR DESKTOP DEVSIM MKIMAGE
set -euo pipefail
src=$1 desktop=$2 devsim=$3 mkimage=$4

# A session bus of our own, gone with the script.
if [[ -z ${TARN_A11Y_SESSION:-} ]]; then
  command -v dbus-run-session >/dev/null || { echo "FAIL: dbus-run-session not found (package dbus)"; exit 1; }
  TARN_A11Y_SESSION=1 exec dbus-run-session -- "$0" "$@"
fi

# shellcheck source=../support/simulator.sh
source "$src/tests/support/simulator.sh"
pids=()
stop_all() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  cleanup
}
trap stop_all EXIT

launcher=/usr/libexec/at-spi-bus-launcher
[[ -x $launcher ]] || fail "$launcher not found (package at-spi2-core)"
command -v Xvfb >/dev/null || fail "Xvfb not found (package xvfb)"
[[ -x /usr/bin/python3 ]] && /usr/bin/python3 -c 'import pyatspi' 2>/dev/null ||
  fail "/usr/bin/python3 cannot import pyatspi (package python3-pyatspi)"

start_simulator "$mkimage" "$devsim" "$src/sim/images/ipod.json"
name=$(sed -n 's/.*"DeviceName": *"\([^"]*\)".*/\1/p' "$src/sim/images/ipod.json" | head -n1)

# The accessibility bus, registered on the session bus as org.a11y.Bus.
"$launcher" --launch-immediately >"$tmp/launcher.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
  dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus org.a11y.Bus.GetAddress >/dev/null 2>&1 && break
  sleep 0.1
done
dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus org.a11y.Bus.GetAddress >/dev/null 2>&1 ||
  fail "the accessibility bus did not start: $(cat "$tmp/launcher.log")"

# A display of its own: Xvfb picks a free number and writes it.
Xvfb -displayfd 3 -nolisten tcp -screen 0 1280x800x24 3>"$tmp/display" 2>"$tmp/xvfb.log" &
pids+=($!)
for _ in $(seq 100); do [[ -s $tmp/display ]] && break; sleep 0.1; done
[[ -s $tmp/display ]] || fail "Xvfb did not start: $(cat "$tmp/xvfb.log")"
export DISPLAY=":$(head -n1 "$tmp/display")"

mkdir -m 700 "$tmp/run"
# Under AddressSanitizer: libxkbcommon-x11, which Qt's xcb platform calls,
# copies names out of X replies with strndup bounded by their length, whose
# bytes are not NUL-terminated; strict string checks take that for an
# overflow. Only this program, on this platform, runs without them.
if [[ -n ${ASAN_OPTIONS:-} ]]; then export ASAN_OPTIONS="$ASAN_OPTIONS:strict_string_checks=0"; fi
# One window per walk: the first opens where a new person lands (the
# overview), the second where the person left it, the photo grid.
run_walk() {
  XDG_RUNTIME_DIR=$tmp/run QT_QPA_PLATFORM=xcb QT_ACCESSIBILITY=1 QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 HOME=$tmp \
    XDG_CONFIG_HOME=$tmp/config XDG_CACHE_HOME=$tmp/cache "$desktop" >"$tmp/desktop.log" 2>&1 &
  local window=$!
  pids+=("$window")
  local status=0
  /usr/bin/python3 "$src/tests/desktop/a11y_walk.py" "$name" "$@" ${TARN_A11Y_DUMP:+--dump} || status=$?
  kill "$window" 2>/dev/null || true
  wait "$window" 2>/dev/null || true
  if [[ $status -ne 0 ]]; then
    echo "--- tarn-desktop said:"; grep -m1 -A30 "ERROR: " "$tmp/desktop.log" || tail -n 20 "$tmp/desktop.log"
    fail "the accessibility tree has the findings above"
  fi
}
run_walk
mkdir -p "$tmp/config/Tarn"
printf '[place]\nsection=photos\n' >"$tmp/config/Tarn/tarn-desktop.conf"
run_walk --photos
echo "ok"
