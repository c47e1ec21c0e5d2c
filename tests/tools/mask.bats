# mask set, remove, list, public and private; hostile input.

load helper

setup_file() { start_server; }
teardown_file() {
  DATABASE= sql 'drop user if exists mail@localhost;' || true
  stop_server
}
setup() { empty_tables; }

rows() { sql 'select private, public from mask order by private'; }

# A private and a public address for each kind of text that means something to SQL, to the line
# formats or to the shell.
hostile=("o'brien@inner.example" "o'hara@example.com" '"back\\slash"@inner.example'
  '"b\\"@example.com' 'per%cent@inner.example' '%@example.com' 'under_score@inner.example'
  '_@example.com' '"a\"b"@inner.example' '"c\"d"@example.com' '"semi;colon"@inner.example'
  "\"');drop table mask;-- \"@example.com" '"co:lon"@inner.example' '"a:b:c"@example.com'
  '"com,ma"@inner.example' '"x,y"@example.com' '" blank "@inner.example' '"tab bed"@example.com'
  'ann@[IPv6:2001:db8::1]' 'bob@[192.0.2.1]')

@test "set, list and remove a pair, and look it up in both directions" {
  run -0 --separate-stderr tool mask set ann@inner.example ann.smith@example.com
  equal "$output$stderr" ""
  run -0 --separate-stderr tool mask list
  equal "$output" $'ann@inner.example\tann.smith@example.com'
  run -0 --separate-stderr tool mask public ann@inner.example
  equal "$output$stderr" "ann.smith@example.com"
  run -0 --separate-stderr tool mask private ann.smith@example.com
  equal "$output$stderr" "ann@inner.example"
  run -0 --separate-stderr tool mask remove ann@inner.example ann.smith@example.com
  equal "$output$stderr" ""
  run -0 tool mask list
  equal "$output" ""
}

@test "set changes the public address of a pair, and of no other" {
  tool mask set ann@inner.example a@example.com
  tool mask set bob@inner.example b@example.com
  tool mask set ANN@inner.example a2@example.com
  tool mask set bob@inner.example b@example.com
  equal "$(rows)" $'ann@inner.example\ta2@example.com\nbob@inner.example\tb@example.com'
}

@test "a public address that is taken is refused, and its row named" {
  tool mask set ann@inner.example a@example.com
  tool mask set bob@inner.example b@example.com
  run -65 --separate-stderr tool mask set bob@inner.example A@example.com
  equal "$output" ""
  contains "$stderr" "'ann@inner.example:a@example.com'"
  run -65 --separate-stderr tool --json mask set new@inner.example a@example.com
  contains "$stderr" "'ann@inner.example:a@example.com'"
  equal "$output" ""
  equal "$(rows)" $'ann@inner.example\ta@example.com\nbob@inner.example\tb@example.com'
}

@test "force changes the row that has either address, and prints what is there" {
  tool mask set ann@inner.example a@example.com
  tool mask set bob@inner.example b@example.com
  # The public address is taken: its row keeps it, no row is added.
  run -0 --separate-stderr tool mask set new@inner.example A@example.com --force
  equal "$output" $'ann@inner.example\tA@example.com'
  run -0 tool mask set ann@inner.example a3@example.com --force
  equal "$output" $'ann@inner.example\ta3@example.com'
  run -0 tool --json mask set cid@inner.example c@example.com --force
  equal "$output" '{"private":"cid@inner.example","public":"c@example.com","rows":[{"private":"cid@inner.example","public":"c@example.com"}]}'
  run -65 --separate-stderr tool mask set ann@inner.example b@example.com --force
  contains "$stderr" "'ann@inner.example:a3@example.com'"
  contains "$stderr" "'bob@inner.example:b@example.com'"
  equal "$(rows)" $'ann@inner.example\ta3@example.com\nbob@inner.example\tb@example.com\ncid@inner.example\tc@example.com'
}

