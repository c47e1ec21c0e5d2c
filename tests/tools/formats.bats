# The formats of alias and mask, export and import: what goes out comes back, what a format cannot
# express is refused, and how a format is found out. Cycles that an import would make.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() {
  empty_tables
  cd "$BATS_TEST_TMPDIR"
}

# The bytes of the tables.
aliases() { sql 'select hex( name ), hex( members ) from alias order by name'; }
masks() { sql 'select hex( private ), hex( public ) from mask order by private'; }

# Local parts that mean something to one format or another, but for blanks and a "#" at the start,
# and for what aliases(5) does not deliver to.
odd_names() {
  printf '%s\n' ann "o'hara" '"com,ma"' '"co:lon"' '"a\"b"' '"back\\slash"' '"at@sign"' 'a#b' \
    '{brace}' 'x|y' 'a/b' '=eq' '$dollar' '%25' 'bang!x' '"<angle>"' '"(comment)"' '"[x]"' 'a+b' \
    '"semi;colon"' 'ümlaut' '日本' '?' '^x' '`tick`' '~home' '&and' '"."' '""' 'owner-list' \
    'Mixed.Case'
}
blank_names() { printf '%s\n' '"two words"' '" "' '" lead"' '"trail "'; }
special_names() { printf '%s\n' '|pipe' '/file' '"|quoted pipe"' '":include:x"'; }

# Lines of a native file: each name of the standard input as an alias in the domain $1, all names
# being its members.
table_of() {
  local names members=
  mapfile -t names
  for name in "${names[@]}"; do members+="${members:+, }$name@member.example"; done
  for name in "${names[@]}"; do printf '%s@%s:%s\n' "$name" "$1" "$members"; done
}

# Exports the aliases or masks $1 with the options behind it, and imports them into an empty table.
round_trip() {
  local kind=$1 before
  shift
  before=$(aliases; masks)
  tool "$kind" export out.txt "$@"
  empty_tables
  tool "$kind" import out.txt "$@" >/dev/null
  equal "$(aliases; masks)" "$before"
}

# The same in the format $2, which the import finds out.
found_trip() {
  local kind=$1 format=$2 before
  shift 2
  before=$(aliases; masks)
  tool "$kind" export out.txt --format "$format" "$@"
  empty_tables
  tool "$kind" import out.txt "$@" >/dev/null
  equal "$(aliases; masks)" "$before"
}

@test "aliases: native, jsonl and csv bring every row back" {
  {
    {
      odd_names
      blank_names
      special_names
      echo '#hash'
    } | table_of example.com
    echo 'x@[IPv6:2001:db8::1]:y@[192.0.2.1]'
    echo 'all@example.com:allusers_example.com'
    printf 'x\xef\xbb\xbfmark@example.com:x@example.com\n'
  } >in.txt
  tool alias import in.txt --format native
  equal "$(sql 'select count(*) from alias')" 43
  for format in native jsonl csv; do
    round_trip alias --format "$format"
    found_trip alias "$format"
  done
}

@test "aliases: virtual brings back what it can express" {
  { odd_names; special_names | grep -v ' '; } | table_of example.com >in.txt
  # A blank in a member makes no difference.
  echo 'spaced@example.com:"two words"@example.com' >>in.txt
  tool alias import in.txt --format native
  equal "$(sql 'select count(*) from alias')" 35
  round_trip alias --format virtual
  found_trip alias virtual
}

@test "aliases: aliases(5) brings back what it can express" {
  { odd_names | grep -v '^""$'; blank_names; echo '#hash'; } | table_of Example.com >in.txt
  tool alias import in.txt --format native
  equal "$(sql 'select count(*) from alias')" 35
  round_trip alias --format aliases --domain Example.com
}

@test "masks: native, jsonl, csv and virtual bring every row back" {
  {
    { odd_names; special_names | grep -v ' '; } | grep -v '\*' |
      while read -r name; do printf '%s@inner.example:%s@example.com\n' "$name" "$name"; done
    echo 'x@inner.example:"two words"@example.com'
    echo '*@b.example:*@example.com'
  } >in.txt
  sed -i 's/\\/&/g' in.txt
  tool mask import in.txt --format native
  for format in native jsonl csv virtual; do
    round_trip mask --format "$format"
    found_trip mask "$format"
  done
  contains "$(tool mask export --format virtual)" $'@b.example @example.com\n'
}

