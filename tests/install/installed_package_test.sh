#!/usr/bin/env bash
# The installed package as an application meets it: install the build into
# a private prefix, compile the example once through pkg-config and once
# through find_package(TarnDevice), and run both against a simulated device.
#
#   installed_package_test.sh SOURCE_DIR BUILD_DIR DEVSIM MKIMAGE [EXTRA_CFLAGS]
set -euo pipefail
src=$1 build=$2 devsim=$3 mkimage=$4 extra=${5:-}

# shellcheck source=../support/simulator.sh
source "$src/tests/support/simulator.sh"

run_path=()
if [[ -f $build/CMakeCache.txt ]]; then
  prefix=$tmp/prefix
  cmake --install "$build" --prefix "$prefix" >/dev/null
else
  prefix=$build
fi
pc=$(find "$prefix" -name tarn_device.pc)
[[ -n $pc ]] || fail "no tarn_device.pc installed"
export PKG_CONFIG_PATH=$(dirname "$pc")
libdir=$(dirname "$PKG_CONFIG_PATH")
[[ $prefix == "$build" ]] && run_path=(env LD_LIBRARY_PATH="$libdir")

# pkg-config: the flags must name the installed headers and library only.
flags=$(pkg-config --cflags --libs tarn_device)
[[ $flags == *"-ltarn_device"* ]] || fail "pkg-config gives no -ltarn_device: $flags"
[[ $(pkg-config --modversion tarn_device) == "$(pkg-config --modversion tarn_tool)" ]] || fail "versions differ"
# shellcheck disable=SC2086
cc -Wall -Wextra -Werror $extra "$src/examples/list_music.c" $flags -o "$tmp/by_pkgconfig" \
  || fail "the example does not compile through pkg-config"

# find_package: a CMake project that knows nothing but the prefix.
cmake -S "$src/examples" -B "$tmp/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" >"$tmp/cmake.log" 2>&1 \
  || { cat "$tmp/cmake.log" >&2; fail "find_package(TarnDevice) failed"; }
cmake --build "$tmp/cmake-build" >"$tmp/build.log" 2>&1 || { cat "$tmp/build.log" >&2; fail "the example does not build through CMake"; }

# A device to list.
start_simulator "$mkimage" "$devsim" "$src/sim/images/ipod.json"

check_listing() {  # the header line's count, then as many track lines
  local out=$1 count
  count=$(sed -n 's/^--- \([0-9]*\) tracks$/\1/p' <<<"$out")
  [[ -n $count && $count -gt 0 ]] || fail "no track count in: $out"
  [[ $(sed -n '/^--- /,$p' <<<"$out" | tail -n +2 | wc -l) -eq $count ]] || fail "not $count track lines"
  grep -q $'^Orquesta del Sur\tCity of Lanterns\tLanterns (Live)\t5:05$' <<<"$out" || fail "a known track is missing"
}
# pkg-config adds no run path: a private prefix is found as any would be.
check_listing "$(LD_LIBRARY_PATH="$libdir" "$tmp/by_pkgconfig" "$tmp/work1")"
check_listing "$("${run_path[@]}" "$tmp/cmake-build/list_music" "$tmp/work2" 5f3a9c0e7d1b2a4c6e8f0a1b2c3d4e5f6a7b8c9d)"
# The installed tool finds the installed libraries by itself (from a
# package, the system path does).
[[ $(XDG_CACHE_HOME="$tmp/cache" "${run_path[@]}" "$prefix/bin/tarn" devices) == "5f3a9c0e7d1b2a4c6e8f0a1b2c3d4e5f6a7b8c9d  Demo iPod" ]] || fail "installed tarn"
echo "installed package: pkg-config, find_package and the example work"
