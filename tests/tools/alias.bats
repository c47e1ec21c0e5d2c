# alias set, remove, show and list; the global options on them; hostile input.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() { empty_tables; }

@test "set, show, list and remove an alias" {
  run -0 --separate-stderr tool alias set team@example.com bob@example.net ann@example.com
  equal "$output$stderr" ""
  run -0 --separate-stderr tool alias show team@example.com
  equal "$output" $'ann@example.com\nbob@example.net'
  equal "$stderr" ""
  run -0 tool alias list
  equal "$output" $'team@example.com\tann@example.com,bob@example.net'
  run -0 --separate-stderr tool alias remove team@example.com
  equal "$output$stderr" ""
  run -0 tool alias list
  equal "$output" ""
}

@test "set replaces the members of an alias" {
  tool alias set team@example.com ann@example.com
  tool alias set team@example.com bob@example.com bob@example.com
  equal "$(sql 'select name, members from alias')" $'team@example.com\tbob@example.com'
}

@test "the answers as JSON" {
  run -0 tool --json alias set team@example.com bob@example.net ann@example.com
  equal "$output" '{"address":"team@example.com","members":["ann@example.com","bob@example.net"]}'
  run -0 tool alias show team@example.com --json
  equal "$output" \
    '{"address":"team@example.com","found":true,"members":["ann@example.com","bob@example.net"]}'
  run -0 tool alias list --json
  equal "$output" '[{"address":"team@example.com","members":["ann@example.com","bob@example.net"]}]'
  run -0 tool alias remove team@example.com --json
  equal "$output" '{"address":"team@example.com","removed":true}'
  run -1 --separate-stderr tool alias remove team@example.com --json
  equal "$output" '{"address":"team@example.com","removed":false}'
  run -1 --separate-stderr tool alias show team@example.com --json
  equal "$output" '{"address":"team@example.com","found":false,"members":[]}'
  run -0 tool alias list --json
  equal "$output" '[]'
}

@test "an address that is not an alias is not found" {
  run -1 --separate-stderr tool alias show nobody@example.com
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no alias nobody@example.com in table alias"
  run -1 --separate-stderr tool alias remove nobody@example.com
  contains "$stderr" "no alias nobody@example.com"
}

@test "members and aliases that would break an unescaped statement" {
  run -65 tool alias set x@example.com "x'); drop table alias; --@example.com"
  tool alias set "o'hara@example.com" "o'brien@example.com" '"back\\slash"@example.com' \
    'per%cent@example.com' '"com,ma"@example.com' '"a\"b"@example.com'
  run -0 tool alias show "o'hara@example.com"
  equal "$output" $'"a\\"b"@example.com\n"back\\\\slash"@example.com\n"com,ma"@example.com\no\'brien@example.com\nper%cent@example.com'
  run -0 tool alias expand "o'hara@example.com"
  contains "$output" "o'brien@example.com"
  run -0 tool alias remove "o'hara@example.com"
  equal "$(sql 'select count(*) from alias')" 0
}

@test "what is not an address is refused, and shown without control characters" {
  for bad in '' ' ' nobody @example.com a@b@c $'a@example.com\nb@example.com' \
    $'\e]0;title\a@example.com' "$(printf 'x%.0s' {1..300})@example.com"; do
    run -65 --separate-stderr tool alias show "$bad"
    equal "$output" ""
    [[ "$stderr" != *$'\e'* && "$stderr" != *$'\a'* ]]
    run -65 tool alias set "$bad" ann@example.com
    run -65 tool alias set team@example.com "$bad"
    run -65 tool alias remove "$bad"
  done
  run -65 --separate-stderr tool alias show $'a\nb@example.com'
  contains "$stderr" 'a\x0ab@example.com'
  contains "$stderr" $'\ntsl-address-map: hint: '
  equal "$(sql 'select count(*) from alias')" 0
}

@test "letter case makes no second row" {
  tool alias set BOB@Example.com ann@example.com
  tool alias set bob@example.com cid@example.com
  equal "$(sql 'select count(*), min( members ) from alias')" $'1\tcid@example.com'
  run -0 tool alias show Bob@EXAMPLE.com
  equal "$output" "cid@example.com"
}

