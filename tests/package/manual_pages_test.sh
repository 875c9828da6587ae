#!/usr/bin/env bash
# Every manual page renders, and tarn(1) names every command and option that
# `tarn --help` and each `tarn COMMAND --help` print, so the two cannot drift.
#
#   manual_pages_test.sh TARN MAN_DIR
set -euo pipefail
tarn=$1 mandir=$2
fail() { echo "FAIL: $*" >&2; exit 1; }
command -v man >/dev/null || { echo "SKIP: man is not installed (scripts/setup installs man-db)"; exit 0; }

render() {  # wide and unhyphenated, so that no option breaks across lines
  LC_ALL=C.UTF-8 MANWIDTH=1000 MAN_KEEP_FORMATTING= man --nh --nj -l "$1" 2>"$mandir/render.err" | col -bx
  if [[ -s $mandir/render.err ]]; then fail "$1 renders with complaints: $(cat "$mandir/render.err")"; fi
}
for page in tarn tarn-devsim tarn-mkimage tarn-desktop; do
  [[ -f $mandir/$page.1 ]] || fail "$mandir/$page.1 was not generated"
  [[ $(render "$mandir/$page.1" | grep -c .) -gt 10 ]] || fail "$page.1 renders (almost) empty"
done

page=$(render "$mandir/tarn.1")
help=$("$tarn" --help)
commands=$(sed -n '/^Commands:/,/^$/{/^  [a-z]/s/^  \([a-z]*\).*/\1/p}' <<<"$help")
[[ $(wc -w <<<"$commands") -ge 10 ]] || fail "cannot read the commands of tarn --help: $help"
missing=()
options=""
for c in "" $commands; do
  [[ -z $c ]] || grep -Eq "^ +$c( |\$)" <<<"$page" || missing+=("command $c")
  options+=" $("$tarn" ${c:+"$c"} --help | grep -oE '(^|[ ,[(|])--?[a-zA-Z][-a-zA-Z]*' | grep -oE -- '--?[a-zA-Z][-a-zA-Z]*')"
done
for option in $(tr ' ' '\n' <<<"$options" | sort -u); do
  grep -Eq -- "(^|[^-a-zA-Z])$option([^-a-zA-Z]|\$)" <<<"$page" || missing+=("option $option")
done
for kind in $(sed -n 's/^KIND: //p' <<<"$help" | tr -d ','); do
  grep -Eq "(^|[^a-z])$kind([^a-z]|\$)" <<<"$page" || missing+=("kind $kind")
done
((${#missing[@]} == 0)) || fail "tarn(1) lacks what tarn --help names: ${missing[*]}"
echo "manual pages: all render; tarn(1) names $(wc -w <<<"$commands") commands with their options"