@test "how the formats look" {
  tool alias set team@example.com bob@example.net ann@example.com
  tool alias set '"a\"b"@example.com' ann@example.com
  tool mask set ann@inner.example ann@example.com
  equal "$(tool alias export --format native)" \
    $'"a\\"b"@example.com:ann@example.com\nteam@example.com:ann@example.com,bob@example.net'
  equal "$(tool alias export --format jsonl)" \
    $'{"address":"\\"a\\\\\\"b\\"@example.com","members":["ann@example.com"]}\n{"address":"team@example.com","members":["ann@example.com","bob@example.net"]}'
  equal "$(tool alias export --format csv)" \
    $'address,members\r\n"""a\\""b""@example.com",ann@example.com\r\nteam@example.com,"ann@example.com,bob@example.net"\r'
  equal "$(tool alias export --format virtual)" \
    $'"a\\"b"@example.com ann@example.com\nteam@example.com ann@example.com,bob@example.net'
  equal "$(tool alias export --format aliases --domain example.com)" \
    $'"a\\"b": ann@example.com\nteam: ann@example.com,bob@example.net'
  equal "$(tool mask export --format jsonl)" \
    '{"private":"ann@inner.example","public":"ann@example.com"}'
  equal "$(tool mask export --format csv)" $'private,public\r\nann@inner.example,ann@example.com\r'
  equal "$(tool mask export --format virtual)" "ann@inner.example ann@example.com"
  run -0 tool alias export out.txt --format csv --json
  equal "$output" '{"file":"out.txt","rows":2}'
  empty_tables
  equal "$(tool alias export --format csv)" $'address,members\r'
  tool alias export empty.csv --format csv
  run -0 tool alias import empty.csv
  equal "$output" "0 added, 0 changed, 0 left, 0 removed"
}

# Fails unless the table cannot be exported as $1 with the options behind it, and the reason has the
# text $2.
refused() {
  local format=$1 reason=$2
  shift 2
  rm -f out.txt
  run -65 --separate-stderr tool "$@" export out.txt --format "$format" ${DOMAIN:+--domain "$DOMAIN"}
  contains "$stderr" "the format $format cannot express it: $reason"
  [ ! -e out.txt ]
  run -65 --separate-stderr tool "$@" export --format "$format" ${DOMAIN:+--domain "$DOMAIN"}
  equal "$output" ""
}

@test "what a format cannot express is refused, and nothing is written" {
  tool alias set a@example.com x@example.com
  tool alias set '"two words"@example.com' x@example.com
  refused virtual "a key ends at a blank" alias
  empty_tables
  tool alias set '#hash@example.com' x@example.com
  refused virtual "a line that begins with '#' is a comment" alias
  empty_tables
  tool alias set all@example.com allusers_example.com
  refused virtual "the member 'allusers_example.com' has no domain" alias
  DOMAIN=example.com
  refused aliases "the member 'allusers_example.com' has no domain" alias
  for member in '|pipe@example.com' '/file@example.com' '"|a b"@example.com' \
    '":include:x"@example.com'; do
    empty_tables
    tool alias set a@example.com b@example.com "$member"
    refused aliases "the member '$member' means something else" alias
  done
  empty_tables
  tool alias set '""@example.com' b@example.com
  refused aliases "a name cannot be empty" alias
  empty_tables
  tool alias set a@EXAMPLE.com b@example.com
  refused aliases "names have no domain there" alias
  DOMAIN=
  for pair in '*@inner.example x@example.com' 'x@inner.example *@example.com' \
    '*x@inner.example *@example.com'; do
    empty_tables
    tool mask set ${pair% *} "${pair#* }"
    refused virtual "only '*@domain' with '*@domain'" mask
  done
}

@test "a virtual map as people write it" {
  cat >virtual <<'END'
# A comment, and a line that is continued by one that is blank

team@example.com   ann@example.com,
	bob@example.net
  # a comment within
    , "two words"@example.com
Post@example.com	Ann <ann@example.com>
END
  run -0 tool alias import virtual
  equal "$output" "2 added, 0 changed, 0 left, 0 removed"
  equal "$(tool alias list)" \
    $'Post@example.com\tann@example.com\nteam@example.com\tann@example.com,bob@example.net,"two words"@example.com'
  cat >canonical <<'END'
# generic(5)
ann@inner.example ann@example.com
@inner.example    @example.com
END
  run -0 tool mask import canonical
  equal "$(tool mask list)" \
    $'*@inner.example\t*@example.com\nann@inner.example\tann@example.com'
}

