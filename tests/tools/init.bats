# init: creates, completes and upgrades, and never drops anything. status: shows what is there.

load helper

setup_file() { start_server; }
teardown_file() {
  DATABASE= sql 'drop user if exists mail@localhost;' || true
  stop_server
}
setup() { DATABASE= sql 'drop database if exists ts_address_map;'; }

# The columns of a table, as "name:type" words.
columns() {
  DATABASE= sql "select concat( column_name, ':', column_type ) from information_schema.columns
    where table_schema='ts_address_map' and table_name='$1' order by ordinal_position;" | xargs
}

old_schema() {
  DATABASE= sql 'create database ts_address_map;'
  sql "create table alias( name varchar( 255 ) unique primary key not null, members text not null );
       insert into alias values( 'team@example.com', 'ann@example.com' );"
}

@test "without a database it is created" {
  run -0 --separate-stderr tool init
  equal "$output" "done: create the database with tables alias and mask"
  equal "$stderr" ""
  equal "$(columns alias)" "name:varchar(255) members:mediumtext all_users:tinyint(4)"
  equal "$(columns mask)" "private:varchar(255) public:varchar(255)"
}

@test "a complete database stays as it is" {
  tool init
  tool alias set team@example.com ann@example.com
  run -0 tool init
  equal "$output" "database ts_address_map is complete; nothing changed"
  run -0 tool init --json
  equal "$output" '{"database":"ts_address_map","created":false,"changes":[]}'
  run -0 tool alias show team@example.com
}

@test "an old and partial database is completed, its rows kept" {
  old_schema
  run -0 tool init --json
  equal "$output" '{"database":"ts_address_map","created":false,"changes":["create table mask","add the column all_users to table alias","make the column members of table alias MEDIUMTEXT","create table rules","create table history","create table history_rows"]}'
  equal "$(columns alias)" "name:varchar(255) members:mediumtext all_users:tinyint(4)"
  equal "$(sql 'select * from alias')" $'team@example.com\tann@example.com\t0'
  equal "$(sql 'select count(*) from information_schema.statistics where table_name="mask" and table_schema="ts_address_map" and non_unique=0')" 3
}

@test "the tables of the tool are added and upgraded, and nothing is incomplete without them" {
  tool init
  sql "alter table rules drop column contact; drop table history_rows;
       insert into rules values( 'alias', 'team@example.com', 'members', '', '', null, 'kept' )"
  run -0 tool status
  contains "$output" "complete"
  [[ $output != *incomplete* ]]
  run -0 tool init
  equal "$output" $'done: add the column contact to table rules\ndone: create table history_rows'
  equal "$(sql 'select concat( note, contact ) from rules')" kept
  run -0 tool init
  equal "$output" "database ts_address_map is complete; nothing changed"
}

@test "an upgrade that was cut short is ended" {
  old_schema
  sql 'alter table alias add all_users tinyint not null default 0;
       create table mask( private varchar( 255 ) primary key, public varchar( 255 ) not null );'
  run -0 tool init
  equal "$output" $'done: add the unique index public to table mask\ndone: make the column members of table alias MEDIUMTEXT\ndone: create table rules\ndone: create table history\ndone: create table history_rows'
  run -0 tool init
  equal "$output" "database ts_address_map is complete; nothing changed"
  equal "$(sql 'select count(*) from alias')" 1
}

@test "a missing alias table is created" {
  tool init
  sql "drop table alias; insert into mask values( 'a@example.com', 'b@example.com' );"
  run -0 tool init
  equal "$output" "done: create table alias"
  equal "$(sql 'select count(*) from mask')" 1
}

@test "tables of another kind are refused" {
  tool init
  sql "alter table alias add colour int; insert into alias ( name, members ) values( 'a@b', 'c@d' );"
  run -65 --separate-stderr tool init
  contains "$stderr" "unknown column colour"
  contains "$stderr" "nothing was changed"
  sql 'alter table alias drop colour; alter table alias modify members blob not null;'
  run -65 --separate-stderr tool init
  contains "$stderr" "column members of table alias is of type blob"
  sql 'alter table alias modify members mediumtext not null; alter table mask drop public;'
  run -65 --separate-stderr tool init
  contains "$stderr" "table mask has no column public"
  equal "$(sql 'select count(*) from alias')" 1
}

