# Who may write to a list and send as it, with a real Postfix and people who log in.

load postfix
POSTFIX_NEEDS=saslpasswd2

# rule ALIAS WRITERS [LISTED [OWNERS [EXPIRES]]]
rule() {
  sql "replace into rules values ('alias', '$1@example.com', '$2', '${3:-}', '${4:-}', ${5:-null}, '', '')"
}

setup_file() {
  [ -z "$(why_no_postfix)" ] || return 0
  start_server
  tool domain add example.com
  tool domain add example.net
  local user
  for user in ann@example.com bob@example.com eve@example.com guest@example.net; do tool user add "$user"; done
  tool alias set open@example.com ann@example.com
  tool alias set known@example.com ann@example.com
  tool alias set staff@example.com ann@example.com
  tool alias set team@example.com ann@example.com bob@example.com
  tool alias set board@example.com ann@example.com
  tool alias set all@example.com open@example.com team@example.com
  tool mask set team@example.com crew@example.com
  rule known authenticated
  rule staff domain
  rule team members '' bob@example.com
  rule board listed eve@example.com
  POSTFIX_MORE=with_policies start_postfix
  start_service --listen "policy:unix:$POSTFIX/policy,group=postfix"
  wait_for "the rules" refuses "" team@example.com
}

# Prints the settings of the document, and people who can log in, each with the password "secret".
with_policies() {
  # Where Postfix of Debian looks for it, whatever the setting says.
  local sasl=$MAIL_CONFIG/sasl user
  mkdir "$sasl"
  printf '%s\n' 'pwcheck_method: auxprop' 'auxprop_plugin: sasldb' 'mech_list: PLAIN' "sasldb_path: $sasl/users" \
    >"$sasl/smtpd.conf"
  for user in ann@example.com bob@example.com eve@example.com guest@example.net; do
    printf secret | saslpasswd2 -p -c -f "$sasl/users" -u "${user#*@}" "${user%@*}" >&2
  done
  chgrp postfix "$sasl/users"
  chmod 640 "$sasl/users"
  document_block postfix policy.cf | sed "s|/run/tsl-address-map|$POSTFIX|"
  printf '%s\n' 'smtpd_sasl_auth_enable = yes' "cyrus_sasl_config_path = $sasl"
}

# open_as LOGIN: opens a session; without a login when that is empty.
open_as() {
  smtp_open
  [ -z "$1" ] || smtp "AUTH PLAIN $(printf '\0%s\0secret' "$1" | base64 -w 0)"
  [[ $SMTP_REPLY == 2* ]]
}

# asks LOGIN FROM TO: prints the reply to the recipient.
asks() {
  open_as "$1" && smtp "MAIL FROM:<$2>" && smtp "RCPT TO:<$3>"
  smtp_close
  echo "$SMTP_REPLY"
}
permits() { [[ $(asks "$1" "${1:-me@away.example}" "$2") == 250* ]]; }
refuses() { [[ $(asks "$1" "${1:-me@away.example}" "$2") == "554 5.7.1 "*"only some people may write to $2" ]]; }

