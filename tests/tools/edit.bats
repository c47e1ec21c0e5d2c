# What changes single members, whole tables and many users: alias add and drop, edit, table, user
# import, and --dry-run.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() {
  empty_tables
  cd "$BATS_TEST_TMPDIR"
}

aliases() { sql 'select concat( name, ":", members ) from alias order by name'; }

# Runs the tool on a configuration of the test's own.
cmf() { without_database --cmf "$BATS_TEST_TMPDIR/cmf" "$@"; }

make_cmf() {
  mkdir cmf
  cmf domain add example.com
}

# Runs the tool at a terminal, the answer to its question being $1.
at_terminal() {
  local answer=$1
  shift
  printf '%s\n' "$answer" | script -qec "'$TSL_TOOL' '--local=$SERVER' $*" /dev/null | tr -d '\r'
  return "${PIPESTATUS[1]}"
}

@test "alias add adds members, and makes a missing alias" {
  run -0 --separate-stderr tool alias add team@example.com bob@example.net
  equal "$output$stderr" ""
  run -0 --separate-stderr tool alias add TEAM@example.com ann@example.com bob@example.net
  equal "$output$stderr" ""
  equal "$(aliases)" "team@example.com:ann@example.com,bob@example.net"
  run -0 tool alias add team@example.com carl@example.com ann@example.com --json
  equal "$output" '{"address":"team@example.com","members":["ann@example.com","bob@example.net","carl@example.com"],"added":["carl@example.com"]}'
  run -0 tool alias add team@example.com ann@example.com --json
  contains "$output" '"added":[]}'
}

@test "members from standard input" {
  run -0 tool alias add team@example.com carl@example.com - <<<$'ann@example.com\r\n\nbob@example.net\n'
  equal "$(aliases)" "team@example.com:ann@example.com,bob@example.net,carl@example.com"
  run -65 --separate-stderr tool alias add team@example.com - <<<$'dan@example.com\n\nno domain'
  contains "$stderr" "standard input, line 3: address 'no domain'"
  run -65 --separate-stderr tool alias set team@example.com - </dev/null
  contains "$stderr" "standard input: it has no members"
  equal "$(aliases)" "team@example.com:ann@example.com,bob@example.net,carl@example.com"
  run -0 tool alias set team@example.com - < <(seq -f 'm%04g@example.com' 2000)
  equal "$(tool alias show team@example.com | wc -l)" 2000
  run -0 tool alias drop team@example.com - < <(seq -f 'm%04g@example.com' 3 2000)
  equal "$(aliases)" "team@example.com:m0001@example.com,m0002@example.com"
}

@test "alias add refuses what alias set refuses" {
  tool alias set a@example.com b@example.com
  sql "insert into alias (name, members) values ('broken@example.com', 'a b c')"
  run -65 --separate-stderr tool alias add b@example.com a@example.com
  contains "$stderr" "b@example.com -> a@example.com -> b@example.com"
  run -65 tool alias add b@example.com 'no domain'
  run -65 tool alias add b@example.com allusers_example.net
  run -65 tool alias add broken@example.com c@example.com
  run -64 tool alias add b@example.com
  run -78 tool --table missing alias add b@example.com c@example.com
  equal "$(aliases)" $'a@example.com:b@example.com\nbroken@example.com:a b c'
  run -0 tool alias add b@example.com a@example.com --allow-cycle
  run -65 tool alias add c@example.com d@example.com allusers_example.com
}

@test "alias add and set refuse what closes a loop, and warn of one that is there" {
  tool alias set a@example.com b@example.com
  tool alias set b@example.com a@example.com --allow-cycle
  run -0 --separate-stderr tool alias add a@example.com ann@example.net
  equal "$stderr" "tsl-address-map: warning: alias a@example.com is in an alias loop already: a@example.com -> b@example.com -> a@example.com"
  run -0 --separate-stderr tool alias set a@example.com b@example.com bob@example.net
  contains "$stderr" "is in an alias loop already"
  tool alias set c@example.com b@example.com
  run -65 --separate-stderr tool alias add a@example.com c@example.com
  contains "$stderr" "it would lead back to itself: a@example.com -> c@example.com -> b@example.com -> a@example.com"
  run -65 tool alias set a@example.com c@example.com
  equal "$(tool alias show a@example.com)" $'b@example.com\nbob@example.net'
  run -0 --separate-stderr tool alias set a@example.com bob@example.net
  equal "$stderr" ""
}