@test "a user who may not look or create changes nothing" {
  old_schema
  DATABASE= sql "create or replace user mail@localhost identified by 'secret';"
  local file
  file=$(option_file mail secret)
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" init
  contains "$stderr" "nothing was changed"
  DATABASE= sql "grant select, drop, delete on ts_address_map.* to mail@localhost;"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" init
  contains "$stderr" "GRANT CREATE ON ts_address_map.* TO 'mail'@'localhost'"
  equal "$(sql 'select * from alias')" $'team@example.com\tann@example.com'
  equal "$(sql 'show tables')" alias
  DATABASE= sql 'drop database ts_address_map;'
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" init
  contains "$stderr" "GRANT CREATE ON ts_address_map.* TO 'mail'@'localhost'"
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" init --force
  contains "$stderr" "GRANT SELECT ON mysql.help_topic TO 'mail'@'localhost'"
}

@test "force leaves it to the library, with a warning" {
  old_schema
  run -0 --separate-stderr tool init --force
  contains "$stderr" "warning: --force"
  equal "$(columns alias)" "name:varchar(255) members:mediumtext all_users:tinyint(4)"
  run -0 "$TSL_TOOL" init --help
  contains "$output" "DROPS THE WHOLE DATABASE"
}

@test "many at the same time create one database" {
  for i in 1 2 3 4 5 6; do
    tool alias set "a$i@example.com" b@example.com 3>&- &
  done
  wait
  equal "$(sql 'select count(*) from alias')" 6
}

@test "status of a whole installation" {
  tool init
  sql 'create table alias_sales like alias; create table other( i int );'
  tool alias set team@example.com ann@example.com
  tool domain add example.com
  run -0 --separate-stderr tool status
  contains "$output" "server: $(socket)"
  [[ "$output" =~ version:\ [0-9]+\.[0-9]+ ]]
  contains "$output" $'\nencryption: none\n'
  contains "$output" $'database: ts_address_map\nschema: complete\ntable: alias, rows: 1\ntable: alias_sales, rows: 0\ntable: mask, rows: 0\nconfiguration: '"$SERVER/cmf"$'\ndomains: 1'
  run -0 tool status --json
  contains "$output" '"database":"ts_address_map","present":true,"schema":"complete","tables":[{"table":"alias","rows":1},{"table":"alias_sales","rows":0},{"table":"mask","rows":0}]'
  contains "$output" '"domains":1}'
}

@test "status and check of a user with few rights call no schema incomplete" {
  tool init
  tool alias set team@example.com ann@example.com
  local file grant
  file=$(option_file mail secret)
  for grant in 'select on mask' 'select (name) on alias'; do
    sql "create or replace user mail@localhost identified by 'secret'; grant $grant to mail@localhost;"
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" status
    contains "$output" $'\nschema: unknown\ntable: '
    contains "$stderr" "GRANT SELECT ON ts_address_map.* TO 'mail'@'localhost'"
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" check
    equal "$output" ""
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" init --dry-run
    equal "$output" ""
  done
  sql "grant select on ts_address_map.* to mail@localhost;"
  run -0 "$TSL_TOOL" --option-file "$file" status
  contains "$output" $'\nschema: complete\ntable: alias, rows: 1\ntable: mask, rows: 0'
}

@test "status of what is not whole" {
  run -0 tool status
  contains "$output" "schema: absent"
  old_schema
  run -0 tool status
  contains "$output" "schema: incomplete: to do: create table mask; to do: add the column all_users"
  printf '[client]\nsocket=/nonexistent/db.sock\n' >"$BATS_TEST_TMPDIR/nowhere.cnf"
  run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" status
  contains "$output" "version: unknown"
  contains "$output" "configuration: /var/lib/tsl/cmf"
  run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" status --json
  contains "$output" '"version":null,"encryption":null,"hosts":[{"host":"","used":false,"reachable":false,"why":"Can'
  contains "$output" ',"database":"ts_address_map","present":null'
}