# judged LOGIN LIST...: the login may write to each list; to one with a "!" before it not.
judged() {
  local login=$1 list
  shift
  for list; do
    if [[ $list == !* ]]; then refuses "$login" "${list#!}@example.com"; else permits "$login" "$list@example.com"; fi ||
      { echo "$login: $list: $(asks "$login" "${login:-me@away.example}" "${list#!}@example.com")" && false; }
  done
}

@test "policies: each rule permits and refuses by the login" {
  judged "" open ann '!known' '!staff' '!team' '!board' '!all'
  judged guest@example.net open known '!staff' '!team' '!board' '!all'
  judged eve@example.com open known staff '!team' board '!all'
  judged bob@example.com open known staff team '!board' all
}

@test "policies: a tag, another spelling and a mask lead to the same list" {
  judged "" '!TEAM' '!team+tag' '!crew' '!crew+tag'
  judged bob@example.com TEAM team+tag crew crew+tag
}

@test "policies: a forged sender does not help, and permitted mail arrives" {
  [[ $(asks "" bob@example.com team@example.com) == "554 5.7.1 "* ]]
  [[ $(asks guest@example.net "" team@example.com) == "554 5.7.1 "* ]]
  [[ $(asks guest@example.net guest@example.net "team") == "504 5.5.2 "* ]]
  open_as bob@example.com
  smtp "MAIL FROM:<bob@example.com>"
  smtp "RCPT TO:<team@example.com>"
  smtp "DATA"
  printf 'Subject: permitted\r\n\r\nHello\r\n.\r\n' >&9
  smtp_reply
  smtp_close
  queue_empties
  equal "$(delivered permitted)" "ann@example.com bob@example.com"
}

@test "sender_login: a mailbox sends as itself, a list as its owners" {
  seen sender_login team@example.com bob@example.com
  seen sender_login ann@example.com ann@example.com
  seen sender_login open@example.com ""
  [[ $(asks ann@example.com ann@example.com open@example.com) == 250* ]]
  [[ $(asks ann@example.com ann+tag@example.com open@example.com) == 250* ]]
  [[ $(asks ann@example.com bob@example.com open@example.com) == "553 5.7.1 "*"not owned by user ann@example.com" ]]
  # A member is not an owner.
  [[ $(asks ann@example.com team@example.com open@example.com) == "553 5.7.1 "* ]]
  [[ $(asks bob@example.com team@example.com open@example.com) == 250* ]]
  [[ $(asks bob@example.com known@example.com open@example.com) == "553 5.7.1 "* ]]
}

@test "policies: 100 recipients in one session" {
  local i permitted=0 refused=0
  open_as eve@example.com
  smtp "MAIL FROM:<eve@example.com>"
  for i in {1..50}; do
    for list in staff team; do
      smtp "RCPT TO:<$list+$i@example.com>" || true
      case $SMTP_REPLY in
        250*) ((++permitted)) ;;
        554*) ((++refused)) ;;
      esac
    done
  done
  smtp_close
  equal "$permitted $refused" "50 50"
}

@test "policies: an outage of the database changes nothing; without the service or its rows mail waits" {
  "$TSL_TOOL" local stop --local="$SERVER"
  judged "" open '!team'
  judged bob@example.com team '!board'
  stop_service
  [[ $(asks bob@example.com bob@example.com team@example.com) == "451 4.3."* ]]
  start_service_unready --listen "policy:unix:$POSTFIX/policy,group=postfix"
  wait_for "the policy socket" test -S "$POSTFIX/policy"
  [[ $(asks "" me@away.example open@example.com) == 45[01]" 4.3.0 "* ]]
  "$TSL_TOOL" local start --local="$SERVER"
  wait_for "the rules" refuses "" team@example.com
  judged bob@example.com team
}

@test "policies: without the table of rules mail to aliases waits, and the log says what to do" {
  stop_service
  sql 'rename table rules to kept_rules;'
  start_service --listen "policy:unix:$POSTFIX/policy,group=postfix"
  [[ $(asks bob@example.com bob@example.com open@example.com) == "450 4.3.0 "*"there is no table of the rules of aliases" ]]
  judged "" ann
  wait_for "the log" grep -q "run 'tsl-address-map init', and grant the SQL user the right to select" "$POSTFIX/service.log"
  sql 'rename table kept_rules to rules;'
  wait_for "the rules" refuses "" team@example.com
}

@test "policies: the list of all users closes for outsiders as the document says" {
  tool alias set all@example.com allusers_example.com
  wait_for "the list of all users" permits "" all@example.com
  run eval "$(document_block postfix rule.sh | sed 's/^tsl-address-map /tool /')"
  equal "$(grep '^policy' <<<"$output" | cut -f 3 | cut -d ' ' -f 1 | paste -s -d ' ')" "REJECT DUNNO"
  wait_for "the rule" refuses "" all@example.com
  judged guest@example.net '!all'
  judged eve@example.com all
}
