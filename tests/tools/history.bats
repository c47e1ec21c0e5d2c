# Who changed what: every change is recorded with it or not at all, can be shown, compared and taken
# back.

load helper

setup_file() {
  start_server
  export TSL_LOG=stderr
  unset SUDO_USER
}
teardown_file() {
  DATABASE= sql 'drop user if exists mail@localhost;' || true
  stop_server
}
setup() {
  empty_tables
  sql 'delete from history; delete from history_rows; delete from rules;'
  cd "$BATS_TEST_TMPDIR"
}

# What is in the history: NAME OLD NEW of each row.
recorded() { sql "select name, ifnull( old_text, '-' ), ifnull( new_text, '-' ) from history_rows order by number, place"; }
# The number of the last change.
last() { sql 'select max( number ) from history'; }
# What the tables hold, byte for byte.
content() { sql "select hex( name ), hex( members ), all_users from alias order by binary name;
                 select hex( private ), hex( public ) from mask order by binary private;"; }
# Lines of aliases: numbered FIRST LAST MEMBER.
numbered() { seq "$1" "$2" | sed "s/.*/a&@example.com:$3&@example.com/"; }

@test "each change of rows is recorded with both texts, and logged in one line" {
  run -0 --separate-stderr tool alias set team@example.com ann@example.com
  contains "$stderr" "change $(last) by $(id -un) on $(hostname), done: alias + team@example.com:ann@example.com"
  equal "${#stderr_lines[@]}" 1
  tool alias set team@example.com ann@example.com 2>log
  equal "$(<log)" ""
  tool alias add team@example.com bob@example.net
  tool alias drop team@example.com ann@example.com
  tool alias drop --everywhere bob@example.net --yes
  tool mask set '*@in.example' '*@example.com'
  tool mask set '*@in.example' '*@example.net'
  tool mask set --force a@in.example b@example.com
  tool mask set --force a@in.example c@example.com
  tool mask remove a@in.example c@example.com
  tool mask remove --domain in.example
  equal "$(recorded)" "$(printf '%s\t%s\t%s\n' \
    team@example.com - ann@example.com \
    team@example.com ann@example.com ann@example.com,bob@example.net \
    team@example.com ann@example.com,bob@example.net bob@example.net \
    team@example.com bob@example.net - \
    '*@in.example' - '*@example.com' \
    '*@in.example' '*@example.com' '*@example.net' \
    a@in.example - b@example.com \
    a@in.example b@example.com c@example.com \
    a@in.example c@example.com - \
    '*@in.example' '*@example.net' -)"
  equal "$(sql 'select count( distinct number ) from history')" 10
}

@test "the record has the time, the users, the host and the command line" {
  SUDO_USER=ann tool alias set team@example.com "o'b@example.com"
  equal "$(sql "select os_user, sudo_user, sql_user, host, outcome, abs( timestampdiff( second, at, utc_timestamp() ) ) < 60 from history")" \
    "$(printf '%s\tann\t%s@localhost\t%s\tdone\t1' "$(id -un)" "$(id -un)" "$(hostname)")"
  contains "$(sql 'select command from history')" "tsl-address-map --local=$SERVER alias set team@example.com 'o'\\\\''b@example.com'"
  run -0 tool history
  contains "$output" $'\tann as '"$(id -un)"$'\talias\t+ team@example.com:o\'b@example.com'
}

@test "an import is one change with the rows that it really changes" {
  numbered 1 30 m | tool alias import -
  (numbered 2 29 m; echo a30@example.com:x@example.com; echo A1@example.com:m1@example.com; echo b@example.com:b@example.net) >new.txt
  tool alias import --new-spelling new.txt
  equal "$(recorded | tail -n 4 | sort)" "$(printf '%s\t%s\t%s\n' A1@example.com - m1@example.com \
    a1@example.com m1@example.com - a30@example.com m30@example.com x@example.com b@example.com - b@example.net | sort)"
  tool alias import new.txt 2>log
  equal "$(<log)" ""
  tool alias import --replace --force - </dev/null
  equal "$(sql 'select count(*) from history')" 3
  run -0 tool history
  contains "${lines[-1]}" $'\talias\t31 rows: 0 added, 0 changed, 31 removed'
  run -0 tool history --all-rows --since 1h
  equal "$(grep -c -- '- ' <<<"$output")" 32
}

@test "a change that fails leaves no record" {
  printf 'a@example.com:b@example.com\nb@example.com:a@example.com\n' >loop.txt
  run -65 tool alias import loop.txt
  tool mask set a@in.example b@example.com
  run -65 tool mask set c@in.example b@example.com
  run -65 tool alias set x@example.com root
  tool alias set x@example.com y@example.com --dry-run
  equal "$(recorded)" $'a@in.example\t-\tb@example.com'
}

@test "without the right to record nothing is changed, without the tables nothing is missing" {
  DATABASE= sql "create or replace user mail@localhost identified by 'secret';
    grant select on ts_address_map.* to mail@localhost;
    grant select, insert, update, delete on ts_address_map.alias to mail@localhost;"
  run -78 "$TSL_TOOL" --option-file "$(option_file mail secret)" alias set x@example.com y@example.com
  contains "$output" "recording the change in the history: INSERT command denied"
  contains "$output" "nothing was changed; as an administrator of the database server: GRANT INSERT ON"
  equal "$(sql 'select count(*) from alias')" 0
  sql 'rename table history to h1, history_rows to h2'
  run -0 --separate-stderr tool alias set x@example.com y@example.com
  equal "$output$stderr" ""
  run -78 tool history
  contains "$output" "has no table history"
  sql 'rename table h1 to history, h2 to history_rows'
}

@test "changes are selected by address, time, user and table" {
  tool table create sales
  tool alias set team@example.com ann@example.com
  SUDO_USER=eve tool --table sales alias set team@example.com bob@example.com
  tool mask set ann@example.com a@example.com
  sql "update history set at='2026-01-02 03:04:05' where sudo_user='eve'"
  run -0 tool history TEAM@Example.com
  equal "$(cut -f 4,5 <<<"$output")" $'alias\t+ team@example.com:ann@example.com\nalias_sales\t+ team@example.com:bob@example.com'
  run -1 tool history nobody@example.com
  run -0 tool --table sales history team@example.com
  equal "${#lines[@]}" 1
  run -0 tool --table alias_sales history
  equal "$output" "tsl-address-map: there is no such change of alias_alias_sales or mask_alias_sales"
  for by in eve; do
    run -0 tool history --by $by
    contains "$output" $'\t2026-01-02 03:04:05\teve as '
    equal "${#lines[@]}" 1
  done
  run -0 tool history --by "$(id -un)@localhost" --since 2026-01-03 team@example.com
  equal "$(cut -f 4 <<<"$output")" alias
  run -0 tool history --until '2026-01-02 03:04:05'
  equal "$output" ""
  run -0 tool history --until '2026-01-02T03:04:06Z' --since 2026-01-02 --json
  equal "$(jq -c '.[] | [.sudoUser, .table, .name, .old, .new, .outcome]' <<<"$output")" \
    '["eve","alias_sales","team@example.com",null,"bob@example.com","done"]'
  run -64 tool history --since tomorrow
  contains "$output" "it is not a time"
  tool table drop sales --yes >/dev/null
}

@test "two at the same time are two changes, in the order of the rows" {
  for member in a b c d e f; do tool alias add team@example.com $member@example.com & done
  wait
  # Each begins with what the one before it left.
  equal "$(sql "select count(*) from history_rows x join history_rows y on y.number = ( select min( number ) from history_rows where number > x.number )
    where x.new_text = y.old_text and x.name = 'team@example.com'")" 5
  equal "$(sql 'select count(*) from history')" 6
}

@test "undo takes every kind of change of rows back, and is taken back itself" {
  tool alias set team@example.com ann@example.com
  tool alias set all@example.com allusers_example.com
  sql "update alias set all_users=1 where name='team@example.com'"
  tool mask set a@in.example a@example.com
  tool mask set b@in.example b@example.com
  numbered 1 30 m | tool alias import -
  local before after
  before=$(content)
  undone() {
    after=$(content)
    [ "$after" != "$before" ]
    tool undo "$(last)" --dry-run
    equal "$(content)" "$after"
    tool undo "$(last)"
    equal "$(content)" "$before"
    tool undo "$(last)" >/dev/null
    equal "$(content)" "$after"
    tool undo "$(last)" >/dev/null
  }
  tool alias set team@example.com bob@example.com
  run -0 undone
  contains "$output" $'alias\t~ team@example.com:bob@example.com -> ann@example.com\n0 added, 1 changed, 0 removed'
  tool alias set new@example.com bob@example.com
  undone
  tool alias remove all@example.com
  undone
  printf 'a@in.example:b@example.com\nb@in.example:a@example.com\nc@in.example:c@example.com\n' | tool mask import -
  undone
  tool mask remove --domain in.example
  undone
  printf 'A1@example.com:x@example.com\nTEAM@example.com:ann@example.com\n' >spelled.txt
  tool alias import --new-spelling spelled.txt
  equal "$(sql "select count(*) from alias where binary name in ( 'A1@example.com', 'TEAM@example.com' )")" 2
  tool undo "$(last)"
  equal "$(sql "select name, members from alias where name in ( 'a1@example.com', 'team@example.com' ) order by name")" \
    $'a1@example.com\tm1@example.com\nteam@example.com\tann@example.com'
  before=$(content)
  numbered 5 40 n | tool alias import --replace -
  undone
}

@test "undo of a rule restores the row of the rule" {
  local rule='writers=listed listed=ann@example.com,list@example.com owners=bob@example.com expires=2030-01-02T03:04:05Z contact=eve@example.com note=ask: first'
  sql "insert into history ( at, os_user, sudo_user, sql_user, host, command, outcome ) values( utc_timestamp( 6 ), 'x', '', 'x', 'x', 'x', 'done' );
    insert into history_rows values( last_insert_id(), 1, 'rules', 'alias team@example.com', '$rule', null, 1 )"
  run -0 tool history team@example.com
  contains "$output" $'\trules\t- alias team@example.com:writers=listed'
  run -0 tool undo "$(last)"
  equal "$(sql 'select * from rules')" "$(printf '%s\t' alias team@example.com listed ann@example.com,list@example.com \
    bob@example.com '2030-01-02 03:04:05' 'ask: first')eve@example.com"
  run -0 tool undo "$(last)"
  equal "$(sql 'select count(*) from rules')" 0
}

@test "undo changes nothing where a row is not as the change has left it" {
  tool alias set a@example.com x@example.com
  local first
  first=$(last)
  printf 'a@example.com:y@example.com\nb@example.com:y@example.com\n' | tool alias import -
  local import
  import=$(last)
  sql "update alias set members='z@example.com' where name='b@example.com'"
  run -65 tool undo "$import"
  contains "$output" "table alias: b@example.com: it is 'z@example.com', and was left 'y@example.com'"
  contains "$output" "undo: 1 rows are not as the changes have left them"
  equal "$(sql 'select members from alias order by name')" $'y@example.com\nz@example.com'
  equal "$(last)" "$import"
  run -65 tool undo "$first"
  contains "$output" "a@example.com: it is 'y@example.com', and was left 'x@example.com'"
  # Both together, when the row is as the second one has left it.
  sql "update alias set members='y@example.com' where name='b@example.com'"
  run -0 tool undo "$first" "$import" --json
  equal "$(jq -c '[.undone, .added, .changed, .removed]' <<<"$(grep '^{' <<<"$output")")" "[[$first,$import],0,0,2]"
  equal "$(sql 'select count(*) from alias')" 0
  run -1 tool undo 987654321
  run -64 tool undo team@example.com
  # A public address that another row has by now.
  tool mask set a@in.example p@example.com
  tool mask remove a@in.example p@example.com
  tool mask set b@in.example p@example.com
  run -65 tool undo "$(sql 'select max( number ) - 1 from history')"
  contains "$output" "another row has an address that would come back"
}

@test "undo makes no alias loop with rows that have changed since" {
  tool alias set a@example.com b@example.com
  tool alias set a@example.com x@example.com
  local change
  change=$(last)
  tool alias set b@example.com a@example.com
  run -65 tool undo "$change"
  contains "$output" "alias a@example.com: it would lead back to itself: a@example.com -> b@example.com -> a@example.com"
  equal "$(sql "select members from alias where name='a@example.com'")" x@example.com
  run -0 tool undo "$change" --allow-cycle
  equal "$(sql "select members from alias where name='a@example.com'")" b@example.com
}

@test "an all-users marker that an undo loses is a warning" {
  tool alias set all@example.com allusers_example.com
  tool alias set top@example.com all@example.com
  tool alias set all@example.com ann@example.com
  local change
  change=$(last)
  tool alias add top@example.com bob@example.com
  run -0 tool undo "$change" --dry-run
  contains "$output" "warning: alias top@example.com leads to all@example.com, whose member 'allusers_example.com' means all users only when it is reached alone"
  run -0 tool undo "$change"
  contains "$output" "warning: alias top@example.com leads to"
  tool alias drop top@example.com bob@example.com
  run -0 tool undo "$(last)"
  contains "$output" "warning: alias top@example.com: it leads to all@example.com, whose"
}

@test "rows are listed that have changed since a time" {
  tool alias import - <<<$'old@example.com:a@x.example\nchanged@example.com:a@x.example\nruled@example.com:a@x.example\ngone@example.com:a@x.example'
  tool mask set old@inner.example old@example.com
  sql "update history set at='2026-01-02 03:04:05'"
  tool alias add Changed@example.com b@x.example
  tool alias set new@example.com a@x.example
  tool alias rule set ruled@example.com --writers members
  tool alias remove gone@example.com
  tool mask set old@example.com new@example.com
  run -0 --separate-stderr tool alias list --changed-since 1h
  equal "$output" $'changed@example.com\ta@x.example,b@x.example\nnew@example.com\ta@x.example\nruled@example.com\ta@x.example'
  equal "$stderr" ""
  run -0 tool alias list --changed-since 1h --match 'n*'
  equal "$output" $'new@example.com\ta@x.example'
  run -0 tool mask list --changed-since today
  equal "$output" $'old@example.com\tnew@example.com'
  run -0 --separate-stderr tool alias list --changed-since 2026-01-01
  equal "${#lines[@]}" 4
  contains "$stderr" "warning: the history begins at 2026-01-02 03:04:05"
  run -64 tool alias list --changed-since never
  contains "$output" "--changed-since 'never': it is not a time"
  EDITOR='sed -i s/a@x/c@x/' run -0 tool alias edit --changed-since 1h --match 'r*' --yes
  contains "$output" "~ ruled@example.com:a@x.example -> c@x.example"
}

@test "diff shows the rows that are not as they were" {
  numbered 1 3 m | tool alias import -
  sleep 1.1
  local since
  since=$(sql 'select utc_timestamp()')
  tool alias set a1@example.com x@example.com
  tool alias remove a2@example.com
  tool alias set a3@example.com x@example.com
  tool alias set a3@example.com m3@example.com
  tool mask set p@example.com q@example.com
  run -0 --separate-stderr tool diff "$since"
  equal "$output" $'alias\t~ a1@example.com:m1@example.com -> x@example.com\nalias\t- a2@example.com:m2@example.com\nmask\t+ p@example.com:q@example.com'
  equal "$stderr" ""
  run -0 tool diff "$since" --json
  equal "$(jq -c '.[0]' <<<"$output")" '{"table":"alias","change":"~","line":"a1@example.com:x@example.com","former":"a1@example.com:m1@example.com"}'
  run -0 --separate-stderr tool diff 1h
  contains "$stderr" "warning: the history begins at"
  contains "$output" $'alias\t+ a3@example.com:m3@example.com'
}

@test "check finds what other programs have changed" {
  tool table create sales
  tool alias set a@example.com x@example.com
  tool mask set p@example.com q@example.com
  tool mask set r@example.com s@example.com
  tool mask remove r@example.com s@example.com
  tool --table sales alias set t@example.com x@example.com
  run -0 tool check --since-history
  [[ $output != *history* ]]
  sql "update alias set members='y@example.com'; insert into alias( name, members ) values( 'b@example.com', 'x@example.com' );
    delete from mask; insert into alias_sales( name, members ) values( 'u@example.com', 'x@example.com' );"
  run -65 tool check --since-history
  equal "$(grep history <<<"$output" | cut -f 1-5)" "$(printf '%s\t%s\t%s\t%s\t%s\n' \
    warning unrecorded-change alias a@example.com "it was changed by another program: the table has 'y@example.com', the history 'x@example.com'" \
    notice not-in-history alias '' '1 rows are not in the history, which begins later' \
    warning unrecorded-change alias_sales u@example.com "it was changed by another program: the table has 'x@example.com', the history no such row" \
    warning unrecorded-change mask p@example.com "it was changed by another program: the table has no such row, the history 'q@example.com'")"
  run -65 tool check --since-history --table sales
  equal "$(grep -c unrecorded <<<"$output")" 1
  run -0 tool check
  tool table drop sales --yes
  tool table create sales
  run -0 tool check --since-history --table sales
  tool table drop sales --yes
}

@test "prune removes what is old, and records that" {
  tool alias set a@example.com x@example.com
  sql "update history set at='2026-01-02 03:04:05'"
  tool alias set b@example.com x@example.com
  run -0 tool history prune --before 2026-01-03 --dry-run
  equal "$output" "- 1 changes before 2026-01-03 00:00:00"
  run -0 --separate-stderr tool history prune --before 2026-01-03
  equal "$output" 1
  run -0 tool history
  equal "$(cut -f 4,5 <<<"$output")" $'alias\t+ b@example.com:x@example.com\nhistory\t- 1 changes before 2026-01-03 00:00:00'
  equal "$(sql 'select count(*) from history_rows')" 2
  run -64 tool history prune
}

@test "tables, domains and users are recorded as begun, and then as done or failed" {
  tool table create sales
  tool table create sales
  tool domain add example.com
  tool domain add example.com
  tool user add ann@example.com
  tool user add ann@example.com --kind disabled
  tool user add ann@example.com --kind disabled
  printf 'ann@example.com\nbob@example.com\n' | tool user import -
  tool user remove bob@example.com
  printf 'example.net\neve@example.net\tuser\n' | tool domain import -
  tool domain remove example.net --yes
  tool table drop sales --kind mask --yes
  run -0 --separate-stderr tool history
  equal "$(cut -f 4- <<<"$output")" "$(printf '%s\t%s\n' \
    alias_sales '+ create table alias_sales' mask_sales '+ create table mask_sales' \
    domains '+ example.com:domain 1' users '+ ann@example.com:user' users '~ ann@example.com:user -> disabled' \
    users '~ ann@example.com:disabled -> user' users '+ bob@example.com:user' users '- bob@example.com:user' \
    domains '+ example.net:domain' users '+ eve@example.net:user' \
    domains '- example.net:domain' users '- eve@example.net:user' \
    mask_sales '- table mask_sales with 0 rows')"
  run -65 tool undo "$(last)"
  contains "$output" "it cannot be taken back"
  contains "$output" "nothing was changed; it removed more than rows: import an export, or restore a backup"
  run -65 tool undo "$(sql "select number from history_rows where name='bob@example.com' and new_text is null")"
  contains "$output" "it changed the configuration: use 'domain add'"
  run -0 --separate-stderr tool diff 1h
  equal "$output" ""
  contains "$stderr" "not compared: 10 changes of whole tables, domains, users or the history"
  DATABASE= sql "create or replace user mail@localhost identified by 'secret';
    grant select, insert, update on ts_address_map.* to mail@localhost;"
  run -78 "$TSL_TOOL" --option-file "$(option_file mail secret)" table drop sales --yes
  contains "$output" "failed: alias_sales - table alias_sales with 0 rows"
  run -0 tool history --by mail
  contains "$output" $'- table alias_sales with 0 rows\tfailed'
  tool table drop sales --yes
}

@test "a change of the configuration is made without the database, with a warning" {
  printf '[client]\nsocket="%s"\n' "$BATS_TEST_TMPDIR/none.sock" >none.cnf
  mkdir cmf
  run -0 --separate-stderr "$TSL_TOOL" --option-file none.cnf --cmf cmf domain add example.org
  equal "$output" 1
  contains "$stderr" "warning: the change is not in the history: Can't connect"
  contains "$stderr" "change without a record by $(id -un) on $(hostname), done: domains + example.org:domain 1"
  run -0 "$TSL_TOOL" --option-file none.cnf --cmf cmf domain list
  equal "$output" $'example.org\t1'
}

@test "a change that was interrupted is marked" {
  tool table create held --kind alias
  sql 'start transaction; select count(*) from alias_held; select sleep( 60 );' >/dev/null &
  local holder=$! i
  for ((i = 0; i < 100; i++)); do
    [ "$(sql "select count(*) from information_schema.processlist where info like 'select sleep( 60 )%'")" = 0 ] || break
    sleep 0.02
  done
  "$TSL_TOOL" --local="$SERVER" table drop held --yes >/dev/null 2>&1 &
  local dropping=$!
  for ((i = 0; i < 100; i++)); do
    [ "$(sql "select count(*) from history where outcome='begun'")" = 0 ] || break
    sleep 0.02
  done
  kill -9 $dropping
  wait $dropping || true
  run -0 tool history --since 1h
  contains "${lines[-1]}" $'\talias_held\t- table alias_held with 0 rows\tinterrupted, or still running'
  run -65 tool undo "$(last)"
  contains "$output" "it was interrupted, or has failed, or is still running"
  sql "kill $(sql "select id from information_schema.processlist where info like 'select sleep( 60 )%'")"
  wait $holder || true
  sql 'drop table if exists alias_held'
}

@test "an import that is killed is there with its record, or not at all" {
  local start i rows changes milliseconds moments=4
  [ -z "${TSL_TEST_SECONDS:-}" ] || moments=20
  start=$(date +%s%3N)
  numbered 1 1500 old | tool alias import - 2>/dev/null
  milliseconds=$(($(date +%s%3N) - start))
  numbered 1 1500 new >new.txt
  for ((i = 0; i < moments; i++)); do
    "$TSL_TOOL" --local="$SERVER" alias import new.txt >/dev/null 2>&1 &
    sleep "$(printf '0.%03d' $((RANDOM % milliseconds)))"
    kill -9 $! 2>/dev/null || true
    wait $! || true
    # Waits for what the server still has of it.
    rows=$(sql "select count(*) from alias where members like 'new%' for update")
    changes=$(sql "select count(*) from history")
    echo "moment $i: $rows new rows, $changes changes"
    [[ "$rows $changes" == "0 1" || "$rows $changes" == "1500 2" ]]
    if ((rows)); then
      tool undo "$(last)" 2>/dev/null
      sql "delete from history where number<$(last)"
    fi
  done
}
