# check: what is wrong with the tables; and the refusal to close an alias loop.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() {
  DATABASE= sql 'drop database if exists ts_address_map;'
  tool init >/dev/null
  # Otherwise each alias for all users is worth a notice.
  tool alias rule set default --writers authenticated
  tool domain add users.example 2>/dev/null >/dev/null
}

rows() {
  local row values=
  for row in "$@"; do values+="${values:+,}( '${row%%:*}', '${row#*:}' )"; done
  sql "insert into alias ( name, members ) values $values;"
}

masks() {
  local row values=
  for row in "$@"; do values+="${values:+,}( '${row%%:*}', '${row#*:}' )"; done
  sql "insert into mask values $values;"
}

# Fails unless the check exits with $1 and finds exactly $2: lines of the first four columns.
finds() {
  run "-$1" --separate-stderr tool check
  equal "$(cut -f1-4 <<<"$output" | sort)" "$(sort <<<"$2")"
}

@test "clean tables" {
  tool user add ann@users.example
  rows all@users.example:allusers_users.example team@x.example:ann@users.example,cid@x.example \
    self@x.example:self@x.example,cid@x.example
  masks '*@in.example:*@out.example' ann@in.example:a@out.example
  run -0 --separate-stderr tool check
  equal "$output" ""
  equal "$stderr" "tsl-address-map: 0 errors, 0 warnings, 0 notices"
  run -0 --separate-stderr tool check --json
  equal "$output" "[]"
  tool user remove ann@users.example
}

@test "an alias loop that leaves addresses without mail, and what leads into it" {
  rows b@x.example:c@x.example c@x.example:a@x.example a@x.example:b@x.example top@x.example:a@x.example
  finds 65 $'error\tcycle\talias\ta@x.example\nerror\texpands-to-nothing\talias\ttop@x.example'
  contains "$output" "a@x.example -> b@x.example -> c@x.example -> a@x.example; mail for 3 addresses reaches nobody: a@x.example, b@x.example, c@x.example"
  contains "$output" "tsl-address-map alias tree a@x.example"
  run -65 --separate-stderr tool check --json
  contains "$output" '{"severity":"error","finding":"cycle","table":"alias","address":"a@x.example","what":"a@x.example -> b@x.example -> c@x.example -> a@x.example; mail for 3 addresses reaches nobody: a@x.example, b@x.example, c@x.example","command":"tsl-address-map alias tree a@x.example","addresses":["a@x.example","b@x.example","c@x.example"]}'
}

@test "an alias loop with other members" {
  rows a@x.example:b@x.example,cid@x.example b@x.example:a@x.example
  finds 65 $'warning\tcycle\talias\ta@x.example'
  contains "$output" "mail reaches the other members"
}

@test "members that nobody has, reported once" {
  tool user add ann@users.example
  rows a@x.example:ann@users.example,ghost@users.example b@x.example:GHOST@users.example,cid@x.example
  finds 65 $'warning\tdangling-member\talias\tghost@users.example'
  contains "$output" "tsl-address-map alias who ghost@users.example"
  tool user remove ann@users.example
}

@test "members with an extension, and members and masks of disabled users" {
  tool user add ann@users.example
  tool user add gone@users.example --kind disabled
  rows team@x.example:ann+books@users.example,team2+x@users.example,ghost+x@users.example,gone@users.example \
    team2@users.example:ann@users.example
  masks ann@users.example:a@out.example TEAM2@users.example:t@out.example gone@users.example:g@out.example \
    nobody@users.example:n@out.example x@elsewhere.example:x@out.example
  finds 65 $'warning\tdangling-member\talias\tghost+x@users.example\nwarning\tdisabled-member\talias\tgone@users.example\nwarning\tmask-nobody\tmask\tgone@users.example\nwarning\tmask-nobody\tmask\tnobody@users.example'
}

@test "without a configuration the members are not compared, which is a notice" {
  mkdir "$BATS_TEST_TMPDIR/none"
  rows a@x.example:ghost@users.example all@y.example:allusers_y.example
  run -0 --separate-stderr tool check --cmf "$BATS_TEST_TMPDIR/none"
  equal "$(cut -f1-4 <<<"$output")" $'notice\tno-configuration\t\t'
  contains "$output" "$BATS_TEST_TMPDIR/none"
  contains "$stderr" "1 notice"
}

