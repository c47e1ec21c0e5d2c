# alias and mask, export and import: what goes into files and comes back, and that a table is
# changed as a whole or not at all.

load helper

# Addresses that are hard on a line format, each next to one that differs from it.
ODD_LOCALS=('plain' '"co:lon"' '"com,ma"' '"qu\"ote"' '"back\\slash"' '"a b"' '" "' '"@"' '":"' '"\\\":,"'
  "o'brien" '%' '_' 'a+b' '{x}' '*' '"<x>"' '"(x)"' '"[x:"' $'jos\xc3\xa9' $'\xe6\x97\xa5\xe6\x9c\xac'
  $'"\xe2\x82\xac:\xe2\x82\xac"' $'x\xef\xbb\xbfbom' '""' '"a;b"' '"--"' '"../x"' '#c' '"x."')
ODD_DOMAINS=('example.com' '[192.0.2.1]' '[IPv6:2001:db8::1]' 'a_b.example' $'b\xc3\xbccher.example')

setup_file() {
  start_server
  # No more rows: on a busy machine a server rolls back only some hundred a second.
  export KILLS=20 ROWS=1500
  # A sanitizer makes everything slower; what is killed at random then is less.
  if grep -q __asan_init "$TSL_TOOL"; then KILLS=4; fi
}
teardown_file() {
  DATABASE= sql 'drop user if exists mail@localhost;' || true
  stop_server
}
setup() {
  empty_tables
  mkdir "$BATS_TEST_TMPDIR/work"
  cd "$BATS_TEST_TMPDIR/work"
}