@test "an alias file as people write it" {
  cat >aliases <<'END'
# Basic system aliases

MAILER-DAEMON: postmaster
postmaster:    root
root:          ann,
               "joe smith",
	# nobody else
               carl@example.net
"two words" : ann
team@example.net: ann@example.com
END
  run -65 --separate-stderr tool alias import aliases
  contains "$stderr" "its format cannot be recognised"
  run -0 tool alias import aliases --format aliases --default-domain example.com
  equal "$output" "5 added, 0 changed, 0 left, 0 removed"
  equal "$(tool alias list)" \
    $'MAILER-DAEMON@example.com\tpostmaster@example.com\npostmaster@example.com\troot@example.com\nroot@example.com\tann@example.com,carl@example.net,"joe smith"@example.com\nteam@example.net\tann@example.com\n"two words"@example.com\tann@example.com'
  sed -i '/team@/d' aliases
  empty_tables
  run -0 tool alias import aliases --default-domain example.com --json
  equal "$output" '{"added":4,"changed":0,"left":0,"removed":0}'
  run -65 --separate-stderr tool alias import aliases
  contains "$stderr" "aliases:3: bad name: 'MAILER-DAEMON' has no domain; --default-domain gives one"
  cat >special <<'END'
good: ann
a: :include:/etc/list
b: |/usr/bin/filter
c: ann, "|/usr/bin/vacation ann, bob"
d: /dev/null
e: ann, \ann
f:
g: error:550 No such user
Good: bob
h: ann
END
  before=$(aliases)
  run -65 --separate-stderr tool alias import special --default-domain example.com
  contains "$stderr" "special:2: the target ':include:/etc/list' is not an address: it includes a file"
  contains "$stderr" "special:3: the target '|/usr/bin/filter' is not an address: it delivers to a command"
  contains "$stderr" "special:4: the target '\"|/usr/bin/vacation ann, bob\"' is not an address"
  contains "$stderr" "special:5: the target '/dev/null' is not an address: it delivers to a file"
  contains "$stderr" "special:6: bad members"
  contains "$stderr" "special:7: the members are empty"
  contains "$stderr" "special:8: the target 'error:550 No such user' is not an address: it refuses the mail"
  contains "$stderr" "special:9: the alias Good@example.com is in line 1 already"
  equal "$(aliases)" "$before"
}

@test "bad lines are left out if asked, and listed" {
  printf 'good: ann\nbad: |/usr/bin/filter\nGood: bob\nlist: ann,\n  :include:/etc/list\nh: bob\n' >special
  printf 'a@in:a@out\nb@in:A@out\na@IN:b@out\nc@in:b@out\nno\n' >pairs
  run -0 --separate-stderr tool alias import special --default-domain example.com --skip-bad --dry-run
  equal "$output" $'+ good@example.com:ann@example.com\n+ h@example.com:bob@example.com\n2 added, 0 changed, 0 left, 0 removed, 3 skipped'
  equal "$(aliases)" ""
  run -0 --separate-stderr tool alias import special --default-domain example.com --skip-bad
  equal "$output" "2 added, 0 changed, 0 left, 0 removed, 3 skipped"
  equal "$(grep -o 'special:[0-9]*: .....' <<<"$stderr")" \
    $'special:2: the t\nspecial:3: the a\nspecial:4: the t'
  equal "$(tool alias list)" $'good@example.com\tann@example.com\nh@example.com\tbob@example.com'
  run -0 --separate-stderr tool mask import pairs --format native --skip-bad --json
  equal "$output" '{"added":2,"changed":0,"left":0,"removed":0,"skipped":[{"line":2,"reason":"the public address A@out is in line 1 already"},{"line":3,"reason":"the private address a@IN is in line 1 already"},{"line":5,"reason":"there is no colon after an address"}]}'
  equal "$(tool mask list)" $'a@in\ta@out\nc@in\tb@out'
  # Rows whose lines are bad would be removed.
  run -64 tool alias import special --default-domain example.com --skip-bad --replace
  # A long list is shown to its end.
  seq 150 >numbers
  run -0 --separate-stderr tool alias import numbers --skip-bad
  equal "$(grep -c '^tsl-address-map: numbers:' <<<"$stderr")" 150
}

