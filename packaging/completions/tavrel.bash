# Completion of tavrel for bash: commands and options as the program itself lists them, channels and layouts as the running
# wall has them.

_tavrel_options() { # command line without options
  "$@" --help 2>/dev/null | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+'
}

_tavrel_commands() {
  "$@" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/ s/^  \([a-z][a-z-]*\) .*/\1/p'
}

_tavrel() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} program=${COMP_WORDS[0]}
  local command='' action='' position=0 i word words
  local wall=("$program" ctl)
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case "$word" in
      --socket | --wall)
        [ "$command" != ctl ] || wall+=("$word" "${COMP_WORDS[i + 1]}")
        i=$((i + 1))
        ;;
      --timeout | --alarm | --who | --note | --for | --until | --with) i=$((i + 1)) ;;
      -*) ;;
      *)
        if [ -z "$command" ]; then
          command=$word
        elif [ "$command" = ctl ] && [ -z "$action" ]; then
          action=$word
        else
          position=$((position + 1))
        fi
        ;;
    esac
  done
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_tavrel_options "$program" $command $action)" -- "$current")
    return
  fi
  case "$previous" in
    -o | --output | --snapshot | --library | --log-file | --perf-file | --socket | --wall)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --alarm)
      mapfile -t COMPREPLY < <(compgen -W 'loss black freeze silence clipping' -- "$current")
      return
      ;;
    --with)
      mapfile -t COMPREPLY < <(compgen -W 'silence nothing off' -- "$current")
      return
      ;;
    --json | --events | --overwrite | --strict | --verbose | --follow | --salvage | --add | --by-name) ;;
    --*) return ;; # takes a value, for which there is no completion
  esac
  case "$command/$action/$position" in
    //*) words=$(_tavrel_commands "$program")$'\nhelp' ;;
    help//*) words=$(_tavrel_commands "$program") ;;
    ctl//*) words=$(_tavrel_commands "$program" ctl) ;;
    ctl/layout/0 | ctl/save-layout/0 | ctl/delete-layout/0)
      words=$("${wall[@]}" --json --timeout ${TAVREL_COMPLETION_TIMEOUT:-2} status 2>/dev/null | _tavrel_names layouts)
      ;;
    ctl/order/* | ctl/swap/[01] | ctl/ack/0 | ctl/mask/0 | ctl/solo/0 | ctl/select/0 | ctl/mute/0 | ctl/follow/0 | \
      ctl/reconnect/0 | ctl/remove/0 | ctl/set/0 | ctl/label/0)
      words=$("${wall[@]}" --timeout ${TAVREL_COMPLETION_TIMEOUT:-2} list 2>/dev/null | cut -f 1)
      ;;
    check//* | run//* | render//* | log//* | register//* | unregister//* | probe//*)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
  esac
  # Names may contain blanks: the list has one name per line.
  local plain=${current//\\/} name
  plain=${plain#[\"\']}
  while IFS= read -r name; do
    [[ -z $name || $name != "$plain"* ]] && continue
    [[ $current == [\"\']* ]] && COMPREPLY+=("$name") || COMPREPLY+=("$(printf '%q' "$name")")
  done <<<"$words"
}

# The texts of a list in the wall's answer, one per line.
_tavrel_names() { # key
  sed -n "s/.*\"$1\":\[\([^]]*\)\].*/\1/p" | grep -oE '"([^"\\]|\\.)*"' | sed -e 's/^"//' -e 's/"$//' -e 's/\\\(.\)/\1/g'
}

complete -F _tavrel tavrel
