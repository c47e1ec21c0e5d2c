# The rules of aliases: who may write to one, send as it, and until when it is there.

load helper

setup_file() { start_server; }
teardown_file() { stop_server; }
setup() {
  empty_tables
  sql 'delete from rules'
  tool alias set team@example.com ann@example.com bob@example.com
}
rule() { tool alias rule "$@"; }

@test "a rule is set, changed, shown, listed and removed" {
  run -0 --separate-stderr rule set team@example.com --writers members --note "ask Ann" --expires 2026-12-31
  equal "$output$stderr" ""
  rule set TEAM@example.com --owner bob@example.com --owner ann@example.com --contact carl@example.com
  run -0 rule show team@example.com
  equal "$output" "writers=members owners=ann@example.com,bob@example.com expires=2026-12-31T00:00:00Z contact=carl@example.com note=ask Ann"
  run -0 rule list
  equal "$output" $'team@example.com\twriters=members owners=ann@example.com,bob@example.com expires=2026-12-31T00:00:00Z contact=carl@example.com note=ask Ann'
  run -0 rule show team@example.com --json
  equal "$output" '{"address":"team@example.com","rule":{"writers":"members","listed":[],"owners":["ann@example.com","bob@example.com"],"expires":"2026-12-31 00:00:00","note":"ask Ann","contact":"carl@example.com"}}'
  rule set team@example.com --owner none --note none --contact none --expires none
  run -0 rule show team@example.com
  equal "$output" "writers=members"
  run -0 rule remove team@example.com --dry-run
  equal "$output" "- team@example.com writers=members"
  run -0 rule remove team@example.com
  equal "$output" ""
  run -1 --separate-stderr rule show team@example.com
  equal "$stderr" "tsl-address-map: no rule of team@example.com"
}

@test "a dry run shows what would change" {
  run -0 rule set team@example.com --writers domain --dry-run
  equal "$output" "+ team@example.com writers=domain"
  rule set team@example.com --writers domain
  run -0 rule set team@example.com --writers members --dry-run
  equal "$output" "~ team@example.com writers=members (was writers=domain)"
  run -0 rule show team@example.com
  equal "$output" "writers=domain"
}

@test "a rule needs an alias, unless it is that of the table" {
  run -65 rule set nobody@example.com --writers domain
  contains "$output" "add the alias first"
  rule set default --writers authenticated
  run -0 rule list
  equal "$output" $'default\twriters=authenticated'
  run -0 rule show default --json
  contains "$output" '"address":null'
}

@test "what is no rule is refused and changes nothing" {
  run -64 rule set team@example.com --writers everyone
  contains "$output" "use anyone, authenticated, domain, members or listed"
  run -64 rule set team@example.com --expires tomorrow
  contains "$output" "write it as 2026-12-31"
  run -65 rule set team@example.com --owner nobody
  run -64 rule set team@example.com --list ann@example.com
  contains "$output" "add --writers listed"
  run -64 rule set team@example.com --note $'two\nlines'
  run -0 rule list
  equal "$output" ""
}

@test "a list of nobody is warned about" {
  run -0 rule set team@example.com --writers listed
  contains "$output" "nobody may write to it"
  run -0 --separate-stderr rule set team@example.com --list ann@example.com
  equal "$stderr" ""
}

@test "an alias is copied with its rule, as one change" {
  rule set team@example.com --writers members --owner ann@example.com
  rule set TEAM@example.com --note "ask Ann"
  run -0 --separate-stderr tool alias copy Team@example.com project@example.com --dry-run
  equal "$output" "+ project@example.com:ann@example.com,bob@example.com
+ rule of project@example.com: writers=members owners=ann@example.com note=ask Ann"
  run -1 rule show project@example.com
  sql 'delete from history'
  run -0 --separate-stderr tool alias copy Team@example.com project@example.com
  equal "$output$stderr" ""
  run -0 --separate-stderr tool alias show project@example.com
  equal "$output" $'ann@example.com\nbob@example.com'
  equal "$stderr" "tsl-address-map: rule of project@example.com: writers=members owners=ann@example.com note=ask Ann"
  run -0 tool history
  equal "$(cut -f1 <<<"$output" | uniq -c | tr -d ' ' | cut -c1)" 2
  run -0 tool undo "$(cut -f1 <<<"$output" | head -1)"
  run -1 tool alias show project@example.com
  run -1 rule show project@example.com
}