@test "one domain is exported" {
  # More rows than one statement reads, and names that a pattern would match.
  { seq -f 'a%04g@my_domain.example:x@example.com' 1500; seq -f 'b%04g@myxdomain.example:x@example.com' 1500; } |
    tool alias import - >/dev/null
  tool alias set z@MY_domain.example y@example.com
  tool alias set z@sub.my_domain.example y@example.com
  sql "insert into alias ( name, members ) values( 'bad@myxdomain.example', 'a b' )"
  run -0 tool alias export --domain My_Domain.example
  equal "${#lines[@]} ${lines[0]} ${lines[1500]}" \
    "1501 a0001@my_domain.example:x@example.com z@MY_domain.example:y@example.com"
  run -0 tool alias export out.txt --domain sub.my_domain.example --json
  equal "$(cat out.txt)" z@sub.my_domain.example:y@example.com
  equal "$(tool alias export --format aliases --domain sub.my_domain.example)" "z: y@example.com"
  equal "$(tool alias export --domain none.example)" ""
  run -65 tool alias export --domain myxdomain.example
  tool alias set a@bücher.example x@example.com
  tool alias set b@xn--bcher-kva.example x@example.com
  equal "$(tool alias export --domain BÜCHER.example | cut -c 1)" $'a\nb'
  tool mask set ann@inner.example ann@example.com
  tool mask set '*@other.example' '*@example.com'
  equal "$(tool mask export --domain other.example)" '*@other.example:*@example.com'
}

@test "what list --json writes can be imported" {
  tool alias set team@example.com ann@example.com bob@example.com
  tool alias set '"a,]"@example.com' allusers_example.com
  tool mask set ann@inner.example ann@example.com
  before=$(aliases; masks)
  tool alias list --json >alias.json
  tool mask list --json >mask.json
  empty_tables
  run -0 tool alias import alias.json
  equal "$output" "2 added, 0 changed, 0 left, 0 removed"
  run -0 tool mask import mask.json
  equal "$(aliases; masks)" "$before"
  empty_tables
  tool alias list --json >alias.json
  run -0 tool alias import alias.json
  equal "$output" "0 added, 0 changed, 0 left, 0 removed"
  run -65 --separate-stderr tool alias import alias.json --replace
  contains "$stderr" "it is empty"
}

@test "a CSV file of another program" {
  printf '\xef\xbb\xbf"Name";"E-Mail";"Ziel"\r\n"T; U";"t@example.com";"ann@example.com,bob@example.com"\r\n' >excel.csv
  run -65 tool alias import excel.csv
  run -65 --separate-stderr tool alias import excel.csv --format csv
  contains "$stderr" "excel.csv:1: the header does not have the column 'address' once"
  contains "$stderr" "hint: nothing was written; --columns"
  run -64 tool alias import excel.csv --columns e-mail
  run -64 tool alias import excel.csv --columns e-mail,ziel --format virtual
  run -0 tool alias import excel.csv --columns e-mail,ziel
  equal "$(tool alias list)" $'t@example.com\tann@example.com,bob@example.com'
  printf 'Public;Note;Private\na@example.com;;a@in.example\n' >masks.csv
  run -0 tool mask import masks.csv
  equal "$(tool mask list)" $'a@in.example\ta@example.com'
}

# Fails unless the alias file with the lines of standard input in the format $1 is refused for $2.
bad() {
  run -65 --separate-stderr tool "${KIND:-alias}" import - --format "$1"
  contains "$stderr" "standard input:$2"
}

