# alias tree, alias who, mask explain: what the answers of the library come from.

load helper

setup_file() {
  start_server
  # A configuration, of a domain that nothing here is about.
  tool domain add served.example
}
teardown_file() { stop_server; }
setup() { empty_tables; }

# Fills the alias table: "ALIAS:MEMBER,MEMBER" for each row.
rows() {
  local row values=
  for row in "$@"; do values+="${values:+,}( '${row%%:*}', '${row#*:}' )"; done
  sql "insert into alias ( name, members ) values $values;"
}

@test "tree: aliases and final addresses, each with its place" {
  rows all@x.example:ann@x.example,team@x.example team@x.example:bob@x.example
  run -0 --separate-stderr tool alias tree all@x.example
  equal "$stderr" ""
  equal "$output" "all@x.example: alias [ann@x.example,team@x.example]
  ann@x.example: final
  team@x.example: alias [bob@x.example]
    bob@x.example: final
depth 2, aliases: 2, final addresses: 2, repeated: 0, cycles: 0, dangling: 0"
}

@test "tree: what is met again, what leads back, and what names itself" {
  rows all@x.example:one@x.example,two@x.example one@x.example:all@x.example,ann@x.example \
    two@x.example:one@x.example,two@x.example
  run -0 --separate-stderr tool alias tree all@x.example
  equal "$output" "all@x.example: alias [one@x.example,two@x.example]
  one@x.example: alias [all@x.example,ann@x.example]
    all@x.example: cycle (leads back to an alias above, and is left out)
    ann@x.example: final
  two@x.example: alias [one@x.example,two@x.example]
    one@x.example: repeated (expanded above)
    two@x.example: self-delivery (the alias names itself, and is delivered to)
depth 2, aliases: 3, final addresses: 2, repeated: 1, cycles: 1, dangling: 0"
  equal "$(tool alias expand all@x.example)" $'ann@x.example\ntwo@x.example'
}

@test "tree: an alias that reaches nobody, and no alias" {
  rows a@x.example:b@x.example b@x.example:a@x.example
  run -1 --separate-stderr tool alias tree a@x.example
  contains "$output" "    a@x.example: cycle"
  run -1 --separate-stderr tool alias tree nobody@x.example
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no alias nobody@x.example in table alias"
  run -1 --separate-stderr tool alias tree nobody@x.example --json
  equal "$output" '{"address":"nobody@x.example","outcome":"no-alias","totals":null,"finals":[],"tree":null}'
  run -65 --separate-stderr tool alias tree nonsense
  run -64 --separate-stderr tool alias tree a@x.example --json --dot
}

@test "tree: all users, a domain that is missing, and a marker that is taken for an address" {
  tool domain add users.example
  tool user add ann@users.example
  tool user add bob@users.example
  tool user add room@users.example --kind shared
  rows all@users.example:allusers_users.example top@users.example:all@users.example \
    mixed@users.example:allusers_users.example,cid@x.example \
    all@missing.example:allusers_missing.example foreign@x.example:allusers_users.example
  run -0 tool alias tree top@users.example
  equal "$output" "top@users.example: alias [all@users.example]
  all@users.example: alias [allusers_users.example]
    allusers_users.example: all-users (user mailboxes: 2)
depth 2, aliases: 2, final addresses: 2, repeated: 0, cycles: 0, dangling: 0"
  run -0 tool alias tree mixed@users.example
  contains "$output" "  allusers_users.example: marker (the marker stays as it is"
  run -0 tool alias tree foreign@x.example
  contains "$output" "  allusers_users.example: marker (the marker stays as it is"
  run -0 tool alias tree all@missing.example
  contains "$output" "  allusers_missing.example: missing-domain (the configuration has no such domain"
  tool domain remove users.example --yes
}

