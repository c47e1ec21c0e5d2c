#!/usr/bin/env bats
# The lookup service as administrators and mail servers meet it: starting, signals, systemd, reloading,
# and a database that is killed, paused and brought back under load. A database server for each test that
# harms one, a common one for the others.

load ../tools/helper
load service

setup_file() {
  start_server
  tool domain add users.example >/dev/null
  tool user add ann@users.example >/dev/null
}
teardown_file() { stop_server; }

setup() {
  directory=$BATS_TEST_TMPDIR
  socket=$directory/socketmap
  empty_tables
  tool alias set team@example.com ann@example.com bob@example.net
}

teardown() {
  [[ -z ${load:-} ]] || kill "$load" 2>/dev/null || true
  end_service
}

# Starts the service with the options $@ and waits until it listens. Its log goes to $directory/log.
start_service() {
  "$TSL_TOOL" --local="$SERVER" serve --listen "unix:$socket" "$@" 2>>"$directory/log" 3>&- &
  service=$!
  wait_for test -S "$socket"
}

end_service() {
  [[ -n ${service:-} ]] || return 0
  kill -TERM "$service" 2>/dev/null || true
  wait "$service" || true
  service=
}

# Sends the requests $@ over one connection and prints the replies, one per line.
ask() {
  python3 - "$socket" "$@" <<'PYTHON'
import socket, sys
connection = socket.socket(socket.AF_UNIX)
connection.settimeout(20)
connection.connect(sys.argv[1])
file = connection.makefile("rb")
for request in sys.argv[2:]:
    data = request.encode("utf-8", "surrogateescape")
    connection.sendall(b"%d:%s," % (len(data), data))
    size = b""
    while (c := file.read(1)) != b":":
        if not c:
            sys.exit("the connection was ended")
        size += c
    sys.stdout.buffer.write(file.read(int(size)) + b"\n")
    file.read(1)
PYTHON
}

answers() { [ "$(ask "$1")" = "$2" ]; }

# Asks for team@example.com without end, over new connections too, and notes each reply that is neither
# $1 nor one of the others given. Ends with the first connection that cannot be made.
start_load() {
  python3 - "$socket" "$directory/wrong" "$@" <<'PYTHON' 3>&- &
import socket, sys
count = 0
while True:
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(20)
    connection.connect(sys.argv[1])
    for i in range(200):
        connection.sendall(b"22:alias team@example.com,")
        reply = connection.recv(4096).decode()
        count += 1
        if reply.split(":", 1)[-1].rstrip(",").strip() not in [a.strip() for a in sys.argv[3:]]:
            open(sys.argv[2], "a").write(repr(reply) + "\n")
    connection.close()
    open(sys.argv[2] + ".count", "w").write(str(count))
PYTHON
  load=$!
  wait_for test -s "$directory/wrong.count"
}

# The load goes on for another while, and got nothing wrong.
load_is_well() {
  local before
  before=$(cat "$directory/wrong.count")
  wait_for bash -c "(( \$(cat '$directory/wrong.count') > ${before:-0} + 400 ))"
  kill -0 "$load"
  [ ! -e "$directory/wrong" ] || {
    head -3 "$directory/wrong"
    return 1
  }
}

found='OK ann@example.com,bob@example.net'
blank=' '

@test "every map answers, found and not found" {
  tool mask set boss@inner.example chief@example.com
  start_service
  wait_for answers 'alias team@example.com' "$found"
  wait_for answers 'mask_public boss@inner.example' 'OK chief@example.com'
  run ask 'alias TEAM@Example.COM' 'alias nobody@example.com' 'mask_public boss@inner.example' \
    'mask_private chief@example.com' 'mask_public ann@inner.example' 'mailbox Ann@users.example' \
    'mailbox bob@users.example' 'domain users.example' 'domain example.com' 'alias:none x@example.com' \
    'nomap x@example.com' 'alias team+sport@example.com'
  equal "$output" "$found
NOTFOUND$blank
OK chief@example.com
OK boss@inner.example
NOTFOUND$blank
OK ann@users.example
NOTFOUND$blank
OK users.example
NOTFOUND$blank
TEMP there is no such table
PERM there is no such map
OK ann+sport@example.com,bob+sport@example.net"
}

