# local start, stop, status and shell, and --local.

load helper

setup_file() {
  SERVER=$(mktemp -d /tmp/tsl-tool-XXXXXX)
  export SERVER
}
teardown_file() {
  XDG_STATE_HOME="$SERVER/state" "$TSL_TOOL" local stop
  stop_server
}

@test "start, status and stop" {
  run -1 tool local status
  equal "${lines[0]}" "not running"
  run -0 --separate-stderr tool local start
  [[ "${lines[0]}" =~ ^running,\ pid\ [0-9]+$ ]]
  equal "$stderr" ""
  run -0 tool local status
  equal "${lines[1]}" "directory: $SERVER"
  equal "${lines[2]}" "socket: $(socket)"
  run -0 tool local status --json
  equal "$output" "{\"running\":true,\"pid\":$(server_pid),\"directory\":\"$SERVER\",\"socket\":\"$(socket)\",\"optionFile\":\"$SERVER/client.cnf\",\"cmf\":\"$SERVER/cmf\"}"
  run -0 --separate-stderr tool local start
  contains "$stderr" "runs already"
  run -0 tool local stop
  run -1 tool local status --json
  contains "$output" '{"running":false,"pid":null,'
  run -0 --separate-stderr tool local stop
  contains "$stderr" "no private server runs"
}

@test "the default directory, and --local before and after the command" {
  export XDG_STATE_HOME="$SERVER/state"
  run -0 --separate-stderr "$TSL_TOOL" --local alias set team@example.com ann@example.com
  contains "$stderr" "started the private server in $SERVER/state/tsl-address-map"
  run -0 "$TSL_TOOL" alias --local expand team@example.com
  equal "$output" "ann@example.com"
  run -0 "$TSL_TOOL" alias expand team@example.com --local
  run -0 "$TSL_TOOL" local stop
  run -1 "$TSL_TOOL" local status
}

@test "--local starts the server and makes the database once" {
  tool local stop
  run -0 --separate-stderr tool alias set team@example.com ann@example.com
  contains "$stderr" "started the private server"
  run -0 --separate-stderr tool alias show team@example.com
  equal "$stderr" ""
  tool local stop
  run -0 --separate-stderr tool alias show team@example.com
  equal "$output" "ann@example.com"
}

@test "the shell is the SQL client on the database" {
  run -0 bash -c 'echo "select database();" | "$TSL_TOOL" local shell --local="$SERVER"'
  equal "$output" $'database()\nts_address_map'
  run -0 bash -c 'echo "create table alias_sales like alias;" | "$TSL_TOOL" --local="$SERVER" local shell'
  run -0 tool alias set team@example.com bob@example.com --table sales
  run -1 bash -c 'echo "nonsense;" | "$TSL_TOOL" --local="$SERVER" local shell'
}

@test "a missing client names its package" {
  run -78 --separate-stderr env PATH=/nonexistent "$TSL_TOOL" --local="$SERVER" local shell
  contains "$stderr" "mariadb-client-core"
}

@test "a directory that cannot be used" {
  run -78 --separate-stderr "$TSL_TOOL" --local=/proc/nowhere local start
  contains "$stderr" "/proc/nowhere"
  contains "$stderr" "--local=DIR"
  run -78 "$TSL_TOOL" local start --local=$'/tmp/a\nb'
  touch "$BATS_TEST_TMPDIR/file"
  run -78 "$TSL_TOOL" local start --local="$BATS_TEST_TMPDIR/file"
}
