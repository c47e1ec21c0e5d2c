# domain and user: the commands on the configuration.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() {
  CMF="$BATS_TEST_TMPDIR/cmf"
  mkdir "$CMF"
}

# Runs the tool on a configuration of the test's own; these commands need no server.
cmf() { without_database --cmf "$CMF" "$@"; }
# The same, with the server.
db() { tool --cmf "$CMF" "$@"; }

@test "domains" {
  run -0 --separate-stderr cmf domain add example.com
  equal "$output" 1
  equal "$stderr" ""
  run -0 --separate-stderr cmf domain add EXAMPLE.com
  equal "$output" 1
  contains "$stderr" "exists already"
  run -0 cmf domain add example.net --json
  equal "$output" '{"domain":"example.net","id":2,"added":true}'
  run -0 cmf domain list
  equal "$output" $'example.com\t1\nexample.net\t2'
  run -0 cmf domain list --json
  equal "$output" $'[{"domain":"example.com","id":1},\n{"domain":"example.net","id":2}]'
  run -0 --separate-stderr cmf domain remove example.com
  equal "$output" ""
  contains "$stderr" "warning: which aliases and masks example.com has is unknown"
  run -1 --separate-stderr cmf domain remove example.com
  contains "$stderr" "no domain example.com"
  run -1 cmf domain remove example.com --json
  run -0 --separate-stderr cmf domain remove example.net --json
  equal "$output" '{"domain":"example.net","removed":true,"users":0}'
  run -0 cmf domain list --json
  equal "$output" '[]'
}

@test "users" {
  cmf domain add Example.com
  run -0 --separate-stderr cmf user add bob@example.com
  equal "$output$stderr" ""
  run -0 cmf user add room@example.com --kind shared --json
  equal "$output" '{"address":"room@example.com","kind":"shared","result":"added"}'
  run -0 cmf user add room@example.com --kind 2 --json
  equal "$output" '{"address":"room@example.com","kind":"shared","result":"unchanged"}'
  run -0 cmf user add bob@example.com --kind 0 --json
  equal "$output" '{"address":"bob@example.com","kind":"disabled","result":"changed"}'
  run -0 cmf user add "o'brien@example.com" --kind=1
  run -0 cmf user list EXAMPLE.com
  equal "$output" $'bob@Example.com\tdisabled\no\'brien@Example.com\tuser\nroom@Example.com\tshared'
  run -0 cmf user list example.com --json
  contains "$output" '[{"address":"bob@Example.com","kind":"disabled"},'
  # These commands need no server, so this one cannot know what leads to the user.
  run -0 --separate-stderr cmf user remove bob@example.com
  equal "$output" ""
  contains "$stderr" "warning: which aliases and masks lead to bob@example.com is unknown: "
  run -1 --separate-stderr cmf user remove bob@example.com
  contains "$stderr" "no mail user bob@example.com"
  run -0 --separate-stderr cmf user remove room@example.com --json
  equal "$output" '{"address":"room@example.com","removed":true,"aliases":null,"masks":null}'
}

@test "all spellings of a domain and of a user are one" {
  run -0 --separate-stderr cmf domain add büro.example
  equal "$output" 1
  equal "$stderr" "tsl-address-map: domain büro.example is stored as xn--bro-hoa.example"
  run -0 --separate-stderr cmf domain add BÜRO.example
  equal "$output" 1
  equal "$stderr" "tsl-address-map: domain BÜRO.example exists already, as xn--bro-hoa.example"
  run -0 cmf domain list
  equal "$output" $'xn--bro-hoa.example\t1'
  cmf user add jürgen@büro.example
  run -0 cmf user add $'JU\xcc\x88RGEN@xn--bro-hoa.example' --kind disabled --json
  equal "$output" '{"address":"jürgen@xn--bro-hoa.example","kind":"disabled","result":"changed"}'
  run -0 cmf user import - <<<'JÜRGEN@BÜRO.example'
  equal "$output" "0 added, 1 changed, 0 unchanged"
  run -0 cmf user list BÜRO.example
  equal "$output" $'jürgen@xn--bro-hoa.example\tuser'
  run -0 --separate-stderr cmf domain merge büro.example
  equal "$output" "~ xn--bro-hoa.example: 1 users"
  run -0 --separate-stderr cmf domain merge büro.example --json --dry-run
  equal "$output" '{"domain":"xn--bro-hoa.example","merged":[],"users":1,"dryRun":true}'
  run -1 cmf domain merge other.example
  run -0 cmf user remove JÜRGEN@büro.example --json
  contains "$output" '{"address":"jürgen@xn--bro-hoa.example","removed":true,'
  run -0 --separate-stderr cmf domain remove büro.example --json
  equal "$output" '{"domain":"xn--bro-hoa.example","removed":true,"users":0}'
  run -0 cmf domain list
  equal "$output" ""
}

