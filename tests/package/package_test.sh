#!/usr/bin/env bash
# The Debian packages as a user gets them: scripts/package builds them and
# runs lintian; they are unpacked into a scratch root, whose -dev package
# builds examples/list_music.c through pkg-config and find_package and runs
# it against the packaged simulator, and whose programs, pages and
# completion are where Debian looks for them, at the package's version.
#
#   package_test.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
src=$1 out=$2
fail() { echo "FAIL: $*" >&2; exit 1; }
for tool in dpkg-buildpackage dh lintian; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (scripts/setup installs it)"; exit 77; }
done

# noopt: the test checks what the packages hold and how they install, which
# the optimiser does not change, and it halves the build (scripts/package
# alone builds optimised packages).
export DEB_BUILD_OPTIONS="nocheck noopt parallel=$(nproc 2>/dev/null || echo 2)"
"$src/scripts/package" --no-setup "$out" >"$out.log" 2>&1 || { cat "$out.log" >&2; fail "scripts/package failed"; }
grep -A1000 "^package: lintian" "$out.log"

version=$(dpkg-parsechangelog -l "$src/debian/changelog" -S Version)
root=$out/root
rm -rf "$root"
debs=("$out"/*_"$version"_*.deb)
for package in libtarn-device1 libtarn-device-dev tarn tarn-devsim; do
  [[ -f $(ls "$out/${package}_${version}"_*.deb 2>/dev/null) ]] || fail "no $package $version package among: ${debs[*]}"
done
for deb in "${debs[@]}"; do dpkg -x "$deb" "$root"; done

libdir=$(dirname "$(find "$root/usr/lib" -name 'libtarn_device.so.1')")
# The libraries answer by their sonames only, with nothing but the C interface.
[[ $(objdump -p "$libdir/libtarn_device.so.1" | awk '/SONAME/ {print $2}') == libtarn_device.so.1 ]] || fail "soname"
if nm -D --defined-only "$libdir/libtarn_device.so.1" | awk '{print $3}' | grep -q '^_Z'; then
  fail "C++ symbols exported: $(nm -D --defined-only "$libdir/libtarn_device.so.1" | grep ' _Z')"
fi
[[ $(LD_LIBRARY_PATH=$libdir "$root/usr/bin/tarn" --version) == "tarn ${version%-*}" ]] || fail "tarn --version is not ${version%-*}"
for page in tarn tarn-devsim tarn-mkimage; do
  [[ -f $root/usr/share/man/man1/$page.1.gz ]] || fail "no manual page $page(1)"
  LC_ALL=C.UTF-8 man -l "$root/usr/share/man/man1/$page.1.gz" 2>&1 | grep -q "^NAME" || fail "$page(1) does not render"
done
# bash-completion's loader finds the packaged file by the command's name.
if [[ -f /usr/share/bash-completion/bash_completion ]]; then
  XDG_DATA_DIRS="$root/usr/share" bash --norc --noprofile -i -c \
    'source /usr/share/bash-completion/bash_completion; __load_completion tarn; complete -p tarn' 2>/dev/null |
    grep -q -- "-F _tarn tarn" || fail "bash-completion does not load the packaged completion"
fi

"$src/tests/install/installed_package_test.sh" "$src" "$root/usr" "$root/usr/bin/tarn-devsim" "$root/usr/bin/tarn-mkimage"
echo "packages: $(cd "$out" && ls -- *.deb | xargs) build, pass lintian and work installed"