@test "answer shows what becomes of mail, by the database and by the service" {
  local address=$'mask_private\tTEAM+x@out.example\t'
  tool mask set team@example.com team@out.example
  tool alias set team@example.com ann@users.example gone@users.example bob@far.example
  expected="$address"$'OK team+x@example.com
tag\tTEAM+x@out.example\tno row of TEAM+x@out.example, asked for TEAM@out.example
alias\tteam+x@example.com\tOK ann+x@users.example,bob+x@far.example,gone+x@users.example
tag\tteam+x@example.com\tno row of team+x@example.com, asked for team@example.com
tag\tann+x@users.example\tno user ann+x@users.example, asked for ann@users.example
recipient\tann+x@users.example\tmailbox
recipient\tbob+x@far.example\telsewhere
recipient\tgone+x@users.example\trefused'
  run -1 --separate-stderr tool answer TEAM+x@out.example
  equal "$output" "$expected"
  run -0 tool answer ann@users.example bob@far.example --json
  equal "$(python3 -c 'import json, sys
for one in json.load(sys.stdin): print(one["address"], one["fate"], one["recipients"], one["steps"][1])' <<<"$output")" \
    "ann@users.example mailbox [{'address': 'ann@users.example', 'fate': 'mailbox', 'base': None}] {'map': 'alias', 'key': 'ann@users.example', 'result': 'NOTFOUND', 'data': '', 'base': None}
bob@far.example elsewhere [{'address': 'bob@far.example', 'fate': 'elsewhere', 'base': None}] {'map': 'alias', 'key': 'bob@far.example', 'result': 'NOTFOUND', 'data': '', 'base': None}"
  run -1 tool answer TEAM+x@out.example --json
  contains "$output" '"data":"team+x@example.com","base":"TEAM@out.example"}'
  contains "$output" '{"address":"ann+x@users.example","fate":"mailbox","base":"ann@users.example"}'
  start_service
  wait_for answers 'mask_public team@example.com' 'OK team@out.example'
  wait_for answers 'alias team@example.com' 'OK ann@users.example,bob@far.example,gone@users.example'
  wait_for answers 'domain users.example' 'OK users.example'
  run -1 --separate-stderr tool answer TEAM+x@out.example --from "unix:$socket"
  equal "$output$stderr" "$expected"
  # What the service does not see.
  mkdir "$directory/other"
  tool --cmf "$directory/other" domain add users.example
  run -0 --separate-stderr tool --cmf "$directory/other" answer ann@users.example --from "unix:$socket"
  contains "$output" $'recipient\tann@users.example\tmailbox'
  equal "$stderr" "tsl-address-map: warning: the service answers for ann@users.example otherwise than the database: its rows are older, or its options differ from those that were given here
tsl-address-map:   by the database: ann@users.example, refused"
  run -75 --separate-stderr tool --table none answer ann@users.example --from "unix:$socket"
  contains "$stderr" "the answers of the service were not compared with the database: "
  contains "$output" "TEMP there is no such table"
  run -64 --separate-stderr tool answer ann@users.example --from "$socket"
  contains "$stderr" "--from '$socket': it does not begin with a kind of socket"
  run -75 --separate-stderr tool answer ann@users.example --from "unix:$directory/nobody"
  contains "$stderr" "the service at unix:$directory/nobody: No such file or directory"
  run -75 --separate-stderr tool --cmf "$directory" answer ann@users.example
  contains "$output" $'recipient\tann@users.example\twaits'
  contains "$stderr" "warning: the configuration cannot be read: "
}

@test "answer shows who may write to an address, and who may send as it" {
  tool alias set closed@example.com bob@far.example
  sql "insert into rules values ('alias', 'closed@example.com', 'members', '', 'ann@users.example', null, '', '')"
  run -1 tool answer closed@example.com --as - 2>/dev/null
  contains "$output" $'policy\tclosed@example.com\tREJECT 5.7.1 only some people may write to closed@example.com
sender_login\tclosed@example.com\tOK ann@users.example'
  run -0 tool answer closed@example.com --as bob --login-domain far.example --json
  contains "$output" '"policy":"DUNNO","sender_login":"OK ann@users.example"'
  run -64 --separate-stderr tool answer closed@example.com --as - --from "unix:$socket"
  contains "$stderr" "leave out --from"
  sql 'delete from rules'
  tool alias remove closed@example.com
}