@test "tree: a configuration that cannot be read is reported, and what is known is shown" {
  rows all@users.example:allusers_users.example team@users.example:ann@users.example
  mkdir "$BATS_TEST_TMPDIR/none"
  run -78 --separate-stderr tool alias tree all@users.example --cmf "$BATS_TEST_TMPDIR/none"
  contains "$output" "allusers_users.example: all-users (user mailboxes: unknown"
  contains "$stderr" "$BATS_TEST_TMPDIR/none"
  # Where it is not needed, it is not missed.
  run -0 --separate-stderr tool alias tree team@users.example --cmf "$BATS_TEST_TMPDIR/none"
  contains "$output" "dangling: unknown"
  equal "$stderr" ""
}

@test "tree: members of a served domain that nobody has" {
  tool domain add users.example
  tool user add ann@users.example
  tool user add old@users.example --kind disabled
  rows team@users.example:ann@users.example,cid@x.example,Ghost@users.example,old@users.example
  run -0 tool alias tree team@users.example
  contains "$output" "  Ghost@users.example: final (dangling: neither an alias nor a mail user of its domain)"
  contains "$output" $'  ann@users.example: final\n'
  contains "$output" $'  cid@x.example: final\n'
  contains "$output" $'  old@users.example: final\n'
  contains "$output" "dangling: 1"
  tool domain remove users.example --yes
}

@test "tree: rows that cannot be read" {
  rows team@x.example:ann@x.example,bad@x.example,empty@x.example 'bad@x.example:a@@b' \
    empty@x.example:
  run -65 --separate-stderr tool alias tree team@x.example
  contains "$output" "  bad@x.example: broken (bad members: "
  contains "$output" "  empty@x.example: final (the members are empty)"
  contains "$stderr" "broken row 'bad@x.example' of table alias"
  run -65 --separate-stderr tool alias tree empty@x.example
  equal "$output" ""
  contains "$stderr" "broken row 'empty@x.example' of table alias"
}

@test "tree: as JSON" {
  tool domain add users.example
  rows all@x.example:ghost@users.example,team@x.example team@x.example:all@x.example,bob@x.example
  run -0 --separate-stderr tool alias tree all@x.example --json
  equal "${output//$'\n'/}" '{"address":"all@x.example","outcome":"found","totals":{"depth":2,"aliases":2,"finals":2,"repeated":0,"cycles":1,"dangling":1},"finals":["bob@x.example","ghost@users.example"],"tree":{"address":"all@x.example","kind":"alias","row":"ghost@users.example,team@x.example","note":null,"dangling":null,"users":null,"members":[{"address":"ghost@users.example","kind":"final","row":null,"note":"dangling: neither an alias nor a mail user of its domain","dangling":true,"users":null,"members":[]},{"address":"team@x.example","kind":"alias","row":"all@x.example,bob@x.example","note":null,"dangling":null,"users":null,"members":[{"address":"all@x.example","kind":"cycle","row":"ghost@users.example,team@x.example","note":"leads back to an alias above, and is left out","dangling":null,"users":null,"members":[]},{"address":"bob@x.example","kind":"final","row":null,"note":null,"dangling":false,"users":null,"members":[]}]}]}}'
  tool domain remove users.example --yes
}

@test "tree: as a graph, with names that mean something to its language" {
  sql "insert into alias ( name, members ) values
       ( 'all@x.example', '\"a\\\\\"b\\\\\\\\c\"@x.example,team@x.example' ),
       ( 'team@x.example', 'all@x.example,bob@x.example' );"
  run -0 --separate-stderr tool alias tree all@x.example --dot
  equal "$stderr" ""
  equal "$output" 'digraph aliases {
  rankdir=LR;
  "all@x.example" [shape=box];
  "\"a\\\"b\\\\c\"@x.example" [shape=ellipse];
  "all@x.example" -> "\"a\\\"b\\\\c\"@x.example";
  "team@x.example" [shape=box];
  "all@x.example" -> "team@x.example";
  "team@x.example" -> "all@x.example" [label="cycle", color=red];
  "bob@x.example" [shape=ellipse];
  "team@x.example" -> "bob@x.example";
}'
}

