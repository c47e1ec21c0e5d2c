#!/usr/bin/env bats
# Bash completion offers what the program's help has, and files where a file is meant.

setup() {
  # shellcheck source=../../packaging/tsl-address-map.bash
  source "$TSL_SOURCE/packaging/tsl-address-map.bash"
  tool=$TSL_BUILD/bin/tsl-address-map
  cd "$BATS_TEST_TMPDIR"
  mkdir directory
  touch table.txt "table two.txt"
}

# typed WORD...: completes the last word.
typed() {
  COMP_WORDS=(tsl-address-map "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _tsl_address_map
}

# offers WORD...: exactly these, in any order.
offers() {
  diff <(printf '%s\n' "$@" | sort) <(printf '%s\n' "${COMPREPLY[@]}" | sort)
}

offers_nothing() {
  declare -p COMPREPLY
  [ "${#COMPREPLY[@]}" -eq 0 ]
}

@test "bash knows which function completes the program" {
  run complete -p tsl-address-map
  [ "$output" = "complete -F _tsl_address_map tsl-address-map" ]
}

@test "commands are completed" {
  typed al
  offers alias
  typed alias ex
  offers expand export
  typed mask p
  offers private public
  typed nonsense ""
  offers_nothing
}

@test "global options are completed, and may stand before the command" {
  typed --o
  offers --option-file
  typed --json --table sales --local alias w
  offers who
  typed --option-file=/etc/my.cnf alias w
  offers who
  # The words as Bash parts them.
  typed --option-file = /etc/my.cnf alias w
  offers who
  typed --local = directory alias w
  offers who
}

@test "the options of a command are completed" {
  typed alias import --re
  offers --replace
  typed alias import table.txt --a
  offers --allow-cycle
  typed mask import --a
  offers_nothing
}

@test "values that are known are completed" {
  typed alias export --format ""
  offers native jsonl csv virtual aliases
  typed mask export --format = "v"
  offers virtual
  typed mask export --format "="
  offers native jsonl csv virtual
  typed user add ann@example.com --kind s
  offers shared
  typed table drop sales --kind ""
  offers alias mask
  typed --table ""
  offers_nothing
}

@test "files are completed where a file is meant" {
  typed alias import ta
  offers table.txt "table two.txt"
  typed --option-file ta
  offers table.txt "table two.txt"
  typed check --known ta
  offers table.txt "table two.txt"
  typed alias import --default-domain example.com ta
  offers table.txt "table two.txt"
  typed --cmf ""
  offers directory
  typed --local = d
  offers directory
  typed alias import table.txt ""
  offers_nothing
  typed alias set ""
  offers_nothing
}

# listed HEADING: the names that the help on standard input has below it.
listed() { sed -n "/^$1:/,/^\$/s/^  \(-h,\)\{0,1\}\(-*[a-z][a-z-]*\).*/\2/p"; }

# Compares what is offered with the help of a command and of those below it.
compare_with_help() {
  local help words options word
  help=$("$tool" "$@" --help)
  mapfile -t words < <(listed Subcommands <<<"$help")
  mapfile -t options < <({
    listed Options <<<"$help"
    printf '%s\n' "${global[@]}"
  } | sort -u)
  typed "$@" --
  offers "${options[@]}"
  if ((!${#words[@]})); then
    commands=$((commands + 1))
    typed "$@" ""
    # Files are what is here.
    if grep -qE '^Usage: .* \[?FILE' <<<"$help"; then
      offers directory table.txt "table two.txt"
    else
      offers_nothing
    fi
    return
  fi
  # A command that has others below it.
  if (($#)) && grep -q '^Examples:' <<<"$help"; then commands=$((commands + 1)); fi
  typed "$@" ""
  offers "${words[@]}"
  for word in "${words[@]}"; do compare_with_help "$@" "$word"; done
}

@test "all commands and options of the help are offered, and no others" {
  commands=0
  mapfile -t global < <("$tool" --help | listed Options)
  [ "${#global[@]}" -ge 8 ]
  compare_with_help
  # As many as the document has.
  [ "$commands" -eq "$(grep -oE '^### `[a-z ]+' "$TSL_SOURCE/docs/tool.md" | wc -l)" ]
}
