# The lookup service with a real Postfix: mail that goes in, and where it comes out.

load postfix

setup_file() {
  [ -z "$(why_no_postfix)" ] || return 0
  start_server
  start_postfix
  sql 'create table alias_staff like alias; create table mask_staff like mask;'
  start_service
  seen alias.staff nobody@example.com ""
  seen mask_public.staff nobody@example.com ""
  tool domain add example.com
  local user
  for user in ann bob cid; do tool user add "$user@example.com"; done
}

# What postmap says of keys that it does not send.
without_utf8_complaint() { grep -v ': non-UTF-8 key ' <<<"$1" || true; }

# has MAP KEY ANSWER, hasnt MAP KEY: what postmap gets, without an error.
has() {
  run -0 --separate-stderr postmap -q "$2" "$(map "$1")"
  equal "$output" "$3"
  equal "$stderr" ""
}
hasnt() {
  run -1 --separate-stderr postmap -q "$2" "$(map "$1")"
  equal "$output" ""
  equal "$(without_utf8_complaint "$stderr")" ""
}

@test "each map answers: found" {
  tool alias set postmap@example.com cid@example.com ann@example.com
  tool --table staff alias set postmap@example.com bob@example.com
  tool --table staff mask set inner@example.com staff@example.com
  tool mask set inner@example.com outer@example.com
  seen alias postmap@example.com ann@example.com,cid@example.com
  seen alias.staff postmap@example.com bob@example.com
  seen mask_public inner@example.com outer@example.com
  seen mask_private outer@example.com inner@example.com
  seen mask_public.staff inner@example.com staff@example.com
  seen mask_private.staff staff@example.com inner@example.com
  has mailbox ann@example.com ann@example.com
  has domain example.com example.com
  has domain EXAMPLE.com example.com
}

@test "each map answers: not found" {
  for table in alias alias.staff mask_public mask_public.staff mask_private mailbox; do
    hasnt "$table" nobody@example.com
  done
  hasnt domain nowhere.example
}

@test "what is not an address is not found, in each map" {
  local long
  long=$(printf 'x%.0s' {1..10000})
  printf '%s\n' nowhere.example '*' '""' '@' '@nowhere.example' ann '*@nowhere.example' 'a@b@example.com' \
    'user@[192.0.2.1]' '"a b"@nowhere.example' '"a\@b"@nowhere.example' '"@nowhere.example' \
    'a..b@nowhere.example' "$long" "$long@nowhere.example" "ann@$long" $'\xff\xfe' $'\xc3\x28@nowhere.example' \
    $'ann@\xed\xa0\x80.example' $'a\tb@nowhere.example' $'a\x01b@nowhere.example' >"$BATS_TEST_TMPDIR/keys"
  for table in alias alias.staff mask_public mask_private mailbox domain; do
    run -1 --separate-stderr postmap -q - "$(map "$table")" <"$BATS_TEST_TMPDIR/keys"
    equal "$output" ""
    equal "$(without_utf8_complaint "$stderr")" ""
    hasnt "$table" ''
    hasnt "$table" 'ann@nowhere.example '
  done
}

@test "only the group of Postfix can ask" {
  equal "$(stat -c '%G %a' "$SOCKET")" "postfix 660"
}

@test "a list of lists reaches each member once" {
  tool alias set inner@example.com ann@example.com out@example.net
  tool alias set middle@example.com inner@example.com bob@example.com ann@example.com
  tool alias set nested@example.com middle@example.com inner@example.com cid@example.com bob@example.com
  seen alias nested@example.com ann@example.com,bob@example.com,cid@example.com,out@example.net
  send me@away.example "a list of lists" nested@example.com
  queue_empties
  equal "$(delivered "a list of lists")" "ann@example.com bob@example.com cid@example.com out@example.net"
}

@test "who is on two lists that a mail goes to gets it once" {
  tool alias set first@example.com ann@example.com bob@example.com
  tool alias set second@example.com bob@example.com cid@example.com
  seen alias second@example.com bob@example.com,cid@example.com
  send me@away.example "two lists" first@example.com second@example.com
  queue_empties
  equal "$(delivered "two lists")" "ann@example.com bob@example.com cid@example.com"
}