@test "a copy does not get the rule that another alias of its name had" {
  rule set team@example.com --writers members
  sql "update rules set name = 'Project@example.com'"
  run -0 --separate-stderr tool alias copy team@example.com project@example.com --json
  equal "$output" '{"address":"project@example.com","members":["ann@example.com","bob@example.com"]}'
  run -1 rule show project@example.com
}

@test "a copy is made of an alias that is there, into one that is not" {
  tool alias set other@example.com ann@example.com
  run -1 --separate-stderr tool alias copy nobody@example.com new@example.com
  equal "$stderr" "tsl-address-map: no alias nobody@example.com in table alias"
  run -65 --separate-stderr tool alias copy team@example.com Other@example.com
  contains "$stderr" "alias Other@example.com: table alias has it already"
  equal "$(sql "select members from alias where name = 'other@example.com'")" ann@example.com
  sql "insert into alias( name, members ) values( 'broken@example.com', '@' )"
  run -65 tool alias copy broken@example.com new@example.com
  contains "$output" "broken row 'broken@example.com' of table alias"
  rule set other@example.com --writers members
  sql "update rules set writers = 'nobody knows'"
  run -65 tool alias copy other@example.com new@example.com
  contains "$output" "rule of other@example.com: another program wrote it"
}

@test "a copy is refused what a new alias is refused" {
  tool alias set all@example.com allusers_example.com
  run -65 tool alias copy all@example.com all@example.org
  contains "$output" "that of another domain has no effect"
  run -0 tool alias copy all@example.com everybody@example.com
  tool alias set root@example.com root --local-names
  run -65 tool alias copy root@example.com admin@example.com
  run -0 tool alias copy root@example.com admin@example.com --local-names
  tool alias set up@example.com loop@example.com
  tool alias set down@example.com up@example.com
  run -65 tool alias copy down@example.com loop@example.com
  contains "$output" "it would lead back to itself: loop@example.com -> up@example.com -> loop@example.com"
  run -0 tool alias copy down@example.com loop@example.com --allow-cycle
}

@test "the rule of an alias goes with it" {
  rule set team@example.com --writers members
  run -0 --separate-stderr tool alias remove Team@example.com
  equal "$stderr" "tsl-address-map: the rule of team@example.com is removed, too"
  run -0 rule list
  equal "$output" ""
}

@test "rules go with the aliases that an import or drop removes" {
  tool alias set other@example.com ann@example.com
  for alias in team other; do rule set $alias@example.com --writers members; done
  run -0 --separate-stderr tool alias import --replace - <<<'TEAM@example.com:ann@example.com'
  equal "$output" "0 added, 1 changed, 0 left, 1 removed"
  equal "$stderr" "tsl-address-map: the rules of removed aliases are removed, too: 1"
  run -0 rule list
  equal "$output" $'team@example.com\twriters=members'
  run -0 tool alias drop team@example.com ann@example.com --remove-empty
  contains "$output" "the rule of TEAM@example.com is removed, too"
  run -0 rule list
  equal "$output" ""
}

