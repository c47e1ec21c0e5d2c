# alias expand: single addresses, lists, standard input, and the all-users marker.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() { empty_tables; }

@test "one address: one final address per line" {
  tool alias set team@example.com sub@example.com ann@example.com
  tool alias set sub@example.com cid@example.com "o'brien@example.com"
  run -0 --separate-stderr tool alias expand team@example.com
  equal "$output" $'ann@example.com\ncid@example.com\no\'brien@example.com'
  equal "$stderr" ""
}

@test "no alias" {
  run -1 --separate-stderr tool alias expand ann@example.com
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no alias ann@example.com in table alias"
}

@test "several addresses: all are answered, in their order" {
  tool alias set team@example.com cid@example.com ann@example.com
  run -1 --separate-stderr tool alias expand x@example.com team@example.com y@example.com
  equal "$output" $'x@example.com\t\nteam@example.com\tann@example.com,cid@example.com\ny@example.com\t'
  equal "$stderr" ""
  run -0 tool alias expand team@example.com team@example.com
  run -65 --separate-stderr tool alias expand nonsense team@example.com
  equal "$output" $'team@example.com\tann@example.com,cid@example.com'
  contains "$stderr" "address 'nonsense'"
}

@test "as JSON" {
  tool alias set team@example.com cid@example.com ann@example.com
  run -0 tool alias expand team@example.com --json
  equal "$output" \
    '[{"address":"team@example.com","outcome":"found","expansion":["ann@example.com","cid@example.com"]}]'
  run -1 --separate-stderr tool alias expand team@example.com x@example.com --json
  equal "$output" '[{"address":"team@example.com","outcome":"found","expansion":["ann@example.com","cid@example.com"]},
{"address":"x@example.com","outcome":"no-alias","expansion":[]}]'
  run -0 tool alias expand - --json </dev/null
  equal "$output" '[]'
}

@test "an alias in a loop expands to nothing, which is reported" {
  tool alias set a@example.com b@example.com
  tool alias set b@example.com a@example.com --allow-cycle
  run -1 --separate-stderr tool alias expand a@example.com
  equal "$output" ""
  contains "$stderr" "warning: alias a@example.com of table alias expands to nothing"
  run -1 --separate-stderr tool alias expand a@example.com --json
  equal "$output" '[{"address":"a@example.com","outcome":"expands-to-nothing","expansion":[]}]'
}

@test "standard input: blank lines are skipped, bad ones named, the others answered" {
  tool alias set team@example.com ann@example.com
  printf 'team@example.com\n\n \t\r\nnonsense\nx@example.com\r\nte\0am@example.com\n%s\nteam@example.com' \
    "$(printf 'x%.0s' {1..10000})" >"$BATS_TEST_TMPDIR/input"
  run -65 --separate-stderr tool alias expand - <"$BATS_TEST_TMPDIR/input"
  equal "$output" $'team@example.com\tann@example.com\nx@example.com\t\nteam@example.com\tann@example.com'
  contains "$stderr" "standard input, line 4: address 'nonsense'"
  contains "$stderr" "standard input, line 6: address 'te\\x00am@example.com'"
  contains "$stderr" "standard input, line 7: address 'xxx"
}

@test "standard input: a thousand addresses in order" {
  sql "insert into alias ( name, members )
       select concat( 'alias', seq, '\@example.com' ), concat( 'member', seq, '\@example.com' )
       from seq_0_to_999;"
  for i in {999..0}; do echo "alias$i@example.com"; done >"$BATS_TEST_TMPDIR/input"
  for i in {999..0}; do printf 'alias%s@example.com\tmember%s@example.com\n' "$i" "$i"; done \
    >"$BATS_TEST_TMPDIR/want"
  tool alias expand - <"$BATS_TEST_TMPDIR/input" >"$BATS_TEST_TMPDIR/got"
  cmp "$BATS_TEST_TMPDIR/got" "$BATS_TEST_TMPDIR/want"
}