@test "rows that cannot be read" {
  sql "insert into alias ( name, members ) values( 'no address', 'a\@x.example' ),
       ( 'bad\@x.example', 'a\@\@b' ), ( 'empty\@x.example', '' );
       insert into mask values( 'no address', 'a\@out.example' ), ( 'c\@in.example', '' );"
  finds 65 $'error\tbroken-row\talias\tbad@x.example\nerror\tbroken-row\talias\tempty@x.example\nerror\tbroken-row\talias\tno address\nerror\tbroken-row\tmask\tc@in.example\nerror\tbroken-row\tmask\tno address'
  contains "$output" "tsl-address-map alias remove bad@x.example"
  contains "$output" "select * from \`alias\` where name='no address';"
}

@test "addresses at the limits, and beyond" {
  local local63 label62 good bad text
  local63=$(printf 'l%.0s' {1..63}) label62=$(printf 'd%.0s' {1..62})
  local name63=$label62.$label62.${label62:1}
  good=("l$local63@x.example" "a@d$label62.example" "a@$name63" "l$local63@$name63" 'a.b@x' \
    'a-b@x-y.example' 'a_b@x_y.example' '-a-@x.example' "#a'b*@x.example" 'a@1.2')
  bad=("ll$local63@x.example" "a@dd$label62.example" "l$local63@d$name63.d" '.a@x' 'a.@x' 'a..b@x' \
    'a@.x' 'a@x.' 'a@x..y' 'a@-x' 'a@x-' 'a@x-.y' 'a@x.-y' 'a@' '@x' 'a@x@y' 'a b@x' 'a@x*' "a@x'y")
  for text in "${good[@]}" "${bad[@]}"; do
    sql "insert into alias ( name, members ) values( 'n$((++count))@x.example',
         'ann@x.example,${text//\'/\'\'},bob@x.example' );"
  done
  run -65 --separate-stderr tool check
  equal "$(cut -f2,4 <<<"$output" | sort -V)" "$(for ((i = ${#good[@]} + 1; i <= ${#good[@]} + ${#bad[@]}; ++i)); do
    printf 'broken-row\tn%s@x.example\n' "$i"
  done)"
}

@test "all-users markers without effect" {
  tool user add ann@users.example
  rows all@missing.example:allusers_missing.example mixed@users.example:allusers_users.example,cid@x.example \
    above@x.example:mixed@users.example foreign@x.example:allusers_users.example \
    good@users.example:allusers_users.example
  finds 65 $'error\tmarker-unknown-domain\talias\tall@missing.example\nerror\tmarker-mixed\talias\tmixed@users.example\nerror\tmarker-foreign\talias\tforeign@x.example'
  tool user remove ann@users.example
  sql "delete from alias where name != 'good\@users.example';"
  finds 65 $'error\texpands-to-nothing\talias\tgood@users.example'
  contains "$output" "which has no user mailbox"
}

@test "a catch-all" {
  rows '*@x.example:ann@y.example'
  finds 0 $'notice\tcatch-all\talias\t*@x.example'
}

@test "a member without a domain" {
  rows a@x.example:bob,cid@x.example
  finds 65 $'warning\tno-domain\talias\tbob'
}

@test "two rows of one address" {
  sql "alter table alias convert to character set utf8mb4 collate utf8mb4_bin;
       alter table mask convert to character set utf8mb4 collate utf8mb4_bin;"
  rows team@x.example:ann@x.example TEAM@x.example:bob@x.example
  masks ann@in.example:a@out.example ANN@in.example:b@out.example bob@in.example:A@out.example
  run -65 --separate-stderr tool check
  equal "$(cut -f1-3 <<<"$output" | sort | uniq -c | sed 's/^ *//')" $'1 error\tdouble-row\talias\n2 error\tdouble-row\tmask\n1 warning\tschema\talias\n2 warning\tschema\tmask'
}

