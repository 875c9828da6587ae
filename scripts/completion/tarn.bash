# bash completion for tarn(1): commands, options, catalogue kinds, device
# identifiers (tarn devices), the bundle identifiers of apps that share files
# (tarn apps) and device paths (tarn ls on the device, or app, chosen).
# Installed as /usr/share/bash-completion/completions/tarn; it needs none of
# bash-completion's helpers, so `source` alone also works.

_tarn_commands="devices info list apps export import ls stat find mkdir mv rm pull push"
# The catalogue kinds, as the tool itself lists them in its help (the one
# place they are named), read once per shell.
_tarn_kinds() {
  if [[ -z ${_tarn_kind_words+set} ]]; then
    _tarn_kind_words=$(timeout 10 "$tarn" --help 2>/dev/null | sed -n 's/^KIND: //p' | tr -d ',')
  fi
  printf '%s' "$_tarn_kind_words"
}
_tarn_global_options="-u --udid -v --verbose --workdir --app --refresh --progress --no-progress -h --help --version"

_tarn_command_options() {
  case $1 in
    info | list | apps) echo "--json --xml" ;;
    export) echo "--match" ;;
    import) echo "--jpeg" ;;
    ls) echo "-l -R --depth" ;;
    find) echo "--case-sensitive" ;;
    mkdir) echo "-p" ;;
    rm) echo "-r" ;;
    pull) echo "-n --no-clobber" ;;
  esac
}

# Appends the words of $2 that start with $1 to COMPREPLY.
_tarn_add_words() {
  local word
  for word in $2; do [[ $word == "$1"* ]] && COMPREPLY+=("$word"); done
}

_tarn_host_paths() {  # $1: -d for directories only
  local line
  while IFS= read -r line; do COMPREPLY+=("$line"); done < <(compgen ${1:--f} -- "$cur")
  compopt -o filenames 2>/dev/null
}

# The entries of the directory that the typed word is in, listed by the tool
# itself on the device chosen; directories end in a slash.
_tarn_device_paths() {
  local typed dir line
  typed=$(sed 's/\\\(.\)/\1/g' <<<"$cur")
  [[ -z $typed ]] && typed=/
  [[ $typed == /* ]] || return 0
  dir=${typed%/*}/
  while IFS= read -r line; do
    [[ $dir$line == "$typed"* ]] && COMPREPLY+=("$(printf '%q' "$dir$line")")
  done < <(timeout 10 "$tarn" "${device[@]}" ls -- "$dir" 2>/dev/null)
  # A directory takes no space after it, so that its own entries follow.
  if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} == */ ]]; then compopt -o nospace 2>/dev/null; fi
}

_tarn() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local tarn=${COMP_WORDS[0]} cmd="" word i position=0 device=()
  COMPREPLY=()
  # bash splits --option=value at '='; complete the value as after a space.
  if [[ $cur == "=" ]]; then cur="" prev=${COMP_WORDS[COMP_CWORD - 1]}
  elif [[ $prev == "=" ]]; then prev=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    [[ ${COMP_WORDS[i + 1]} == "=" ]] && ((i += 1))
    case $word in
      -u | --udid) device+=(-u "${COMP_WORDS[i + 1]}") ;&
      --workdir | --depth | --match) ((i += 1)); continue ;;
      --app) device+=(--app "${COMP_WORDS[i + 1]}"); ((i += 1)); continue ;;
      -*) continue ;;
    esac
    if [[ -z $cmd ]]; then cmd=$word; else ((position += 1)); fi
  done

  case $prev in
    -u | --udid)
      _tarn_add_words "$cur" "$(timeout 10 "$tarn" devices 2>/dev/null | cut -d' ' -f1)"
      return 0 ;;
    --app)
      # Only apps that share files can be reached; their identifier is the
      # first column of tarn apps and "yes" the last.
      _tarn_add_words "$cur" "$(timeout 10 "$tarn" "${device[@]}" apps 2>/dev/null | awk 'NR > 1 && $NF == "yes" {print $1}')"
      return 0 ;;
    --workdir) _tarn_host_paths -d; return 0 ;;
    --depth | --match) return 0 ;;
  esac

  if [[ $cur == -* ]]; then
    _tarn_add_words "$cur" "$_tarn_global_options $(_tarn_command_options "$cmd")"
    return 0
  fi
  if [[ -z $cmd ]]; then
    _tarn_add_words "$cur" "$_tarn_commands"
    return 0
  fi
  case $cmd:$position in
    list:0 | export:0) _tarn_add_words "$cur" "$(_tarn_kinds)" ;;
    export:1 | import:1) _tarn_host_paths -d ;;
    import:0) _tarn_add_words "$cur" "photos" ;;
    ls:0 | stat:0 | find:0 | mkdir:0 | rm:0 | mv:[01] | pull:0 | push:1) _tarn_device_paths ;;
    pull:1 | push:0) _tarn_host_paths ;;
  esac
  return 0
}

complete -F _tarn tarn
