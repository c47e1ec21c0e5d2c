#!/usr/bin/env bats
# The example that the README shows, as the build made it, against a private server.

load server

setup_file() {
  start_server
  tool alias set staff@example.com sales@example.com cleo@example.com
  tool alias set sales@example.com ann@example.com bob@example.com
}

teardown_file() { stop_server; }

setup() { expand=$TSL_BUILD/bin/expand; }

@test "the example expands an alias" {
  run with_server "$expand" staff@example.com
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$output" = $'ann@example.com\nbob@example.com\ncleo@example.com' ]
}

@test "the example tells no alias from a failure" {
  run with_server "$expand" nobody@example.com
  [ "$status" -eq 1 ]
  [ -z "$output" ]
  TSL_DATABASE_OPTION_FILE=/nonexistent/client.cnf run "$expand" nobody@example.com
  echo "$output"
  [ "$status" -eq 75 ]
  [[ $output == *"/nonexistent/client.cnf"* ]]
}

@test "the example refuses what is no address" {
  run with_server "$expand" "not an address"
  echo "$output"
  [ "$status" -eq 75 ]
  [[ $output == *"EmailAddress::rfc5321Parse"* ]]
  run "$expand"
  [ "$status" -eq 64 ]
}

@test "the example prepares the database" {
  echo "drop database ts_address_map" | tool local shell
  run with_server "$expand" --initialize
  [ "$status" -eq 0 ]
  run tool status
  [[ $output == *"table: alias, rows: 0"*"table: mask, rows: 0"* ]]
}

@test "the README shows the example as it is" {
  sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$TSL_SOURCE/README.md" | diff - "$TSL_SOURCE/examples/expand.cpp"
}
