#!/usr/bin/env bash
# Tab completion as an interactive bash offers it: the completion file is
# loaded into `bash -i`, which then completes command lines through the
# function `complete -p tarn` names, as readline would call it, against a
# simulated device.
#
#   completion_test.sh SOURCE_DIR TARN DEVSIM MKIMAGE COMPLETION_FILE
set -euo pipefail
src=$1 tarn=$2 devsim=$3 mkimage=$4 completion=$5


# shellcheck source=../support/simulator.sh
source "$src/tests/support/simulator.sh"
start_simulator "$mkimage" "$devsim" "$src/sim/images/sample.json"
mkdir -p "$tmp/host/albums" && touch "$tmp/host/notes.txt"

# What the tool itself says, to compare the offers with; lists are sorted
# and joined by single spaces.
words() { tr -s ' ' '\n' | sed '/^$/d' | LC_ALL=C sort -u | paste -sd' ' -; }
help=$("$tarn" --help)
commands=$(sed -n '/^Commands:/,/^$/{/^  [a-z]/s/^  \([a-z]*\).*/\1/p}' <<<"$help" | words)
kinds=$(sed -n 's/^KIND: //p' <<<"$help" | tr -d ',' | words)
udid=$("$tarn" devices | cut -d' ' -f1)
root=$("$tarn" ls / | sed 's|^|/|' | words)
itunes=$("$tarn" ls /iTunes_Control | sed 's|^|/iTunes_Control/|' | words)
# Apps that share files: identifier first and "yes" last in the table.
sharing=$("$tarn" apps | awk 'NR > 1 && $NF == "yes" {print $1}' | words)
reader=$(cut -d' ' -f1 <<<"$sharing")
inbox=$("$tarn" --app "$reader" ls /Documents | sed -n 's|^I|/Documents/I|p' | words)

# Each case: the words typed (the last one being completed; '' for an empty
# word) and the offers expected, sorted.
cases=(
  "tarn ''|$commands"
  "tarn l|list ls"
  "tarn -v p|pull push"
  "tarn list ''|$kinds"
  "tarn export m|movies music"
  "tarn -u ''|$udid"
  "tarn --udid = ''|$udid"
  "tarn ls ''|$root"
  "tarn ls /iTunes_C|/iTunes_Control/"
  "tarn -u $udid ls -l /iTunes_Control/|$itunes"
  "tarn pull /iTunes_Control $tmp/host/n|$tmp/host/notes.txt"
  "tarn push $tmp/host/a|$tmp/host/albums"
  "tarn export music $tmp/host/|$tmp/host/albums"
  "tarn mv /iTunes_Control /iTunes_C|/iTunes_Control/"
  "tarn ls --depth ''|"
  "tarn --app ''|$sharing"
  "tarn -u $udid --app $reader ls /Documents/I|$inbox"
  "tarn rm -r /iTunes_Control/x ''|"
)
# After a dash, the options of the command's help; before a command, those
# of the main help's Options section.
options_of() { grep -oE '(^|[ ,[(|])--?[a-zA-Z][-a-zA-Z]*' | grep -oE -- '--?[a-zA-Z][-a-zA-Z]*' | words; }
cases+=("tarn -|$(sed -n '/^Options:/,$p' <<<"$help" | options_of)")
for c in $commands; do
  cases+=("tarn $c -|$("$tarn" "$c" --help | options_of)")
done

driver=$tmp/driver.sh
cat >"$driver" <<'DRIVER'
[[ $- == *i* ]] || { echo "not an interactive shell"; exit 1; }
source "$COMPLETION"
function=$(complete -p tarn | sed -n 's/.*-F \([^ ]*\) .*/\1/p')
[[ -n $function ]] || { echo "complete -p tarn names no function"; exit 1; }
while IFS= read -r line; do
  eval "COMP_WORDS=($line)"
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_LINE=${COMP_WORDS[*]} COMP_POINT=${#COMP_LINE}
  COMPREPLY=()
  "$function" tarn "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort -u | paste -sd' ' -
done
DRIVER
# The completion calls the tool by the name typed, as a shell would find it.
mkdir -p "$tmp/bin" && ln -s "$(realpath "$tarn")" "$tmp/bin/tarn"
offers=$(printf '%s\n' "${cases[@]%%|*}" |
         PATH="$tmp/bin:$PATH" COMPLETION=$completion HOME=$tmp XDG_CACHE_HOME=$tmp/cache \
         bash --norc --noprofile -i "$driver" 2>"$tmp/bash.err") || fail "bash: $offers $(cat "$tmp/bash.err")"
mapfile -t got <<<"$offers"
((${#got[@]} == ${#cases[@]})) || fail "expected ${#cases[@]} answers, got ${#got[@]}: $offers"
failures=0
for i in "${!cases[@]}"; do
  want=$(words <<<"${cases[i]#*|}")
  if [[ ${got[i]} != "$want" ]]; then
    echo "FAIL: ${cases[i]%%|*}<Tab> offers '${got[i]}', expected '$want'" >&2
    failures=$((failures + 1))
  fi
done
((failures == 0)) || exit 1
echo "bash completion: ${#cases[@]} command lines complete as expected"