@test "the tool says what the service answers where the library finds another mask" {
  local request map address reply
  tool mask set ann@inner.example a.smith@out.example
  tool mask set '*@inner.example' '*@out.example'
  tool mask set ann@büro.example a.jones@out.example
  tool mask set '*@xn--bro-hoa.example' '*@other.example'
  tool mask set '*@second.example' 'x*@other.example'
  start_service
  wait_for answers 'mask_public ann@second.example' 'OK ann@other.example'
  for request in 'public ann+x@inner.example' 'private a.smith+x@out.example' 'public ANN+x@xn--bro-hoa.example' \
    'public ann@xn--bro-hoa.example' 'public bob@Inner.example' 'private bob@OTHER.example' 'private bob@other.example' \
    'public bob+x@inner.example' 'public ann@büro.example' 'public ann+x@büro.example'; do
    read -r map address <<<"$request"
    reply=$(ask "mask_$map $address")
    run --separate-stderr tool mask "$map" "$address"
    [[ $stderr == *"the lookup service answers ${reply#OK } for $address:"* || $output == "${reply#OK }" ]] ||
      { echo "$request: $reply, the tool: $output $stderr"; return 1; }
  done
}

@test "a change is seen within a second of its commit, each of a row of changes" {
  start_service
  wait_for answers 'alias team@example.com' "$found"
  for i in 1 2 3 4 5; do
    tool alias set team@example.com "member$i@example.com"
    end=$((${EPOCHREALTIME/./} + 1000000))
    until answers 'alias team@example.com' "OK member$i@example.com"; do
      ((${EPOCHREALTIME/./} < end)) || { echo "change $i is not seen"; return 1; }
    done
  done
}

# SIGTERM ends the service with status 0 in well under a second; with a sanitizer all takes longer.
ends_at_once() {
  local start=${EPOCHREALTIME/./} took
  kill -TERM "$service"
  wait "$service"
  service=
  took=$((${EPOCHREALTIME/./} - start))
  echo "the end took $took us"
  is_sanitized || ((took < 800000))
}

# Connects three mail servers that are idle, in the middle of a request, and not reading its replies.
connect_silently() {
  python3 - "$socket" <<'PYTHON' 3>&- &
import socket, sys, time
def connect():
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(sys.argv[1])
    return connection
connections = [connect() for i in range(3)]
connections[1].sendall(b"22:alias te")
connections[2].settimeout(0.1)
try:
    while True:
        connections[2].sendall(b"22:alias team@example.com," * 1000)
except socket.timeout:
    print("connected", flush=True)
time.sleep(20)
PYTHON
  load=$!
}

@test "disabled users are left out of aliases and masks with --leave-out-disabled, at once" {
  tool user add gone@users.example
  tool alias set left@example.com ann@users.example gone@users.example
  tool mask set gone@users.example public@example.com
  start_service --leave-out-disabled
  wait_for answers 'alias left@example.com' 'OK ann@users.example,gone@users.example'
  wait_for answers 'mask_private public@example.com' 'OK gone@users.example'
  tool user add gone@users.example --kind disabled
  wait_for answers 'alias left@example.com' 'OK ann@users.example'
  answers 'mask_private public@example.com' "NOTFOUND$blank"
  tool user remove gone@users.example
}

@test "SIGTERM stops it with status 0, answers what was asked, and removes the socket" {
  start_service
  wait_for answers 'alias team@example.com' "$found"
  connect_silently >"$directory/silent"
  wait_for test -s "$directory/silent"
  ends_at_once
  [ ! -e "$socket" ]
  contains "$(cat "$directory/log")" "info: listening on $socket"
  contains "$(cat "$directory/log")" "info: ending"
}

@test "the socket of a service that was killed is replaced, that of a living one is not" {
  start_service
  wait_for answers 'alias team@example.com' "$found"
  run "$TSL_TOOL" --local="$SERVER" serve --listen "unix:$socket"
  [ "$status" -eq 78 ]
  contains "$output" "another service listens there"
  kill -KILL "$service"
  wait "$service" || true
  [ -S "$socket" ]
  start_service
  wait_for answers 'alias team@example.com' "$found"
}

@test "SIGHUP rereads all tables, without a gap in the answers" {
  start_service --log-level debug
  wait_for answers 'alias team@example.com' "$found"
  start_load "$found"
  kill -HUP "$service"
  wait_for grep -q "rereading all tables" "$directory/log"
  load_is_well
}