@test "an accent makes a second row" {
  tool alias set jose@example.com a@example.com
  tool alias set $'jos\xc3\xa9@example.com' b@example.com
  equal "$(sql 'select count(*) from alias')" 2
  run -0 tool alias show $'jos\xc3\xa9@example.com'
  equal "$output" "b@example.com"
}

@test "another spelling of the same characters is refused and named" {
  tool alias set $'jos\xc3\xa9@example.com' a@example.com
  run -65 --separate-stderr tool alias set $'jose\xcc\x81@example.com' b@example.com
  contains "$stderr" $'in the spelling \'jos\xc3\xa9@example.com\''
  # The server takes both for one, so there cannot be two rows.
  run -65 --separate-stderr tool alias set $'jose\xcc\x81@example.com' b@example.com --new-spelling
  contains "$stderr" "or remove that alias first"
  equal "$(sql 'select members from alias')" a@example.com
  run -0 --separate-stderr tool alias show $'jose\xcc\x81@example.com'
  equal "$output" a@example.com
  equal "$stderr" $'tsl-address-map: alias jose\xcc\x81@example.com has the spelling jos\xc3\xa9@example.com'
  run -0 --separate-stderr tool alias remove $'jose\xcc\x81@example.com'
  equal "$(sql 'select members from alias')" ""
}

@test "what the server takes for another address is refused and named" {
  tool alias set ａnn@example.com a@example.com
  run -65 --separate-stderr tool alias set ann@example.com b@example.com
  contains "$stderr" "the server takes it for the alias 'ａnn@example.com' of table alias, which is another address"
  run -65 tool alias remove ann@example.com
  run -1 --separate-stderr tool alias show ann@example.com
  contains "$stderr" "hint: there is an alias that the server takes for it: ａnn@example.com"
  equal "$(sql 'select members from alias')" a@example.com
}

@test "an alias is found in any spelling, and a second spelling is refused" {
  tool alias set team@büro.example ann@büro.example
  tool alias add team@büro.example bob@x.example
  for spelling in team@xn--bro-hoa.example TEAM@BÜRO.example '"team"@büro.example'; do
    run -0 --separate-stderr tool alias expand "$spelling"
    equal "$output" $'ann@büro.example\nbob@x.example'
    run -0 --separate-stderr tool alias show "$spelling"
    equal "$output" $'ann@büro.example\nbob@x.example'
  done
  for command in show expand; do
    run -0 --separate-stderr tool alias $command team+news@xn--bro-hoa.example
    equal "$output" $'ann@büro.example\nbob@x.example'
    contains "$stderr" "alias team+news@xn--bro-hoa.example has no row; without its extension it is team@xn--bro-hoa.example"
  done
  run -1 tool alias show nobody+news@xn--bro-hoa.example
  run -65 --separate-stderr tool alias set team@xn--bro-hoa.example cid@x.example
  contains "$stderr" "table alias has it in the spelling 'team@büro.example'"
  run -65 --separate-stderr tool alias add team@xn--bro-hoa.example cid@x.example
  contains "$stderr" "--new-spelling"
  run -0 tool alias list --domain xn--bro-hoa.example
  equal "$output" $'team@büro.example\tann@büro.example,bob@x.example'
  # A member is the same address in any spelling, too.
  run -0 tool alias add team@büro.example ANN@xn--bro-hoa.example --json
  contains "$output" '"added":[]'
  run -65 --separate-stderr tool alias set ann@xn--bro-hoa.example team@xn--bro-hoa.example
  contains "$stderr" "it would lead back to itself"
  run -0 tool alias drop team@xn--bro-hoa.example ann@xn--bro-hoa.example --json
  contains "$output" '"dropped":["ann@büro.example"]'
  tool alias set team@xn--bro-hoa.example cid@x.example --new-spelling
  equal "$(sql 'select count(*) from alias')" 2
  run -0 tool alias remove team@xn--bro-hoa.example
  equal "$(sql 'select name from alias')" team@büro.example
}