@test "rows of one address in several spellings" {
  rows ann@büro.example:x@x.example ann@xn--bro-hoa.example:y@x.example '"bob"@x.example:x@x.example' bob@x.example:y@x.example
  masks ann@büro.example:a@out.example ann@xn--bro-hoa.example:b@out.example c@in.example:d@büro.example d@in.example:d@xn--bro-hoa.example
  run -65 --separate-stderr tool check
  equal "$(cut -f1-4 <<<"$output" | sort)" $'error\tdouble-row\talias\tann@xn--bro-hoa.example\nerror\tdouble-row\talias\tbob@x.example\nerror\tdouble-row\tmask\tann@xn--bro-hoa.example\nerror\tdouble-row\tmask\td@in.example'
}

@test "all users of a domain that the configuration has in another spelling" {
  tool domain add büro.example
  tool user add ann@büro.example
  rows all@büro.example:allusers_büro.example
  finds 65 $'error\tmarker-spelling\talias\tall@büro.example'
  contains "$output" "which the configuration has as xn--bro-hoa.example"
}

@test "wildcard rows in each other's way, chains, and rows that differ from their wildcard" {
  masks '*@b.example:1*@out.example' '*@a.example:2*@out.example' x@a.example:x@elsewhere.example \
    one@in.example:two@in.example two@in.example:three@out.example
  finds 65 $'warning\twildcard-ambiguous\tmask\t*@a.example\nnotice\twildcard-shadowed\tmask\tx@a.example\nwarning\tmask-chain\tmask\tone@in.example'
  contains "$output" "the first by byte order answers, a.example; never found: b.example"
  sql "delete from mask where private in( '*\@b.example', 'one\@in.example' );"
  # A notice alone is no reason to fail.
  finds 0 $'notice\twildcard-shadowed\tmask\tx@a.example'
  masks 'z*@a.example:z*@other.example'
  run -65 tool check
  contains "$output" $'warning\twildcard-double\tmask\t'
}

@test "a members column that is nearly full" {
  sql "alter table alias modify members varchar( 100 ) not null;"
  rows "a@x.example:$(printf 'm%.0s' {1..50})@$(printf 'd%.0s' {1..44})"
  run -65 --separate-stderr tool check
  contains "$output" $'warning\tmembers-limit\talias\ta@x.example\thas 95 bytes of members, and its column holds 100'
  contains "$output" $'warning\tschema\talias\t'
}

@test "named tables are checked too, and named in the commands" {
  sql "create table alias_sales like alias; create table mask_sales like mask;
       insert into alias_sales ( name, members ) values( 'a\@x.example', 'b\@x.example' ),
       ( 'b\@x.example', 'a\@x.example' );"
  finds 65 $'error\tcycle\talias_sales\ta@x.example'
  contains "$output" "tsl-address-map --table sales alias tree a@x.example"
  run -78 --separate-stderr tool check --table none
  contains "$stderr" "tsl-address-map table create none"
  run -65 tool check --table sales
  rows c@x.example:d@x.example d@x.example:c@x.example
  run -65 --separate-stderr tool check --table sales
  [[ "$output" != *c@x.example* ]]
}

@test "the schema" {
  sql "alter table alias add colour int; drop index public on mask;
       create table alias_old( name varchar( 255 ) primary key, members text not null );
       create table mask_half( private varchar( 255 ) primary key );
       create table aliasxtra( i int ); create table other( i int );"
  finds 65 $'error\tschema\talias\t\nwarning\tschema\talias_old\t\nwarning\tschema\talias_old\t\nnotice\tmisnamed-table\taliasxtra\t\nwarning\tschema\tmask\t\nerror\tschema\tmask_half\t'
  contains "$output" "table alias has the unknown column colour"
  contains "$output" "table mask_half has no column public"
  sql "create table mask_bin( private varchar( 255 ) primary key, public varchar( 255 ) unique ) collate utf8mb4_bin;
       insert into mask_bin values( 'ann@x.example', 'bob@x.example' );"
  run -65 --separate-stderr tool check --table bin
  equal "$(grep -c $'warning\tschema\tmask_bin\t\tthe collation of column p.* is case-sensitive' <<<"$output")" 2
  sql 'drop table alias;'
  run -65 --separate-stderr tool check
  contains "$output" $'error\tmissing-base\talias\t\t'
}