@test "the service reports to systemd that it is ready, and hands over sockets" {
  run python3 - "$TSL_TOOL" "$SERVER" "$directory" <<'PYTHON'
import os, socket, sys, time
tool, server, directory = sys.argv[1:]
notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
notify.bind(directory + "/notify")
notify.settimeout(20)
listener = socket.socket(socket.AF_UNIX)
listener.bind(directory + "/handed")
listener.listen()
def prepare():
    os.dup2(listener.fileno(), 3)
    os.environ["LISTEN_PID"] = str(os.getpid())
start = time.monotonic()
child = os.fork()
if child == 0:
    os.dup2(listener.fileno(), 3)
    os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1", NOTIFY_SOCKET=directory + "/notify",
                      WATCHDOG_PID=str(os.getpid()), WATCHDOG_USEC="200000")
    os.execv(tool, [tool, "--local=" + server, "serve"])
def until(text):
    while text not in (got := notify.recv(4096)):
        pass
until(b"READY=1")
for _ in range(8):
    until(b"WATCHDOG=1")
assert time.monotonic() - start > 0.6, "signs of life without a pause"
client = socket.socket(socket.AF_UNIX)
client.settimeout(20)
client.connect(directory + "/handed")
client.sendall(b"8:alias x@,")
assert client.recv(100) == b"9:NOTFOUND ,", "reply"
os.kill(child, 1)
until(b"RELOADING=1")
until(b"READY=1")
os.kill(child, 15)
until(b"STOPPING=1")
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
PYTHON
  equal "$(tail -1 <<<"$output")" 0
}

@test "restarts behind a socket that stays open answer every request" {
  python3 "$BATS_TEST_DIRNAME/activate.py" "$socket" nogroup "$TSL_TOOL" --local="$SERVER" serve \
    2>>"$directory/log" 3>&- &
  service=$!
  wait_for test -S "$socket"
  # As Postfix does, it asks once more when a connection that it had kept is closed. Nothing else is
  # forgiven, from the first request on.
  python3 - "$socket" "$directory/count" "$found" <<'PYTHON' 2>"$directory/wrong" 3>&- &
import os, signal, socket, sys
def ask(connection, request):
    data = request.encode()
    connection.sendall(b"%d:%s," % (len(data), data))
    return connection.recv(4096).decode()
wanted = {"alias team@example.com": sys.argv[3], "mailbox ann@users.example": "OK ann@users.example"}
count = 0
connection = None
while True:
    for request, want in wanted.items():
        reply = ""
        if connection:
            try:
                reply = ask(connection, request)
            except ConnectionError:
                pass
        if not reply:
            connection = socket.socket(socket.AF_UNIX)
            connection.connect(sys.argv[1])
            reply = ask(connection, request)
        if reply.split(":", 1)[-1].rstrip(",") != want:
            sys.exit(f"{request}: {reply}")
        count += 1
    open(sys.argv[2] + ".new", "w").write(str(count))
    os.rename(sys.argv[2] + ".new", sys.argv[2])
PYTHON
  load=$!
  wait_for test -s "$directory/count"
  for i in 1 2 3; do
    kill -HUP "$service"
    wait_for bash -c "(( \$(grep -c 'listening on' '$directory/log') > $i ))"
    before=$(<"$directory/count")
    wait_for bash -c "(( \$(<'$directory/count') > $before + 100 ))"
  done
  kill -0 "$load"
  equal "$(<"$directory/wrong")" ""
}

@test "lines of the log that cannot be written are counted" {
  choose_port
  "$TSL_TOOL" --local="$SERVER" serve --listen "unix:$directory/s" --metrics "127.0.0.1:$port" 2>/dev/full 3>&- &
  service=$!
  lines_are_lost() { get metrics 2>/dev/null | grep -q '^tsl_address_map_log_lines_lost [1-9]'; }
  wait_for lines_are_lost
}

@test "metrics, health and readiness are served over HTTP, without an address" {
  choose_port
  start_service --metrics "127.0.0.1:$port"
  wait_for answers 'alias team@example.com' "$found"
  equal "$(get health)" "200 ok"
  wait_for is_ready
  metrics=$(get metrics)
  contains "$metrics" 'tsl_address_map_requests_total{map="alias",result="ok"}'
  contains "$metrics" 'tsl_address_map_rows{table="alias"} 1'
  [[ $metrics != *example.com* ]]
}