@test "a row is found in any letter case, whatever the collation" {
  sql "create table alias_bin like alias; alter table alias_bin convert to character set utf8mb4 collate utf8mb4_bin;
       create table mask_bin( private varchar( 255 ) primary key, public varchar( 255 ) unique ) collate utf8mb4_bin;
       insert into alias_bin ( name, members ) values ( 'Team@X.example', 'bob@x.example' ), ( 'low@x.example', 'TEAM@x.example' );
       insert into mask_bin values ( 'Ann@In.example', 'Ann.S@Out.example' ), ( 'low@in.example', 'low@out.example' );"
  bin() { tool --table bin "$@"; }
  for address in team@x.example TEAM@x.example low@X.example; do
    run -0 bin alias show "$address"
    run -0 --separate-stderr bin alias expand "$address"
    run -65 --separate-stderr bin alias set "$address" eve@x.example
    contains "$stderr" "table alias_bin has it in the spelling"
    run -0 bin alias remove "$address" --dry-run
  done
  run -65 bin alias set bob@x.example LOW@x.example
  run -0 bin alias list --domain x.EXAMPLE
  equal "${#lines[@]}" 2
  for address in ann@in.example LOW@in.example; do
    run -0 bin mask public "$address"
    run -65 --separate-stderr bin mask set "$address" eve@x.example
    contains "$stderr" "table mask_bin has it in another spelling"
  done
  run -0 bin mask remove ANN@in.example ANN.s@out.example
  run -75 --separate-stderr bin answer LOW@x.example
  contains "$output" $'LOW@x.example\tOK bob@x.example'
  tool table drop bin --yes
}

@test "drop everywhere finds the member in any spelling" {
  tool alias set a@x.example ann@büro.example bob@x.example
  tool alias set b@x.example ANN@xn--bro-hoa.example bob@x.example
  run -0 tool alias drop --everywhere ann@BÜRO.example
  equal "$output" $'~ a@x.example:ann@büro.example,bob@x.example -> bob@x.example\n~ b@x.example:ANN@xn--bro-hoa.example,bob@x.example -> bob@x.example'
  tool alias set c@x.example ann+news@büro.example bob@x.example
  run -1 --separate-stderr tool alias drop --everywhere ann@BÜRO.example
  contains "$stderr" "warning: alias c@x.example has the member ann+news@büro.example, which stays"
}

@test "a member without a domain is only the marker of the alias's own domain" {
  run -0 --separate-stderr tool alias set all@example.com ALLUSERS_Example.com
  equal "$stderr" ""
  run -65 --separate-stderr tool alias set all@example.com allusers_example.net
  contains "$stderr" "another domain has no effect"
  run -65 tool alias set all@example.com postmaster
}

@test "an all-users alias gets no other members, and is led to by nothing else" {
  tool alias set all@example.com allusers_example.com
  run -65 --separate-stderr tool alias add all@example.com ext@partner.example
  contains "$stderr" "alias all@example.com: its member 'allusers_example.com' means all users only when it is reached alone"
  contains "$stderr" "make two lists side by side"
  run -65 tool alias set all@example.com allusers_example.com ann@example.com
  run -65 --separate-stderr tool alias set team@example.com all@example.com bob@example.com
  contains "$stderr" "it leads to all@example.com, whose member 'allusers_example.com' means"
  run -65 tool alias set team@other.example all@example.com
  run -0 --separate-stderr tool alias set team@example.com all@example.com
  equal "$stderr" ""
  run -65 tool alias add team@example.com bob@example.com
  # What is so already is a warning: other changes must be possible.
  sql "insert into alias ( name, members ) values ( 'mixed@example.com', 'allusers_example.com,x@example.com' );"
  run -0 --separate-stderr tool alias add mixed@example.com y@example.com
  contains "$stderr" "warning: alias mixed@example.com: its member 'allusers_example.com' means"
  run -65 --separate-stderr tool alias import - <<<'mix@example.com:allusers_example.com,ann@example.com'
  contains "$stderr" "standard input:1: 'allusers_example.com' means all users only when it is the only member"
  equal "$(sql "select members from alias where name='all@example.com'")" allusers_example.com
}