@test "the answers as JSON" {
  run -0 tool --json mask set ann@inner.example ann.smith@example.com
  equal "$output" '{"private":"ann@inner.example","public":"ann.smith@example.com"}'
  run -0 tool --json mask list
  equal "$output" '[{"private":"ann@inner.example","public":"ann.smith@example.com"}]'
  run -0 tool --json mask public ann@inner.example
  equal "$output" '[{"address":"ann@inner.example","outcome":"found","public":"ann.smith@example.com"}]'
  run -1 --separate-stderr tool --json mask private ann@inner.example
  equal "$output" '[{"address":"ann@inner.example","outcome":"no-mask","private":null}]'
  run -1 --separate-stderr tool --json mask remove ann@inner.example other@example.com
  equal "$output" '{"private":"ann@inner.example","public":"other@example.com","removed":false}'
  run -0 tool --json mask remove ann@inner.example ann.smith@example.com
  equal "$output" '{"private":"ann@inner.example","public":"ann.smith@example.com","removed":true}'
  run -1 --separate-stderr tool --json mask remove --domain inner.example
  equal "$output" '{"domain":"inner.example","removed":0}'
  run -0 tool --json mask list
  equal "$output" '[]'
}

@test "what is not a pair of the table is not found" {
  tool mask set ann@inner.example a@example.com
  run -1 --separate-stderr tool mask public nobody@inner.example
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no mask of the private address nobody@inner.example in table mask"
  run -1 --separate-stderr tool mask private nobody@example.com
  equal "$stderr" "tsl-address-map: no mask of the public address nobody@example.com in table mask"
  run -1 --separate-stderr tool mask remove ann@inner.example b@example.com
  equal "$output" ""
  equal "$stderr" "tsl-address-map: no mask ann@inner.example with b@example.com in table mask"
  run -1 tool mask remove a@example.com ann@inner.example
  equal "$(rows)" $'ann@inner.example\ta@example.com'
}

@test "several addresses, and those of standard input" {
  tool mask set ann@inner.example a@example.com
  tool mask set bob@inner.example b@example.com
  run -1 --separate-stderr tool mask public bob@inner.example nobody@inner.example ann@inner.example
  equal "$output" $'bob@inner.example\tb@example.com\nnobody@inner.example\t\nann@inner.example\ta@example.com'
  equal "$stderr" ""
  run -0 --separate-stderr tool mask private - <<<$'b@example.com\n\n  \r\na@example.com\r'
  equal "$output" $'b@example.com\tbob@inner.example\na@example.com\tann@inner.example'
  run -65 --separate-stderr tool mask private - <<<$'b@example.com\nno address\nx@example.com'
  equal "$output" $'b@example.com\tbob@inner.example\nx@example.com\t'
  contains "$stderr" "standard input, line 2: address 'no address'"
  run -65 --separate-stderr tool mask public @ bob@inner.example
  equal "$output" $'bob@inner.example\tb@example.com'
  run -0 --separate-stderr tool mask public - </dev/null
  equal "$output$stderr" ""
  run -0 tool --json mask public ann@inner.example bob@inner.example
  contains "$output" '"public":"a@example.com"'
  contains "$output" '"public":"b@example.com"'
}

@test "each address is answered before the next is read" {
  tool mask set ann@inner.example a@example.com
  coproc TOOL { "$TSL_TOOL" --option-file "$SERVER/client.cnf" mask public -; }
  local answer input=${TOOL[1]} pid=$TOOL_PID
  echo ann@inner.example >&"$input"
  IFS= read -r -t 60 answer <&"${TOOL[0]}"
  equal "$answer" $'ann@inner.example\ta@example.com'
  # A row that comes while the store is open is found, whatever the store had counted.
  tool mask set new@inner.example n@example.com
  echo new@inner.example >&"$input"
  IFS= read -r -t 60 answer <&"${TOOL[0]}"
  equal "$answer" $'new@inner.example\tn@example.com'
  exec {input}>&-
  wait "$pid"
}

@test "wildcard pairs mean whole domains" {
  tool mask set '*@inner.example' '*@example.com'
  tool mask set ann@inner.example special@example.com
  run -0 tool mask public bob@inner.example
  equal "$output" bob@example.com
  run -0 tool mask private bob@example.com
  equal "$output" bob@inner.example
  run -0 tool mask public ann@inner.example
  equal "$output" special@example.com
  run -0 tool mask list
  equal "$output" $'*@inner.example\t*@example.com\nann@inner.example\tspecial@example.com'
  run -0 tool mask remove '*@inner.example' '*@example.com'
  run -1 tool mask public bob@inner.example
}