@test "alias drop takes members out" {
  tool alias set team@example.com ann@example.com bob@example.com carl@example.com
  run -0 --separate-stderr tool alias drop team@example.com BOB@example.com
  equal "$output$stderr" ""
  equal "$(aliases)" "team@example.com:ann@example.com,carl@example.com"
  run -0 --separate-stderr tool alias drop team@example.com carl@example.com x@example.com --json
  equal "$output" '{"address":"team@example.com","members":["ann@example.com"],"dropped":["carl@example.com"],"removed":false}'
  contains "$stderr" "x@example.com is not a member of team@example.com"
  run -1 --separate-stderr tool alias drop team@example.com x@example.com
  run -1 --separate-stderr tool alias drop other@example.com x@example.com
  equal "$stderr" "tsl-address-map: no alias other@example.com in table alias"
  equal "$(aliases)" "team@example.com:ann@example.com"
}

@test "alias drop leaves no empty alias unless it may remove it" {
  tool alias set team@example.com ann@example.com
  run -65 --separate-stderr tool alias drop team@example.com ann@example.com
  contains "$stderr" "alias team@example.com: it would be left empty"
  equal "$(aliases)" "team@example.com:ann@example.com"
  run -0 tool alias drop team@example.com ann@example.com --remove-empty --json
  equal "$output" \
    '{"address":"team@example.com","members":[],"dropped":["ann@example.com"],"removed":true}'
  equal "$(aliases)" ""
}

@test "alias drop --everywhere" {
  tool alias set a@example.com ann@example.com bob@example.com
  tool alias set b@example.com bob@example.com
  tool alias set c@example.com carl@example.com
  before=$(aliases)
  run -65 --separate-stderr tool alias drop --everywhere bob@example.com
  contains "$stderr" "alias b@example.com would be left empty"
  contains "$stderr" "--yes"
  equal "$(aliases)" "$before"
  run -0 tool alias drop --everywhere bob@example.com --dry-run
  equal "$output" $'~ a@example.com:ann@example.com,bob@example.com -> ann@example.com\n- b@example.com'
  equal "$(aliases)" "$before"
  run -0 tool alias drop --everywhere Bob@example.com --yes --json
  equal "$output" '{"member":"Bob@example.com","changed":[{"address":"a@example.com","members":["ann@example.com"]}],"removed":["b@example.com"]}'
  equal "$(aliases)" $'a@example.com:ann@example.com\nc@example.com:carl@example.com'
  run -1 --separate-stderr tool alias drop --everywhere bob@example.com
  equal "$stderr" "tsl-address-map: no alias of table alias has the member bob@example.com"
  # Nothing vanishes, so nobody is asked.
  tool alias add a@example.com dora@example.com
  run -0 tool alias drop --everywhere dora@example.com
  equal "$output" "~ a@example.com:ann@example.com,dora@example.com -> ann@example.com"
  sql "insert into alias (name, members) values ('broken@example.com', 'a b c')"
  run -65 --separate-stderr tool alias drop --everywhere ann@example.com --yes
  contains "$stderr" "broken@example.com"
  equal "$(aliases)" $'broken@example.com:a b c\nc@example.com:carl@example.com'
}

@test "alias drop: wrong usage" {
  run -64 tool alias drop a@example.com
  run -64 tool alias drop --everywhere a@example.com b@example.com
  run -64 tool alias drop --everywhere a@example.com --remove-empty
  run -64 tool alias drop a@example.com b@example.com --yes
  run -65 tool alias drop 'a b' b@example.com
  run -78 tool --table missing alias drop a@example.com b@example.com
}