@test "an alias does not become one for all users under a list with others" {
  tool alias set list@example.com All@example.com ann@example.com
  tool alias set other@example.net list@example.com
  run -65 --separate-stderr tool alias set all@EXAMPLE.com allusers_example.com
  contains "$stderr" "alias all@EXAMPLE.com: alias list@example.com leads to all@EXAMPLE.com, whose member 'allusers_example.com' means"
  contains "$stderr" "make two lists side by side"
  run -65 tool alias set all@example.com allusers_example.com --dry-run
  tool alias set everyone@example.com allusers_example.com
  run -65 --separate-stderr tool alias add all@example.com everyone@example.com
  contains "$stderr" "alias list@example.com leads to everyone@example.com, whose"
  # One that reaches the marker alone may.
  tool alias set list@example.com all@example.com
  run -65 --separate-stderr tool alias set all@example.com allusers_example.com
  contains "$stderr" "alias other@example.net leads to all@example.com"
  tool alias remove other@example.net
  run -0 --separate-stderr tool alias set all@example.com allusers_example.com
  equal "$stderr" ""
  # A list under two that mean all users gets no other members.
  tool alias set list@example.com all@example.com everyone@example.com
  run -65 --separate-stderr tool alias set everyone@example.com ann@example.com
  contains "$stderr" "alias list@example.com leads to all@example.com, whose"
  equal "$(tool alias show everyone@example.com)" allusers_example.com
}

@test "an alias for a whole domain is an ordinary address, and gives a warning" {
  run -0 --separate-stderr tool alias set '*@example.com' ann@example.com
  contains "$stderr" "warning: to alias tables '*@example.com' is an ordinary address"
}

@test "list of a domain takes neither patterns nor other domains" {
  tool alias set a@a_b.example x@example.com
  tool alias set a@axb.example x@example.com
  tool alias set a@sub.a_b.example x@example.com
  run -0 tool alias list --domain A_B.example
  equal "$output" $'a@a_b.example\tx@example.com'
  run -0 tool alias list --domain nowhere.example
  equal "$output" ""
  for bad in "x' or '1'='1" "a%" 'a\b' 'a"b' '*' 'a b' 'a@b' $'a\nb'; do
    run -65 --separate-stderr tool alias list --domain "$bad"
    equal "$output" ""
  done
}

@test "list by a pattern for the alias or a member" {
  sql "insert into alias (name, members) values ('Sales@example.com', 'ann@example.com'), ('team@example.com', 'bob@example.com,ann@example.net'),
       ('grüße@büro.example', 'x@x.example'), ('sales-broken@example.com', '@')"
  matching() { tool alias list --match "$1" 2>/dev/null | cut -f1 | tr '\n' ' '; }
  equal "$(matching 'ANN@*')" "Sales@example.com team@example.com "
  equal "$(matching '*@example.net')" "team@example.com "
  equal "$(matching '[r-t]*@*')" "Sales@example.com team@example.com "
  equal "$(matching 'sales')" ""
  equal "$(matching '*@xn--bro-hoa.example')" "grüße@büro.example "
  equal "$(matching '*@BÜRO.*')" ""
  equal "$(matching '*@büro.EX*')" "grüße@büro.example "
  equal "$(matching 'GRÜSSE@büro.example')" ""
  equal "$(matching 'GRÜßE@xn--bro-hoa.example')" "grüße@büro.example "
  run -65 --separate-stderr tool alias list --match 'sales*' --json
  equal "$output" '[{"address":"Sales@example.com","members":["ann@example.com"]}]'
  contains "$stderr" "broken row 'sales-broken@example.com'"
  run -0 --separate-stderr tool alias list --match 't*' --domain example.com
  equal "$output" $'team@example.com\tann@example.net,bob@example.com'
  sql "insert into mask (private, public) values ('a@inner.example', 'ann@example.com'), ('*@inner.example', '*@example.com')"
  run -0 tool mask list --match 'ann@*'
  equal "$output" $'a@inner.example\tann@example.com'
  run -0 tool mask list --match '\**'
  equal "$output" $'*@inner.example\t*@example.com'
}