@test "bad lines are named" {
  bad jsonl "1: it is not a JSON object" <<<'{"address":'
  bad jsonl "1: it is not a JSON object" <<<'["a@example.com"]'
  bad jsonl "2: it does not have the keys" <<<$'\n{"address":"a@example.com"}'
  bad jsonl "1: it does not have the keys" <<<'{"address":"a@example.com","members":[],"x":1}'
  bad jsonl "1: 'address' is not a string" <<<'{"address":1,"members":["b@example.com"]}'
  bad jsonl "1: 'members' is not a list" <<<'{"address":"a@example.com","members":"b@example.com"}'
  bad jsonl "1: 'members' contains something" <<<'{"address":"a@example.com","members":[1]}'
  bad jsonl "1: " <<<'{"address":"a@example.com","members":["b@example.com,c@example.com"]}'
  bad jsonl "1: a member is empty" <<<'{"address":"a@example.com","members":[""]}'
  bad jsonl "1: it contains a NUL" <<<'{"address":"a@example.com","members":["b\u0000@example.com"]}'
  bad jsonl "1: bad alias: it contains a NUL" <<<'{"address":"a\u0000@example.com","members":["b@example.com"]}'
  bad jsonl "1: the members are empty" <<<'{"address":"a@example.com","members":[]}'
  bad csv "1: the header does not have the column 'address' once" <<<'a@example.com,b@example.com'
  bad csv "2: its number of fields is 1, and not 2" <<<$'address,members\na@example.com'
  bad csv "2: its number of fields is 3, and not 2" <<<$'address,members\na@example.com,b@example.com,c@example.com'
  bad csv "2: a field has no closing quote" <<<$'address,members\na@example.com,"b@example.com'
  bad csv "2: there is text after a closing" <<<$'address,members\n"a@example.com"x,b@example.com'
  bad csv "2: a field without quotes contains a quote" <<<$'address,members\na@example.com,b"@example.com'
  bad virtual "1: there is nothing after the key" <<<'a@example.com'
  bad virtual "1: it continues a line" <<<' a@example.com b@example.com'
  bad virtual "1: an alias cannot mean a whole domain" <<<'@example.com b@example.com'
  bad virtual "2: bad members" <<<$'#\na@example.com b'
  bad virtual "3: the alias a@example.com is in line 1" <<<$'a@example.com b@x.example\n\na@example.com c@x.example'
  bad aliases "1: there is no colon" <<<'a@example.com b@example.com'
  bad aliases "1: it continues a line" <<<' a@example.com: b@example.com'
  bad aliases "1: bad members: 'b' has no domain" <<<'a@example.com: b'
  KIND=mask
  bad jsonl "1: 'public' is not a string" <<<'{"private":"a@example.com","public":["b@example.com"]}'
  bad csv "1: the header does not have the column 'private' once" <<<'address,members'
  bad virtual "1: a whole domain can be shown as" <<<'@inner.example b@example.com'
  bad virtual "1: a '*' would make it" <<<'*@inner.example *@example.com'
  equal "$(aliases; masks)" ""
}

@test "the format is found out, or asked for" {
  run -65 --separate-stderr tool alias import - <<<$'# only a comment'
  contains "$stderr" "its format cannot be recognised from its first lines"
  contains "$stderr" "--format native|jsonl|csv|virtual|aliases"
  run -65 tool alias import - <<<$'a@example.com:b@example.com\na@example.com b@example.com'
  run -65 tool alias import - <<<$'# comment\na@example.com:b@example.com'
  run -0 tool alias import - <<<$'# comment\na@example.com b@example.com'
  run -0 tool alias import - --domain example.com <<<$'# comment\n\nroot: ann'
  run -0 tool alias import - --format virtual --default-domain example.com <<<$'info ann, bob@example.net'
  equal "$(tool alias show info@example.com)" $'ann@example.com\nbob@example.net'
  run -0 tool alias remove info@example.com
  run -0 tool alias import - --format native <<<$'#a@example.com:b@example.com'
  run -0 tool alias import - <<<$'\xef\xbb\xbfaddress,members\r\nc@example.com,d@example.com\r'
  equal "$(tool alias list | cut -f1)" $'#a@example.com\na@example.com\nc@example.com\nroot@example.com'
}

@test "wrong usage" {
  run -64 tool alias export --format xml
  run -64 tool alias import - --format xml </dev/null
  run -64 tool mask export --format aliases
  run -64 tool mask import - --format aliases </dev/null
  run -65 tool mask export --domain 'a b'
  run -64 --separate-stderr tool alias export --format aliases
  contains "$stderr" "give --domain DOMAIN"
  run -64 tool alias import - --format csv --default-domain example.com <<<address,members
  run -64 tool alias export --format csv --json
}