aliases() { sql 'select name, members from alias order by name'; }
masks() { sql 'select private, public from mask order by private'; }
# Lines of aliases: numbered FIRST LAST ALIAS MEMBER.
numbered() { seq "$1" "$2" | sed "s/.*/$3&@example.com:$4&@example.com/"; }
# What the tables hold, byte for byte.
content() { sql "select hex( name ), hex( members ) from alias order by binary name;
                 select hex( private ), hex( public ) from mask order by binary private;"; }

@test "export and import of aliases" {
  tool alias set team@example.com bob@example.net ann@example.com
  tool alias set all@example.com allusers_example.com
  run -0 --separate-stderr tool alias export
  equal "$output" $'all@example.com:allusers_example.com\nteam@example.com:ann@example.com,bob@example.net'
  equal "$stderr" ""
  run -0 --separate-stderr tool alias export out.txt
  equal "$output$stderr" ""
  equal "$(<out.txt)" $'all@example.com:allusers_example.com\nteam@example.com:ann@example.com,bob@example.net'
  local before
  before=$(content)
  empty_tables
  run -0 --separate-stderr tool alias import out.txt
  equal "$output" "2 added, 0 changed, 0 left, 0 removed"
  equal "$stderr" ""
  equal "$(content)" "$before"
  run -0 tool alias import - <out.txt
  equal "$output" "0 added, 0 changed, 2 left, 0 removed"
}

@test "export and import of masks, wildcards too" {
  tool mask set '*@inner.example' '*@example.com'
  tool mask set ann@inner.example a@example.com
  run -0 tool mask export -
  equal "$output" $'*@inner.example:*@example.com\nann@inner.example:a@example.com'
  tool mask export out.txt
  local before
  before=$(content)
  empty_tables
  run -0 tool mask import out.txt
  equal "$output" "2 added, 0 changed, 0 left, 0 removed"
  equal "$(content)" "$before"
}

@test "the answers as JSON" {
  printf 'a@example.com:b@example.com\n' >in.txt
  run -0 tool --json alias import in.txt --dry-run
  equal "$output" '{"added":1,"changed":0,"left":0,"removed":0,"rows":[{"change":"+","line":"a@example.com:b@example.com"}]}'
  run -0 tool --json alias import in.txt
  equal "$output" '{"added":1,"changed":0,"left":0,"removed":0}'
  run -0 tool --json alias export out.txt
  equal "$output" '{"file":"out.txt","rows":1}'
  run -64 --separate-stderr tool --json alias export
  equal "$output" ""
}

@test "import adds, changes and leaves; replace removes" {
  printf 'a@example.com:x@example.com\nb@example.com:y@example.com\nc@example.com:z@example.com\n' >in.txt
  tool alias import in.txt
  sql "update alias set all_users = 1 where name = 'b@example.com'"
  printf 'b@example.com:y@example.com,q@example.com\nc@example.com:z@example.com\nd@example.com:z@example.com\n' >in.txt
  run -0 tool alias import --dry-run in.txt
  equal "$output" $'~ b@example.com:y@example.com -> q@example.com,y@example.com\n+ d@example.com:z@example.com\n1 added, 1 changed, 2 left, 0 removed'
  run -0 tool alias import --dry-run --replace in.txt
  equal "$output" $'- a@example.com:x@example.com\n~ b@example.com:y@example.com -> q@example.com,y@example.com\n+ d@example.com:z@example.com\n1 added, 1 changed, 1 left, 1 removed'
  equal "$(sql 'select count(*) from alias')" 3
  run -0 --separate-stderr tool alias import in.txt
  equal "$output" "1 added, 1 changed, 2 left, 0 removed"
  equal "$stderr" ""
  equal "$(aliases)" $'a@example.com\tx@example.com\nb@example.com\tq@example.com,y@example.com\nc@example.com\tz@example.com\nd@example.com\tz@example.com'
  # What the file says nothing about stays.
  equal "$(sql 'select all_users from alias where name = "b@example.com"')" 1
  run -0 tool alias import --replace in.txt
  equal "$output" "0 added, 0 changed, 3 left, 1 removed"
}

@test "an import of one domain leaves the others alone" {
  tool alias import - <<<$'a@x.example:m@y.example\na@y.example:m@y.example\nb@x.example:m@y.example'
  tool alias set c@xn--bro-hoa.example m@y.example
  run -0 tool alias import --replace --domain X.example --dry-run - <<<$'b@x.example:m@y.example\nd@x.EXAMPLE:m@y.example'
  equal "$output" $'- a@x.example:m@y.example\n+ d@x.EXAMPLE:m@y.example\n1 added, 0 changed, 3 left, 1 removed'
  run -0 tool alias import --replace --domain BÜRO.example - <<<d@büro.example:m@y.example
  equal "$output" "1 added, 0 changed, 3 left, 1 removed"
  run -65 --separate-stderr tool alias import --domain x.example - <<<$'e@x.example:m@y.example\ne@sub.x.example:m@y.example'
  contains "$stderr" "standard input:2: e@sub.x.example is not of the domain x.example, to which --domain limits the import"
  run -0 --separate-stderr tool alias import --domain x.example --skip-bad - <<<$'b@x.example:m@y.example\ne@y.example:m@y.example'
  equal "$output" "0 added, 0 changed, 4 left, 0 removed, 1 skipped"
  : >empty.txt
  run -65 --separate-stderr tool alias import --replace --domain x.example empty.txt
  contains "$stderr" "--replace would remove all rows of x.example"
  run -65 tool alias import --domain 'x y' empty.txt
  # What is exported of a domain is imported with the same options.
  for format in native jsonl csv virtual aliases; do
    tool alias export --domain x.example --format "$format" out.txt
    run -0 tool alias import --domain x.example --replace --dry-run --format "$format" out.txt
    equal "$output" "0 added, 0 changed, 4 left, 0 removed"
  done
  run -0 tool alias import --format aliases --domain x.example - <<<'f: g'
  equal "$(tool alias show f@x.example)" g@x.example
  run -65 tool alias import --format aliases --domain x.example --default-domain y.example - <<<'f: g'
  run -65 tool alias import --format virtual --domain x.example - <<<'f g'
  tool mask import - <<<$'a@in.example:a@out.example\n*@in.example:*@out.example\na@other.example:b@out.example'
  run -0 tool mask import --replace --domain IN.example - <<<a@in.example:c@out.example
  equal "$output" "0 added, 1 changed, 1 left, 1 removed"
  run -65 --separate-stderr tool mask import --domain in.example - <<<x@out.example:x@in.example
  contains "$stderr" "x@out.example is not of the domain in.example"
}

@test "the table takes the spelling of the file" {
  sql "insert into alias ( name, members, all_users ) values( 'ANN@Example.com', 'b@example.com,a@example.com', 1 ),
       ( '\"bob\"@example.com', 'Bob <b@example.com>', 1 );"
  printf 'ann@example.com:a@example.com,b@example.com\nbob@example.com:b@example.com\n' >in.txt
  run -0 tool alias import in.txt
  equal "$output" "0 added, 2 changed, 0 left, 0 removed"
  equal "$(sql 'select name, members, all_users from alias order by name')" \
    $'ann@example.com\ta@example.com,b@example.com\t1\nbob@example.com\tb@example.com\t1'
  sql "update alias set name = '\"bob\"@example.com', members = 'Bob <b@example.com>' where name = 'bob@example.com'"
  run -0 tool alias import --dry-run in.txt
  equal "${lines[0]}" '~ "bob"@example.com:Bob <b@example.com> -> bob@example.com:b@example.com'
  run -0 tool alias import --dry-run --json in.txt
  contains "$output" '"rows":[{"change":"~","line":"bob@example.com:b@example.com","former":"\"bob\"@example.com:Bob <b@example.com>"}]'
  run -0 tool alias import in.txt
  # Two rows of one address: that of the file's spelling stays.
  sql "insert into alias ( name, members ) values( '\"ann\"@example.com', 'x@example.com' );"
  run -0 tool alias import in.txt
  equal "$output" "0 added, 0 changed, 2 left, 1 removed"
  sql "insert into mask values( '\"ann\"@inner.example', 'A@example.com' );"
  run -0 tool mask import - <<<ann@inner.example:a@example.com
  equal "$output" "0 added, 1 changed, 0 left, 0 removed"
  equal "$(masks)" $'ann@inner.example\ta@example.com'
}

@test "replace by an empty file must be forced" {
  tool alias set a@example.com b@example.com
  : >empty.txt
  run -0 tool alias import empty.txt
  equal "$output" "0 added, 0 changed, 1 left, 0 removed"
  run -65 --separate-stderr tool alias import --replace empty.txt
  contains "$stderr" "--force"
  printf '\xef\xbb\xbf\n \t\r\n' >blank.txt
  run -65 tool alias import --replace blank.txt
  equal "$(sql 'select count(*) from alias')" 1
  run -64 tool alias import --force empty.txt
  run -0 tool alias import --replace --force empty.txt
  equal "$output" "0 added, 0 changed, 0 left, 1 removed"
}

@test "public addresses change places, and conflicts are named" {
  printf 'a@inner.example:1@example.com\nb@inner.example:2@example.com\nc@inner.example:3@example.com\n' >in.txt
  tool mask import in.txt
  printf 'a@inner.example:2@example.com\nb@inner.example:3@example.com\nc@inner.example:1@example.com\n' >in.txt
  run -0 tool mask import in.txt
  equal "$output" "0 added, 3 changed, 0 left, 0 removed"
  equal "$(masks)" $'a@inner.example\t2@example.com\nb@inner.example\t3@example.com\nc@inner.example\t1@example.com'
  printf 'd@inner.example:4@example.com\ne@inner.example:1@Example.com\n' >in.txt
  for words in '' --dry-run; do
    run -65 --separate-stderr tool mask import in.txt $words
    equal "$output" ""
    contains "$stderr" "in.txt:2: 'e@inner.example:1@Example.com' has the public address of the row 'c@inner.example:1@example.com' of table mask"
  done
  equal "$(sql 'select count(*) from mask')" 3
  run -0 tool mask import in.txt --replace
  equal "$output" "2 added, 0 changed, 0 left, 3 removed"
}

@test "what only the server takes for one row is refused and named" {
  tool alias set ａnn@example.com a@example.com
  printf 'a@example.com:b@example.com\nann@example.com:b@example.com\nz@example.com:b@example.com\n' >in.txt
  run -65 --separate-stderr tool alias import in.txt
  equal "$output" ""
  contains "$stderr" "in.txt:2: 'ann@example.com:b@example.com': the server takes it for 'ａnn@example.com:a@example.com' of table alias"
  equal "$(aliases)" $'ａnn@example.com\ta@example.com'
  run -0 tool alias import in.txt --replace
  equal "$output" "3 added, 0 changed, 0 left, 1 removed"
  tool mask set a@inner.example ａnn@example.com
  run -65 --separate-stderr tool mask import - <<<'b@inner.example:ANN@example.com'
  contains "$stderr" "'a@inner.example:ａnn@example.com'"
  equal "$(sql 'select count(*) from mask')" 1
}

@test "a row in another spelling is the row of the address, and gets the spelling of the file" {
  tool alias set user@büro.example a@example.com
  printf 'user@xn--bro-hoa.example:b@example.com\n' >in.txt
  run -0 tool alias import in.txt
  equal "$output" "0 added, 1 changed, 0 left, 0 removed"
  equal "$(aliases)" $'user@xn--bro-hoa.example\tb@example.com'
  printf 'jose\xcc\x81@example.com:b@example.com\njos\xc3\xa9@example.com:c@example.com\n' >in.txt
  run -65 --separate-stderr tool alias import in.txt
  contains "$stderr" $'in.txt:2: the alias jos\xc3\xa9@example.com is in line 1 already, spelled jose\xcc\x81@example.com; --new-spelling makes two rows of them'
  tool mask set a@inner.example ann@büro.example
  run -65 --separate-stderr tool mask import - <<<'b@inner.example:ann@xn--bro-hoa.example'
  contains "$stderr" "has the public address of the row 'a@inner.example:ann@büro.example'"
}

@test "two spellings of one address are exported, and imported when asked for" {
  sql "insert into alias ( name, members ) values ( 'a@bücher.example', 'b@example.com' ), ( 'a@xn--bcher-kva.example', 'c@example.com' );
       insert into mask values ( 'a@bücher.example', 'x@käse.example' ), ( 'a@xn--bcher-kva.example', 'x@xn--kse-qla.example' );"
  run -0 --separate-stderr tool alias export
  equal "$output" $'a@bücher.example:b@example.com\na@xn--bcher-kva.example:c@example.com'
  equal "$stderr" "tsl-address-map: warning: row 'a@xn--bcher-kva.example' of table alias has the address of another row, 'a@bücher.example'; an import takes both with --new-spelling"
  tool table create copy
  for kind in alias mask; do
    tool "$kind" export out.txt 2>/dev/null
    run -65 --separate-stderr tool --table copy "$kind" import out.txt
    contains "$stderr" "out.txt:2: the "
    contains "$stderr" "is in line 1 already, spelled a@bücher.example; --new-spelling"
    run -0 tool --table copy "$kind" import --new-spelling out.txt
    equal "$output" "2 added, 0 changed, 0 left, 0 removed"
    run -0 tool --table copy "$kind" import --new-spelling --replace out.txt
    equal "$output" "0 added, 0 changed, 2 left, 0 removed"
    equal "$(tool --table copy "$kind" export 2>/dev/null)" "$(<out.txt)"
  done
  tool table drop copy --yes
  run -0 tool alias import --new-spelling - <<<'A@bücher.example:d@example.com'
  equal "$output" "0 added, 1 changed, 1 left, 0 removed"
  # Loops are found through any spelling.
  run -65 --separate-stderr tool alias import --new-spelling - <<<$'b@example.com:a@xn--bcher-kva.example\na@bücher.example:b@example.com'
  contains "$stderr" "standard input:2: it would lead back to itself: a@bücher.example -> b@example.com -> a@bücher.example"
  printf '%s\n' a@bücher.example:y@example.com a@xn--bcher-kva.example:z@example.com b@example.com:c@example.com c@example.com:b@example.com >in.txt
  run -65 --separate-stderr tool alias import --new-spelling in.txt
  contains "$stderr" "in.txt:3: it would lead back to itself: b@example.com -> c@example.com -> b@example.com"
  # One text to the program: an import can store it once.
  sql "insert into alias ( name, members ) values( '\"a\"@bücher.example', 'b@example.com' );"
  run -0 --separate-stderr tool alias export
  contains "$stderr" "has the address of another row, 'a@bücher.example'; an import takes one of the two"
}

@test "bad lines are all reported, and nothing is written" {
  printf '%s\n' 'good@example.com:a@example.com' 'no colon' '' ':a@example.com' 'b@example.com:' 'c@@d:a@example.com' \
    'd@example.com:x@@y' 'GOOD@example.com:b@example.com' '"open@example.com:a@example.com' >in.txt
  printf 'n\0ul@example.com:a@example.com\nm@example.com:a\0@example.com' >>in.txt
  run -65 --separate-stderr tool alias import in.txt
  equal "$output" ""
  local number
  for number in 2 4 5 6 7 8 9 10 11; do contains "$stderr" "tsl-address-map: in.txt:$number: "; done
  [[ "$stderr" != *in.txt:1:* && "$stderr" != *in.txt:3:* ]]
  contains "$stderr" "in.txt:8: the alias GOOD@example.com is in line 1 already"
  contains "$stderr" "in.txt:10: it contains a NUL character"
  contains "$stderr" "in.txt:11: it contains a NUL character"
  contains "$stderr" "nothing was written"
  equal "$(sql 'select count(*) from alias')" 0
  printf '%s\n' a@inner.example:x@example.com A@inner.example:y@example.com b@inner.example:X@example.com \
    c@inner.example: d@inner.example:x,y d@inner.example >in.txt
  run -65 --separate-stderr tool mask import in.txt
  contains "$stderr" "in.txt:2: the private address A@inner.example is in line 1 already"
  contains "$stderr" "in.txt:3: the public address X@example.com is in line 1 already"
  contains "$stderr" "in.txt:4: the public address is empty"
  contains "$stderr" "in.txt:5: bad public address"
  contains "$stderr" "in.txt:6: there is no colon"
  equal "$(sql 'select count(*) from mask')" 0
}

@test "of very many bad lines a hundred are shown" {
  yes 'no address' | head -250 >in.txt
  run -65 --separate-stderr tool alias import in.txt
  equal "$(grep -c 'in.txt:[0-9]*: ' <<<"$stderr")" 100
  contains "$stderr" "in.txt:100: "
  contains "$stderr" "and 150 more"
}

@test "line ends, byte order marks and blank lines" {
  printf '\xef\xbb\xbfa@example.com:x@example.com\r\n\r\n  \n\nb@example.com: y@example.com , x@example.com \r\n"c:d"@[IPv6:2001:db8::1]:z@[IPv6:::1]' >in.txt
  run -0 tool alias import in.txt
  equal "$output" "3 added, 0 changed, 0 left, 0 removed"
  equal "$(tool alias list)" $'a@example.com\tx@example.com\nb@example.com\tx@example.com,y@example.com\n"c:d"@[IPv6:2001:db8::1]\tz@[IPv6:::1]'
}

@test "a byte order mark inside a file is no part of an address" {
  printf 'a@example.com:x@example.com\n\xef\xbb\xbfb@example.com:x@example.com\n' >in.txt
  run -65 --separate-stderr tool alias import in.txt
  contains "$stderr" "in.txt:2: it begins with a byte order mark"
  # What another program stored is not exported so that it would lose its first character.
  sql "insert into alias ( name, members ) values( concat( unhex( 'EFBBBF' ), 'b@example.com' ), 'x@example.com' )"
  run -65 --separate-stderr tool alias export
  contains "$stderr" "its line would begin with a byte order mark"
  tool alias export out.txt --format jsonl
  before=$(content)
  empty_tables
  tool alias import out.txt --format jsonl
  equal "$(content)" "$before"
}

@test "members without a domain, and literals that mail servers would cut, are bad lines" {
  cat >in.txt <<'END'
a@example.com:root
b@example.com:x@example.com,<|prog>
c@example.com:(x)|prog
d@example.com:"|prog x"
e@example.com:allusers_example.com
f@example.com:allusers_other.example
g@example.com:a@[x:b,evil@evil.example]
h@[x:b,c]:x@example.com
END
  run -65 --separate-stderr tool alias import in.txt
  equal "$(grep -c 'has no domain' <<<"$stderr")" 5
  equal "$(grep -c 'has a comma' <<<"$stderr")" 2
  run -65 tool alias import in.txt --local-names
  sed -i '/^[gh]/d' in.txt
  # The marker of another domain is no local name: mail for it waits.
  run -65 --separate-stderr tool alias import in.txt --local-names
  contains "$stderr" "in.txt:6: its member 'allusers_other.example' means all users only"
  sed -i '/^f/d' in.txt
  run -0 tool alias import in.txt --local-names
  equal "$output" "5 added, 0 changed, 0 left, 0 removed"
  run -65 tool alias add a@example.com daemon
  run -0 tool alias add a@example.com daemon --local-names
  run -65 tool alias set a@example.com 'a@[x:b,c]' --local-names
  run -65 tool mask set 'a@[x:b,c]' x@example.com
}

@test "lines of any length" {
  local members number
  members=$(for number in {10000..11999}; do printf 'm%s@example.com,' "$number"; done)
  members=${members%,}
  [ "${#members}" -gt 20000 ]
  printf 'long@example.com:%s\nshort@example.com:a@example.com\n' "$members" >in.txt
  run -0 tool alias import in.txt
  equal "$output" "2 added, 0 changed, 0 left, 0 removed"
  equal "$(sql 'select members from alias where name = "long@example.com"')" "$members"
  tool alias export out.txt
  cmp in.txt out.txt
  printf '%20000s:a@example.com\n' '' | tr ' ' x >in.txt
  run -65 --separate-stderr tool alias import in.txt
  contains "$stderr" "in.txt:1: bad alias"
}

@test "what is too long for its column or for the server is a bad line" {
  sql "alter table alias modify members varchar( 20 ) not null; alter table mask modify public varchar( 15 ) not null;"
  printf 'a@example.com:12345678@example.com\nb@example.com:123456789@example.com\n' >in.txt
  run -65 --separate-stderr tool alias import in.txt
  contains "$stderr" "in.txt:2: too long for the column members of table alias, which holds 20 characters"
  [[ "$stderr" != *in.txt:1:* ]]
  run -65 --separate-stderr tool mask import - <<<a@inner.example:1234@example.com
  contains "$stderr" "standard input:1: too long for the column public"
  equal "$(content)" ""
  sql "alter table alias modify members mediumtext not null; alter table mask modify public varchar( 255 ) not null;"
  DATABASE= sql 'set global max_allowed_packet = 20480'
  { printf 'a@example.com:x@example.com\nb@example.com:'; seq -f 'm%.0f@example.com' -s , 1000 2999; } >in.txt
  numbered 1 1200 a some-member- >many.txt
  run -65 --separate-stderr tool alias import in.txt
  local refused=$stderr
  run -0 tool alias import many.txt
  equal "$output" "1200 added, 0 changed, 0 left, 0 removed"
  run -0 tool alias import --replace - <<<x@example.com:y@example.com
  equal "$output" "1 added, 0 changed, 0 left, 1200 removed"
  DATABASE= sql 'set global max_allowed_packet = 16777216'
  contains "$refused" "in.txt:2: too long for one statement"
}

@test "every address comes back byte for byte" {
  local local domain number=0 private=()
  for local in "${ODD_LOCALS[@]}"; do
    for domain in "${ODD_DOMAINS[@]}"; do
      number=$((number + 1))
      printf '%s@%s:%s@%s,b@example.com,"x%s:,\\""@example.com\n' "$local" "$domain" "$local" "$domain" "$number"
    done
  done >aliases.txt
  number=0
  for local in "${ODD_LOCALS[@]}"; do
    for domain in "${ODD_DOMAINS[@]}"; do
      number=$((number + 1))
      printf '%s@%s:"%s %s"@x%s.%s\n' "$local" "$domain" "$number" 'o'"'"'b:,\\' "$number" example.org
    done
  done >masks.txt
  local all=$((${#ODD_LOCALS[@]} * ${#ODD_DOMAINS[@]}))
  run -0 tool alias import aliases.txt
  equal "$output" "$all added, 0 changed, 0 left, 0 removed"
  run -0 tool mask import masks.txt
  equal "$output" "$all added, 0 changed, 0 left, 0 removed"
  local before
  before=$(content)
  tool alias export a1.txt
  tool mask export m1.txt
  equal "$(wc -l <a1.txt) $(wc -l <m1.txt)" "$all $all"
  empty_tables
  tool alias import a1.txt
  tool mask import m1.txt
  equal "$(content)" "$before"
  tool alias export a2.txt
  tool mask export m2.txt
  cmp a1.txt a2.txt
  cmp m1.txt m2.txt
}

@test "texts that mean something to SQL touch no row but their own" {
  tool alias set witness@example.com w@example.com
  tool mask set witness@inner.example w@example.com
  printf '%s\n' "o'brien@example.com:\"'); drop table alias; -- \"@example.com" '"a\\"@example.com:"\\"@example.com' \
    '%@example.com:_@example.com' >in.txt
  run -0 tool alias import in.txt
  equal "$output" "3 added, 0 changed, 1 left, 0 removed"
  sed 's/@example.com:/@inner.example:/' in.txt >masks.txt
  run -0 tool mask import masks.txt
  equal "$output" "3 added, 0 changed, 1 left, 0 removed"
  equal "$(tool alias export | sort)" "$({ cat in.txt; echo witness@example.com:w@example.com; } | sort)"
  equal "$(tool mask export | sort)" "$({ cat masks.txt; echo witness@inner.example:w@example.com; } | sort)"
  run -0 tool alias import --replace - <<<witness@example.com:w@example.com
  equal "$output" "0 added, 0 changed, 1 left, 3 removed"
  equal "$(aliases)" $'witness@example.com\tw@example.com'
}

@test "broken rows are never exported as a part of the table" {
  tool alias set good@example.com a@example.com
  sql "insert into alias ( name, members ) values( 'no address', 'a@example.com' ), ( 'empty@example.com', '' );
       insert into mask values( 'x@inner.example', '' ), ( 'y@inner.example', 'y@example.com' );"
  echo before >out.txt
  for words in 'alias export out.txt' 'alias export' 'alias export /dev/stdout' 'mask export' 'mask export out.txt' \
    'mask export new.txt'; do
    # Unquoted: the words of the command.
    run -65 --separate-stderr tool $words
    equal "$output" ""
    contains "$stderr" "broken row '"
  done
  run -65 --separate-stderr tool alias export
  contains "$stderr" "broken row 'no address' of table alias"
  contains "$stderr" "broken row 'empty@example.com' of table alias: the members are empty"
  equal "$(ls -A)" out.txt
  equal "$(<out.txt)" before
  # An import does not mind them, and replace removes them.
  run -0 tool mask import - <<<y@inner.example:y2@example.com
  equal "$output" "0 added, 1 changed, 1 left, 0 removed"
  run -0 tool mask import --replace - <<<y@inner.example:y2@example.com
  equal "$output" "0 added, 0 changed, 1 left, 1 removed"
}

@test "more rows than one statement reads and writes" {
  numbered 1 2501 a m >in.txt
  run -0 tool alias import in.txt
  equal "$output" "2501 added, 0 changed, 0 left, 0 removed"
  tool alias export out.txt
  equal "$(sort out.txt)" "$(sort in.txt)"
  sed -n 's/:m/:n/;2,1800p' in.txt >changed.txt
  run -0 tool alias import --replace changed.txt
  equal "$output" "0 added, 1799 changed, 0 left, 702 removed"
  equal "$(tool alias export | sort)" "$(sort changed.txt)"
}

@test "a file is replaced as a whole, with its permissions, through links" {
  tool alias set a@example.com b@example.com
  printf old >real.txt
  chmod 640 real.txt
  ln -s real.txt link.txt
  run -0 tool alias export link.txt
  [ -L link.txt ]
  equal "$(<real.txt)" a@example.com:b@example.com
  equal "$(stat -c %a real.txt)" 640
  (umask 027 && tool alias export new.txt)
  equal "$(stat -c %a new.txt)" 640
  equal "$(ls -A)" $'link.txt\nnew.txt\nreal.txt'
}

@test "files that cannot be written" {
  tool alias set a@example.com b@example.com
  mkdir directory
  for target in directory missing/out.txt /dev/full /proc/nothing; do
    run -74 --separate-stderr tool alias export "$target"
    equal "$output" ""
    contains "$stderr" "writing $target"
  done
  run -74 bash -c '"$TSL_TOOL" --local="$SERVER" alias export >/dev/full'
  equal "$(ls -A)" directory
  # A disk that is full: the old file stays, and nothing next to it.
  numbered 1 5000 a m | tool alias import -
  printf old >out.txt
  run -74 --separate-stderr bash -c 'ulimit -f 8; "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias export out.txt'
  contains "$stderr" "writing out.txt: File too large"
  equal "$(<out.txt)" old
  equal "$(ls -A)" $'directory\nout.txt'
}

@test "files that cannot be read" {
  mkdir directory
  for source in directory missing.txt; do
    run -65 --separate-stderr tool alias import "$source"
    equal "$output" ""
    contains "$stderr" "$source: "
  done
  # The tool's own standard input: bats would put a pipe of its own into its place.
  run -65 bash -c '"$TSL_TOOL" --local="$SERVER" mask import - <&-'
  run -64 tool alias import
}

@test "without permission" {
  tool alias set a@example.com b@example.com
  printf 'c@example.com:d@example.com\n' >in.txt
  chmod 000 in.txt
  mkdir closed
  chmod 555 closed
  # An administrator may do anything, unless that right is given up.
  local as=()
  if [ "$(id -u)" = 0 ]; then
    as=(setpriv --inh-caps=-dac_override,-dac_read_search --bounding-set=-dac_override,-dac_read_search)
  fi
  run -65 --separate-stderr "${as[@]}" "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias import in.txt
  contains "$stderr" "in.txt: Permission denied"
  run -74 --separate-stderr "${as[@]}" "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias export closed/out.txt
  contains "$stderr" "closed/out.txt: Permission denied"
  chmod 444 in.txt
  run -74 --separate-stderr "${as[@]}" "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias export in.txt
  equal "$(<in.txt)" c@example.com:d@example.com
  equal "$(sql 'select count(*) from alias')" 1
}

@test "a named table, and one that is not there" {
  sql 'create table alias_sales like alias;'
  run -0 tool --table sales alias import - <<<a@example.com:b@example.com
  run -0 tool --table sales alias export
  equal "$output" a@example.com:b@example.com
  run -0 tool alias export
  equal "$output" ""
  sql 'drop table alias_sales;'
  run -78 --separate-stderr tool --table missing alias import - <<<a@example.com:b@example.com
  contains "$stderr" "nothing was written; create the tables with 'tsl-address-map table create missing'"
  run -78 tool --table missing mask export out.txt
  [ ! -e out.txt ]
}

@test "no server and no rights" {
  printf '[client]\nsocket=/nonexistent/db.sock\n' >nowhere.cnf
  DATABASE= sql "create or replace user mail@localhost identified by 'secret'; grant select on ts_address_map.* to mail@localhost;"
  local file
  file=$(option_file mail secret)
  echo a@example.com:b@example.com >in.txt
  for words in 'alias export' 'alias import in.txt' 'mask export out.txt' 'mask import in.txt'; do
    run -75 "$TSL_TOOL" --option-file nowhere.cnf $words
  done
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$file" alias import in.txt
  contains "$stderr" "nothing was written; as an administrator of the database server: GRANT"
  run -0 "$TSL_TOOL" --option-file "$file" alias import in.txt --dry-run
  equal "$(sql 'select count(*) from alias')" 0
}

@test "progress is for terminals" {
  numbered 1 1200 a m >in.txt
  run -0 --separate-stderr tool alias import in.txt
  equal "$output" "1200 added, 0 changed, 0 left, 0 removed"
  equal "$stderr" ""
}

# Waits until the server has nothing left of clients that went. Its patience is for a rollback on a
# busy machine.
wait_until_idle() {
  local end=$((SECONDS + 240))
  while ((SECONDS < end)); do
    [ "$(sql "select ( select count(*) from information_schema.innodb_trx )
             + ( select count(*) from information_schema.processlist where id != connection_id() and db = 'ts_address_map' )")" = 0 ] &&
      return
    sleep 0.05
  done
  echo "the server did not end the killed client's transaction"
  return 1
}

@test "a killed import leaves the old table or the new one" {
  numbered 1 "$ROWS" a old >old.txt
  numbered $((ROWS / 2)) $((ROWS + ROWS / 2)) a new >new.txt
  tool alias import old.txt
  local old new now kill start end took
  start=$(date +%s%N)
  tool alias import --replace new.txt
  end=$(date +%s%N)
  took=$(((end - start) / 1000))
  new=$(tool alias export | sha256sum)
  tool alias import --replace old.txt
  old=$(tool alias export | sha256sum)
  [ "$old" != "$new" ]
  for ((kill = 0; kill < KILLS; kill++)); do
    "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias import --replace new.txt >out.txt 2>&1 &
    local pid=$!
    # A random moment of the time that a whole import takes.
    sleep "$(printf '%d.%06d' 0 $((RANDOM * 32768 % took % 1000000)))"
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    wait_until_idle
    now=$(tool alias export | sha256sum)
    [ "$now" = "$old" ] || [ "$now" = "$new" ]
    [ "$now" = "$old" ] || tool alias import --replace old.txt
  done
}

@test "an interrupted export leaves the old file and nothing next to it" {
  numbered 1 3000 a old | tool alias import -
  echo before >out.txt
  # The server makes it wait while it reads, so that the signal comes in the middle.
  sql 'create table alias_held like alias; insert into alias_held select * from alias;'
  exec {hold}> >(mariadb --defaults-file="$SERVER/client.cnf" ts_address_map -N -n >locked.txt)
  echo "lock tables alias_held write; select 'locked';" >&"$hold"
  until grep -q locked locked.txt; do sleep 0.05; done
  env --default-signal=TERM "$TSL_TOOL" --option-file "$SERVER/client.cnf" --table held alias export out.txt &
  local pid=$! code=0
  until ls -A | grep -q '^\.tsl-address-map-'; do sleep 0.05; done
  kill -TERM "$pid"
  wait "$pid" || code=$?
  equal "$code" 143
  exec {hold}>&-
  wait_until_idle
  sql 'drop table alias_held;'
  equal "$(<out.txt)" before
  equal "$(ls -A)" $'locked.txt\nout.txt'
}

@test "a connection that is lost in the middle of an import" {
  tool alias set a@example.com b@example.com
  echo a@example.com:new@example.com >in.txt
  # Another writer makes the import wait inside its transaction.
  exec {hold}> >(mariadb --defaults-file="$SERVER/client.cnf" ts_address_map -N -n >locked.txt)
  echo "begin; update alias set members='c@example.com'; select 'locked';" >&"$hold"
  until grep -q locked locked.txt; do sleep 0.05; done
  "$TSL_TOOL" --option-file "$SERVER/client.cnf" alias import in.txt >out.txt 2>err.txt &
  local pid=$! code=0 victim victims=0
  # It is repeated, and lost again.
  while kill -0 "$pid" 2>/dev/null; do
    victim=$(sql "select id from information_schema.processlist where info like '%members from alias for update%' and id != connection_id()")
    [ -z "$victim" ] || ! sql "kill $victim" 2>/dev/null || victims=$((victims + 1))
  done
  ((victims >= 3))
  wait "$pid" || code=$?
  equal "$code" 75
  equal "$(<out.txt)" ""
  contains "$(<err.txt)" "nothing was written"
  echo "rollback;" >&"$hold"
  exec {hold}>&-
  wait_until_idle
  equal "$(aliases)" $'a@example.com\tb@example.com'
}

@test "every command has help with examples" {
  for words in 'alias export' 'alias import' 'mask export' 'mask import'; do
    # Unquoted: the words of the command.
    run -0 --separate-stderr "$TSL_TOOL" $words --help
    contains "$output" "Examples:"
    contains "$output" "tsl-address-map $words"
    equal "$stderr" ""
  done
}