@test "show, tree and who name rules" {
  tool alias set all@example.com team@example.com
  rule set team@example.com --writers members
  run -0 --separate-stderr tool alias show team@example.com
  equal "$output" $'ann@example.com\nbob@example.com'
  equal "$stderr" "tsl-address-map: rule of team@example.com: writers=members"
  run -0 tool alias show team@example.com --json
  contains "$output" '"rule":{"writers":"members"'
  run -0 tool alias tree all@example.com
  contains "$output" "team@example.com: alias [ann@example.com,bob@example.com] (rule: writers=members)"
  run -0 tool alias tree all@example.com --json
  contains "$output" '"rule":"writers=members"'
  run -0 tool alias who ann@example.com
  equal "$output" $'team@example.com -> ann@example.com (rule: writers=members)\nall@example.com -> team@example.com -> ann@example.com'
  run -0 tool alias who ann@example.com --json
  contains "$output" '"rule":"writers=members"'
}

@test "rules are exported and imported, all or none" {
  tool alias set board@example.com ann@example.com
  rule set team@example.com --writers listed --list ann@example.com --note 'with, blanks = and %'
  rule set default --writers authenticated
  rule export "$BATS_TEST_TMPDIR/rules.txt"
  cp "$BATS_TEST_TMPDIR/rules.txt" "$BATS_TEST_TMPDIR/more.txt"
  sql 'delete from rules'
  run -0 rule import "$BATS_TEST_TMPDIR/rules.txt" --dry-run
  equal "${lines[2]}" "2 changed"
  run -0 rule import "$BATS_TEST_TMPDIR/rules.txt"
  equal "$output" "2 changed"
  equal "$(rule export)" "$(cat "$BATS_TEST_TMPDIR/rules.txt")"
  printf '# more\nboard@example.com\twriters=members\nteam@example.com\twriters=no-one\nx\n' >>"$BATS_TEST_TMPDIR/more.txt"
  run -65 rule import "$BATS_TEST_TMPDIR/more.txt"
  contains "$output" "more.txt:5: there are no such writers"
  contains "$output" "more.txt:6: it has no tab"
  run -0 rule list
  equal "$output" "$(cat "$BATS_TEST_TMPDIR/rules.txt")"
  rule set board@example.com --writers members
  run -0 rule import --replace --dry-run "$BATS_TEST_TMPDIR/rules.txt"
  equal "${lines[0]}" "- board@example.com writers=members"
  run -0 rule import --replace "$BATS_TEST_TMPDIR/rules.txt"
  equal "$output" "1 changed"
  equal "$(rule export)" "$(cat "$BATS_TEST_TMPDIR/rules.txt")"
  printf 'gone@example.com\twriters=members\n' >"$BATS_TEST_TMPDIR/gone.txt"
  run -65 rule import "$BATS_TEST_TMPDIR/gone.txt"
  contains "$output" "gone@example.com"
}

@test "a rule that another program wrote and that cannot be read is named" {
  sql "insert into rules values( 'alias', 'team@example.com', 'everyone', '', '', null, '', '' )"
  run -65 rule list
  contains "$output" "another program wrote it"
  run -65 rule set team@example.com --writers members
  run -0 rule remove team@example.com
}

@test "check names what is worth a look" {
  tool domain add example.com >/dev/null
  tool user add ann@example.com >/dev/null
  tool user add bob@example.com >/dev/null
  tool alias set all@example.com allusers_example.com
  tool alias set open@example.com team@example.com
  tool alias set empty@example.com ann@example.com
  tool alias set broken@example.com ann@example.com
  tool alias set old@example.com ann@example.com
  rule set team@example.com --writers members --expires "$(date -u -d '+20 days' +%F)"
  rule set empty@example.com --writers listed
  rule set old@example.com --expires 2020-01-01
  sql "insert into rules values( 'alias', 'broken@example.com', 'everyone', '', '', null, '', '' ),
       ( 'alias', 'gone@example.com', 'members', '', '', null, '', '' )"
  run -65 --separate-stderr tool check
  equal "$(cut -f1,2,4 <<<"$output" | tr '\t' ' ' | sort)" \
    "$(sort <<'END'
error rule-broken broken@example.com
notice expired old@example.com
notice expires-soon team@example.com
notice open-all-users all@example.com
notice open-into-closed open@example.com
warning rule-of-nobody empty@example.com
warning rule-without-alias gone@example.com
END
)"
  rule set default --writers authenticated
  run tool check
  [[ $output != *open-all-users* && $output != *open-into-closed* ]]
}

