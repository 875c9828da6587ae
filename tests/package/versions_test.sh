#!/usr/bin/env bash
# One version everywhere: the package (debian/changelog), the project, the
# header's macros, the loaded library and `tarn --version`.
#
#   versions_test.sh SOURCE_DIR PROJECT_VERSION TARN VERSION_CHECK
set -euo pipefail
src=$1 project=$2 tarn=$3 check=$4
fail() { echo "FAIL: $*" >&2; exit 1; }

package=$(sed -n '1s/^[^ ]* (\([^)]*\)).*/\1/p' "$src/debian/changelog")
upstream=${package%-*}
[[ $upstream == "$project" ]] || fail "debian/changelog says $package, the project $project"
read -r from_numbers from_text from_library < <("$check")
for v in "$from_numbers" "$from_text" "$from_library"; do
  [[ $v == "$project" ]] || fail "the header or library says $v, the project $project ($("$check"))"
done
[[ $("$tarn" --version) == "tarn $project" ]] || fail "tarn --version says '$("$tarn" --version)', not tarn $project"
echo "versions: $project everywhere"
