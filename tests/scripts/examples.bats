#!/usr/bin/env bats
# The examples that the documents show, as the build made them, against a private server.

load server

setup_file() {
  start_server
  tool alias set staff@example.com sales@example.com cleo@example.com
  tool alias set sales@example.com ann@example.com bob@example.com
}

teardown_file() { stop_server; }

setup() {
  expand=$TSL_BUILD/bin/expand
  c_interface=$TSL_BUILD/bin/c_interface
}

@test "the example expands an alias" {
  run with_server "$expand" staff@example.com
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$output" = $'ann@example.com\nbob@example.com\ncleo@example.com' ]
}

@test "the example distinguishes no alias from a failure" {
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

@test "the C example prints what its document says, every time" {
  sed -n '/^It prints, and ends with 0:$/,/^## /{/^[a-z]*: /p}' "$TSL_SOURCE/docs/c-interface.md" \
    >"$BATS_TEST_TMPDIR/want"
  [ "$(wc -l <"$BATS_TEST_TMPDIR/want")" -eq 11 ]
  for _ in 1 2; do
    run with_server "$c_interface"
    echo "$output"
    [ "$status" -eq 0 ]
    diff "$BATS_TEST_TMPDIR/want" - <<<"$output"
  done
}

@test "the C example leaves the tables of others as they were" {
  run tool alias list
  before=$output
  with_server "$c_interface"
  run tool alias list
  [ "$output" = "$before" ]
  [[ $output == *"staff@example.com"* ]]
  run tool status
  [[ $output != *c_example* ]]
}

@test "the C example says what failed" {
  TSL_DATABASE_OPTION_FILE=/nonexistent/client.cnf run "$c_interface"
  [ "$status" -eq 75 ]
  [ "$output" = "c_interface: the database cannot be reached" ]
}

@test "the C example survives a table that is in its way" {
  echo "create table ts_address_map.mask_c_example (x int)" | tool local shell
  run with_server "$c_interface"
  echo "drop table ts_address_map.mask_c_example" | tool local shell
  echo "$output"
  [ "$status" -eq 75 ]
  [[ $output == *"c_interface: making the table c_example, which is there already, failed"* ]]
}

@test "the guard of the C example catches what the library throws" {
  # Nothing is in the way, but the user may not make tables.
  echo "create user reader@localhost; grant select, insert, update, delete on ts_address_map.* to reader@localhost" |
    tool local shell
  sed 's/^user *=.*/user = reader/' "$server_directory/db/client.cnf" >"$server_directory/reader.cnf"
  chmod 600 "$server_directory/reader.cnf"
  TSL_DATABASE_OPTION_FILE=$server_directory/reader.cnf run "$c_interface"
  echo "$output"
  [ "$status" -eq 75 ]
  [[ $output == *'c_interface: table "c_example": Address Mask Creation'* ]]
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