@test "a broken row is reported, never listed and never 'not found'" {
  tool alias set good@example.com a@example.com
  sql "insert into alias ( name, members ) values( 'empty@example.com', '' ),
       ( 'no address', 'a@example.com' ), ( 'bad@example.com', 'a@@b' );"
  run -65 --separate-stderr tool alias list
  equal "$output" $'good@example.com\ta@example.com'
  contains "$stderr" "broken row 'empty@example.com' of table alias: the members are empty"
  contains "$stderr" "broken row 'no address' of table alias: bad alias"
  contains "$stderr" "broken row 'bad@example.com' of table alias: bad members"
  run -65 --separate-stderr tool alias show empty@example.com
  contains "$stderr" "the members are empty"
  run -65 --separate-stderr tool alias show bad@example.com
  contains "$stderr" "broken row 'bad@example.com' of table alias"
  run -0 tool alias show good@example.com
  run -0 tool alias set bad@example.com a@example.com
  run -0 tool alias remove empty@example.com
}

@test "a named table" {
  sql 'create table alias_sales like alias;'
  run -0 tool --table sales alias set team@example.com ann@example.com
  run -0 tool alias expand team@example.com --table=sales
  equal "$output" "ann@example.com"
  run -0 tool alias show team@example.com --table sales
  run -1 tool alias show team@example.com
  run -0 tool alias list --table sales
  equal "$output" $'team@example.com\tann@example.com'
  run -0 tool alias remove team@example.com --table sales
  run -78 --separate-stderr tool alias show team@example.com --table missing
  contains "$stderr" "alias_missing"
  contains "$stderr" "tsl-address-map table create missing"
  [[ "$stderr" != *"try again"* ]]
  sql 'drop table alias_sales;'
}

@test "a table name that is not safe in SQL is refused" {
  for bad in '' 'a b' "a'b" 'a;b' 'a`b' 'a-b' $'a\nb' "$(printf 'x%.0s' {1..59})"; do
    run -64 tool alias list --table "$bad"
  done
  run -78 tool alias list --table "$(printf 'x%.0s' {1..58})"
}

@test "verbose reports what is asked and what was done" {
  run -0 --separate-stderr tool --verbose alias set team@example.com ann@example.com
  equal "$output" ""
  contains "$stderr" "database ts_address_map, table alias"
  contains "$stderr" "set team@example.com to ann@example.com"
}

@test "wrong usage" {
  run -64 tool
  run -64 tool nonsense
  run -64 tool alias
  run -64 tool alias nonsense
  run -64 tool alias set
  run -64 tool alias set team@example.com
  run -64 tool alias show a@example.com b@example.com
  run -64 tool alias list --nonsense
  run -64 tool alias set team@example.com ++
  run -64 tool alias expand '[a@example.com,b@example.com]'
  run -64 "$TSL_TOOL" --local= alias list
  run -64 tool --option-file "$SERVER/client.cnf" alias list
}

@test "words that look like commands or options can be arguments" {
  run -65 tool alias show list
  run -1 tool alias show -- -dash@example.com
  run -0 tool alias set -- -dash@example.com -member@example.com
  run -0 tool alias show -- -dash@example.com
  equal "$output" "-member@example.com"
}

@test "every command has help with examples" {
  for words in '' init status 'local start' 'local stop' 'local status' 'local shell' 'alias set' \
    'alias remove' 'alias show' 'alias list' 'alias expand' 'domain add' 'domain remove' \
    'domain list' 'user add' 'user remove' 'user list'; do
    # Unquoted: the words of the command.
    run -0 --separate-stderr "$TSL_TOOL" $words --help
    contains "$output" "Examples:"
    contains "$output" "tsl-address-map "
    equal "$stderr" ""
  done
  run -0 "$TSL_TOOL" --version
  [[ "$output" =~ ^tsl-address-map\ [0-9]+\.[0-9]+\.[0-9]+$ ]]
}