@test "prune takes expired aliases out of everything" {
  tool alias set old@example.com ann@example.com
  tool alias set only@example.com OLD@example.com
  tool alias set above@example.com only@example.com bob@example.com
  tool alias set later@example.com ann@example.com
  rule set old@example.com --expires 2020-01-01
  rule set only@example.com --writers members
  rule set later@example.com --expires 2099-01-01
  run -64 rule set default --expires 2020-01-01
  local want=$'~ above@example.com:bob@example.com,only@example.com -> bob@example.com\n- old@example.com:ann@example.com\n- only@example.com:OLD@example.com'
  run -0 tool alias prune --dry-run
  equal "$(sort <<<"$output")" "$(sort <<<"$want")"
  run -0 tool alias prune
  equal "$(sort <<<"$output")" "$(sort <<<"$want")"
  equal "$(sql 'select name, members from alias order by name')" \
    $'above@example.com\tbob@example.com\nlater@example.com\tann@example.com\nteam@example.com\tann@example.com,bob@example.com'
  equal "$(sql 'select name from rules')" later@example.com
  run -0 tool alias prune --json
  equal "$output" '{"changes":[]}'
}

@test "alias export and alias import with --rules are those of rules" {
  rule set team@example.com --writers members
  run -0 tool alias export --rules -
  equal "$output" $'team@example.com\twriters=members'
  tool alias export --rules "$BATS_TEST_TMPDIR/rules.txt"
  equal "$(cat "$BATS_TEST_TMPDIR/rules.txt")" "$output"
  rule set default --writers authenticated
  rule remove team@example.com
  run -0 tool alias import --rules --replace --dry-run "$BATS_TEST_TMPDIR/rules.txt"
  equal "$output" $'- default writers=authenticated\n+ team@example.com writers=members\n2 changed'
  run -0 tool alias import --rules "$BATS_TEST_TMPDIR/rules.txt"
  equal "$output" "1 changed"
  run -0 rule list
  equal "$output" $'default\twriters=authenticated\nteam@example.com\twriters=members'
  run -0 tool alias import --rules --replace - <"$BATS_TEST_TMPDIR/rules.txt"
  equal "$output" "1 changed"
  for option in "--replace --force" --skip-bad --new-spelling "--format csv" "--columns a,b" "--domain example.com" \
    "--default-domain example.com" --local-names --allow-cycle; do
    # shellcheck disable=SC2086  # Options with values.
    run -64 tool alias import --rules $option "$BATS_TEST_TMPDIR/rules.txt"
  done
  run -64 tool alias export --rules --domain example.com
  run -64 tool alias export --rules --format native
  contains "$output" "--rules"
  run -64 tool mask import --rules -
  run -64 tool mask export --rules
}

@test "without the table there are no rules, and setting one says what to do" {
  sql 'rename table rules to kept'
  run -1 rule show team@example.com
  run -0 --separate-stderr tool alias show team@example.com
  equal "$stderr" ""
  run -78 rule set team@example.com --writers members
  contains "$output" "run 'tsl-address-map init'"
  run -0 tool alias remove team@example.com
  sql 'rename table kept to rules'
}

@test "changes of rules are undone like others" {
  rule set team@example.com --writers members
  rule set team@example.com --owner ann@example.com
  tool undo "$(tool history | tail -1 | cut -f1)" >/dev/null
  equal "$(rule show team@example.com)" "writers=members"
  tool alias remove team@example.com
  run -0 tool undo "$(tool history | tail -1 | cut -f1)"
  equal "$(rule show team@example.com)" "writers=members"
  equal "$(tool alias show team@example.com 2>/dev/null)" $'ann@example.com\nbob@example.com'
}
