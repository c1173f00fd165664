# Completion of velumctl's command line for bash.

_velumctl_options() {
  case "$1" in
    "logs show") echo "--follow --since --until --subsystem --level --json --help" ;;
    "logs save") echo "--since --until --subsystem --max-size --whole --json --help" ;;
    "logs reset") echo "--yes --help" ;;
    "support archive") echo "--log --purpose --since --include --reveal --json --help" ;;
    "http send")
      echo "--method --header --data-file --form --file --retries --timeout --max-size --output --json --help" ;;
    "http ") echo "send --help" ;;
    "telemetry body") echo "--type --name --ref-name --action --label --app-type --app-version" \
      "--synthetic-id --website-exclusions --app-exclusions --app-locale --system-locale" \
      "--logged-in --theme --kill-switch --stats --retention-cohort --update-interval" \
      "--operating-mode --experiment-1 --experiment-2 --experiment-3 --help" ;;
    "telemetry synthetic-id") echo "--help" ;;
    "telemetry ") echo "body synthetic-id --help" ;;
    "verify-peer ") echo "--team --roots --strict --max-size --verbose --json --help" ;;
    "certs add") echo "--name --domain --root --help" ;;
    "certs remove" | "certs trust") echo "--domain --root --help" ;;
    "certs list" | "certs check") echo "--domain --root --json --help" ;;
    "certs ") echo "add remove list trust check --help" ;;
    "sysinfo ") echo "--json --help" ;;
    "watch ") echo "--json --exec --help" ;;
    "run ") echo "--directory --json --help" ;;
    "keychain get" | "keychain delete") echo "--service --group --yes --help" ;;
    "keychain set") echo "--service --group --stdin --help" ;;
    "keychain list") echo "--service --json --help" ;;
    "defaults read") echo "--json --help" ;;
    "defaults write") echo "--type --stdin --help" ;;
    "defaults verify") echo "--storage --key-item --service --group --json --help" ;;
    "storage dump") echo "--key-item --service --group --yes --json --help" ;;
    "encrypt ") echo "--key-file --key-fd --output --help" ;;
    "decrypt ") echo "--key-file --key-fd --output --yes --help" ;;
    "notify post" | "notify listen") echo "--system --json --help" ;;
    "notify wait") echo "--timeout --system --json --help" ;;
    "request ") echo "--id --prefix --timeout --system --json --help" ;;
    "respond ") echo "--id --prefix --once --system --json --help" ;;
    "logs ") echo "show save reset --help" ;;
    "support ") echo "archive --help" ;;
    "keychain ") echo "get set delete list --help" ;;
    "defaults ") echo "read write verify --help" ;;
    "storage ") echo "dump --help" ;;
    "notify ") echo "post wait listen --help" ;;
    " ")
      echo "logs support run keychain defaults storage encrypt decrypt notify request respond http sysinfo" \
        "telemetry verify-peer certs watch --version --help"
      ;;
  esac
}

_velumctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local group='' command='' i
  local groups='logs|support|keychain|defaults|storage|notify|http|telemetry|certs'
  local single='run|encrypt|decrypt|request|respond|sysinfo|verify-peer|watch'
  local commands='show|save|reset|archive|get|set|delete|list|read|write|verify|dump|post|wait|listen'
  commands+='|send|body|synthetic-id|add|remove|trust|check'
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
    if [[ -z $group && ${COMP_WORDS[i]} == @($groups|$single) ]]; then
      group=${COMP_WORDS[i]}
    elif [[ $group == @($groups) && -z $command && ${COMP_WORDS[i]} == @($commands) ]]; then
      command=${COMP_WORDS[i]}
    fi
  done

  local words=''
  case "$previous" in
    --level) words="verbose debug info warning error" ;;
    --purpose) words="report diagnosis" ;;
    --since | --until) words="10m 1h 1d" ;;
    --max-size) words="1M 30M 100M" ;;
    --method) words="GET HEAD POST PUT PATCH DELETE" ;;
    --header | --form | --file | --retries) return ;;
    --type) [[ $group == telemetry ]] && words="pageview custom" || words="bool integer double string data plist" ;;
    --domain) words="user admin system" ;;
    --name) [[ $group == certs ]] && return ;;
    --app-type) words="KESTREL_DESK PLOVER_DESK" ;;
    --timeout) words="1 10 60" ;;
    --subsystem | --service | --group | --key-item | --key-fd | --id | --prefix | --team) return ;;
    --log | --include | --data-file | --storage | --key-file | --output) compopt -o default 2>/dev/null && return ;;
    --directory | --root | --roots) compopt -o dirnames 2>/dev/null && return ;;
    *)
      if [[ $current == -* || -z $group || ($group == @($groups) && -z $command) ]]; then
        words=$(_velumctl_options "$group $command")
      elif [[ $group == verify-peer ]]; then
        words=$(compgen -G '/proc/[1-9]*' | sed 's|/proc/||')
      elif [[ $group == @(keychain|notify|request|respond) ]]; then
        return
      elif [[ $group == defaults ]]; then
        words=$(cd "${XDG_CONFIG_HOME:-$HOME/.config}" 2>/dev/null &&
          compgen -G '*/defaults.plist' | sed 's|/defaults.plist$||')
      else
        compopt -o default 2>/dev/null
      fi
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _velumctl velumctl