@test "a missing table is answered TEMP and is not ready until SIGHUP confirms that it is gone" {
  choose_port
  sql 'drop table if exists alias_passing; create table alias_passing like alias; insert into alias_passing select * from alias;'
  start_service --metrics "127.0.0.1:$port"
  wait_for answers 'alias.passing team@example.com' "$found"
  sql 'drop table alias_passing;'
  wait_for answers 'alias.passing team@example.com' 'TEMP the table is missing in the database'
  contains "$(get ready)" '503 alias_passing: the table is missing in the database'
  kill -HUP "$service"
  wait_for answers 'alias.passing team@example.com' 'TEMP there is no such table'
  is_ready
  [[ $(get metrics) != *alias_passing* ]]
}

@test "a table that --only or a mail server names, and that is not there, is reported, and is not ready" {
  choose_port
  sql 'drop table if exists alias_sales; create table alias_sales like alias;'
  start_service --only sales --only nosuch --metrics "127.0.0.1:$port"
  wait_for log_has "error: --only nosuch: there is no table alias_nosuch or mask_nosuch, and its requests are answered TEMP; the named tables are alias_sales"
  contains "$(get ready)" "503 --only nosuch: there is no such table"
  sql 'create table alias_nosuch like alias;'
  wait_for is_ready
  answers 'alias.slaes team@example.com' 'TEMP there is no such table'
  wait_for log_has "mail servers ask for table alias_slaes and are answered TEMP: there is no such table; the named tables are alias_nosuch, alias_sales"
  contains "$(get ready)" "503 alias_slaes: mail servers ask for it, and it is not served"
  sql 'drop table alias_nosuch; drop table alias_sales;'
}

@test "a row that cannot be read stops nothing but itself" {
  sql "insert into alias (name, members) values ('broken@example.com', 'no address')"
  start_service
  wait_for answers 'alias team@example.com' "$found"
  run ask 'alias broken@example.com'
  equal "$output" "TEMP the row of this alias cannot be read"
  contains "$(cat "$directory/log")" "1 rows cannot be read and are left out"
  [[ $(cat "$directory/log") != *broken@* ]]
}

@test "wrong options are refused with 64 and an example" {
  for wrong in '--listen nowhere' '--refresh soon' '--page 1' '--extension maybe' '--metrics here' '--delimiter @'; do
    # The words of $wrong are two arguments.
    # shellcheck disable=SC2086
    run "$TSL_TOOL" --local="$SERVER" serve $wrong
    [ "$status" -eq 64 ] || { echo "$wrong: $status: $output"; return 1; }
  done
  run "$TSL_TOOL" --local="$SERVER" serve
  [ "$status" -eq 64 ]
  contains "$output" "there is nothing to listen on"
  contains "$output" "give --listen, as in --listen unix:/run/tsl-address-map/socketmap"
}

@test "--check-config names all that is wrong, needs no database, and leaves a running service alone" {
  start_service
  wait_for answers 'alias team@example.com' "$found"
  mkdir -m 700 "$directory/state" "$directory/cmf"
  printf '[client]\nsocket=/nonexistent/socket\n' >"$directory/client.cnf"
  before=$(stat -c %i "$socket")
  check=("$TSL_TOOL" --cmf "$directory/cmf" serve --check-config)
  export TSL_DATABASE_OPTION_FILE=$directory/client.cnf
  run -0 "${check[@]}" --listen "unix:$socket" --snapshot "$directory/state" --metrics 127.0.0.1:0 --count-use "$directory/state/used"
  equal "$output" ""
  run -0 "${check[@]}"
  echo nonsense >"$directory/client.cnf"
  chmod 777 "$directory/state"
  run -78 "${check[@]}" --listen "unix:$directory/log" --listen unix:/nonexistent/socket --listen inet:192.0.2.1:7321 --metrics 192.0.2.1:9321 --snapshot "$directory/state" --count-use "$directory/log"
  equal "$output" "tsl-address-map: listening on $directory/log: there is another file
tsl-address-map: hint: give another path, or remove the file
tsl-address-map: listening on /nonexistent/socket: the directory cannot be written: No such file or directory
tsl-address-map: hint: create the directory, writable for the user of the service
tsl-address-map: listening on 192.0.2.1 port 7321: bind: Cannot assign requested address
tsl-address-map: hint: give a free port on an address of this host
tsl-address-map: listening on 192.0.2.1 port 9321: bind: Cannot assign requested address
tsl-address-map: hint: give a free port on an address of this host
tsl-address-map: --snapshot $directory/state: $directory/state can be written by other users
tsl-address-map: hint: make it readable and writable for the user of the service only
tsl-address-map: --count-use $directory/log: it is no file of used aliases
tsl-address-map: hint: name a file that is not there yet, in a directory for the service's user only
tsl-address-map: TSL_DATABASE_OPTION_FILE: The database option file '$directory/client.cnf' is broken in line 1: an option before the first group, such as [client]
tsl-address-map: hint: correct the file, or name another one"
  run -64 "${check[@]}" --page 1
  run -0 env -u TSL_DATABASE_OPTION_FILE "$TSL_TOOL" --local="$directory/nowhere" serve --check-config
  equal "$(ls -A "$directory")" "$(printf 'client.cnf\ncmf\nlog\nsocketmap\nstate')"
  equal "$(ls -A "$directory/state" "$directory/cmf" | grep -v :)" ""
  equal "$(stat -c %i "$socket")" "$before"
  answers 'alias team@example.com' "$found"
}