@test "an address that is neither alias nor mail user is refused" {
  run -1 send me@away.example "nobody" nobody@example.com
  equal "${output%%>*}" "550 5.1.1 <nobody@example.com"
}

@test "an alias in an alias loop delivers nothing and keeps its mail waiting; other mail goes on" {
  tool alias set loop1@example.com loop2@example.com
  tool alias set loop2@example.com loop1@example.com --allow-cycle
  wait_for "the loop" refuses loop1@example.com
  run -1 send me@away.example "a loop" loop1@example.com
  equal "$output" "451 4.3.5 Server configuration error"
  printf 'Subject: a loop\n\nHello\n' | sendmail -f me@away.example loop2@example.com
  wait_for "the mail of the loop" grep -q "loop2@example.com" "$POSTFIX/log"
  run -0 send me@away.example "next to a loop" ann@example.com
  printf 'Subject: next to a loop\n\nHello\n' | sendmail -f me@away.example bob@example.com
  wait_for "the other mail" has_delivered "next to a loop" "ann@example.com bob@example.com"
  equal "$(delivered "a loop")" ""
  # Whoever breaks the loop has the mail that waits.
  tool alias set loop1@example.com cid@example.com
  queue_empties
  equal "$(delivered "a loop")" "cid@example.com"
}
refuses() { [[ $(postmap -q "$1" "$(map alias)" 2>&1) == *"this alias reaches nobody"* ]]; }
has_delivered() { [ "$(delivered "$1")" == "$2" ]; }

is_cut() { [[ $(postmap -q "$1" "$(map alias)" 2>&1) == *"has a comma"* ]]; }

@test "a member that a mail server would cut at its comma gets nothing, nor do its parts" {
  tool alias set cut@example.com ann@example.com
  seen alias cut@example.com ann@example.com
  sql "update alias set members = 'ann@example.com,x@[x:y,bob@example.com]' where name = 'cut@example.com'"
  wait_for "the change" is_cut cut@example.com
  run -1 send me@away.example "cut" cut@example.com
  equal "${output%% *}" 451
}

@test "all users of a domain get mail, without those of other kinds" {
  tool domain add users.example
  tool user add u1@users.example
  tool user add u2@users.example
  tool user add room@users.example --kind shared
  tool user add old@users.example --kind disabled
  tool alias set everybody@users.example allusers_users.example
  seen alias everybody@users.example u1@users.example,u2@users.example
  send me@away.example "all users" everybody@users.example
  queue_empties
  equal "$(delivered "all users")" "u1@users.example u2@users.example"
}

@test "an alias that names itself is delivered to with the others" {
  tool alias set ann@example.com ann@example.com copy@example.net
  seen alias ann@example.com ann@example.com,copy@example.net
  send me@away.example "a copy" ann@example.com
  queue_empties
  equal "$(delivered "a copy")" "ann@example.com copy@example.net"
  tool alias remove ann@example.com
  seen alias ann@example.com ""
}

@test "an extension goes on to the members" {
  tool alias set sales@example.com ann@example.com out@example.net
  seen alias sales+autumn@example.com ann+autumn@example.com,out+autumn@example.net
  send me@away.example "an extension" sales+autumn@example.com
  queue_empties
  equal "$(delivered "an extension")" "ann+autumn@example.com out+autumn@example.net"
}

@test "an extension of a mail user is kept" {
  send me@away.example "a user's extension" bob+box@example.com
  queue_empties
  equal "$(delivered "a user's extension")" "bob+box@example.com"
}

@test "letter case does not matter" {
  tool alias set Mixed@example.com cid@example.com
  seen alias mixed@example.com cid@example.com
  send me@away.example "letter case" MIXED@EXAMPLE.COM mixed@Example.com
  queue_empties
  equal "$(delivered "letter case")" "cid@example.com"
}