@test "a database that cannot be asked" {
  printf '[client]\nsocket=/nonexistent/db.sock\n' >"$BATS_TEST_TMPDIR/nowhere.cnf"
  run -75 --separate-stderr "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/nowhere.cnf" check
  equal "$output" ""
  DATABASE= sql 'drop database ts_address_map;'
  run -78 --separate-stderr "$TSL_TOOL" --option-file "$SERVER/client.cnf" check
  contains "$stderr" "tsl-address-map init"
}

@test "known findings are counted, and not printed" {
  cd "$BATS_TEST_TMPDIR"
  rows team@x.example:ghost@users.example list@x.example:left@users.example all@x.example:root '#a@x.example:'
  run -65 --separate-stderr tool check --as-known
  equal "$(sort <<<"$output")" 'broken-row alias \x23a@x.example  #
dangling-member alias ghost@users.example  #
dangling-member alias left@users.example  #
no-domain alias root  #'
  run -65 --separate-stderr tool check --known - <<<"$output"
  contains "$stderr" "standard input:1: it has no note"
  run -64 tool check --as-known --json
  tool check --as-known >lines || true
  sed 's/$/ asked in 2024/' lines >known
  run -0 --separate-stderr tool check --known known
  equal "$output" ""
  equal "$stderr" "tsl-address-map: 0 errors, 0 warnings, 0 notices, 4 known"
  # What is new is all there is; the lines may also be those of 'check', which have tabs.
  tool check | cut -f2-4 | grep -v left | sed 's/#a@/\\x23a@/; s/$/ # why/' >known
  echo '# what is no more' >>known
  echo 'dangling-member alias former@users.example # why' >>known
  run -65 --separate-stderr tool check --known known
  equal "$(cut -f1-4 <<<"$output")" $'warning\tdangling-member\talias\tleft@users.example'
  equal "$stderr" "tsl-address-map: 0 errors, 1 warning, 0 notices, 3 known
tsl-address-map: warning: known:5: no finding is 'dangling-member alias former@users.example' any more: remove the line"
  run -65 --separate-stderr tool check --known known --json
  contains "$output" '"address":"ghost@users.example"'
  contains "$output" '"addresses":[],"known":true,"note":"why"}'
  contains "$output" '"addresses":[],"known":false,"note":null}'
  # Lines of other tables are no concern.
  tool table create sales
  run -0 --separate-stderr tool --table sales check --known known
  equal "$stderr" "tsl-address-map: 0 errors, 0 warnings, 0 notices, 0 known"
  run -65 tool check --known missing
}

@test "set refuses to close an alias loop, and names it" {
  rows b@x.example:c@x.example c@x.example:d@x.example
  run -65 --separate-stderr tool alias set d@x.example ann@x.example B@x.example
  contains "$stderr" "d@x.example -> b@x.example -> c@x.example -> d@x.example"
  contains "$stderr" "--allow-cycle"
  equal "$(sql "select count(*) from alias where name='d\@x.example'")" 0
  run -0 tool alias set d@x.example ann@x.example B@x.example --allow-cycle
  equal "$(sql "select members from alias where name='d\@x.example'")" "ann@x.example,B@x.example"
  # A loop that is there is not closed again, and the way out is open.
  run -0 --separate-stderr tool alias set d@x.example b@x.example
  contains "$stderr" "is in an alias loop already"
  run -0 tool alias set d@x.example ann@x.example
}

@test "set allows an alias that names itself, and an alias loop that it does not belong to" {
  rows a@x.example:b@x.example b@x.example:a@x.example
  run -0 tool alias set self@x.example SELF@x.example ann@x.example
  run -0 tool alias set top@x.example a@x.example
}

@test "set follows long chains" {
  sql "insert into alias ( name, members )
       select concat( 'c', seq, '\@x.example' ), concat( 'c', seq + 1, '\@x.example' )
       from seq_0_to_1999;"
  run -65 --separate-stderr tool alias set c2000@x.example c0@x.example
  contains "$stderr" "c2000@x.example -> c0@x.example -> c1@x.example"
  contains "$stderr" "-> ... ("
}