@test "aliases that no mail server has asked for are listed, also after a restart" {
  tool alias set all@example.com team@example.com
  tool alias set old@example.com ann@example.com
  used=$directory/used
  unused() { run --separate-stderr tool alias list --unused "$used" "$@"; }
  start_service --count-use "$used"
  wait_for answers 'alias All@example.com' "$found"
  wait_for test -s "$used"
  end_service
  # The service expands the team in the answer for all.
  unused
  equal "$output" $'old@example.com\tann@example.com'
  contains "$stderr" "that is less than a month"
  unused --json --match '*old*'
  equal "$output" '[{"address":"old@example.com","members":["ann@example.com"]}]'
  unused --match '*team*'
  equal "$output" ""
  tool alias remove all@example.com
  start_service --count-use "$used" --workers 2
  wait_for answers 'alias old+tag@example.com' 'OK ann+tag@example.com'
  end_service
  equal "$(tail -n +2 "$used")" 'alias old@example.com'
  unused
  equal "$output" $'team@example.com\tann@example.com,bob@example.net'
  # Another host's file: the time that both count is short, and a service that ended is named.
  sed 's/ since [-0-9]* [:0-9]*/ since 2020-01-01 12:00:00/; s/ until [-0-9]* [:0-9]*/ until 2020-03-01 12:00:00/' "$used" >"$directory/other"
  run --separate-stderr tool alias list --unused "$directory/other"
  contains "$stderr" "for 60 days"
  [[ $stderr != *"less than a month"* ]]
  contains "$stderr" "warning: $directory/other ends at 2020-03-01 12:00:00"
  unused --unused "$directory/other"
  contains "$stderr" "for 0 hours"
  contains "$stderr" "less than a month"
  for wrong in "$directory/nothing" "$directory/log"; do
    run -65 tool alias list --unused "$wrong"
    contains "$output" "serve --count-use"
  done
}