@test "addresses beyond ASCII are found in Unicode and in Punycode" {
  tool domain add bücher.example
  tool alias set grün@bücher.example ann@example.com
  tool alias set post@bücher.example bob@example.com
  seen alias grün@bücher.example ann@example.com
  seen alias post@bücher.example bob@example.com
  send me@away.example "beyond ASCII" GRÜN@Bücher.example
  send me@away.example "in Punycode" Grün@xn--bcher-kva.example
  send me@away.example "no letter beyond ASCII" post@xn--bcher-kva.example
  queue_empties
  equal "$(delivered "beyond ASCII")" "ann@example.com"
  equal "$(delivered "in Punycode")" "ann@example.com"
  equal "$(delivered "no letter beyond ASCII")" "bob@example.com"
}

@test "a letter that Postfix writes as two: a second row in its spelling lets the mail in" {
  tool domain add bücher.example
  tool alias set grüße@bücher.example ann@example.com
  seen alias grüße@bücher.example ann@example.com
  run -1 send me@away.example "sharp s" Grüße@bücher.example
  contains "$output" "550 5.1.1"
  tool alias set grüsse@bücher.example grüße@bücher.example
  seen alias grüsse@bücher.example ann@example.com
  send me@away.example "sharp s" Grüße@bücher.example
  queue_empties
  equal "$(delivered "sharp s")" "ann@example.com"
}

# large_list NAME MEMBER...: an alias with 3000 members, and those given.
large_list() {
  local name=$1
  shift
  { printf '%s:' "$name" && { printf '%s\n' "$@" && printf 'm%d@example.net\n' {1..3000}; } | paste -s -d ,; } \
    >"$BATS_TEST_TMPDIR/list"
  tool alias import "$BATS_TEST_TMPDIR/list"
  wait_for "the list" is_paged "$name"
}
is_paged() { [[ $(postmap -q "$1" "$(map alias)" 2>&1) == *tslpage*,*tslpage* ]]; }
members() { printf "m%d$1@example.net\n" {1..3000} | LC_ALL=C sort | paste -s -d ' '; }

@test "a list of 3000 reaches each member once" {
  large_list large@example.com bob@example.com
  send me@away.example "a large list" large@example.com
  queue_empties
  equal "$(delivered "a large list")" "bob@example.com $(members)"
}

@test "a list of 3000 keeps an extension" {
  large_list extended@example.com bob@example.com
  send me@away.example "a large list, extended" extended+tag@example.com
  queue_empties
  equal "$(delivered "a large list, extended")" "bob+tag@example.com $(members +tag)"
}

@test "a list of 3000 that names itself reaches each member once, and itself" {
  large_list cid@example.com cid@example.com
  send me@away.example "a large list with itself" cid@example.com
  queue_empties
  equal "$(delivered "a large list with itself")" "cid@example.com $(members)"
  tool alias remove cid@example.com
  seen alias cid@example.com ""
}

