# A Postfix of the tests' own, with the settings of docs/postfix.md, that asks the lookup service. All of
# it lies in one directory. Mail for mail users is written into files there; other mail goes out to a sink that
# writes down what it is given. Needs root, as Postfix does.
load ../tools/helper

# Where its commands are, also for those who have no business with them.
PATH=$PATH:/usr/sbin

# document_block PAGE KIND: the settings of that kind on the page docs/PAGE.md.
document_block() { sed -n "/^\`\`\`$2\$/,/^\`\`\`\$/{/^\`\`\`/!p}" "$BATS_TEST_DIRNAME/../../docs/$1.md"; }

# Why no Postfix can run here; empty when it can. A file of tests may need further commands: $POSTFIX_NEEDS.
why_no_postfix() {
  local command
  ((EUID == 0)) || echo "Postfix needs root"
  for command in postfix smtp-sink ${POSTFIX_NEEDS:-}; do
    command -v "$command" >/dev/null || echo "there is no $command"
  done
}

setup() {
  local why
  why=$(why_no_postfix)
  [ -z "$why" ] || skip "$why"
}

teardown_file() {
  stop_postfix
  [ -z "${SERVER:-}" ] || stop_server
}

# wait_for WHAT COMMAND...: runs the command until it succeeds. Fails after a minute.
wait_for() {
  local what=$1 end=$((SECONDS + 60))
  shift
  until "$@"; do
    if ((SECONDS >= end)); then
      echo "no end of waiting: $what"
      return 1
    fi
    sleep 0.05
  done
}

# --- The lookup service, at $SOCKET, with its messages in $POSTFIX/service.log.

# start_service [OPTION...]: starts it and waits until it has its tables.
start_service() {
  start_service_unready "$@"
  wait_for "the tables" service_has_tables
}

# The same, without waiting for more than its socket. The database is named by its option file: the
# service must not start it.
start_service_unready() {
  TSL_DATABASE_OPTION_FILE=$SERVER/client.cnf TSL_CMF_PATH=$SERVER/cmf setsid \
    "$TSL_TOOL" serve --listen "unix:$SOCKET,group=postfix" --refresh 100ms "$@" \
    >>"$POSTFIX/service.log" 2>&1 3>&- &
  echo $! >"$POSTFIX/service.pid"
  wait_for "the service" test -S "$SOCKET"
}

# The same, behind a socket that stays open while the service restarts, at SIGHUP.
start_service_behind_socket() {
  TSL_DATABASE_OPTION_FILE=$SERVER/client.cnf TSL_CMF_PATH=$SERVER/cmf setsid \
    python3 "$BATS_TEST_DIRNAME/activate.py" "$SOCKET" postfix "$TSL_TOOL" serve --refresh 100ms \
    >>"$POSTFIX/service.log" 2>&1 3>&- &
  echo $! >"$POSTFIX/service.pid"
  wait_for "the tables" service_has_tables
}

service_has_tables() {
  local table
  for table in alias mask_public; do
    postmap -q nobody@nowhere.example "$(map "$table")" >/dev/null 2>"$BATS_TEST_TMPDIR/error"
    [ ! -s "$BATS_TEST_TMPDIR/error" ] || return 1
  done
}

stop_service() {
  [ -e "$POSTFIX/service.pid" ] || return 0
  local pid
  pid=$(<"$POSTFIX/service.pid")
  rm "$POSTFIX/service.pid"
  kill -TERM "$pid" 2>/dev/null || true
  wait_for "the end of the service" ended "$pid"
}

# Also when nobody has asked yet how it ended.
ended() { ! kill -0 "$1" 2>/dev/null || grep -q '^State:.Z' "/proc/$1/status" 2>/dev/null; }

# The name that Postfix has for the map $1.
map() { printf 'socketmap:unix:%s:%s' "$SOCKET" "$1"; }

# seen MAP KEY ANSWER: waits until the service answers so; "" means "not found".
seen() { wait_for "$2 -> $3 in $1" answers "$@"; }
answers() { [ "$(postmap -q "$2" "$(map "$1")" 2>&1)" = "$3" ]; }

# --- Postfix

start_postfix() {
  POSTFIX=$(mktemp -d /tmp/tsl-postfix-XXXXXX)
  chmod 755 "$POSTFIX"
  export POSTFIX SOCKET=$POSTFIX/socketmap MAIL_CONFIG=$POSTFIX/etc
  mkdir "$POSTFIX"/{etc,queue,data,mail,sink}
  chown postfix: "$POSTFIX"/{data,sink}
  chown nobody "$POSTFIX/mail"
  cp /etc/postfix/dynamicmaps.cf "$MAIL_CONFIG"
  deliver_program >"$POSTFIX/deliver"
  resend_program >"$POSTFIX/resend"
  chmod 755 "$POSTFIX/deliver" "$POSTFIX/resend"
  start_sink
  main_cf >"$MAIL_CONFIG/main.cf"
  SMTP_PORT=$(start_on_free_port start_master)
  export SMTP_PORT
}