@test "standard input: each answer comes before the next question" {
  tool alias set team@example.com ann@example.com
  coproc TOOL { "$TSL_TOOL" --local="$SERVER" alias expand - 2>/dev/null; }
  local answer
  for question in team@example.com x@example.com team@example.com; do
    echo "$question" >&"${TOOL[1]}"
    IFS= read -r -t 60 answer <&"${TOOL[0]}"
    contains "$answer" "$question"
  done
  # A row that comes while the tool runs is found all the same.
  sql "insert into alias ( name, members ) values( 'new@example.com', 'cid@example.com' );"
  echo "new@example.com" >&"${TOOL[1]}"
  IFS= read -r -t 60 answer <&"${TOOL[0]}"
  equal "$answer" $'new@example.com\tcid@example.com'
  local input=${TOOL[1]} pid=$TOOL_PID code=0
  exec {input}>&-
  wait "$pid" || code=$?
  equal "$code" 1
}

@test "a reader that has seen enough ends it without a word" {
  tool alias set team@example.com ann@example.com
  run --separate-stderr bash -c 'yes team@example.com |
    "$TSL_TOOL" --local="$SERVER" alias expand - | head -n 2; echo "${PIPESTATUS[1]}"'
  equal "$output" $'team@example.com\tann@example.com\nteam@example.com\tann@example.com\n141'
  equal "$stderr" ""
}

@test "an answer that cannot be written is a failure" {
  tool alias set team@example.com ann@example.com
  run -74 --separate-stderr bash -c '"$TSL_TOOL" --local="$SERVER" alias expand team@example.com >/dev/full'
  contains "$stderr" "writing to standard output"
  run -74 bash -c '"$TSL_TOOL" --local="$SERVER" alias expand team@example.com >&-'
}

@test "a broken row that is asked for is bad data" {
  sql "insert into alias ( name, members ) values( 'empty@example.com', '' );"
  run -65 --separate-stderr tool alias expand empty@example.com
  equal "$output" ""
  contains "$stderr" "broken row 'empty@example.com' of table alias"
  run -65 --separate-stderr tool alias expand empty@example.com --json
  equal "$output" '[{"address":"empty@example.com","outcome":"broken-row","expansion":[]}]'
}

@test "a malformed row anywhere is bad data and named, never 'not found'" {
  tool alias set team@example.com ann@example.com
  sql "insert into alias ( name, members ) values( 'no address', 'a@example.com' );"
  for address in team@example.com nobody@example.com; do
    run -65 --separate-stderr tool alias expand "$address"
    equal "$output" ""
    contains "$stderr" "broken row 'no address' of table alias"
    contains "$stderr" "alias list"
  done
  run -65 --separate-stderr tool alias expand - <<<$'team@example.com\nteam@example.com'
  equal "$(grep -c 'broken row' <<<"$stderr")" 1
  empty_tables
  sql "insert into mask values( 'no address', 'a@example.com' );"
  run -65 --separate-stderr tool alias expand team@example.com
  contains "$stderr" "table mask"
}

@test "all users of a domain" {
  tool domain add example.com
  tool user add ann@example.com
  tool user add bob@example.com --kind user
  tool user add room@example.com --kind shared
  tool user add old@example.com --kind disabled
  tool alias set all@example.com allusers_example.com
  run -0 --separate-stderr tool alias expand all@example.com
  equal "$output" $'ann@example.com\nbob@example.com'
  equal "$stderr" ""
  tool user remove ann@example.com
  tool user remove bob@example.com
  run -1 --separate-stderr tool alias expand all@example.com
  contains "$stderr" "expands to nothing"
}

@test "all users of a domain that the configuration does not know" {
  tool domain add example.com
  tool alias set all@unknown.example allusers_unknown.example
  run -0 --separate-stderr tool alias expand all@unknown.example
  equal "$output" "allusers_unknown.example"
  contains "$stderr" "has no domain unknown.example"
}

@test "all users when the configuration cannot be read is a failure" {
  tool alias set all@example.com allusers_example.com
  mkdir "$BATS_TEST_TMPDIR/none" "$BATS_TEST_TMPDIR/broken"
  run -78 --separate-stderr tool alias expand all@example.com --cmf "$BATS_TEST_TMPDIR/none"
  equal "$output" ""
  head -c 65536 /dev/zero >"$BATS_TEST_TMPDIR/broken/data.mdb"
  head -c 8192 /dev/zero >"$BATS_TEST_TMPDIR/broken/lock.mdb"
  run -75 --separate-stderr tool alias expand all@example.com --cmf "$BATS_TEST_TMPDIR/broken"
  equal "$output" ""
  contains "$stderr" "$BATS_TEST_TMPDIR/broken"
}