@test "a person is asked" {
  tool alias set b@example.com bob@example.com
  run -0 at_terminal n alias drop --everywhere bob@example.com
  contains "$output" "Remove 1 aliases? [y/N]"
  contains "$output" "nothing was changed"
  equal "$(aliases)" "b@example.com:bob@example.com"
  run -0 at_terminal y alias drop --everywhere bob@example.com
  equal "$(aliases)" ""
  tool alias import - <<<$'a@example.com:x@x.example\nb@example.com:x@x.example\nc@example.com:x@x.example'
  echo 'new@example.com:x@x.example' >"$BATS_TEST_TMPDIR/one.txt"
  run -0 at_terminal n alias import "$BATS_TEST_TMPDIR/one.txt" --replace
  contains "$output" "table alias: 3 rows would be removed, 1 added, 0 changed"
  contains "$output" "Replace the table? [y/N]"
  contains "$(aliases)" a@example.com
  run -0 at_terminal y alias import "$BATS_TEST_TMPDIR/one.txt" --replace
  equal "$(aliases)" "new@example.com:x@x.example"
  tool table create asked
  run -0 at_terminal n table drop asked
  contains "$output" "Drop alias_asked with 0 rows and mask_asked with 0 rows? [y/N]"
  contains "$(tool table list)" asked
  run -0 at_terminal y table drop asked
  [[ $(tool table list) != *asked* ]]
}

# Runs the tool with the editor $1, a command that gets the name of the file.
edit_by() {
  local command=$1
  shift
  VISUAL=$command EDITOR=false TMPDIR=$BATS_TEST_TMPDIR tool "$@"
}
# The files that were kept.
kept() { find "$BATS_TEST_TMPDIR" -path '*-edit-*' -type f; }
# Makes the editor ./editor of commands for the file $1.
editor() { printf '#!/bin/bash\n%s\n' "$1" >editor && chmod +x editor; }
three() {
  tool alias import - <<<$'ann@example.com:x@x.example\nteam@example.com:ann@example.com,bob@example.com\nzoe@example.org:z@x.example'
}

@test "rows are changed, added and removed in an editor, as one change" {
  three
  tool alias rule set zoe@example.org --writers members
  editor 'cat "$1"; stat -c "%a %U" "$1" "$(dirname "$1")"; sed -i "s/bob/rob/; \$a new@example.com:n@x.example
/zoe/d" "$1"'
  sql 'delete from history'
  run -0 --separate-stderr edit_by ./editor alias edit --yes
  equal "$output" "ann@example.com:x@x.example
team@example.com:ann@example.com,bob@example.com
zoe@example.org:z@x.example
600 $(id -un)
700 $(id -un)
- zoe@example.org:z@x.example
~ team@example.com:ann@example.com,bob@example.com -> ann@example.com,rob@example.com
+ new@example.com:n@x.example
1 added, 1 changed, 1 removed"
  equal "$stderr" "tsl-address-map: the rules of removed aliases are removed, too: 1"
  equal "$(aliases)" "ann@example.com:x@x.example
new@example.com:n@x.example
team@example.com:ann@example.com,rob@example.com"
  equal "$(tool history | cut -f1 | uniq -c | tr -s ' ' | cut -d' ' -f2)" 4
  equal "$(kept)" ""
  run -0 --separate-stderr edit_by 'sed -i s/rob/bob/' alias edit --yes --json
  equal "$output" '{"added":0,"changed":1,"removed":0,"rows":[{"change":"~","line":"team@example.com:ann@example.com,bob@example.com","former":"team@example.com:ann@example.com,rob@example.com"}]}'
}

@test "nothing changed, and a dry run" {
  three
  run -0 --separate-stderr edit_by true alias edit --yes
  equal "$output$stderr" "tsl-address-map: nothing changed"
  # The same rows in another order, with other line ends and a byte order mark.
  editor 'sed -i "1!G;h;\$!d" "$1"; sed -i "s/\$/\r/; 1s/^/\xef\xbb\xbf/" "$1"; echo >>"$1"'
  run -0 edit_by ./editor alias edit --yes
  equal "$output" "tsl-address-map: nothing changed"
  equal "$(kept)" ""
  run -0 --separate-stderr edit_by 'sed -i /zoe/d' alias edit --dry-run
  equal "$output" $'- zoe@example.org:z@x.example\n0 added, 0 changed, 1 removed'
  equal "$stderr" "tsl-address-map: the edited file is kept: $(kept)"
  contains "$(aliases)" zoe
}

