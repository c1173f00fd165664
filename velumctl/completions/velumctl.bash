# Completion of velumctl's command line for bash.

_velumctl_options() {
  case "$1" in
    "logs show") echo "--follow --since --until --subsystem --level --json --help" ;;
    "logs save") echo "--since --until --subsystem --max-size --whole --json --help" ;;
    "logs reset") echo "--yes --help" ;;
    "support archive") echo "--log --purpose --since --include --reveal --json --help" ;;
    "run ") echo "--directory --json --help" ;;
    "logs ") echo "show save reset --help" ;;
    "support ") echo "archive --help" ;;
    " ") echo "logs support run --version --help" ;;
  esac
}

_velumctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local group='' command='' i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    # What follows is the command line of another tool.
    if [[ ${COMP_WORDS[i]} == -- ]]; then
      if declare -F _command_offset >/dev/null; then
        _command_offset $((i + 1))
      elif ((COMP_CWORD == i + 1)); then
        mapfile -t COMPREPLY < <(compgen -c -- "$current")
      else
        compopt -o default 2>/dev/null
      fi
      return
    fi
    if [[ -z $group && ${COMP_WORDS[i]} == @(logs|support|run) ]]; then
      group=${COMP_WORDS[i]}
    elif [[ -n $group && -z $command && ${COMP_WORDS[i]} == @(show|save|reset|archive) ]]; then
      command=${COMP_WORDS[i]}
    fi
  done

  local words=''
  case "$previous" in
    --level) words="verbose debug info warning error" ;;
    --purpose) words="report diagnosis" ;;
    --since | --until) words="10m 1h 1d" ;;
    --max-size) words="1M 30M 100M" ;;
    --subsystem) return ;;
    --log | --include) compopt -o default 2>/dev/null && return ;;
    --directory) compopt -o dirnames 2>/dev/null && return ;;
    *)
      if [[ $current == -* || -z $group || ($group != run && -z $command) ]]; then
        words=$(_velumctl_options "$group $command")
      else
        compopt -o default 2>/dev/null
      fi
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _velumctl velumctl
