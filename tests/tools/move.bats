# rename, leave, move-domain: one address, or all of a domain, in all tables.

load helper

setup_file() {
  start_server
  tool table create sales
}
teardown_file() { stop_server; }
setup() {
  empty_tables
  sql 'delete from rules; delete from history; delete from alias_sales; delete from mask_sales'
  tool alias set team@example.com ann@example.com bob@example.com
  tool alias set only@example.com ann@example.com
  tool alias set above@example.com only@example.com bob@example.com
  tool --table sales alias set team@example.com ANN@example.com
  tool mask set ann@example.com public@example.com
}
all() {
  sql "select concat( 'alias ', name, ' ', members ) from alias union
       select concat( 'alias_sales ', name, ' ', members ) from alias_sales union
       select concat( 'mask ', private, ' ', public ) from mask union
       select concat( 'rule ', name, ' ', listed, ' ', owners, ' ', contact ) from rules order by 1"
}

@test "an address gets another name in all tables, with rules" {
  tool alias rule set only@example.com --writers listed --list ann@example.com --owner ann@example.com --contact ann@example.com
  run -0 --separate-stderr tool rename ann@example.com eve@example.com --dry-run
  equal "$(all | grep -c ann@)" 4
  local dry=$output
  run -0 tool rename ann@example.com eve@example.com
  equal "$output" "$dry"
  contains "$output" "alias: ~ team@example.com:ann@example.com,bob@example.com -> bob@example.com,eve@example.com"
  equal "$(all)" "alias above@example.com bob@example.com,only@example.com
alias only@example.com eve@example.com
alias team@example.com bob@example.com,eve@example.com
alias_sales team@example.com eve@example.com
mask eve@example.com public@example.com
rule only@example.com eve@example.com eve@example.com eve@example.com"
  run -1 tool rename ann@example.com eve@example.com
  contains "$output" "no table has it"
}

@test "an alias keeps its rule and its members under another name" {
  tool alias rule set only@example.com --writers members
  run -0 tool rename only@example.com just@example.com
  equal "$(all | grep -E 'just|only')" "alias above@example.com bob@example.com,just@example.com
alias just@example.com ann@example.com
rule just@example.com   "
}

@test "a name that is taken is refused, and so is an alias loop" {
  local before
  before=$(all)
  run -65 tool rename only@example.com team@example.com
  contains "$output" "table alias would have it twice"
  run -65 tool rename ann@example.com above@example.com
  contains "$output" "aliases would lead back to themselves: only@example.com -> above@example.com -> only@example.com"
  equal "$(all)" "$before"
}

@test "a loop that was there before is no reason to refuse" {
  sql "insert into alias( name, members ) values( 'a@example.com', 'b@example.com,ann@example.com' ), ( 'b@example.com', 'a@example.com' )"
  run -0 tool rename a@example.com c@example.com
  run -0 tool rename ann@example.com eve@example.com
}

@test "who leaves is taken out of everything, and what would be empty is named" {
  run -65 tool leave ann@example.com
  contains "$output" "alias only@example.com would be left empty, and removed"
  contains "$output" "give --yes"
  run -0 tool leave ann@example.com --yes
  contains "$output" "'tsl-address-map user remove' removes it"
  equal "$(all)" "alias above@example.com bob@example.com
alias team@example.com bob@example.com"
}

@test "one table only" {
  run -0 tool --table sales rename ann@example.com eve@example.com
  equal "$(all | grep eve)" "alias_sales team@example.com eve@example.com"
}

@test "a domain moves with its markers and wildcard rows" {
  tool alias set all@example.com allusers_example.com
  tool mask set '*@example.com' '*@shown.example'
  run -0 tool move-domain example.com example.org
  [[ $(all) != *example.com* ]]
  contains "$(all)" "alias all@example.org allusers_example.org"
  contains "$(all)" "mask *@example.org *@shown.example"
}

@test "a row that cannot be read stays, and is named" {
  sql "insert into alias( name, members ) values( 'broken@example.com', 'ann@example.com,@' )"
  run -65 tool rename ann@example.com eve@example.com
  contains "$output" "row 'broken@example.com' of table alias cannot be read, and stays"
  contains "$(all)" "alias only@example.com eve@example.com"
}

@test "a rename is one change of the history" {
  tool rename ann@example.com eve@example.com
  equal "$(sql 'select count(*) from history where command like "%rename ann%"')" 1
}