@test "masks: the public address on the way out, the private one on the way in" {
  tool domain add inside.example
  tool domain add outside.example
  tool user add jon@inside.example
  tool mask set jon@inside.example jon.smith@outside.example
  seen mask_public jon@inside.example jon.smith@outside.example
  send jon@inside.example "on the way out" friend@example.net ann@example.com
  queue_empties
  equal "$(delivered "on the way out")" "ann@example.com friend@example.net"
  local sent kept
  sent=$(grep -B 20 "^Subject: on the way out" "$POSTFIX/sink/mail")
  contains "$sent" "X-Mail-Args: <jon.smith@outside.example>"
  contains "$sent" "From: <jon.smith@outside.example>"
  kept=$(grep -l "^Subject: on the way out" "$POSTFIX"/mail/*.mail)
  contains "$(<"$kept")" "From: <jon@inside.example>"

  send friend@example.net "on the way in" jon.smith@outside.example
  send friend@example.net "on the way in, extended" Jon.Smith+box@Outside.example
  queue_empties
  equal "$(delivered "on the way in")" "jon@inside.example"
  equal "$(delivered "on the way in, extended")" "jon+box@inside.example"
  run -1 send friend@example.net "to nobody" nobody@outside.example
  contains "$output" "550 5.1.1"
}

@test "masks: pairs of whole domains" {
  tool domain add wide.example
  tool domain add narrow.example
  tool user add kim@narrow.example
  tool mask set '*@narrow.example' '*@wide.example'
  seen mask_public kim@narrow.example kim@wide.example
  send kim@narrow.example "a whole domain" friend@example.net
  send friend@example.net "a whole domain, in" kim@wide.example
  queue_empties
  contains "$(grep -B 20 "^Subject: a whole domain" "$POSTFIX/sink/mail")" "X-Mail-Args: <kim@wide.example>"
  equal "$(delivered "a whole domain, in")" "kim@narrow.example"
}

@test "a catch-all, and masks of known users: unknown names are caught, or refused" {
  stop_service
  start_service --catch-all --mask-users known
  tool domain add caught.example
  tool domain add shown.example
  tool domain add hidden.example
  tool user add kim@caught.example
  tool user add lee@hidden.example
  tool alias set '*@caught.example' ann@example.com 2>/dev/null
  tool mask set '*@hidden.example' '*@shown.example'
  seen alias nobody@caught.example ann@example.com
  seen mask_public lee@hidden.example lee@shown.example
  send friend@example.net "caught" nobody@caught.example kim@caught.example
  send friend@example.net "to a known user" lee@shown.example
  send lee@hidden.example "from a known user" friend@example.net
  queue_empties
  equal "$(delivered "caught")" "ann@example.com kim@caught.example"
  equal "$(delivered "to a known user")" "lee@hidden.example"
  contains "$(grep -B 20 "^Subject: from a known user" "$POSTFIX/sink/mail")" "X-Mail-Args: <lee@shown.example>"
  run -1 send friend@example.net "to an unknown user" unknown@shown.example
  contains "$output" "550 5.1.1"
  stop_service
  start_service
}

@test "a list with an owner: members get its mail from the owner, who can be reached" {
  tool domain add lists.example.com
  tool user add team@lists.example.com --kind shared
  tool alias set team@expand.lists.example.com ann@example.com bob@example.net team@example.com
  tool alias set owner-team@lists.example.com cid@example.com
  tool alias set team@example.com team@lists.example.com
  seen mailbox team@lists.example.com team@lists.example.com
  seen alias team@example.com team@lists.example.com
  send me@away.example "an owned list" team@example.com
  run -1 send me@away.example "no list" none@lists.example.com
  equal "${output%%>*}" "550 5.1.1 <none@lists.example.com"
  queue_empties
  # The list is one of its own members: the owner gets a notice of the mail loop, which quotes the mail.
  equal "$(delivered "Undelivered Mail Returned to Sender")" "cid@example.com"
  equal "$(delivered "an owned list")" "ann@example.com bob@example.net cid@example.com"
  contains "$(grep -h -B 20 "^Subject: an owned list" "$POSTFIX"/sink/mail)" \
    "X-Mail-Args: <owner-team@lists.example.com>"
}

# The mask of Ida, whose mailbox may be full.
ida_has_a_mask() {
  tool domain add inside.example
  tool domain add outside.example
  for user in ida full.ida; do
    tool user add "$user@inside.example"
    tool mask set "$user@inside.example" "$user.jones@outside.example"
    seen mask_public "$user@inside.example" "$user.jones@outside.example"
  done
}

@test "masks: which headers have the public address, also without a sender, and which do not" {
  ida_has_a_mask
  local masked=(From Sender Reply-To To Cc Errors-To Return-Receipt-To Disposition-Notification-To Resent-From)
  local kept=(Message-ID References List-Post X-Account) header
  smtp_open
  smtp "MAIL FROM:<>"
  smtp "RCPT TO:<friend@example.net>"
  smtp "DATA"
  for header in "${masked[@]}" "${kept[@]}"; do printf '%s: <ida@inside.example>\r\n' "$header"; done >&9
  printf 'Subject: headers\r\n\r\nBody: <ida@inside.example>\r\n.\r\n' >&9
  smtp_reply
  smtp_close
  queue_empties
  local sent
  sent=$(grep -B 30 -A 5 "^Subject: headers" "$POSTFIX/sink/mail")
  for header in "${masked[@]}"; do contains "$sent" $'\n'"$header: <ida.jones@outside.example>"; done
  for header in "${kept[@]}" Body; do contains "$sent" $'\n'"$header: <ida@inside.example>"; done
}

@test "masks: notices of mail that failed, or was delivered, have the private address" {
  ida_has_a_mask
  smtp_open
  smtp "VRFY ida.jones@outside.example"
  equal "$SMTP_REPLY" "252 2.0.0 ida.jones@outside.example"
  for to in "<full.ida.jones@outside.example>" "<ida.jones@outside.example> NOTIFY=SUCCESS"; do
    smtp "MAIL FROM:<friend@example.net>"
    smtp "RCPT TO:$to"
    smtp "DATA"
    printf 'Subject: notices\r\n\r\n.\r\n' >&9
    smtp_reply
  done
  smtp_close
  queue_empties
  local notices
  notices=$(<"$POSTFIX/sink/mail")
  contains "$notices" "Final-Recipient: rfc822; full.ida@inside.example
Original-Recipient: rfc822;full.ida.jones@outside.example
Action: failed"
  contains "$notices" "Final-Recipient: rfc822; ida@inside.example
Original-Recipient: rfc822;ida.jones@outside.example
Action: relayed"
}

@test "masks: milters see the private address, behind the masks the public one; a copy has one address" {
  ida_has_a_mask
  tool --table staff alias set ida@inside.example copy@example.com
  tool --table staff alias set ann@example.com one@example.com two@example.com
  seen alias.staff ida@inside.example copy@example.com
  seen alias.staff ann@example.com one@example.com,two@example.com
  setsid python3 "$BATS_TEST_DIRNAME/milter.py" "$POSTFIX/milter.log" >"$POSTFIX/milter.port" 3>&- &
  local milter=$! port
  wait_for "the milter" test -s "$POSTFIX/milter.port"
  choose_port
  document_block masks master.cf |
    sed "s/10027/$port/; s/8891/$(<"$POSTFIX/milter.port")/; \$a \    -o smtp_tcp_port=$SINK_PORT" >>"$MAIL_CONFIG/master.cf"
  settings "smtpd_milters=inet:127.0.0.1:$(<"$POSTFIX/milter.port")" "recipient_bcc_maps=$(map alias.staff)" \
    "$(document_block masks main.cf | sed "s/10027/$port/")"
  wait_for "the way behind the masks" greets "$port"
  send ida@inside.example "milters" friend@localhost ann@example.com
  send friend@localhost "copied" ida.jones@outside.example
  queue_empties
  settings smtpd_milters= recipient_bcc_maps= "default_transport=smtp:[127.0.0.1]:$SINK_PORT"
  kill "$milter"
  equal "$(grep -i 'from: *<ida' "$POSTFIX/milter.log")" 'MAIL FROM:<ida@inside.example>
From: <ida@inside.example>
MAIL FROM:<ida.jones@outside.example>
From: <ida.jones@outside.example>'
  equal "$(delivered "milters")" "ann@example.com friend@localhost one@example.com,two@example.com"
  equal "$(delivered "copied")" "copy@example.com ida@inside.example"
}

@test "an outage of the database: mail goes on with the last rows" {
  tool alias set outage@example.com ann@example.com out@example.net
  seen alias outage@example.com ann@example.com,out@example.net
  local pid
  pid=$(server_pid)
  kill -STOP "$pid"
  send me@away.example "it hangs" outage@example.com || { kill -CONT "$pid" && false; }
  queue_empties || { kill -CONT "$pid" && false; }
  kill -CONT "$pid"
  equal "$(delivered "it hangs")" "ann@example.com out@example.net"

  "$TSL_TOOL" local stop --local="$SERVER"
  send me@away.example "it is gone" outage@example.com
  queue_empties
  equal "$(delivered "it is gone")" "ann@example.com out@example.net"

  tool alias set outage@example.com bob@example.com
  seen alias outage@example.com bob@example.com
  send me@away.example "it is back" outage@example.com
  queue_empties
  equal "$(delivered "it is back")" "bob@example.com"
}

@test "a service that starts without the database: mail waits, and nothing is lost or doubled" {
  tool alias set later@example.com ann@example.com out@example.net
  stop_service
  "$TSL_TOOL" local stop --local="$SERVER"
  start_service_unready
  local i
  for i in 1 2 3; do
    run -1 send me@away.example "later" later@example.com
    equal "${output%% *}" 451
    printf 'Subject: later\n\nHello\n' | sendmail -f me@away.example later@example.com
  done
  wait_for "mail that cannot be taken in" grep -q "cleanup.*lookup error.*later@example.com" "$POSTFIX/log"
  equal "$(delivered later)" ""
  "$TSL_TOOL" local start --local="$SERVER"
  wait_for "the service" sends me@away.example "later" later@example.com
  queue_empties
  equal "$(delivered later)" "$(printf 'ann@example.com %.0s' {1..4})$(printf 'out@example.net %.0s' {1..3})out@example.net"
}
sends() { send "$@" >/dev/null; }

# Sends 300 numbered mails, most over SMTP as another mail server does, which comes again when it is asked
# to; the others from this host.
traffic() {
  local i
  smtp_open
  for i in {1..300}; do
    echo "$i" >>"$BATS_TEST_TMPDIR/progress"
    if ((i % 10 == 0)); then
      printf 'Subject: traffic %d\n\nHello\n' "$i" | sendmail -f me@away.example busy@example.com
      continue
    fi
    until transmit me@away.example "traffic $i" busy@example.com; do
      [[ $SMTP_REPLY == 4* ]] || return 1
      echo "$SMTP_REPLY" >>"$BATS_TEST_TMPDIR/refused"
      sleep 0.05
    done
  done
  smtp_close
}
has_sent() { grep -qx "$1" "$BATS_TEST_TMPDIR/progress"; }

@test "restarts in the middle of traffic: each mail is delivered exactly once" {
  tool alias set busy@example.com ann@example.com out@example.net
  seen alias busy@example.com ann@example.com,out@example.net
  : >"$BATS_TEST_TMPDIR/progress"
  traffic &
  local pid=$!
  wait_for "a third of the traffic" has_sent 100
  stop_service
  wait_for "refused mail" test -s "$BATS_TEST_TMPDIR/refused"
  start_service
  wait_for "two thirds of the traffic" has_sent 200
  kill -KILL "$(<"$POSTFIX/service.pid")"
  start_service
  wait "$pid"
  queue_empties
  deliveries "traffic [0-9]*" >"$BATS_TEST_TMPDIR/got"
  for i in {1..300}; do
    printf 'traffic %d\tann@example.com\ntraffic %d\tout@example.net\n' "$i" "$i"
  done | LC_ALL=C sort >"$BATS_TEST_TMPDIR/want"
  diff "$BATS_TEST_TMPDIR/got" "$BATS_TEST_TMPDIR/want"
}

@test "restarts behind a socket that stays open: no mail is refused, and nothing waits" {
  tool alias set steady@example.com ann@example.com out@example.net
  seen alias steady@example.com ann@example.com,out@example.net
  stop_service
  start_service_behind_socket
  local before
  before=$(wc -l <"$POSTFIX/log")
  smtp_open
  for i in {1..60}; do
    ((i % 20 != 0)) || kill -HUP "$(<"$POSTFIX/service.pid")"
    transmit me@away.example "steady $i" steady@example.com
  done
  smtp_close
  queue_empties
  equal "$(deliveries "steady [0-9]*" | wc -l)" 120
  run tail -n "+$((before + 1))" "$POSTFIX/log"
  [[ $output != *"warning: "* && $output != *"fatal: "* && $output != *"status=deferred"* ]] || {
    grep -E "warning: |fatal: |deferred" <<<"$output"
    return 1
  }
  stop_service
  start_service
}