@test "a user who goes is named with the aliases and masks that lead to it" {
  db domain add xn--bro-hoa.example
  db user add ann@büro.example
  run -0 --separate-stderr db user remove ann@BÜRO.example --dry-run --json
  equal "$output" '{"address":"ann@xn--bro-hoa.example","removed":true,"aliases":[],"masks":[],"dryRun":true}'
  equal "$stderr" ""
  db table create sales
  db alias set team@x.example Ann@büro.example bob@x.example
  db alias set x@x.example annika@büro.example
  db alias set zz@x.example ann@xn--bro-hoa.example
  db --table sales alias set '"a b"@x.example' ann+news@xn--bro-hoa.example
  db --table sales mask set ann@BÜRO.example ann.smith@x.example
  sql "insert into alias (name, members) values ('broken@x.example', 'ann@büro.example,x y')"
  run -0 --separate-stderr db user remove ann@büro.example --dry-run
  equal "$output" "- ann@xn--bro-hoa.example"
  contains "$stderr" "warning: in table alias, ann@xn--bro-hoa.example is a member of team@x.example, zz@x.example; 'tsl-address-map alias drop --everywhere ann@xn--bro-hoa.example' removes it"
  contains "$stderr" "warning: in table alias_sales, ann+news@xn--bro-hoa.example is a member of \"a b\"@x.example; 'tsl-address-map --table sales alias drop --everywhere ann+news@xn--bro-hoa.example' removes it"
  contains "$stderr" "warning: in table mask_sales, ann.smith@x.example is the public address of ann@BÜRO.example; 'tsl-address-map --table sales mask remove 'ann@BÜRO.example' ann.smith@x.example' removes it"
  run -0 db user remove ann@büro.example --json
  contains "$output" '{"table":"alias","alias":"team@x.example","member":"Ann@büro.example"}'
  contains "$output" '"masks":[{"table":"mask_sales","private":"ann@BÜRO.example","public":"ann.smith@x.example"}]'
  # The command that it names does it; broken rows are those of 'check'.
  run -65 db alias drop --everywhere ann@xn--bro-hoa.example --yes
  equal "$(sql "select group_concat(name order by name) from alias")" broken@x.example,team@x.example,x@x.example
  sql 'drop table alias_sales, mask_sales'
}

@test "a domain with users is not removed without a yes" {
  cmf domain add example.com
  cmf user add ann@example.com
  run -65 --separate-stderr cmf domain remove example.com
  contains "$stderr" "domain remove example.com: it has 1 mail users"
  contains "$stderr" "give --yes"
  run -0 --separate-stderr cmf domain remove example.com --dry-run
  equal "$output" $'- ann@example.com\n- example.com'
  run -0 cmf user list example.com
  equal "$output" $'ann@example.com\tuser'
  run -0 --separate-stderr cmf domain remove example.com --yes --json
  equal "$output" '{"domain":"example.com","removed":true,"users":1}'
}

@test "a domain with aliases or masks is not removed without a yes" {
  cmf domain add büro.example
  sql "insert into alias (name, members) values ('team@BÜRO.example', 'ann@x.example'), ('other@x.example', 'ann@büro.example');
    create table mask_sales like mask;
    insert into mask_sales (private, public) values ('*@in.example', '*@xn--bro-hoa.example')"
  run -65 --separate-stderr db domain remove büro.example
  contains "$stderr" "domain remove xn--bro-hoa.example: it has 1 aliases in table alias, 1 masks in table mask_sales"
  run -0 --separate-stderr db domain remove büro.example --dry-run
  equal "$output" "- xn--bro-hoa.example"
  contains "$stderr" "1 masks in table mask_sales; rows of tables stay"
  run -0 db domain remove büro.example --yes
  equal "$(sql "select name from alias where name like 'team@b%'")" team@BÜRO.example
  sql "delete from alias where name in ('team@BÜRO.example', 'other@x.example'); drop table mask_sales"
}

@test "users of a domain that is not there" {
  cmf domain add example.com
  run -1 --separate-stderr cmf user add bob@example.net
  contains "$stderr" "no domain example.net"
  run -1 cmf user remove bob@example.net
  run -1 cmf user list example.net
  run -1 --separate-stderr cmf user list example.net --json
  equal "$output" '[]'
  run -0 cmf user list example.com
  equal "$output" ""
}

