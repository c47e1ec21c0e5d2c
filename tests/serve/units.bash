#!/bin/bash
# Checks the units under the systemd that boot.bash has booted, and says what is right. Ends with the first that is not.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
packaging=$here/../../packaging/systemd
socket=/run/tsl-address-map/socketmap
service=tsl-address-map.service
both=(tsl-address-map.socket tsl-address-map.service)
policy_unit=tsl-address-map-policy.socket
trap '[[ $? == 0 ]] || { echo "not ok: $what: $BASH_COMMAND"; journalctl --no-pager --quiet --lines=60 --output=cat; }' EXIT
cd /

check() { what=$1; }
right() { echo "ok: $what"; }
expect() {
  [[ $1 == "$2" ]] && return
  printf 'got:  %s\nwant: %s\n' "$1" "$2"
  return 1
}
wait_for() {
  local end=$((SECONDS + 20))
  until "$@" >/dev/null 2>&1; do
    if ((SECONDS >= end)); then
      echo "never succeeded: $*"
      return 1
    fi
    sleep 0.05
  done
}
drop_in() {
  mkdir -p "/etc/systemd/system/$1.d"
  cat >"/etc/systemd/system/$1.d/test.conf"
  systemctl daemon-reload
}
no_drop_in() {
  rm -r "/etc/systemd/system/$1.d"
  systemctl daemon-reload
}
pid() { systemctl show --value --property=MainPID "$service"; }
state() { systemctl is-active "$1" || true; }
# The mark of all that the journal has until now, and whether it has the line $1 since that.
mark() { begin=$(journalctl --quiet --lines=0 --show-cursor | sed -n 's/^-- cursor: //p'); }
has_logged() { journalctl --quiet --after-cursor="$begin" --output=cat | grep -qE -e "$1"; }

# Asks for the aliases of the test, as Postfix asks: once more when a connection that was kept is closed.
ask() {
  setpriv --reuid="${1:-postfix}" --regid="${2:-postfix}" --clear-groups python3 - "$socket" <<'PYTHON'
import socket, sys
connection = socket.socket(socket.AF_UNIX)
connection.settimeout(20)
connection.connect(sys.argv[1])
connection.sendall(b"22:alias team@example.com,")
print(connection.recv(4096).decode())
PYTHON
}
answer="18:OK ann@example.com,"
answers() { [[ $(ask) == "$answer" ]]; }

check "the files of the packages are accepted by systemd"
install -D -m 644 "$packaging"/tsl-address-map.sysusers /usr/lib/sysusers.d/tsl-address-map.conf
install -D -m 644 "$packaging"/tsl-address-map.tmpfiles /usr/lib/tmpfiles.d/tsl-address-map.conf
install -m 644 "$packaging"/tsl-address-map{,-policy}.socket /usr/lib/systemd/system
sed 's|@tsl_program_dir@|/usr/bin|' "$packaging"/tsl-address-map.service.in >/usr/lib/systemd/system/$service
install -m 755 "$TSL_TOOL" /usr/bin
ldd "$TSL_TOOL" | sed -n 's/.*=> \(.*libtsl[^ ]*\) .*/\1/p' | xargs -r install -m 644 -t /usr/lib
ldconfig
systemd-sysusers tsl-address-map.conf
systemd-tmpfiles --create tsl-address-map.conf
directory() { stat -c '%U:%G %a' /run/tsl-address-map; }
expect "$(directory)" "tsl-address-map:tsl-address-map 755"
expect "$(systemd-analyze --man=no verify "${both[@]}" "$policy_unit" 2>&1 | grep tsl-address-map || true)" ""
systemctl daemon-reload
systemctl --quiet enable "${both[@]}"
# 0.5 of 10.
systemd-analyze security --no-pager --threshold=5 "$service" >/dev/null
right

tsl-address-map --local=/run/database init >/dev/null
tsl-address-map --local=/run/database alias set team@example.com ann@example.com
tsl-address-map --local=/run/database alias rule set team@example.com --writers authenticated
chmod 755 /run/database /run/database/run
database=$(sed -n 's/^socket="\(.*\)"$/\1/p' /run/database/client.cnf)
chmod 777 "$database"
mariadb --no-defaults --socket="$database" -e "create user 'tsl-address-map'@localhost identified via unix_socket;
  grant select on ts_address_map.* to 'tsl-address-map'@localhost"