@test "a selection of rows is edited, and no other is touched" {
  three
  run -0 edit_by cat alias edit --match 'BOB@*' --yes
  contains "$output" $'team@example.com:ann@example.com,bob@example.com\n'
  [[ $output != *x@x.example* ]]
  run -0 edit_by cat alias edit --domain EXAMPLE.org --yes
  equal "${lines[0]}" zoe@example.org:z@x.example
  run -0 edit_by 'sed -i /z/d' alias edit Zoe@example.org ann@example.com --yes
  equal "$(aliases)" $'ann@example.com:x@x.example\nteam@example.com:ann@example.com,bob@example.com'
  editor 'echo Team@example.com:x@x.example >>"$1"'
  run -65 edit_by ./editor alias edit ann@example.com --yes
  contains "$output" "alias.txt:2: the table has 'team@example.com:ann@example.com,bob@example.com', which was not shown"
  contains "$output" "it has addresses of rows that are not edited"
  equal "$(aliases)" $'ann@example.com:x@x.example\nteam@example.com:ann@example.com,bob@example.com'
  run -1 edit_by cat alias edit ann@example.com nobody@example.com --yes
  contains "$output" "no alias nobody@example.com in table alias"
  run -1 edit_by cat alias edit --match nobody --yes
  contains "$output" "nothing is selected in table alias"
  run -64 edit_by cat alias edit --match nobody ann@example.com --yes
  # A table without rows can be filled.
  sql 'delete from alias'
  run -0 edit_by ./editor alias edit --yes
  equal "$(aliases)" Team@example.com:x@x.example
}

@test "what is not written is kept, and said where" {
  three
  local before way
  before=$(aliases)
  for way in 'printf "a@x.example:b\0@x.example\n"' 'printf "a@x.example:b\1@x.example\n"' 'printf "\xff\n"' \
    'echo no address' 'echo a@x.example:root' 'echo a@x.example:b@x.example; echo b@x.example:a@x.example'; do
    editor "{ $way; } >>\"\$1\"; cp \"\$1\" edited"
    run -65 edit_by ./editor alias edit --yes
    contains "$output" "alias.txt:4: "
    contains "$output" "the edited file is kept: $(kept)"
    cmp edited "$(kept)"
    rm -r "$(dirname "$(kept)")"
  done
  for way in 'exit 3' 'kill -9 $$'; do
    editor "echo >>\"\$1\"; $way"
    run -75 edit_by ./editor alias edit --yes
    contains "$output" "editor './editor': $([[ $way == exit* ]] && echo "it ended with exit status 3" || echo "signal 9 ended it")"
    contains "$output" "the edited file is kept: $(kept)"
    rm -r "$(dirname "$(kept)")"
  done
  run -78 edit_by ./missing alias edit --yes
  contains "$output" "set VISUAL or EDITOR to an editor"
  run -65 edit_by rm alias edit --yes
  equal "$(kept)" ""
  TMPDIR=$PWD/missing run -74 tool alias edit --yes
  contains "$output" "TMPDIR names the directory"
  equal "$(aliases)" "$before"
}

@test "all lines are deleted on purpose only" {
  three
  run -65 edit_by 'truncate -s 0' alias edit --yes
  contains "$output" "it is empty, and all 3 rows would be removed"
  equal "$(aliases | wc -l)" 3
  run -64 edit_by 'truncate -s 0' alias edit --force
  run -0 edit_by 'truncate -s 0' alias edit --domain example.com --yes --force
  equal "$(aliases)" zoe@example.org:z@x.example
}

@test "what somebody else changes meanwhile is named, and nothing is written" {
  three
  export tool="'$TSL_TOOL' '--local=$SERVER'"
  editor 'sed -i s/bob/rob/ "$1"; eval "$tool alias add team@example.com eve@example.com; $tool alias remove zoe@example.org"'
  run -75 edit_by ./editor alias edit --yes
  contains "$output" "table alias: team@example.com: it is 'ann@example.com,bob@example.com,eve@example.com' now, and was 'ann@example.com,bob@example.com'"
  contains "$output" "table alias: zoe@example.org: it is gone"
  contains "$output" "somebody has changed 2 rows since they were shown"
  contains "$(cat "$(kept)")" rob
  equal "$(aliases)" $'ann@example.com:x@x.example\nteam@example.com:ann@example.com,bob@example.com,eve@example.com'
  # An alias of the same name.
  editor 'echo new@example.com:n@x.example >>"$1"; eval "$tool alias set NEW@example.com other@x.example"'
  run -65 edit_by ./editor alias edit --yes
  contains "$output" "the table has 'NEW@example.com:other@x.example', which was not shown"
  # Others do not matter.
  editor 'sed -i s/eve/adam/ "$1"; eval "$tool alias set more@example.com other@x.example"'
  run -0 edit_by ./editor alias edit --match 'team*' --yes
  contains "$(aliases)" "team@example.com:adam@example.com,ann@example.com,bob@example.com"
}