@test "remove of a domain takes exactly its pairs" {
  tool mask set '*@a_c.example' '*@one.example'
  tool mask set ann@A_C.Example a@example.com
  tool mask set ann@abc.example b@example.com
  tool mask set ann@sub.a_c.example c@example.com
  tool mask set '"x@a_c.example"@other.example' d@example.com
  tool mask set e@other.example e@a_c.example
  run -0 --separate-stderr tool mask remove --domain a_C.example
  equal "$output" "2 removed"
  equal "$stderr" ""
  equal "$(sql 'select public from mask order by public')" \
    $'b@example.com\nc@example.com\nd@example.com\ne@a_c.example'
  run -1 --separate-stderr tool mask remove --domain a_c.example
  equal "$output" "0 removed"
  contains "$stderr" "no mask of a private address in a_c.example"
  for bad in "x' or '1'='1" "a%" '%' 'a\b' 'a"b' '*' 'a b' 'a@b' $'a\nb' ''; do
    run -65 --separate-stderr tool mask remove --domain "$bad"
    equal "$output" ""
  done
  equal "$(sql 'select count(*) from mask')" 4
}

@test "remove of a domain of more pairs than one statement takes" {
  sql "insert into mask select concat( 'u', seq, '@inner.example' ), concat( 'u', seq, '@example.com' )
       from seq_1_to_1201;
       insert into mask values( 'x@other.example', 'x@example.com' );"
  run -0 --separate-stderr tool --json mask remove --domain inner.example
  equal "$output" '{"domain":"inner.example","removed":1201}'
  equal "$(rows)" $'x@other.example\tx@example.com'
}

@test "list of a domain takes neither patterns nor other domains" {
  tool mask set a@a_b.example a@example.com
  tool mask set a@axb.example b@example.com
  tool mask set a@sub.a_b.example c@example.com
  run -0 tool mask list --domain A_B.example
  equal "$output" $'a@a_b.example\ta@example.com'
  run -0 tool mask list --domain nowhere.example
  equal "$output" ""
  run -65 tool mask list --domain "a%"
}