options="[client]\nsocket=$database\nuser=tsl-address-map\n"
printf "$options" >/etc/tsl.cnf
echo TSL_DATABASE_OPTION_FILE=/etc/tsl.cnf >/etc/default/tsl-address-map

check "a group that does not exist does not keep the socket from being opened"
owner() { stat -c '%U:%G %a' "$socket"; }
groupmod -n other postfix
systemctl start tsl-address-map.socket
expect "$(state tsl-address-map.socket) $(owner)" "active root:root 660"
groupmod -n postfix other
systemctl restart tsl-address-map.socket
expect "$(owner)" "root:postfix 660"
printf '[Socket]\nSocketGroup=mail\n' | drop_in tsl-address-map.socket
systemctl restart tsl-address-map.socket
expect "$(owner)" "root:mail 660"
no_drop_in tsl-address-map.socket
systemctl restart tsl-address-map.socket
right

check "the first connection starts the service, which answers the group of the mail server only"
expect "$(state "$service")" inactive
answers
expect "$(state "$service")" active
if ask nobody nogroup 2>/dev/null; then false; fi
right

check "the sandbox is in force"
status() { sed -n "s/^$1:\t//p" "/proc/$(pid)/status"; }
expect "$(status NoNewPrivs) $(status Seccomp) $(status CapBnd)" "1 2 0000000000000000"
expect "$(ps -o user= -p "$(pid)" | xargs)" tsl-address-map
for namespace in net user mnt ipc; do
  [[ $(readlink "/proc/$(pid)/ns/$namespace") != "$(readlink "/proc/1/ns/$namespace")" ]]
done
# As that user, where the service is: only its own directory can be written, and no other process be seen.
there() { nsenter --target "$(pid)" --mount --setuid "$(id -u tsl-address-map)" --setgid "$(id -g tsl-address-map)" -- "$@"; }
chmod 777 /var/lib /opt
for path in /opt/x /var/lib/x /run/tsl-address-map/x; do
  if there touch "$path" 2>/dev/null; then false; fi
done
there touch /var/lib/tsl-address-map/x
there rm /var/lib/tsl-address-map/x
expect "$(there ls -d /proc/1 2>/dev/null)" ""
# A port needs more than that, and the message says what to do.
printf '[Service]\nType=oneshot\nRestrictAddressFamilies=AF_UNIX\nExecStart=%s\n' \
  '/usr/bin/tsl-address-map serve --check-config --listen inet:127.0.0.1:7321' >/run/systemd/system/port.service
mark
if systemctl start port.service 2>/dev/null; then false; fi
wait_for has_logged 'no socket: Address family not supported by protocol'
wait_for has_logged 'the unit of systemd must allow the network, as its comment says'
right

check "stop and start in any order leave the directory of the socket where it is"
for words in "stop $service" "start $service" "stop ${both[*]}" "start ${both[*]}" "stop ${both[0]}" "stop $service" \
  "start ${both[0]}" "start $service" "stop ${both[*]}" "start $service" "start ${both[*]}" "restart ${both[0]}" \
  "restart ${both[*]}"; do
  # The words of $words are arguments. A service without a socket does not start.
  # shellcheck disable=SC2086
  systemctl $words 2>/dev/null || [[ $words == "start $service" ]]
  expect "$(directory)" "tsl-address-map:tsl-address-map 755"
  [[ $(state "${both[0]}") != active ]] || answers
done
answers
right

# Lookups without end, each over a connection of its own or one that is kept; ends with the first wrong answer.
load() {
  exec setpriv --reuid=postfix --regid=postfix --clear-groups python3 - "$socket" "$answer" <<'PYTHON' >/run/load 2>&1
import socket, sys
path, answer = sys.argv[1:]
count = 0
connection = None
while True:
    reply = ""
    for attempt in (1, 2):
        try:
            if connection is None:
                connection = socket.socket(socket.AF_UNIX)
                connection.settimeout(20)
                connection.connect(path)
            connection.sendall(b"22:alias team@example.com,")
            reply = connection.recv(4096).decode()
        except (BrokenPipeError, ConnectionResetError):
            pass
        if reply or attempt == 2:
            break
        connection = None
    if reply != answer:
        sys.exit(f"after {count}: {reply!r}")
    count += 1
    if count % 100 == 0:
        print(count, flush=True)
    if count % 7 == 0:
        connection = None
PYTHON
}
# The load goes on, and got nothing wrong.
goes_on() {
  local before
  before=$(wc -l </run/load)
  wait_for eval "(( \$(wc -l </run/load) > $before + 2 ))" || { tail -n 3 /run/load; return 1; }
  kill -0 "$load"
}