@test "without a descriptor for a connection it says so, waits without work, and goes on when there is one" {
  ulimit -n 70
  start_service
  wait_for answers 'alias team@example.com' "$found"
  contains "$(cat "$directory/log")" "the limit of open files allows 64 connections instead of 10000; raise LimitNOFILE= of the unit"
  # A table that has just changed is read again, over a connection of its own if there is a descriptor
  # for it. A sanitizer needs one itself, to look at the failure, and would end the service.
  sleep 2
  run python3 - "$socket" "$directory/log" "$service" <<'PYTHON'
import socket, sys, time
def processor_seconds():
    fields = open(f"/proc/{sys.argv[3]}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / 100
def connect():
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(20)
    connection.connect(sys.argv[1])
    return connection
connections = [connect() for i in range(60)]
while "error: no connection can be accepted: Too many open files" not in open(sys.argv[2]).read():
    time.sleep(0.01)
before = processor_seconds()
time.sleep(0.5)
assert processor_seconds() - before < 0.15, "it works while it waits"
for connection in connections:
    connection.sendall(b"22:alias team@example.com,")
    assert connection.recv(100) == b"34:OK ann@example.com,bob@example.net,", "reply"
    connection.close()
PYTHON
  [[ $status == 0 && -z $output ]] || { echo "$output"; tail "$directory/log"; return 1; }
}

resident_kilobytes() { awk '/^VmRSS/ {print $2}' "/proc/$service/status"; }

@test "10,000 connections are held, each is answered, and idle they cost next to nothing" {
  (($(ulimit -Hn) > 10100)) || { echo "the limit of open files is too low: $(ulimit -Hn)"; return 1; }
  ulimit -Sn 5000
  start_service --max-connections 10000
  ulimit -Sn 10100
  wait_for answers 'alias team@example.com' "$found"
  before=$(resident_kilobytes)
  run python3 - "$socket" <<'PYTHON'
import socket, sys
def connect():
    connection = socket.socket(socket.AF_UNIX)
    # Waits where there are many before it, which it would not do with a time-out.
    connection.connect(sys.argv[1])
    connection.settimeout(60)
    return connection
def is_answered(connection):
    connection.sendall(b"22:alias team@example.com,")
    return connection.recv(100) == b"34:OK ann@example.com,bob@example.net,"
connections = [connect() for i in range(9990)]
print(sum(is_answered(connection) for connection in connections))
print(sum(is_answered(connection) for connection in reversed(connections)))
PYTHON
  equal "$output" "9990
9990"
  # With the memory of a sanitizer it is another matter.
  is_sanitized || (($(resident_kilobytes) - before < 20000))
}

is_sanitized() { ldd "$TSL_TOOL" | grep -q -e libasan -e libtsan; }

# TSL_TEST_SECONDS makes it a soak: 600 and more.
@test "memory stays as it is under load and changes" {
  seconds=${TSL_TEST_SECONDS:-4}
  start_service --refresh 40ms
  wait_for answers 'alias team@example.com' "$found"
  start_load "$found" 'OK cleo@example.com'
  middle=
  end=$((SECONDS + seconds))
  half=$((SECONDS + seconds / 2))
  while ((SECONDS < end)); do
    tool alias set team@example.com cleo@example.com
    tool alias set "one$RANDOM@example.com" "two$RANDOM@example.com"
    tool alias set team@example.com ann@example.com bob@example.net
    ((SECONDS < half)) || middle=${middle:-$(resident_kilobytes)}
  done
  load_is_well
  growth=$(($(resident_kilobytes) - middle))
  echo "grown by $growth kB of $middle kB in the second half of $seconds s"
  # A sanitizer keeps what was freed, up to 256 MB of it.
  is_sanitized && limit=300000 || limit=10000
  ((growth < limit))
}

# --- Harm to the configuration of domains and mail users.

# Starts the service with the options $@ and a configuration of its own in $directory/cmf.
start_with_configuration() {
  [ -d "$directory/cmf" ] || cp -r "$SERVER/cmf" "$directory/cmf"
  "$TSL_TOOL" --option-file "$SERVER/client.cnf" --cmf "$directory/cmf" serve --refresh 40ms \
    --listen "unix:$socket" "$@" 2>>"$directory/log" 3>&- &
  service=$!
  wait_for test -S "$socket"
  wait_for answers 'alias team@example.com' "$found"
}

@test "files of the configuration that are truncated, emptied or overwritten in use stop nothing" {
  sql "insert into alias (name, members) values ('all@users.example', 'allusers_users.example')"
  mkdir "$directory/good"
  start_with_configuration
  wait_for answers 'mailbox ann@users.example' 'OK ann@users.example'
  wait_for answers 'alias all@users.example' 'OK ann@users.example'
  cp "$SERVER/cmf/data.mdb" "$directory/good/"
  start_load "$found"
  all=ann@users.example
  for harm in 'truncate -s 0 data.mdb' 'truncate -s 5000 data.mdb' 'truncate -s 0 lock.mdb' \
    'cp /proc/self/exe data.mdb' 'dd if=/dev/zero of=data.mdb bs=4096 count=2 conv=notrunc status=none'; do
    (cd "$directory/cmf" && $harm)
    sleep 0.3
    answers 'mailbox ann@users.example' 'OK ann@users.example'
    answers 'alias all@users.example' "OK $all"
    answers 'mailbox nobody@users.example' 'NOTFOUND '
    answers 'domain users.example' 'OK users.example'
    cp "$directory/good/data.mdb" "$directory/cmf/data.mdb"
    user=user$RANDOM
    wait_for "$TSL_TOOL" --cmf "$directory/cmf" user add "$user@users.example"
    all=ann@users.example,$user@users.example
    wait_for answers "mailbox $user@users.example" "OK $user@users.example" || { echo "after: $harm"; return 1; }
  done
  load_is_well
  contains "$(cat "$directory/log")" "cannot be read: "
}

@test "a service that starts with a damaged configuration answers what needs none, and says what is wrong" {
  choose_port
  mkdir "$directory/cmf"
  : >"$directory/cmf/lock.mdb"
  head -c 20000 /dev/urandom >"$directory/cmf/data.mdb"
  start_with_configuration --metrics "127.0.0.1:$port"
  run ask 'mailbox ann@users.example' 'domain users.example' 'alias team@example.com'
  equal "$output" "TEMP the configuration of domains and mail users cannot be read
TEMP the configuration of domains and mail users cannot be read
$found"
  wait_for grep -q "mail users in $directory/cmf cannot be read" "$directory/log"
  contains "$(get ready)" "503 configuration: it could not be read yet"
  cp "$SERVER/cmf/data.mdb" "$directory/cmf/"
  wait_for answers 'mailbox ann@users.example' 'OK ann@users.example'
  is_ready
}

@test "the process that reads the configuration is replaced when it dies, and dies with the service" {
  start_with_configuration
  wait_for answers 'mailbox ann@users.example' 'OK ann@users.example'
  helper=$(pgrep -P "$service")
  kill -KILL "$helper"
  answers 'mailbox ann@users.example' 'OK ann@users.example'
  is_replaced() { other=$(pgrep -P "$service") && [ "$other" != "$helper" ]; }
  wait_for is_replaced
  wait_for grep -q "can be read again" "$directory/log"
  kill -KILL "$service"
  wait "$service" || true
  service=
  is_gone() { ! kill -0 "$other"; }
  wait_for is_gone
}

# --- Outages, each on a server of its own.

own_server() {
  SERVER=$directory/server
  "$TSL_TOOL" local start --local="$SERVER" >/dev/null
  "$TSL_TOOL" init --local="$SERVER" >/dev/null
  tool alias set team@example.com ann@example.com bob@example.net
}

# The service is not to start the server again by itself, so it is named by its option file.
serve_own() {
  "$TSL_TOOL" --option-file "$SERVER/client.cnf" --cmf "$SERVER/cmf" serve --listen "unix:$socket" \
    "$@" 2>>"$directory/log" 3>&- &
  service=$!
  wait_for test -S "$socket"
}

@test "a database that is killed and brought back under load is never noticed by who asks" {
  common=$SERVER
  own_server
  serve_own --log-level debug
  wait_for answers 'alias team@example.com' "$found"
  start_load "$found" 'OK cleo@example.com'
  kill -KILL "$(server_pid)"
  wait_for grep -q "the database is unavailable" "$directory/log"
  load_is_well
  "$TSL_TOOL" local start --local="$SERVER" >/dev/null
  wait_for grep -q "the database is available again" "$directory/log"
  tool alias set team@example.com cleo@example.com
  wait_for answers 'alias team@example.com' 'OK cleo@example.com'
  load_is_well
  kill "$load"
  stop_server
  SERVER=$common
}

@test "a database that hangs is not waited for, not even at the end" {
  common=$SERVER
  own_server
  serve_own --refresh 40ms
  wait_for answers 'alias team@example.com' "$found"
  pid=$(server_pid)
  kill -STOP "$pid"
  start_load "$found"
  load_is_well
  kill "$load"
  ends_at_once
  contains "$(cat "$directory/log")" "warning: ending without the answer of the database"
  kill -CONT "$pid"
  stop_server
  SERVER=$common
}

@test "a service that starts while the database is unavailable answers from its snapshot, or TEMP" {
  common=$SERVER
  own_server
  mkdir "$directory/snapshot"
  serve_own --snapshot "$directory/snapshot"
  wait_for answers 'alias team@example.com' "$found"
  wait_for test -s "$directory/snapshot/alias.image"
  end_service
  kill -KILL "$(server_pid)"
  serve_own
  answers 'alias team@example.com' 'TEMP the table could not be read yet'
  end_service
  serve_own --snapshot "$directory/snapshot"
  answers 'alias team@example.com' "$found"
  answers 'alias nobody@example.com' 'NOTFOUND '
  end_service
  rm -rf "$SERVER"
  SERVER=$common
}