@test "tree: reaches what the library's expansion reaches, on tables by chance" {
  local seed=${TSL_SEED:-$RANDOM} table i got want
  echo "seed $seed"
  for table in 1 2 3 4 5 6; do
    empty_tables
    # Twelve aliases with up to four of twelve aliases and six other addresses as members, so that
    # most of them lead back somewhere, and some name themselves.
    sql "$(awk -v seed="$((seed + table))" 'BEGIN {
      srand(seed)
      for (i = 0; i < 12; ++i) {
        text = ""
        count = 1 + int(rand() * 4)
        for (j = 0; j < count; ++j) {
          n = int(rand() * 18)
          text = text (j ? "," : "") (n < 12 ? "a" : "f") n "@x.example"
        }
        printf "insert into alias ( name, members ) values( \"a%d@x.example\", \"%s\" );", i, text
      }
    }')"
    for i in 0 1 2 3 4 5 6 7 8 9 10 11; do
      got=$(tool alias tree "a$i@x.example" |
        sed -n 's/^ *\([^ ]*\): \(final\|self-delivery\).*/\1/p' | LC_ALL=C sort -u)
      want=$(tool alias expand "a$i@x.example" 2>/dev/null | LC_ALL=C sort -u) || true
      equal "$got" "$want"
    done
  done
}

@test "tree: a long chain and a long list" {
  sql "insert into alias ( name, members )
       select concat( 'c', seq, '\@x.example' ), concat( 'c', seq + 1, '\@x.example' )
       from seq_0_to_2999;
       set group_concat_max_len = 10000000;
       insert into alias ( name, members )
       select 'list\@x.example', group_concat( concat( 'm', seq, '\@x.example' ) order by seq )
       from seq_1_to_10000;"
  run -0 --separate-stderr tool alias tree c0@x.example
  contains "$output" "(3000) c3000@x.example: final"
  contains "$output" $'\ndepth 3000, aliases: 3000, final addresses: 1,'
  tool alias tree c0@x.example --json >"$BATS_TEST_TMPDIR/chain.json"
  equal "$(tr -cd '{' <"$BATS_TEST_TMPDIR/chain.json" | wc -c)" \
    "$(tr -cd '}' <"$BATS_TEST_TMPDIR/chain.json" | wc -c)"
  run -0 --separate-stderr tool alias tree list@x.example
  contains "$output" "final addresses: 10000,"
  # Few statements, whatever the number of members.
  sql "set global general_log_file = '$BATS_TEST_TMPDIR/log'; set global general_log = on;"
  tool alias tree list@x.example >/dev/null
  sql "set global general_log = off;"
  local statements
  statements=$(grep -c 'from alias where name in' "$BATS_TEST_TMPDIR/log")
  equal "$((statements > 20 && statements < 30))" 1
}

@test "who: each alias with its way to an address, the nearest first" {
  rows all@x.example:team@x.example,cid@x.example team@x.example:BOB@x.example \
    top@x.example:all@x.example,bob@x.example other@x.example:jimbob@x.example
  run -0 --separate-stderr tool alias who bob@x.example
  equal "$stderr" ""
  equal "$output" 'team@x.example -> bob@x.example
top@x.example -> bob@x.example
all@x.example -> team@x.example -> bob@x.example'
  run -0 tool alias who cid@x.example
  equal "$output" $'all@x.example -> cid@x.example\ntop@x.example -> all@x.example -> cid@x.example'
}

@test "who: nobody" {
  rows team@x.example:jimbob@x.example
  run -1 --separate-stderr tool alias who bob@x.example
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no alias of table alias leads to bob@x.example"
  run -1 --separate-stderr tool alias who bob@x.example --json
  equal "$output" "[]"
  run -65 tool alias who nonsense
}

@test "who: an alias, one that names itself, and alias loops" {
  rows a@x.example:b@x.example b@x.example:a@x.example,bob@x.example self@x.example:self@x.example,b@x.example
  run -0 --separate-stderr tool alias who b@x.example
  equal "$output" $'a@x.example -> b@x.example\nself@x.example -> b@x.example'
  contains "$stderr" "b@x.example is an alias itself"
  run -0 --separate-stderr tool alias who self@x.example
  equal "$output" "self@x.example -> self@x.example"
  run -0 --separate-stderr tool alias who bob@x.example
  equal "$output" $'b@x.example -> bob@x.example\na@x.example -> b@x.example -> bob@x.example\nself@x.example -> b@x.example -> bob@x.example'
}