check "stop, start and restart under load lose no lookup"
: >/run/load
load &
load=$!
goes_on
# More often than systemd starts a unit by default.
for words in "stop $service" "restart $service" "restart $service" "restart $service" "restart $service" "restart $service" \
  "stop $service" "start $service"; do
  # shellcheck disable=SC2086
  systemctl $words 2>/dev/null
  goes_on
done
right

check "a reload keeps the process, and loses no lookup"
before=$(pid)
mark
systemctl reload "$service"
wait_for has_logged 'rereading all tables'
expect "$(pid)" "$before"
goes_on
right

check "a reload with wrong settings fails, and the service goes on"
echo nonsense >/etc/tsl.cnf
mark
if systemctl reload "$service" 2>/dev/null; then false; fi
has_logged "option file '/etc/tsl.cnf' is broken in line 1"
if has_logged 'rereading'; then false; fi
printf "$options" >/etc/tsl.cnf
expect "$(pid)" "$before"
goes_on
right

check "a service that is killed is started again, and loses no lookup but those that it had"
kill "$load" && wait "$load" || true
kill -KILL "$(pid)"
answers
[[ $(pid) != "$before" ]]
right

check "a service that hangs is replaced"
printf '[Service]\nWatchdogSec=1\n' | drop_in "$service"
systemctl restart "$service"
answers
before=$(pid)
mark
kill -STOP "$before"
answers
[[ $(pid) != "$before" ]]
has_logged 'Watchdog timeout'
no_drop_in "$service"
right

check "a service that cannot start is tried again until it can, and its socket stays open"
printf '[Service]\nRestartSec=100ms\n' | drop_in "$service"
mark
echo TSL_SERVE_OPTIONS=--page=none >>/etc/default/tsl-address-map
systemctl stop "$service"
ask >/run/answer &
asker=$!
# More often than systemd starts a unit by default.
wait_for eval "(( \$(journalctl --quiet --after-cursor=\"\$begin\" --output=cat | grep -c 'page') > 8 ))"
expect "$(state "${both[0]}")" active
sed -i '$d' /etc/default/tsl-address-map
wait "$asker"
expect "$(</run/answer)" "$answer"
no_drop_in "$service"
right

check "the policy socket is opened while the service runs, and stays open while it restarts; without it the other one goes on"
policy=/run/tsl-address-map/policy
judge() {
  setpriv --reuid=postfix --regid=postfix --clear-groups python3 - "$policy" <<'PYTHON'
import socket, sys
connection = socket.socket(socket.AF_UNIX)
connection.settimeout(20)
connection.connect(sys.argv[1])
connection.sendall(b"request=smtpd_access_policy\nprotocol_state=RCPT\nrecipient=team@example.com\n\n")
print(connection.recv(4096).decode().strip())
PYTHON
}
refuses() { [[ $(judge) == "action=REJECT 5.7.1 "* ]]; }
before=$(pid)
systemctl --quiet enable "$policy_unit"
systemctl restart "$policy_unit"
expect "$(state "$policy_unit") $(stat -c '%U:%G %a' "$policy")" "active root:postfix 660"
[[ $(pid) != "$before" ]]
answers
wait_for refuses
for words in "restart $service" "stop $service" "kill --signal=KILL $service" "restart ${both[0]}" "restart $policy_unit"; do
  # shellcheck disable=SC2086
  systemctl $words 2>/dev/null
  refuses
  answers
done
systemctl disable --quiet --now "$policy_unit"
[[ ! -e $policy ]]
answers
right

check "both can be stopped"
systemctl stop "${both[@]}"
expect "$(state "${both[0]}") $(state "$service")" "inactive inactive"
[[ ! -e $socket ]]
right