@test "what is refused" {
  cmf domain add example.com
  for bad in '' 'a b' 'a@b' "a'b" 'a..b' $'a\nb' 'a%'; do
    run -65 cmf domain add "$bad"
    run -65 cmf domain remove "$bad"
    run -65 cmf user list "$bad"
  done
  for bad in '' bob @example.com 'a b@example.com'; do
    run -65 cmf user add "$bad"
    run -65 cmf user remove "$bad"
  done
  run -65 --separate-stderr cmf user add '"two words"@example.com'
  contains "$stderr" "needs quotes"
  run -64 cmf user add bob@example.com --kind boss
  run -64 cmf user add bob@example.com --kind 3
  run -0 cmf user list example.com
  equal "$output" ""
}

# A configuration of domains, users of all kinds, and names that are not plain ASCII.
fill() {
  for domain in Example.com büro.example empty.example; do cmf domain add "$domain"; done
  cmf user import - <<<$'Ann@example.com\nann+tag@example.com\nju\xcc\x88rg@büro.example'
  cmf user add "o'brien@example.com" --kind disabled
  cmf user add room@büro.example --kind shared
} >/dev/null 2>&1

@test "an export of all domains and users, imported, is exported as the same file" {
  fill
  cd "$BATS_TEST_TMPDIR"
  run -0 cmf domain export file --json
  equal "$output" '{"file":"file","domains":3,"users":5}'
  run -0 --separate-stderr cmf domain export
  equal "$output" "$(<file)"
  equal "$output" "empty.example
Example.com
Ann@Example.com	user
ann+tag@Example.com	user
o'brien@Example.com	disabled
xn--bro-hoa.example
"$'ju\xcc\x88rg@xn--bro-hoa.example\tuser
room@xn--bro-hoa.example\tshared'
  mkdir new
  restored() { without_database --cmf new "$@"; }
  run -0 --separate-stderr restored domain import file --dry-run
  equal "${lines[0]}" "+ Example.com"
  equal "${lines[5]}" "+ o'brien@Example.com	disabled"
  equal "${lines[8]}" "3 domains added; users: 5 added, 0 changed, 0 unchanged"
  equal "$(ls new)" ""
  run -0 --separate-stderr restored domain import - <file
  equal "$output$stderr" "3 domains added; users: 5 added, 0 changed, 0 unchanged"
  restored domain export again
  cmp file again
  restored user add ANN@example.com --kind shared
  run -0 restored domain import file --dry-run --json
  equal "$output" '{"domains":0,"added":0,"changed":1,"unchanged":4,"rows":[{"change":"~","address":"Ann@Example.com","kind":"user","former":"shared"}],"dryRun":true}'
  run -0 restored domain import file
  equal "$output" "0 domains added; users: 0 added, 1 changed, 4 unchanged"
  restored domain export again
  cmp file again
}

@test "an export of users, of one domain, and where it fails" {
  fill
  cd "$BATS_TEST_TMPDIR"
  run -0 cmf user export --domain BÜRO.example
  equal "$output" $'ju\xcc\x88rg@xn--bro-hoa.example\tuser\nroom@xn--bro-hoa.example\tshared'
  cmf user export file
  equal "$(<file)" "$(cmf domain export | grep @)"
  cmf user add ann@example.com --kind disabled
  run -0 cmf user import file --kind disabled
  equal "$output" "0 added, 1 changed, 4 unchanged"
  run -1 --separate-stderr cmf domain export --domain other.example
  contains "$stderr" "no domain other.example"
  run -64 cmf user export --json
  run -74 cmf domain export missing/file
  run -78 "$TSL_TOOL" --cmf missing domain export file
  equal "$(<file)" "$(cmf domain export | grep @)"
}

@test "bad lines of an import of domains are named, and nothing is written" {
  cd "$BATS_TEST_TMPDIR"
  printf '%s\n' büro.example BÜRO.example $'ann@büro.example\tuser' $'Ann@BÜRO.example\tdisabled' \
    x@other.example $'bob@büro.example\tboss' '"a b"@büro.example' a..b >file
  run -65 --separate-stderr cmf domain import file
  equal "$(sed 's/^tsl-address-map: //' <<<"$stderr")" "domain büro.example is stored as xn--bro-hoa.example
file:4: a line above says that it is of the kind user
file:5: there is no domain other.example in the configuration, nor in a line above
file:6: there is no kind 'boss' of mail user
file:7: a user name that needs quotes cannot be stored: the all-users alias of the whole domain would stop working
file:8: bad domain: Two dots in a row in the domain: \"x@a..b\"
file: it has bad lines
hint: nothing was written; correct the lines and try again"
  equal "$(ls "$CMF")" ""
}

