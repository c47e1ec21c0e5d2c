#!/usr/bin/env bats
# scripts/demo shows what it promises, and leaves nothing behind, however it ends.

setup() {
  cd "$BATS_TEST_TMPDIR"
  # The demo makes its folder here; the path is short, for the socket in it.
  TMPDIR=$(mktemp -d /tmp/tsl-bats.XXXXXX)
  export TMPDIR
}

teardown() { rm -rf "$TMPDIR"; }

nothing_is_left() {
  [ -z "$(ls -A "$TMPDIR")" ]
  # The server's command line names its folder.
  [ -z "$(grep -alF "$TMPDIR/tsl-demo" /proc/[0-9]*/cmdline 2>/dev/null)" ]
}

# start_demo: in the background, with the signals that a terminal's programs have.
start_demo() {
  env --default-signal=INT,TERM "$TSL_SOURCE/scripts/demo" </dev/null >out 2>&1 3>&- &
  demo=$!
}

# await TEXT: until the demo has said it.
await() {
  local i
  for ((i = 0; i < 600; i++)); do
    grep -qF "$1" out 2>/dev/null && return
    sleep 0.1
  done
  cat out
  return 1
}

@test "the demo shows expansions, and leaves nothing behind" {
  "$TSL_SOURCE/scripts/demo" </dev/null >out 2>&1 3>&-
  cat out
  grep -q '^helpdesk@partner.example$' out
  grep -q 'ping@example.com of table alias expands to nothing' out
  grep -q '^eve@example.com$' out
  [ "$(grep -c '^dan@example.com$' out)" -eq 0 ]
  grep -q 'no alias nobody@example.com' out
  grep -q '^\[{"address":"sales@example.com","outcome":"found"' out
  tail -1 out | grep -q 'stopped and removed'
  nothing_is_left
}

@test "an interrupted demo leaves nothing behind" {
  start_demo
  await "load the sample tables"
  kill -INT "$demo"
  status=0
  wait "$demo" || status=$?
  cat out
  [ "$status" -eq 130 ]
  nothing_is_left
}

@test "a demo that is interrupted while the server starts leaves nothing behind" {
  start_demo
  await "start a private database"
  kill -TERM "$demo"
  status=0
  wait "$demo" || status=$?
  cat out
  [ "$status" -eq 143 ]
  nothing_is_left
}

@test "a failing step is told, fails the demo, and leaves nothing behind" {
  mkdir bin
  printf '#!/bin/sh\necho "no server today"\nexit 1\n' >bin/mariadb-install-db
  cp bin/mariadb-install-db bin/mysql_install_db
  chmod +x bin/*
  PATH=$PWD/bin:$PATH run "$TSL_SOURCE/scripts/demo" </dev/null
  echo "$output"
  [ "$status" -ne 0 ]
  [[ $output == *"start a private database"*FAILED* ]]
  nothing_is_left
}

@test "the demo explains itself, and refuses what it does not know" {
  run "$TSL_SOURCE/scripts/demo" --help
  [ "$status" -eq 0 ]
  [[ $output == Usage:* ]]
  run "$TSL_SOURCE/scripts/demo" --faster
  [ "$status" -eq 64 ]
}