@test "texts that mean something to SQL touch no row but their own" {
  tool mask set witness@inner.example witness@example.com
  local n private public
  for ((n = 0; n < ${#hostile[@]}; n += 2)); do
    private=${hostile[n]} public=${hostile[n + 1]}
    run -1 tool mask public "$private"
    run -1 tool mask remove "$private" "$public"
    run -0 --separate-stderr tool mask set "$private" "$public"
    equal "$output$stderr" ""
    run -0 tool mask public "$private"
    equal "$output" "$public"
    run -0 tool mask private "$public"
    equal "$output" "$private"
    run -0 tool mask list
    contains "$output" "$private"$'\t'"$public"
    equal "$(sql 'select count(*) from mask')" 2
    run -0 tool mask set "$private" "other$n@example.com"
    run -0 tool mask set "$private" "$public" --force
    equal "$output" "$private"$'\t'"$public"
    run -0 tool mask remove "$private" "$public"
    equal "$(rows)" $'witness@inner.example\twitness@example.com'
  done
  for ((n = 0; n < ${#hostile[@]}; n += 2)); do
    tool mask set "${hostile[n]}" "${hostile[n + 1]}"
  done
  equal "$(sql 'select count(*) from mask')" "$((${#hostile[@]} / 2 + 1))"
  run -0 tool mask remove --domain inner.example
  equal "$(rows)" $'ann@[IPv6:2001:db8::1]\tbob@[192.0.2.1]'
}

@test "what is not an address is refused, and shown without control characters" {
  for bad in '' ' ' nobody @example.com a@b@c $'a@example.com\nb@example.com' \
    $'\e]0;title\a@example.com' "$(printf 'x%.0s' {1..300})@example.com"; do
    run -65 --separate-stderr tool mask set "$bad" a@example.com
    equal "$output" ""
    [[ "$stderr" != *$'\e'* && "$stderr" != *$'\a'* ]]
    run -65 tool mask set ann@inner.example "$bad"
    run -65 tool mask public "$bad"
    run -65 tool mask private "$bad"
    run -65 tool mask remove ann@inner.example "$bad"
  done
  equal "$(sql 'select count(*) from mask')" 0
}

@test "another spelling of the same characters is refused and named" {
  tool mask set $'jos\xc3\xa9@inner.example' $'jos\xc3\xa9@example.com'
  run -65 --separate-stderr tool mask set $'jose\xcc\x81@inner.example' b@example.com
  contains "$stderr" $'jos\xc3\xa9@inner.example'
  run -65 --separate-stderr tool mask set b@inner.example $'jose\xcc\x81@example.com'
  contains "$stderr" "spelled differently"
  run -0 tool mask remove $'jose\xcc\x81@inner.example' $'JOS\xc3\x89@example.com'
  equal "$(rows)" ""
}

@test "a domain without a name is refused with the right spelling" {
  run -65 --separate-stderr tool mask set @inner.example @example.com
  contains "$stderr" "in a mask, '*@inner.example' is the whole domain"
}

@test "a mask is found in any spelling, and a second spelling is refused" {
  tool mask set ann@büro.example ann@käse.example
  for spelling in ann@xn--bro-hoa.example ANN@BÜRO.example; do
    run -0 --separate-stderr tool mask public "$spelling"
    equal "$output" ann@käse.example
    equal "$stderr" "tsl-address-map: address $spelling has the row of ann@büro.example"
  done
  run -0 --separate-stderr tool mask public ann+news@büro.example
  equal "$output" ann+news@käse.example
  equal "$stderr" "tsl-address-map: address ann+news@büro.example has the row of ann@büro.example"
  run -0 --separate-stderr tool mask private ann@xn--kse-qla.example
  equal "$output" ann@büro.example
  run -65 --separate-stderr tool mask set ann@xn--bro-hoa.example b@x.example
  contains "$stderr" "in another spelling, in the row 'ann@büro.example:ann@käse.example'"
  run -65 --separate-stderr tool mask set b@inner.example ann@xn--kse-qla.example
  contains "$stderr" "where it is spelled differently"
  run -0 tool mask list --domain xn--bro-hoa.example
  equal "$output" $'ann@büro.example\tann@käse.example'
  tool mask set cid@xn--bro-hoa.example cid@x.example
  run -0 tool mask remove --domain BÜRO.example
  equal "$output" "2 removed"
}

@test "mask lookups report what the service answers where the library answers otherwise" {
  tool mask set ann@inner.example a.smith@out.example
  tool mask set '*@inner.example' '*@out.example'
  tool mask set ann@büro.example a.jones@out.example
  tool mask set '*@xn--bro-hoa.example' '*@other.example'
  says() {
    run --separate-stderr tool mask "$1" "$2"
    equal "$output" "$3"
    equal "$stderr" "$4"
  }
  end=": it compares spellings and tags otherwise than the library"
  start="tsl-address-map: warning: to mail servers, the lookup service answers"
  says public ann@inner.example a.smith@out.example ""
  says public bob+x@inner.example bob+x@out.example ""
  says public ann+x@inner.example ann+x@out.example "$start a.smith+x@out.example for ann+x@inner.example$end"
  says private a.smith+x@out.example a.smith+x@inner.example "$start ann+x@inner.example for a.smith+x@out.example$end"
  says public ann@xn--bro-hoa.example ann@other.example "$start a.jones@out.example for ann@xn--bro-hoa.example$end"
  says private bob@other.example bob@xn--bro-hoa.example ""
  says public bob@Inner.example "" "$start bob@out.example for bob@Inner.example$end
tsl-address-map: no mask of the private address bob@Inner.example in table mask"
  run -0 --separate-stderr tool mask public - --json <<<ann+x@inner.example
  contains "$output" '"public":"ann+x@out.example"'
}

@test "a broken row is reported, never listed and never 'not found'" {
  tool mask set good@inner.example g@example.com
  sql "insert into mask values( 'empty@inner.example', '' );"
  run -65 --separate-stderr tool mask list
  equal "$output" $'good@inner.example\tg@example.com'
  contains "$stderr" "broken row 'empty@inner.example:' of table mask: the public address is empty"
  run -65 --separate-stderr tool mask public empty@inner.example
  equal "$output" ""
  contains "$stderr" "broken row 'empty@inner.example:'"
  run -0 tool mask public good@inner.example
  run -0 tool mask set empty@inner.example e@example.com
  run -0 tool mask public empty@inner.example
  sql "insert into mask values( 'no address', 'n@example.com' ), ( 'b@inner.example', 'b@@c' );"
  for words in 'public good@inner.example' 'private g@example.com' 'public -'; do
    # Unquoted: the words of the command.
    run -65 --separate-stderr tool mask $words <<<good@inner.example
    contains "$stderr" "broken row 'no address:n@example.com' of table mask"
    contains "$stderr" "broken row 'b@inner.example:b@@c' of table mask"
  done
  run -0 tool mask set b@inner.example b@example.com
  sql "delete from mask where private = 'no address'; insert into alias ( name, members ) values( 'no address', 'a@example.com' );"
  run -65 --separate-stderr tool mask public good@inner.example
  contains "$stderr" "table alias"
}

@test "a named table" {
  sql 'create table mask_sales like mask; create table alias_sales like alias;'
  run -0 tool --table sales mask set ann@inner.example a@example.com
  run -0 tool mask public ann@inner.example --table=sales
  equal "$output" a@example.com
  run -0 tool mask list --table sales
  equal "$output" $'ann@inner.example\ta@example.com'
  run -1 tool mask public ann@inner.example
  run -0 tool mask remove --domain inner.example --table sales
  run -78 --separate-stderr tool mask list --table missing
  contains "$stderr" "mask_missing"
  sql 'drop table mask_sales, alias_sales;'
}

@test "without rights, and without a server: never 'not found'" {
  tool mask set ann@inner.example a@example.com
  DATABASE= sql "create or replace user mail@localhost identified by 'secret';
                 grant select on ts_address_map.alias to mail@localhost;"
  local file words
  file=$(option_file mail secret)
  printf '[client]\nsocket=/nonexistent/db.sock\n' >"$BATS_TEST_TMPDIR/nowhere.cnf"
  for words in 'public ann@inner.example' 'private a@example.com' 'public -' 'list' \
    'set b@inner.example b@example.com' 'set b@inner.example b@example.com --force' \
    'remove ann@inner.example a@example.com' 'remove --domain inner.example'; do
    run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" mask $words <<<ann@inner.example
    contains "$stderr" "GRANT"
    run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" mask $words <<<ann@inner.example
    contains "$stderr" "/nonexistent/db.sock"
  done
  equal "$(rows)" $'ann@inner.example\ta@example.com'
}

@test "wrong usage" {
  run -64 tool mask
  run -64 tool mask nonsense
  run -64 tool mask set
  run -64 tool mask set a@inner.example
  run -64 tool mask remove
  run -64 tool mask remove a@inner.example
  run -64 tool mask remove a@inner.example a@example.com --domain inner.example
  run -64 tool mask remove '' --domain inner.example
  run -64 tool mask public
  run -64 tool mask list --nonsense
}

@test "verbose reports what was done" {
  run -0 --separate-stderr tool --verbose mask set ann@inner.example a@example.com
  contains "$stderr" "database ts_address_map, table mask"
  contains "$stderr" "set ann@inner.example to a@example.com"
  run -0 --separate-stderr tool --verbose mask remove ann@inner.example a@example.com
  contains "$stderr" "removed ann@inner.example with a@example.com"
}

@test "every mask command has help with examples" {
  for words in set remove list public private; do
    run -0 --separate-stderr "$TSL_TOOL" mask "$words" --help
    contains "$output" "Examples:"
    contains "$output" "tsl-address-map mask $words"
    equal "$stderr" ""
  done
}