# Has two domains and a user in spellings that only other programs store. The names have the length and the order of
# those that take their place in the file.
fill_spellings() {
  for name in by1ro by2ro; do
    cmf domain add $name.example
    cmf user add ann@$name.example
  done >/dev/null
  LC_ALL=C sed -i 's/y1ro/\xc3\x9cro/g; s/y2ro/\xc3\xbcro/g' "$CMF/data.mdb"
}

@test "an import changes all stored spellings of a user" {
  fill_spellings
  run -0 cmf user import - --kind disabled --dry-run <<<ann@xn--bro-hoa.example
  equal "$output" $'~ ann@bÜro.example\tuser -> disabled\n~ ann@büro.example\tuser -> disabled\n0 added, 2 changed, 0 unchanged'
  run -0 cmf user import - --kind disabled <<<ann@xn--bro-hoa.example
  equal "$output" "0 added, 2 changed, 0 unchanged"
  run -0 --separate-stderr cmf user list büro.example
  equal "$output" $'ann@bÜro.example\tdisabled\nann@büro.example\tdisabled'
}

@test "what is stored in several spellings is exported, and an import joins it" {
  fill_spellings
  cd "$BATS_TEST_TMPDIR"
  cmf domain export file
  equal "$(<file)" $'bÜro.example\nann@bÜro.example\tuser\nbüro.example\nann@büro.example\tuser'
  mkdir new
  run -0 --separate-stderr without_database --cmf new domain import file
  equal "$output" "1 domains added; users: 1 added, 0 changed, 1 unchanged"
  equal "$stderr" "tsl-address-map: domain bÜro.example is stored as xn--bro-hoa.example"
  cmf domain merge büro.example
  equal "$("$TSL_TOOL" --cmf new domain export)" "$(cmf domain export)"
}

@test "a user that only other programs store is exported, and the import says what is wrong with it" {
  cmf domain add example.com
  cmf user add axb@example.com
  cmf user add bob@example.com
  LC_ALL=C sed -i 's/axb/a b/g' "$CMF/data.mdb"
  cd "$BATS_TEST_TMPDIR"
  cmf domain export file
  equal "$(<file)" $'example.com\n"a b"@example.com\tuser\nbob@example.com\tuser'
  run -65 --separate-stderr cmf domain import file
  contains "$stderr" "file:2: a user name that needs quotes cannot be stored"
}

@test "without a configuration" {
  run -78 --separate-stderr cmf domain list
  contains "$stderr" "domain add"
  run -78 cmf domain remove example.com
  run -78 cmf user add bob@example.com
  run -78 cmf user list example.com
  equal "$(ls "$CMF")" ""
  run -78 --separate-stderr "$TSL_TOOL" --cmf "$CMF/missing" domain add example.com
  contains "$stderr" "$CMF/missing"
}

@test "a wrong size of the map is named, with or without a configuration" {
  for words in 'domain list' 'domain add example.com' 'domain add example.com --dry-run' \
    'user list example.com' 'status'; do
    TSL_CMF_MAP_MIB=abc run -78 --separate-stderr tool --cmf "$CMF" $words
    contains "$stderr" "TSL_CMF_MAP_MIB must be a number from 1 to 16777216: abc"
    contains "$stderr" "hint: correct TSL_CMF_MAP_MIB"
  done
  run -0 cmf domain add example.com
  TSL_CMF_MAP_MIB=0 run -78 --separate-stderr cmf domain list
  contains "$stderr" "hint: correct TSL_CMF_MAP_MIB"
}

@test "a damaged configuration" {
  head -c 65536 /dev/zero >"$CMF/data.mdb"
  head -c 8192 /dev/zero >"$CMF/lock.mdb"
  run -75 --separate-stderr cmf domain list
  contains "$stderr" "$CMF"
  [[ "$stderr" != *hint:* ]]
  run -75 cmf domain add example.com
  run -75 cmf user list example.com
}

@test "the configuration of the private server" {
  tool domain add example.com
  run -0 tool domain list
  equal "$output" $'example.com\t1'
  run -0 tool user add ann@example.com
  run -0 "$TSL_TOOL" --cmf "$SERVER/cmf" user list example.com
  equal "$output" $'ann@example.com\tuser'
}
