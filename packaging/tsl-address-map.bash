# Bash completion for tsl-address-map: commands, their options, values that are known, and files where
# a file is meant. Nothing is run for it, so a word is completed at once. Sourced, not run.
# shellcheck shell=bash

# _tsl_address_map_commands GROUP: the words that may follow; none behind a whole command.
_tsl_address_map_commands() {
  case $1 in
    "") echo alias answer check diff domain history init leave local mask move-domain rename serve status table undo user ;;
    alias) echo add copy drop edit expand export import list prune remove rule set show tree who ;;
    "alias rule") echo export import list remove set show ;;
    mask) echo edit explain export import list private public remove set ;;
    table) echo create drop list ;;
    domain) echo add export import list merge remove ;;
    user) echo add export import list remove ;;
    history) echo prune ;;
    local) echo shell start status stop ;;
  esac
}

# _tsl_address_map_options COMMAND: its own options.
_tsl_address_map_options() {
  case $1 in
    init) echo --dry-run --force ;;
    history) echo --all-rows --by --since --until ;;
    "history prune") echo --before --dry-run ;;
    undo) echo --allow-cycle --dry-run ;;
    check) echo --as-known --known --since-history ;;
    answer) echo --as --delimiter --extension --from --leave-out-disabled --local-names --login-domain ;;
    "alias set" | "alias add") echo --allow-cycle --dry-run --local-names --new-spelling ;;
    "alias copy") echo --allow-cycle --dry-run --local-names ;;
    "alias drop") echo --dry-run --everywhere --remove-empty --yes ;;
    "alias edit") echo --allow-cycle --changed-since --domain --dry-run --force --local-names --match --new-spelling --yes ;;
    "mask edit") echo --changed-since --domain --dry-run --force --match --new-spelling --yes ;;
    "alias remove" | "domain add" | "domain import" | "domain merge" | "user remove") echo --dry-run ;;
    "domain remove") echo --dry-run --yes ;;
    "alias list") echo --changed-since --domain --match --unused ;;
    "mask list") echo --changed-since --domain --match ;;
    "domain export" | "user export") echo --domain ;;
    "alias rule set") echo --contact --dry-run --expires --list --note --owner --writers ;;
    leave) echo --dry-run --yes ;;
    "alias prune" | "alias rule remove" | move-domain | rename) echo --dry-run ;;
    "alias rule import") echo --dry-run --replace ;;
    "alias rule list") echo --domain ;;
    "alias tree") echo --dot ;;
    "alias export") echo --domain --format --rules ;;
    "mask export") echo --domain --format ;;
    "alias import") echo --allow-cycle --columns --default-domain --domain --dry-run --force --format --local-names --new-spelling --replace --rules --skip-bad ;;
    "mask set") echo --dry-run --force ;;
    "mask remove") echo --domain --dry-run ;;
    "mask import") echo --columns --domain --dry-run --force --format --new-spelling --replace --skip-bad ;;
    serve)
      echo --catch-all --check-config --count-use --delimiter --drain-timeout --extension --idle-timeout --leave-out-disabled --listen --local-names \
        --log-level --login-domain --max-connections --max-lag --max-memory --max-reply --max-request --mask-users --metrics --only --page \
        --policy-text --refresh --request-timeout --snapshot --stale --trust --workers
      ;;
    "local start") echo --nodes ;;
    "table create") echo --dry-run --kind ;;
    "table drop") echo --dry-run --kind --yes ;;
    "user add") echo --dry-run --kind ;;
    "user import") echo --all --domain --dry-run --kind ;;
  esac
}

# _tsl_address_map_values COMMAND OPTION: the values that the option takes, when they are known.
_tsl_address_map_values() {
  case "$2 $1" in
    "--format alias "*) echo native jsonl csv virtual aliases ;;
    "--format mask "*) echo native jsonl csv virtual ;;
    "--writers alias rule set") echo anyone authenticated domain listed members ;;
    "--extension serve") echo keep drop off ;;
    "--log-level serve") echo error warning info debug ;;
    "--kind table "*) echo alias mask ;;
    "--kind user "*) echo user disabled shared ;;
    "--nodes local "*) echo 3 5 ;;
  esac
}

# _tsl_address_map_offer WORDS: those that begin with what is typed.
_tsl_address_map_offer() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current"); }

# _tsl_address_map_files ACTION: files (-f) or directories (-d) that begin with what is typed.
_tsl_address_map_files() {
  # So that Bash quotes them. It fails when the function is called by something else than a completion.
  compopt -o filenames 2>/dev/null || true
  mapfile -t COMPREPLY < <(compgen "$1" -- "$current")
}

# Reads the words before the one at the cursor: the command, how many arguments it has, and the option
# whose value the cursor is at. Bash makes a word of the "=" between an option and its value.
_tsl_address_map_read() {
  local i word
  command="" arguments=0 option=""
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == "=" ]]; then
      option=${COMP_WORDS[i - 1]}
    elif [[ -n $option ]]; then
      option=""
    elif [[ $word == --@(option-file|cmf|table|domain|default-domain|match|changed-since|columns|kind|format|known|nodes|writers|list|owner|expires|note|contact|since|until|by|before) ||
      $command == serve && $word == --?* && $word != --@(help|json|verbose|version|local) ]]; then
      option=$word
    elif [[ $word == -?* ]]; then
      continue
    elif [[ " $(_tsl_address_map_commands "$command") " == *" $word "* ]]; then
      command+=${command:+ }$word
    else
      arguments=$((arguments + 1))
    fi
  done
  if [[ $current == "=" ]]; then
    option=${COMP_WORDS[COMP_CWORD - 1]}
    current=""
  fi
}

_tsl_address_map() {
  local current=${COMP_WORDS[COMP_CWORD]} command arguments option
  local global="--cmf --help --json --local --option-file --table --verbose --version"
  COMPREPLY=()
  _tsl_address_map_read
  case $option in
    "") ;;
    --option-file | --known | --count-use | --unused) _tsl_address_map_files -f ;;
    --cmf | --local | --snapshot) _tsl_address_map_files -d ;;
    *) _tsl_address_map_offer "$(_tsl_address_map_values "$command" "$option")" ;;
  esac
  [[ -z $option ]] || return 0

  if [[ $current == -* ]]; then
    _tsl_address_map_offer "$global $(_tsl_address_map_options "$command")"
  elif [[ $command == *\ @(export|import) ]]; then
    ((arguments)) || _tsl_address_map_files -f
  elif ((!arguments)); then
    _tsl_address_map_offer "$(_tsl_address_map_commands "$command")"
  fi
}

complete -F _tsl_address_map tsl-address-map