@test "who: of several paths the shortest, and of equally short ones the first" {
  rows top@x.example:long@x.example,b@x.example,a@x.example long@x.example:a@x.example \
    a@x.example:z@x.example b@x.example:z@x.example
  run -0 --separate-stderr tool alias who z@x.example --json
  equal "$(tail -n 2 <<<"$output")" '{"alias":"long@x.example","path":["long@x.example","a@x.example","z@x.example"]},
{"alias":"top@x.example","path":["top@x.example","a@x.example","z@x.example"]}]'
}

@test "who: far away, the ends alone are shown" {
  sql "insert into alias ( name, members )
       select concat( 'c', seq, '\@x.example' ), concat( 'c', seq + 1, '\@x.example' )
       from seq_0_to_1999;"
  run -0 --separate-stderr tool alias who c2000@x.example
  equal "${#lines[@]}" 2000
  equal "${lines[0]}" "c1999@x.example -> c2000@x.example"
  equal "${lines[1999]}" "c0@x.example -> ... (1999 more) -> c2000@x.example"
  run -0 --separate-stderr tool alias who c2000@x.example --json
  contains "$output" '{"alias":"c0@x.example","path":null}'
}

@test "who: aliases for all users of the domain" {
  tool domain add users.example
  tool user add ann@users.example
  tool user add room@users.example --kind shared
  rows all@users.example:allusers_users.example top@users.example:all@users.example \
    mixed@users.example:allusers_users.example,cid@x.example foreign@x.example:all@users.example
  run -0 --separate-stderr tool alias who ann@users.example
  equal "$output" "all@users.example -> allusers_users.example -> ann@users.example
top@users.example -> all@users.example -> allusers_users.example -> ann@users.example"
  run -1 tool alias who room@users.example
  run -1 tool alias who nobody@users.example
  mkdir "$BATS_TEST_TMPDIR/none"
  run -1 --separate-stderr tool alias who ann@users.example --cmf "$BATS_TEST_TMPDIR/none"
  contains "$stderr" "warning: aliases for all users of a domain are left out"
  tool domain remove users.example --yes
}

@test "tree: rows in another spelling, which the library does not follow" {
  rows team@x.example:boss@BÜRO.example,boss@xn--bro-hoa.example,cid+news@x.example \
    boss@büro.example:boss@xn--bro-hoa.example,eve@x.example cid@x.example:bob@x.example
  run -0 --separate-stderr tool alias tree team@x.example
  equal "$output" "team@x.example: alias [boss@BÜRO.example,boss@xn--bro-hoa.example,cid+news@x.example]
  boss@BÜRO.example: alias [boss@xn--bro-hoa.example,eve@x.example] (the row of boss@büro.example, which the lookup service follows, and the library does not)
    boss@xn--bro-hoa.example: self-delivery (the alias names itself, and is delivered to)
    eve@x.example: final
  boss@xn--bro-hoa.example: repeated (expanded above)
  cid+news@x.example: final (mail servers find the alias cid@x.example here)
depth 2, aliases: 2, final addresses: 3, repeated: 1, cycles: 0, dangling: 0"
  equal "$stderr" ""
  run -0 --separate-stderr tool alias expand team@x.example
  equal "$output" $'boss@BÜRO.example\nboss@xn--bro-hoa.example\ncid+news@x.example'
  contains "$stderr" "warning: mail servers find the alias boss@büro.example for boss@BÜRO.example, which is a final address to the library"
  contains "$stderr" "warning: mail servers find the alias cid@x.example for cid@x.example with a tag, "
  run -0 --separate-stderr tool alias tree boss@xn--bro-hoa.example
  equal "${lines[0]}" "boss@xn--bro-hoa.example: alias [boss@xn--bro-hoa.example,eve@x.example]"
  equal "$stderr" "tsl-address-map: alias boss@xn--bro-hoa.example has the spelling boss@büro.example"
  run -0 --separate-stderr tool alias tree cid+x@x.example
  equal "${lines[0]}" "cid@x.example: alias [bob@x.example]"
}