stop_postfix() {
  [ -n "${POSTFIX:-}" ] || return 0
  stop_service
  postfix stop 2>/dev/null || true
  [ ! -e "$POSTFIX/sink.pid" ] || kill "$(<"$POSTFIX/sink.pid")" 2>/dev/null || true
  rm -rf "$POSTFIX"
}

# start_on_free_port COMMAND: runs COMMAND PORT with one port after the other until it succeeds; prints it.
start_on_free_port() {
  local port i
  for i in {1..50}; do
    port=$((10000 + RANDOM % 20000))
    if "$1" "$port" >"$POSTFIX/start.log" 2>&1; then
      echo "$port"
      return
    fi
  done
  cat "$POSTFIX/start.log" >&2
  return 1
}

start_sink() {
  SINK_PORT=$(start_on_free_port start_sink_at)
  export SINK_PORT
}

start_sink_at() {
  setsid smtp-sink -u postfix -D "$POSTFIX/sink/mail" "127.0.0.1:$1" 100 >"$POSTFIX/sink.log" 2>&1 3>&- &
  echo $! >"$POSTFIX/sink.pid"
  wait_for "the sink" sink_has_begun "$1"
  ! ended "$(<"$POSTFIX/sink.pid")"
}
sink_has_begun() { ended "$(<"$POSTFIX/sink.pid")" || (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# What keeps the mail of mail users, in the form of smtp-sink, and refuses that for full.USER@DOMAIN. Arguments:
# the recipients.
deliver_program() {
  cat <<END
#!/bin/sh
case \$1 in full.*) exit 77 ;; esac
file=\$(mktemp "$POSTFIX/mail/XXXXXXXX") || exit 75
{ printf 'X-Rcpt-Args: <%s>\n' "\$@"; cat; } >"\$file" || exit 75
mv "\$file" "\$file.mail"
END
}

# What sends the mail of a list once more: sendmail(1) takes no other directory of settings from pipe(8).
# Arguments: the port, and those of sendmail in the document.
resend_program() {
  cat <<'END'
#!/bin/bash
port=$1 from=$5 to=$7
exec 9<>"/dev/tcp/127.0.0.1/$port" || exit 75
reply() {
  while IFS= read -r -t 60 -u 9 line && [[ $line == ???-* ]]; do :; done
  [[ $line == [23]* ]] || exit 75
}
reply
for line in "EHLO client.example" "MAIL FROM:<$from>" "RCPT TO:<$to>" DATA; do
  printf '%s\r\n' "$line" >&9
  reply
done
sed 's/^\./../; s/\r*$/\r/; $a .\r' >&9
reply
END
}

# The settings of the document, those that keep this instance to itself, and those that the command
# $POSTFIX_MORE prints.
main_cf() {
  document_block postfix main.cf |
    sed "s|/run/tsl-address-map/socketmap|$SOCKET|"
  cat <<END
compatibility_level = 3.6
queue_directory = $POSTFIX/queue
data_directory = $POSTFIX/data
maillog_file = $POSTFIX/log
maillog_file_prefixes = $POSTFIX
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
myhostname = mail.test.example
smtp_connection_cache_on_demand = no
mydestination =
alias_maps =
alias_database =
local_recipient_maps =
disable_dns_lookups = yes
default_transport = smtp:[127.0.0.1]:$SINK_PORT
virtual_transport = mailbox
smtpd_peername_lookup = no
smtpd_error_sleep_time = 0
smtpd_soft_error_limit = 100000
smtpd_hard_error_limit = 100000
smtpd_recipient_limit = 10000
smtpd_client_connection_count_limit = 0
in_flow_delay = 0
queue_run_delay = 1s
minimal_backoff_time = 1s
maximal_backoff_time = 1s
transport_retry_time = 1s
END
  ${POSTFIX_MORE:-:}
}

start_master() {
  cat >"$MAIL_CONFIG/master.cf" <<END
127.0.0.1:$1 inet n - n - - smtpd
pickup unix n - n 1 1 pickup
cleanup unix n - n - 0 cleanup
qmgr unix n - n 1 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
verify unix - - n - 1 verify
flush unix n - n 0 0 flush
proxymap unix - - n - - proxymap
showq unix n - n - - showq
smtp unix - - n - - smtp
error unix - - n - - error
retry unix - - n - - error
mailbox unix - n n - - pipe user=nobody argv=$POSTFIX/deliver \${recipient}
anvil unix - - n - 1 anvil
postlog unix-dgram n - n - 1 postlogd
END
  document_block postfix master.cf |
    sed "s|/usr/sbin/sendmail|$POSTFIX/resend $1|" >>"$MAIL_CONFIG/master.cf"
  postfix start 3>&- || return
  wait_for "Postfix" greets "$1"
}
greets() { (exec 9<>"/dev/tcp/127.0.0.1/$1" && read -r -u 9 && [[ $REPLY == "220 mail.test.example"* ]]) 2>/dev/null; }

# settings NAME=VALUE...: changes settings of main.cf, and waits until no process has the old ones.
settings() {
  local pid old master main_cf=$MAIL_CONFIG/main.cf
  master=$(tr -d ' ' <"$POSTFIX/queue/pid/master.pid")
  # Whoever reads a file of this second waits to see whether more is written.
  touch -d '1 minute ago' "$main_cf"
  postconf -e "$@"
  touch -d '1 minute ago' "$main_cf"
  old=$(pgrep -P "$master" 'smtpd|cleanup|rewrite')
  kill -HUP "$master"
  for pid in $old; do wait_for "the end of a process" ended "$pid"; done
}

# Waits until Postfix has nothing left to do.
queue_empties() { wait_for "an empty queue" queue_is_empty; }
queue_is_empty() {
  local directory
  # In the order in which mail goes, twice, as it may also go back.
  for directory in maildrop incoming active deferred incoming active deferred; do
    [ -z "$(find "$POSTFIX/queue/$directory" -type f 2>/dev/null)" ] || return 1
  done
}

# --- Mail

# Opens a session with Postfix.
smtp_open() {
  exec 9<>"/dev/tcp/127.0.0.1/$SMTP_PORT"
  smtp_reply
  smtp "EHLO client.example"
}
smtp_close() { exec 9>&-; }

# Reads a reply; its last line is in SMTP_REPLY.
smtp_reply() {
  while IFS= read -r -t 60 -u 9 SMTP_REPLY; do
    SMTP_REPLY=${SMTP_REPLY%$'\r'}
    [[ $SMTP_REPLY == ???-* ]] || return 0
  done
  SMTP_REPLY="no reply"
  return 1
}

smtp() {
  printf '%s\r\n' "$1" >&9
  smtp_reply
}

# transmit FROM SUBJECT TO...: sends one mail over the open session. SMTP_REPLY is the reply that
# decided; 0 when it was taken.
transmit() {
  local from=$1 subject=$2 to extra=
  shift 2
  [[ "$from$*" == *[![:ascii:]]* ]] && extra=" SMTPUTF8"
  smtp "MAIL FROM:<$from>$extra"
  for to in "$@"; do
    [[ $SMTP_REPLY == 2* ]] && smtp "RCPT TO:<$to>"
  done
  [[ $SMTP_REPLY == 2* ]] && smtp "DATA"
  if [[ $SMTP_REPLY != 3* ]]; then
    local decided=$SMTP_REPLY
    smtp "RSET"
    SMTP_REPLY=$decided
    return 1
  fi
  # Written at once, by cat: line by line, as the shell writes, each waits for the one before on its way.
  cat >&9 <<<"$(printf 'From: <%s>\r\nTo: <%s>\r\nSubject: %s\r\n\r\nHello\r\n.\r' "$from" "$1" "$subject")"
  smtp_reply
  [[ $SMTP_REPLY == 2* ]]
}

# send FROM SUBJECT TO...: the same in a session of its own; prints the reply.
send() {
  local code=0
  smtp_open
  transmit "$@" || code=1
  smtp_close
  echo "$SMTP_REPLY"
  return "$code"
}

# deliveries PATTERN: "SUBJECT<TAB>RECIPIENT" for each delivery of mail whose whole subject matches the
# pattern, sorted.
deliveries() {
  find "$POSTFIX/sink" "$POSTFIX/mail" -type f -name '*mail' -exec awk -v pattern="^Subject: ($1)\$" '
    {sub(/\r$/, "")}
    FNR == 1 || /^X-Client-Addr: / {count = 0}
    /^X-Rcpt-Args: / {address = substr($0, 15); sub(/>.*/, "", address); recipients[count++] = address}
    $0 ~ pattern {for (i = 0; i < count; ++i) print substr($0, 10) "\t" recipients[i]; count = 0}
  ' {} + | LC_ALL=C sort
}

# delivered SUBJECT: the recipients of mail with the subject, sorted, on one line.
delivered() { deliveries "$1" | cut -f 2 | paste -s -d ' '; }