@test "rows that other programs have written stay as they are" {
  sql "insert into alias( name, members ) values( 'a@example.com', 'b@x.example , a@x.example' ), ( 'büro@büro.example', 'a@x.example' ), ( 'büro@xn--bro-hoa.example', 'b@x.example' ), ( 'root@example.com', 'root' ), ( 'broken@example.com', '@' )"
  run -0 edit_by 'sed -i s/:b@x.example$/:c@x.example/' alias edit --yes
  contains "$output" "warning: row 'broken@example.com' of table alias cannot be edited, and stays: bad members"
  contains "$output" "~ büro@xn--bro-hoa.example:b@x.example -> c@x.example
0 added, 1 changed, 0 removed"
  contains "$(aliases)" "a@example.com:b@x.example , a@x.example"
  run -65 edit_by 'sed -i s/:root/:root,toor/' alias edit --yes
  contains "$output" "the member 'root' has no domain"
  run -0 edit_by 'sed -i s/:root/:root,toor/' alias edit --yes --local-names
}

@test "pairs of a mask table change places in an editor" {
  tool mask set a@inner.example a@example.com
  tool mask set b@inner.example b@example.com
  tool mask set c@inner.example c@example.com
  run -0 edit_by "sed -i 's/:a@/:x@/;s/:b@/:a@/;s/:x@/:b@/'" mask edit --match '[ab]@example.com' --yes
  equal "$(sql 'select concat( private, " ", public ) from mask order by 1')" $'a@inner.example b@example.com\nb@inner.example a@example.com\nc@inner.example c@example.com'
  run -65 edit_by 'sed -i s/:b@/:c@/' mask edit a@inner.example --yes
  contains "$output" "has the public address of the row 'c@inner.example:c@example.com'"
}

@test "a person at the editor is asked" {
  three
  run -65 edit_by true alias edit </dev/null
  contains "$output" "give --yes to write them"
  export VISUAL='' EDITOR='sed -i s/bob/rob/' TMPDIR=$BATS_TEST_TMPDIR
  run -0 at_terminal $'n\nn' alias edit
  contains "$output" "~ team@example.com:ann@example.com,bob@example.com -> ann@example.com,rob@example.com"
  contains "$output" "Write these changes: 0 added, 1 changed, 0 removed? [y/N]"
  contains "$output" "the edited file is kept: $(kept)"
  contains "$(aliases)" bob
  # Declined, edited again, and written.
  editor 'sed -i "s/rob/eve/; s/bob/rob/" "$1"'
  EDITOR=./editor run -0 at_terminal $'n\ny\ny' alias edit
  contains "$(aliases)" ann@example.com,eve@example.com
  editor 'if [[ -e again ]]; then sed -i "/no address/d; /zoe/d" "$1"; else echo no address >>"$1"; touch again; fi'
  EDITOR=./editor run -0 at_terminal $'y\ny' alias edit
  contains "$output" "alias.txt:4: there is no colon after an address"
  contains "$output" "Edit again? [y/N]"
  [[ $(aliases) != *zoe* ]]
  EDITOR='sed -i /ann@/d' run -0 at_terminal $'n\nn' alias edit --json
  contains "$output" "- ann@example.com:x@x.example"
  EDITOR='truncate -s 0' run -0 at_terminal y alias edit
  contains "$output" "The file is empty. Remove all 2 rows? [y/N]"
  equal "$(aliases)" ""
}