@test "who: in any spelling" {
  rows team@x.example:ann@büro.example,x@x.example boss@xn--bro-hoa.example:team@x.example up@x.example:BOSS@BÜRO.example
  for address in ann@xn--bro-hoa.example ANN@BÜRO.example; do
    run -0 --separate-stderr tool alias who "$address"
    equal "$output" "team@x.example -> $address
boss@xn--bro-hoa.example -> team@x.example -> $address
up@x.example -> boss@xn--bro-hoa.example -> team@x.example -> $address"
  done
  tool domain add büro.example
  tool user add cid@büro.example
  rows all@xn--bro-hoa.example:allusers_xn--bro-hoa.example
  run -0 tool alias who cid@büro.example
  equal "$output" "all@xn--bro-hoa.example -> allusers_xn--bro-hoa.example -> cid@büro.example"
}

@test "who: with an extension" {
  rows team@x.example:ann+news@x.example,x@x.example
  run -0 tool alias who ann@x.example
  equal "$output" "team@x.example -> ann@x.example"
  run -0 tool alias who ann+news@x.example
  run -1 tool alias who ann+other@x.example
}

@test "who: broken rows are named, the others searched" {
  rows team@x.example:bob@x.example 'bad@x.example:a@@b'
  run -65 --separate-stderr tool alias who bob@x.example
  equal "$output" "team@x.example -> bob@x.example"
  contains "$stderr" "broken row 'bad@x.example' of table alias"
}

@test "mask explain: a row, and the wildcard that it comes before" {
  sql "insert into mask values( 'ann@in.example', 'a@out.example' ), ( '*@in.example', '*@out.example' );"
  run -0 --separate-stderr tool mask explain ann@in.example
  equal "$stderr" ""
  equal "$output" 'public address: a@out.example
  from the row ann@in.example -> a@out.example
  in place of the wildcard *@in.example -> *@out.example
  without the row it would be ann@out.example
private address: none'
  run -0 tool mask explain a@out.example
  equal "$output" 'public address: none
private address: ann@in.example
  from the row ann@in.example -> a@out.example
  in place of the wildcard *@in.example -> *@out.example
  without the row it would be a@in.example'
}

@test "mask explain: of several wildcard rows the winner and the losers" {
  sql "insert into mask values( '*@b.example', '1*@out.example' ), ( '*@a.example', '2*@out.example' ),
       ( '*@c.example', '3*@OUT.example' );"
  run -0 --separate-stderr tool mask explain x@out.example
  equal "$output" 'public address: none
private address: x@a.example
  from the wildcard *@a.example -> 2*@out.example
  not from the wildcard, whose private domain comes later or is taken: *@b.example -> 1*@out.example
  not from the wildcard, whose domain has other letter case: *@c.example -> 3*@OUT.example'
  run -0 tool mask explain x@b.example --json
  equal "$output" '{"address":"x@b.example","public":{"address":"x@out.example","source":"wildcard","row":{"private":"*@b.example","public":"1*@out.example"},"losers":[],"shadowed":[],"otherCase":[]},"private":{"address":null,"source":"none","row":null,"losers":[],"shadowed":[],"otherCase":[]}}'
}

@test "mask explain: nothing, and what cannot be read" {
  run -1 --separate-stderr tool mask explain x@in.example
  equal "$output" $'public address: none\nprivate address: none'
  sql "insert into mask values( 'no address', 'a@out.example' );"
  run -65 --separate-stderr tool mask explain x@in.example
  contains "$stderr" "broken row 'no address:a@out.example' of table mask"
  run -65 tool mask explain nonsense
}

@test "a server that is gone is a failure" {
  printf '[client]\nsocket=/nonexistent/db.sock\n' >"$BATS_TEST_TMPDIR/nowhere.cnf"
  for words in 'alias tree a@x.example' 'alias who a@x.example' 'mask explain a@x.example'; do
    run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" $words
    equal "$output" ""
  done
}
