#!/usr/bin/env bats
# scripts/demo shows what it promises, and leaves nothing behind, however it ends.

setup() {
  cd "$BATS_TEST_TMPDIR"
  # The demo makes its directory here; the path is short, for the socket in it.
  TMPDIR=$(mktemp -d /tmp/tsl-bats.XXXXXX)
  export TMPDIR
}

teardown() { rm -rf "$TMPDIR"; }

nothing_is_left() {
  [ -z "$(ls -A "$TMPDIR")" ]
  # The server's command line names its directory.
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

# paragraphs FILE: each on one line.
paragraphs() { awk 'BEGIN {RS = ""} {gsub(/\n/, "\\n"); print}' "$1"; }

# shown_by_the_readme: its copy of the output.
shown_by_the_readme() {
  sed -n '/The demo prints, shortened:$/,/^and the tests print/{/^```$/d;p}' "$TSL_SOURCE/README.md" | sed '1d;$d'
}

# shows COMMAND TEXT: TEXT is in the output of that command.
shows() {
  # The output reaches to the next command or heading.
  awk -v command="\$ tsl-address-map $1" '
    /^\$ / || /^--- / {on = $0 == command}
    on' out >"$BATS_TEST_TMPDIR/shown"
  grep -qF -e "$2" "$BATS_TEST_TMPDIR/shown"
}

@test "the demo shows the program at work as the README says, and leaves nothing behind" {
  "$TSL_SOURCE/scripts/demo" </dev/null >out 2>&1 3>&-
  cat out
  shows "alias expand staff@example.com" helpdesk@partner.example
  shows "alias tree company@example.com" "        ann@example.com: self-delivery"
  shows "alias who bob@example.com" "sales@example.com -> bob@example.com"
  shows "alias expand orders@example.com" "orders@example.com of table alias expands to nothing"
  shows "alias set staff@example.com sales@example.com company@example.com" "(exit status 65)"
  shows "alias expand everybody@example.com" eve@example.com
  [ "$(grep -c '^dan@example.com$' out)" -eq 0 ]
  shows "alias expand nobody@example.com" "no alias nobody@example.com"
  shows "mask public ann@example.com ida@workshop.example gus@example.org" $'ida@workshop.example\tida@example.com'
  shows "mask private ann.smith@example.com ida@example.com" $'ida@example.com\tida@workshop.example'
  shows "mask explain jon@workshop.example" "in place of the wildcard *@workshop.example"
  shows check "hal@example.org"
  shows check $'error\tcycle\talias\t'
  shows "alias export" "board@example.org:ann@example.com,fay@example.org,hal@example.org"
  shows "mask export --format csv" "*@workshop.example,*@example.com"
  shows "alias import examples/tables/virtual --dry-run" "~ sales@example.com:ann@example.com,bob@example.com -> ann@example.com,bob@example.com,eve@example.com"
  shows "alias import examples/tables/virtual --dry-run" "1 added, 1 changed, 10 left, 0 removed"
  grep -q '^\[{"address":"sales@example.com","outcome":"found"' out
  tail -1 out | grep -q 'stopped and removed'
  shown_by_the_readme >readme
  [ "$(paragraphs readme | wc -l)" -ge 6 ]
  # What the README has that the demo does not print.
  grep -vxF -f <(paragraphs out) <(paragraphs readme) >differs || true
  cat differs
  [ ! -s differs ]
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

@test "a failing step is reported, fails the demo, and leaves nothing behind" {
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