@test "edits at the same time lose nothing" {
  # By the option file, so that nothing but the edits themselves puts them in an order.
  for round in missing present; do
    pids=()
    for i in $(seq 20); do
      "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias add team@example.com \
        "$round$i@example.com" &
      pids+=($!)
    done
    for pid in "${pids[@]}"; do wait "$pid"; done
  done
  equal "$(tool alias show team@example.com | wc -l)" 40
  pids=()
  for i in $(seq 20); do
    "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias drop team@example.com \
      "present$i@example.com" &
    pids+=($!)
  done
  for pid in "${pids[@]}"; do wait "$pid"; done
  equal "$(tool alias show team@example.com | wc -l)" 20
}

@test "a dry run writes nothing" {
  tool alias set team@example.com ann@example.com
  tool mask set ann@inner.example ann@example.com
  before=$(aliases; tool mask list)
  run -0 tool alias set team@example.com bob@example.com --dry-run
  equal "$output" "~ team@example.com:ann@example.com -> bob@example.com"
  run -0 tool alias set team@example.com ann@example.com --dry-run
  equal "$output" ""
  run -0 tool alias set new@example.com bob@example.com --dry-run
  equal "$output" "+ new@example.com:bob@example.com"
  run -0 tool alias set new@example.com bob@example.com --dry-run --json
  equal "$output" '{"address":"new@example.com","members":["bob@example.com"],"dryRun":true}'
  run -65 tool alias set ann@example.com team@example.com --dry-run
  run -0 tool alias remove team@example.com --dry-run
  equal "$output" "- team@example.com:ann@example.com"
  run -0 tool alias remove team@example.com --dry-run --json
  equal "$output" '{"address":"team@example.com","removed":true,"dryRun":true}'
  run -1 tool alias remove new@example.com --dry-run
  run -0 tool alias add team@example.com bob@example.com --dry-run
  equal "$output" "~ team@example.com:ann@example.com -> ann@example.com,bob@example.com"
  run -0 tool alias add team@example.com ann@example.com --dry-run
  equal "$output" ""
  run -0 tool alias drop team@example.com ann@example.com --remove-empty --dry-run
  equal "$output" "- team@example.com"
  run -0 tool mask set ann@inner.example smith@example.com --dry-run
  equal "$output" "~ ann@inner.example:ann@example.com -> smith@example.com"
  run -0 tool mask set ann@inner.example ann@example.com --dry-run
  equal "$output" ""
  run -0 tool mask set bob@inner.example bob@example.com --dry-run
  equal "$output" "+ bob@inner.example:bob@example.com"
  run -65 tool mask set bob@inner.example ann@example.com --dry-run
  run -64 tool mask set bob@inner.example bob@example.com --dry-run --force
  run -0 tool mask remove ann@inner.example ann@example.com --dry-run
  equal "$output" "- ann@inner.example:ann@example.com"
  run -1 tool mask remove bob@inner.example ann@example.com --dry-run
  run -0 tool mask remove --domain inner.example --dry-run
  equal "$output" $'- ann@inner.example:ann@example.com\n1 would be removed'
  run -0 tool mask remove --domain inner.example --dry-run --json
  equal "$output" '{"domain":"inner.example","removed":1,"dryRun":true}'
  equal "$(aliases; tool mask list)" "$before"
}

@test "a dry run takes no more than the right to read" {
  tool alias set team@example.com ann@example.com
  sql "create or replace user reader@localhost identified by 'secret';
       grant select on ts_address_map.* to reader@localhost"
  file=$(option_file reader secret)
  for words in 'alias set team@example.com bob@example.com' 'alias remove team@example.com' \
    'alias add team@example.com bob@example.com' 'alias drop --everywhere ann@example.com' \
    'mask set a@inner.example a@example.com'; do
    run -0 "$TSL_TOOL" --option-file "$file" $words --dry-run
    run -78 "$TSL_TOOL" --option-file "$file" $words ${words:+$([[ $words == *every* ]] && echo --yes)}
  done
  equal "$(aliases)" "team@example.com:ann@example.com"
}

@test "a dry run of init" {
  run -0 tool init --dry-run
  equal "$output" "database ts_address_map is complete; nothing changed"
  sql 'drop table mask'
  run -0 tool init --dry-run
  equal "$output" "to do: create table mask"
  run -0 tool init --dry-run --json
  equal "$output" \
    '{"database":"ts_address_map","created":false,"changes":["create table mask"],"dryRun":true}'
  run -64 tool init --dry-run --force
  equal "$(sql 'show tables like "mask"')" ""
  run -0 tool init
  equal "$output" "done: create table mask"
}