@test "an import refuses to lead to an all-users alias and to others" {
  printf '%s\n' all@example.com:allusers_example.com top@example.com:all@example.com >in.txt
  run -0 --separate-stderr tool alias import in.txt
  equal "$stderr" ""
  before=$(aliases)
  for option in --dry-run --skip-bad --allow-cycle; do
    run -65 --separate-stderr tool alias import "$option" - <<<$'x@example.com:y@example.com\nteam@example.com:top@example.com,x@example.com'
    contains "$stderr" "standard input:2: it leads to all@example.com, whose member 'allusers_example.com' means"
    contains "$stderr" "two lists side by side"
  done
  run -65 --separate-stderr tool alias import - <<<team@example.net:all@example.com
  run -65 --separate-stderr tool alias import - <<<team@example.com:allusers_example.net --local-names
  equal "$(aliases)" "$before"
  # From below: the list is in the table.
  tool alias import - <<<list@example.com:team@example.com,ann@example.com
  run -65 --separate-stderr tool alias import - <<<team@example.com:all@example.com
  contains "$stderr" "standard input:1: alias list@example.com leads to all@example.com, whose member"
  # A row that goes leaves an address.
  tool alias import - <<<list@example.com:all@example.com,top@example.com
  printf '%s\n' all@example.com:allusers_example.com list@example.com:all@example.com,top@example.com >in.txt
  run -65 --separate-stderr tool alias import --replace in.txt
  contains "$stderr" "in.txt:2: it leads to all@example.com, whose member"
  # What is so already is a warning in lines that change.
  sql "insert into alias (name, members) values ('mixed@example.com', 'all@example.com,x@example.com')"
  run -0 --separate-stderr tool alias import - <<<mixed@example.com:all@example.com,y@example.com
  contains "$stderr" "warning: standard input:1: it leads to all@example.com, whose member"
  run -0 --separate-stderr tool alias import - <<<$'mixed@example.com:all@example.com,y@example.com\nnew@example.com:x@example.com'
  equal "$stderr" ""
}

@test "an import refuses to make a cycle" {
  printf '%s\n' a@example.com:b@example.com b@example.com:c@example.com >in.txt
  tool alias import in.txt
  before=$(aliases)
  run -65 --separate-stderr tool alias import - <<<C@example.com:x@example.com,A@example.com
  contains "$stderr" \
    "standard input:1: it would lead back to itself: C@example.com -> a@example.com -> b@example.com -> C@example.com"
  contains "$stderr" "--allow-cycle"
  run -65 tool alias import --dry-run - <<<c@example.com:a@example.com
  run -65 --separate-stderr tool alias import - <<<$'x@example.com:y@example.com\ny@example.com:"x"@example.com'
  contains "$stderr" "standard input:1: it would lead back to itself: x@example.com -> y@example.com"
  equal "$(aliases)" "$before"
  # One that names itself is delivered to; rows that go, or are changed, lead nowhere any more.
  run -0 tool alias import - <<<self@example.com:self@example.com,x@example.com
  run -0 tool alias import - <<<$'c@example.com:a@example.com\nb@example.com:x@example.com'
  run -0 tool alias import --replace - <<<$'b@example.com:y@example.com\nc@example.com:a@example.com'
  # The row that closes it is one of the table, in another spelling.
  sql "insert into alias (name, members) values ('a@example.com', '\"b\" @example.com (x)')"
  run -65 tool alias import - <<<$'b@example.com:c@example.com,y@example.com'
  run -0 tool alias import --allow-cycle - <<<$'b@example.com:c@example.com,y@example.com'
  # What is there is not the import's, as long as it changes none of its rows.
  run -0 tool alias import - <<<new@example.com:a@example.com
  run -0 tool alias import - <<<b@example.com:c@example.com,y@example.com
  equal "$output" "0 added, 0 changed, 4 left, 0 removed"
  # A change of a row that is in a loop already is not refused for that.
  run -0 --separate-stderr tool alias import - <<<b@example.com:c@example.com,z@example.com
  contains "$stderr" "warning: standard input:1: it is in an alias loop already: b@example.com -> c@example.com"
  run -65 tool alias import - <<<b@example.com:a@example.com,c@example.com
}
