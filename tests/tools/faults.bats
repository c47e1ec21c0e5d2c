# When the database cannot answer: the tool says so and exits 75 or 78, never "not found".

load helper

setup_file() { start_server; }
teardown_file() {
  DATABASE= sql 'drop user if exists mail@localhost;' || true
  stop_server
}
setup() {
  empty_tables
  tool alias set team@example.com ann@example.com
}

@test "a server that is gone is a failure, and its return is noticed" {
  local commands=('alias expand team@example.com' 'alias expand nobody@example.com'
    'alias expand -' 'alias show team@example.com' 'alias list' 'alias remove team@example.com'
    'alias set a@example.com b@example.com' 'init' 'init --force' 'status')
  cp "$SERVER/client.cnf" "$BATS_TEST_TMPDIR/client.cnf"
  kill -9 "$(server_pid)"
  while tool local status >/dev/null; do sleep 0.1; done
  for words in "${commands[@]}"; do
    # Unquoted: the words of the command.
    run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/client.cnf" $words \
      <<<team@example.com
    contains "$stderr" "tsl-address-map: hint: "
  done
  # --local starts it again, and what was stored is there.
  run -0 --separate-stderr tool alias expand team@example.com
  equal "$output" "ann@example.com"
  contains "$stderr" "started the private server"
  run -0 "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/client.cnf" alias show team@example.com
}