@test "a dry run on the configuration" {
  mkdir cmf
  run -0 cmf domain add example.com --dry-run
  equal "$output" "+ example.com"
  equal "$(ls cmf)" ""
  cmf domain add example.com
  cmf user add ann@example.com
  run -0 --separate-stderr cmf domain add example.com --dry-run --json
  equal "$output" '{"domain":"example.com","id":1,"added":false,"dryRun":true}'
  run -0 cmf domain add example.net --dry-run --json
  equal "$output" '{"domain":"example.net","id":null,"added":true,"dryRun":true}'
  run -0 cmf user add ann@example.com --kind shared --dry-run
  equal "$output" $'~ ann@example.com\tuser -> shared'
  run -0 cmf user add bob@example.com --dry-run
  equal "$output" "+ bob@example.com"
  run -0 cmf user add ann@example.com --dry-run
  equal "$output" ""
  run -0 --separate-stderr cmf user remove ann@example.com --dry-run
  equal "$output" "- ann@example.com"
  run -1 cmf user remove bob@example.com --dry-run
  run -0 --separate-stderr cmf domain remove example.com --dry-run
  equal "$output" $'- ann@example.com\n- example.com'
  run -1 cmf domain remove example.net --dry-run --json
  contains "$output" '{"domain":"example.net","removed":false,"users":0,"dryRun":true}'
  run -0 cmf user list example.com
  equal "$output" $'ann@example.com\tuser'
}

@test "table create, list and drop" {
  run -0 --separate-stderr tool table create sales --dry-run
  equal "$output" $'+ alias_sales\n+ mask_sales'
  run -0 --separate-stderr tool table create sales
  equal "$output$stderr" ""
  run -0 --separate-stderr tool table create sales --json
  equal "$output" '{"name":"sales","created":[]}'
  contains "$stderr" "table alias_sales exists already"
  run -0 tool table create press --kind mask --json
  equal "$output" '{"name":"press","created":["mask_press"]}'
  tool --table sales alias set team@example.com ann@example.com
  sql 'create table aliasother (x int)'
  run -0 tool table list
  equal "$output" $'-\talias\t0\nsales\talias\t1\n-\tmask\t0\npress\tmask\t0\nsales\tmask\t0'
  run -0 tool table list --json
  contains "$output" '[{"name":null,"kind":"alias","table":"alias","rows":0},'
  contains "$output" '{"name":"sales","kind":"alias","table":"alias_sales","rows":1},'
  run -0 tool check --table sales
  run -64 --separate-stderr tool table drop sales </dev/null
  contains "$stderr" "alias_sales with 1 rows and mask_sales with 0 rows"
  run -0 tool table drop sales --dry-run
  equal "$output" $'- alias_sales (1 rows)\n- mask_sales (0 rows)'
  run -0 tool table drop sales --yes --kind alias --json
  equal "$output" '{"name":"sales","dropped":[{"table":"alias_sales","rows":1}]}'
  run -0 tool table drop sales --yes
  equal "$output" "- mask_sales (0 rows)"
  run -1 --separate-stderr tool table drop sales --yes
  contains "$stderr" "no table sales"
  run -0 tool table drop press --yes
  sql 'drop table aliasother'
}

@test "table: what is refused" {
  for bad in '' 'a b' 'x;y' "$(printf 'x%.0s' {1..59})"; do
    run -64 tool table create "$bad"
    run -64 tool table drop "$bad" --yes
  done
  run -64 tool table create sales --kind both
  run -64 tool table create
  sql 'create table alias_foreign (price int)'
  run -65 --separate-stderr tool table drop foreign --yes
  contains "$stderr" "not a table of this library"
  equal "$(sql 'show tables like "alias_foreign"')" alias_foreign
  sql 'drop table alias_foreign'
  printf '[client]\nsocket="%s"\n' "$BATS_TEST_TMPDIR/none" >none.cnf
  run -75 "$TSL_TOOL" --option-file none.cnf table list
}

@test "user import of addresses" {
  make_cmf
  cmf domain add example.net
  cmf user add ann@example.com --kind shared
  printf '\xef\xbb\xbfann@example.com\r\n\n  bob@EXAMPLE.com \ncarl@example.net' >users.txt
  run -0 cmf user import users.txt --dry-run
  equal "$output" $'~ ann@example.com\tshared -> user\n+ bob@example.com\tuser\n+ carl@example.net\tuser\n2 added, 1 changed, 0 unchanged'
  equal "$(cmf user list example.com)" $'ann@example.com\tshared'
  run -0 --separate-stderr cmf user import users.txt
  equal "$output" "2 added, 1 changed, 0 unchanged"
  equal "$stderr" ""
  run -0 cmf user import - --json <users.txt
  equal "$output" '{"kind":"user","added":0,"changed":0,"unchanged":3,"skipped":0}'
  run -0 cmf user import users.txt --kind disabled --json --dry-run
  equal "$output" \
    '{"kind":"disabled","added":0,"changed":3,"unchanged":0,"skipped":0,"rows":[{"change":"~","address":"ann@example.com","kind":"disabled","former":"user"},{"change":"~","address":"bob@example.com","kind":"disabled","former":"user"},{"change":"~","address":"carl@example.net","kind":"disabled","former":"user"}],"dryRun":true}'
  equal "$(cmf user list example.com; cmf user list example.net)" \
    $'ann@example.com\tuser\nbob@example.com\tuser\ncarl@example.net\tuser'
  run -0 cmf user import /dev/null
  equal "$output" "0 added, 0 changed, 0 unchanged"
}

@test "user import of a password file" {
  make_cmf
  printf '%s\n' 'root:x:0:0:root:/root:/bin/bash' 'ann:x:1000:1000:Ann:/home/ann:/bin/bash' \
    'bob:x:1001:1001:Bob @ home:/home/bob:/bin/bash' \
    'nobody:x:65534:65534:nobody:/:/usr/sbin/nologin' >passwd
  run -0 --separate-stderr cmf user import passwd --domain example.com
  equal "$output" "2 added, 0 changed, 0 unchanged"
  contains "$stderr" "left out 2 system accounts"
  equal "$(cmf user list example.com)" $'ann@example.com\tuser\nbob@example.com\tuser'
  run -0 cmf user import passwd --domain example.com --all --json
  equal "$output" '{"kind":"user","added":2,"changed":0,"unchanged":2,"skipped":0}'
  run -64 --separate-stderr cmf user import passwd
  contains "$stderr" "--domain"
  run -64 --separate-stderr cmf user import - --domain example.com <<<ann@example.com
  contains "$stderr" "leave --domain out"
  printf '%s\n' 'ann:x:1000:1000:Ann:/home/ann:/bin/bash' 'x:y' 'b b:x:1002:2:::' 'c:x:-1:1:::' >bad
  run -65 --separate-stderr cmf user import bad --domain example.com
  contains "$stderr" "bad:2: it does not have the seven fields"
  contains "$stderr" "bad:3: "
  contains "$stderr" "bad:4: the user number '-1' is not a number"
}

@test "user import: bad lines are named, and nothing is written" {
  make_cmf
  printf '%s\n' ann@example.com '' 'no address' '"two words"@example.com' x@example.org \
    $'a\x01b@example.com' >users.txt
  printf 'nul\0@example.com\n' >>users.txt
  run -65 --separate-stderr cmf user import users.txt
  contains "$stderr" "users.txt:3: bad address"
  contains "$stderr" "users.txt:4: a user name that needs quotes"
  contains "$stderr" "users.txt:5: there is no domain example.org in the configuration"
  contains "$stderr" "users.txt:6: "
  contains "$stderr" "users.txt:7: it contains a NUL"
  equal "$(cmf user list example.com)" ""
  run -65 cmf user import missing.txt
  run -64 cmf user import
  run -64 cmf user import users.txt --kind boss
  mkdir empty
  run -78 "$TSL_TOOL" --cmf empty user import - <<<ann@example.com
}

@test "user import of many users" {
  make_cmf
  seq -f 'user%06.0f@example.com' 50000 | shuf --random-source=<(yes) >users.txt
  run -0 cmf user import users.txt
  equal "$output" "50000 added, 0 changed, 0 unchanged"
  equal "$(cmf user list example.com | cut -f1)" "$(sort users.txt)"
}