@test "a server that goes while addresses come in" {
  coproc TOOL { "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias expand - 2>"$BATS_TEST_TMPDIR/err"; }
  local answer input=${TOOL[1]} pid=$TOOL_PID
  echo team@example.com >&"$input"
  IFS= read -r -t 60 answer <&"${TOOL[0]}"
  equal "$answer" $'team@example.com\tann@example.com'
  tool alias set two@example.com b@example.com
  kill -9 "$(server_pid)"
  while tool local status >/dev/null; do sleep 0.1; done
  echo nobody@example.com >&"$input"
  exec {input}>&-
  local code=0
  wait "$pid" || code=$?
  equal "$code" 75
  contains "$(cat "$BATS_TEST_TMPDIR/err")" "tsl-address-map: "
  tool local start
}

@test "an option without its value is refused, and takes no word for it" {
  for words in '--table= alias list' '--cmf= domain list' '--local= status' 'alias list --domain='; do
    # Unquoted: the words of the command.
    run -64 --separate-stderr "$TSL_TOOL" $words
    contains "$stderr" "given"
  done
}

@test "a mistyped command or option: what may be meant, and the help of the nearest command" {
  # What is typed, the fault, what may be meant, and whose help is named.
  while IFS='|' read -r typed fault meant help; do
    # Unquoted: the words of the command.
    run -64 --separate-stderr "$TSL_TOOL" $typed
    contains "$stderr" "tsl-address-map: usage: $fault"$'\n'
    local hint="see 'tsl-address-map ${help:+$help }--help'"
    [[ -z $meant ]] || hint="did you mean '$meant'? S${hint#s}"
    equal "${stderr##*hint: }" "$hint"
  done <<'EOF'
alais set a@x.example b@x.example|there is no command 'alais'|alias|
alias lst|there is no command 'alias lst'|alias list|alias
alias frobnicate|there is no command 'alias frobnicate'||alias
alias|a command is missing||alias
alias set a@x.example|MEMBER is required||alias set
alias list --domian x.example|'alias list' has no option '--domian'|--domain|alias list
alias import --repalce=1 x|'alias import' has no option '--repalce'|--replace|alias import
alias list --jsn|'alias list' has no option '--jsn'|--json|alias list
--tabel x alias list|'alias list' has no option '--tabel'|--table|alias list
serve --metric 127.0.0.1:1|'serve' has no option '--metric'|--metrics|serve
alias set --localnames a@x.example|'alias set' has no option '--localnames'|--local-names|alias set
mask list --dot|'mask list' has no option '--dot'||mask list
alias list a@x.example|'alias list' takes no further argument 'a@x.example'||alias list
EOF
}

@test "nobody listens" {
  printf '[client]\nsocket=/nonexistent/db.sock\n' >"$BATS_TEST_TMPDIR/nowhere.cnf"
  run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" \
    alias expand team@example.com --verbose
  equal "$output" ""
  contains "$stderr" "/nonexistent/db.sock"
  contains "$stderr" "tsl-address-map: detail: "
}

@test "a wrong password, which is never shown" {
  DATABASE= sql "create or replace user mail@localhost identified by 'the right one';"
  local file
  file=$(option_file mail wrongsecret)
  for words in 'alias expand team@example.com' 'alias list' 'init' 'status'; do
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" $words --verbose
    contains "$stderr" "user and password of 'mail'@'localhost' in the option file"
    [[ "$output$stderr" != *wrongsecret* ]]
  done
}

@test "a user that the server admits only from an operating-system user of its name" {
  DATABASE= sql "create or replace user mail@localhost identified via unix_socket;"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$(option_file mail '')" alias list
  contains "$stderr" "'mail'@'localhost' without a password only from the operating-system user"
}

@test "a user without rights: the hint names the right and the user" {
  DATABASE= sql "create or replace user mail@localhost identified by 'secret';"
  local file words grant="GRANT SELECT ON ts_address_map.* TO 'mail'@'localhost'"
  file=$(option_file mail secret)
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" alias list
  contains "$stderr" "$grant"
  DATABASE= sql "grant select on ts_address_map.mask to mail@localhost;"
  for words in 'alias expand team@example.com' 'alias show team@example.com' 'alias list' \
    'alias set a@example.com b@example.com' 'alias remove team@example.com'; do
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" $words
    contains "$stderr" "$grant"
  done
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" mask set a@inner.example b@example.com
  contains "$stderr" "${grant/SELECT/INSERT}"
  sql "grant select (name) on alias to mail@localhost;"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" alias list
  contains "$stderr" "$grant"
  equal "$(sql 'select count(*) from alias')" 1
}

@test "no database" {
  DATABASE= sql 'drop database ts_address_map;'
  for words in 'alias expand team@example.com' 'alias show team@example.com' 'alias list' \
    'alias set a@example.com b@example.com' 'alias remove team@example.com'; do
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$SERVER/client.cnf" $words
    contains "$stderr" "tsl-address-map init"
  done
  run -0 "$TSL_TOOL" --option-file "$SERVER/client.cnf" status
  contains "$output" "schema: absent"
  # --local makes what is missing.
  run -1 tool alias show team@example.com
}

@test "no table" {
  sql 'drop table alias;'
  run -78 --separate-stderr tool alias expand team@example.com
  contains "$stderr" "tsl-address-map init"
  run -78 tool alias show team@example.com
  run -0 tool init
}

@test "wrong settings" {
  local missing="$BATS_TEST_TMPDIR/missing"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$missing" alias list
  contains "$stderr" "tsl-address-map: --option-file: The database option file '$missing' cannot be read"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR" alias list
  contains "$stderr" "tsl-address-map: --option-file: "
  printf '[clinet]\nuser=x\n' >"$BATS_TEST_TMPDIR/typo.cnf"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/typo.cnf" alias list
  contains "$stderr" "has no group [client] or [tsl-address-map]"
  [[ "$stderr" != *TSL_DATABASE_OPTION_FILE* ]]
  TSL_DATABASE_OPTION_FILE=$missing run -78 --separate-stderr "$TSL_TOOL" alias list
  contains "$stderr" "$missing"
  TSL_DATABASE_OPTION_FILE=$missing run -78 "$TSL_TOOL" status
  run -78 tool --cmf "$missing" domain list
  run -78 "$TSL_TOOL" --local=/proc/nowhere alias list
}

@test "an interrupted wait ends the tool" {
  # Unlike a terminal, a shell script lets its background jobs ignore the interrupt key.
  mkfifo "$BATS_TEST_TMPDIR/fifo"
  exec {hold}<>"$BATS_TEST_TMPDIR/fifo"
  run env --default-signal=INT timeout --foreground --signal=INT 2 \
    "$TSL_TOOL" --local="$SERVER" alias expand - <"$BATS_TEST_TMPDIR/fifo"
  equal "$status" 124
  exec {hold}>&-
}
