#!/usr/bin/env bats
# The lookup service with no more rights than the unit and the documents give it: an operating-system user
# without capabilities, an SQL user that may only read, and the system calls of the unit.

load ../tools/helper
load service

unit=$BATS_TEST_DIRNAME/../../packaging/systemd/tsl-address-map.service.in

setup_file() {
  ((EUID == 0)) || { echo "this needs root, who may become another user"; return 1; }
  start_server
  tool domain add users.example >/dev/null
  tool user add ann@users.example >/dev/null
  tool alias set team@example.com ann@example.com
  tool mask set ann@inner.example ann@example.com
  sql "create user reader@localhost identified by 'secret'; grant select on ts_address_map.* to reader@localhost"
}
teardown_file() { stop_server; }

setup() {
  # The tool makes its private server private each time it looks at it. Only what the service needs: a directory to enter, files to read, and the lock file of LMDB to write.
  chmod 755 "$SERVER" "$SERVER/run"
  chmod 777 "$(socket)"
  chgrp -R nogroup "$SERVER/cmf"
  chmod 750 "$SERVER/cmf"
  chmod 640 "$SERVER/cmf/data.mdb"
  chmod 660 "$SERVER/cmf/lock.mdb"
  directory=$BATS_TEST_TMPDIR/run
  mkdir "$directory" "$directory/state"
  printf '[client]\nsocket="%s"\nuser=reader\npassword=secret\n' "$(socket)" >"$directory/client.cnf"
  chown -R nobody:nogroup "$directory"
  chmod 700 "$directory/state"
  chmod 755 "$BATS_TEST_TMPDIR" "$BATS_FILE_TMPDIR" "$BATS_RUN_TMPDIR"
  chmod 600 "$directory/client.cnf"
}
teardown() {
  [[ -z ${service:-} ]] || kill -TERM "$service" $(pgrep -P "$service") 2>/dev/null || true
  cat "$directory/log" 2>/dev/null || true
}

# Becomes "$@", run by a user that may do nothing special.
unprivileged() {
  exec setpriv --reuid=nobody --regid=nogroup --clear-groups --no-new-privs --bounding-set=-all --inh-caps=-all "$@"
}

# Starts the service by $@.
run_service() {
  "$@" "$TSL_TOOL" --option-file "$directory/client.cnf" --cmf "$SERVER/cmf" serve "${options[@]}" \
    --listen "unix:$directory/socketmap" --snapshot "$directory/state" 2>>"$directory/log" 3>&- &
  service=$!
}
options=()

# The same, and waits until it answers all maps.
start_service() {
  run_service "$@"
  wait_for has_all && return
  answers
  cat "$directory/log"
  return 1
}

expected="OK ann@example.com
OK ann@example.com
OK ann@inner.example
OK ann@users.example
OK users.example"

answers() {
  python3 - "$BATS_TEST_DIRNAME" "$directory/socketmap" <<'PYTHON'
import sys
sys.path.insert(0, sys.argv[1])
from attack import Client
client = Client(sys.argv[2])
for request in (b"alias team@example.com", b"mask_public ann@inner.example", b"mask_private ann@example.com",
                b"mailbox ann@users.example", b"domain users.example"):
    print(client.ask(request).decode())
PYTHON
}

has_all() { [ "$(answers 2>/dev/null)" == "$expected" ]; }

@test "a right on the configuration that is missing is named, with the way to grant it, and so is its end" {
  choose_port
  options=(--metrics "127.0.0.1:$port")
  chgrp mail "$SERVER/cmf"
  run_service unprivileged
  wait_for log_has "cannot be read"
  contains "$(get ready)" "503 configuration: it could not be read yet"
  log_has "the configuration of domains and mail users in $SERVER/cmf cannot be read: the user nobody (groups: nogroup) may not enter $SERVER/cmf (root:mail, mode 0750); add the user to the group mail and restart the service"
  chgrp nogroup "$SERVER/cmf"
  wait_for is_ready
  log_has "can be read again"
  equal "$(grep -c -e "cannot be read" -e "can be read again" "$directory/log")" 2
}

grant() { sql "revoke all privileges, grant option from reader@localhost; grant select on $1 to reader@localhost"; }

@test "--check-config names the rights that the user of the service does not have" {
  chmod 640 "$SERVER/cmf/lock.mdb"
  chmod 500 "$directory/state"
  run -78 bash -c "$(declare -f unprivileged); unprivileged \"\$@\"" - "$TSL_TOOL" --option-file "$directory/client.cnf" \
    --cmf "$SERVER/cmf" serve --check-config --listen "unix:$SERVER/s" --listen "unix:$directory/s,group=root" \
    --snapshot "$directory/state"
  contains "$output" "listening on $SERVER/s: the directory cannot be written: Permission denied"
  contains "$output" "listening on $directory/s: the group cannot be set: Operation not permitted
tsl-address-map: hint: the service's user must be a member of it"
  contains "$output" "--snapshot $directory/state: it cannot be written: Permission denied"
  contains "$output" "the configuration in $SERVER/cmf: the user nobody (groups: nogroup) may not read and write $SERVER/cmf/lock.mdb"
}

@test "a table that the SQL user may not read is not missing, and is read as soon as he may" {
  choose_port
  options=(--metrics "127.0.0.1:$port")
  grant ts_address_map.alias
  run_service unprivileged
  wait_for log_has "table mask cannot be read: SELECT command denied to user 'reader'@'localhost'"
  contains "$(get ready)" "503 mask: the table could not be read yet"
  grant 'ts_address_map.*'
  wait_for is_ready
  log_has "table mask can be read again"
  # Without the right a new connection sees no table, which is no reason to forget its rows.
  grant ts_address_map.mask
  kill -HUP "$service"
  wait_for log_has "table alias cannot be read: SELECT command denied"
  has_all
  is_ready
  grant 'ts_address_map.*'
  [[ $(<"$directory/log") != *missing* ]]
}

@test "a user without any special right is enough" {
  start_service unprivileged
  equal "$(awk '/^CapEff/ {print $2}' "/proc/$service/status")" 0000000000000000
  # A change is seen, and a snapshot is written.
  sql "insert into alias ( name, members ) values( 'other@example.com', 'ann@example.com' )"
  for ((i = 0; i < 200; i++)); do [ ! -s "$directory/state/alias.image" ] || break; sleep 0.05; done
  [ -s "$directory/state/alias.image" ]
  kill -TERM "$service"
  wait "$service"
  service=
}

@test "the SQL user of the service cannot write" {
  run bash -c "$(declare -f unprivileged); unprivileged '$TSL_TOOL' --option-file '$directory/client.cnf' alias set evil@example.com x@example.com"
  [ "$status" -eq 78 ]
  [[ $output == *"command denied to user 'reader'@'localhost'"* ]]
  equal "$(sql "select count(*) from alias where name = 'evil@example.com'")" 0
}

@test "a configuration directory out of reach is not taken for a missing one" {
  mkdir -p "$BATS_TEST_TMPDIR/closed/cmf"
  chmod 700 "$BATS_TEST_TMPDIR/closed"
  run bash -c "$(declare -f unprivileged); unprivileged '$TSL_TOOL' --cmf '$BATS_TEST_TMPDIR/closed/cmf' status"
  [ "$status" -eq 78 ]
  contains "$output" "configuration directory '$BATS_TEST_TMPDIR/closed/cmf': Permission denied"
  contains "$output" "hint: let this user enter the directories above it (chmod +x)"
}

# The system calls that the unit allows, one per line.
allowed_calls() {
  local word set
  calls_of() {
    systemd-analyze syscall-filter "$1" | sed -n 's/^    \([@a-z].*\)/\1/p' | while read -r word; do
      if [[ $word == @* ]]; then calls_of "$word"; else echo "$word"; fi
    done
  }
  allowed=$(for word in $(sed -n 's/^SystemCallFilter=\(@.*\)/\1/p' "$unit"); do calls_of "$word"; done | sort -u)
  denied=$(for set in $(sed -n 's/^SystemCallFilter=~\(.*\)/\1/p' "$unit"); do calls_of "$set"; done | sort -u)
  comm -23 <(echo "$allowed") <(echo "$denied")
}

@test "the unit allows the system calls that the service makes" {
  traced() { exec strace -f -qq -o "$directory/trace" bash -c "$(declare -f unprivileged); unprivileged \"\$@\"" - "$@"; }
  start_service traced
  for ((i = 0; i < 20; i++)); do answers >/dev/null; done
  kill -HUP "$(pgrep -P "$service")"
  sleep 1
  kill -TERM "$(pgrep -P "$service")"
  wait "$service"
  service=
  # What comes before the program is not in the unit.
  sed '1,/^[0-9]* *execve(.*tsl-address-map"/d; s/^[0-9]* *//; s/(.*//' "$directory/trace" | grep -E '^[a-z_0-9]+$' | sort -u >"$directory/made"
  [ "$(wc -l <"$directory/made")" -gt 30 ]
  allowed_calls >"$directory/allowed"
  [ "$(grep -cxE 'read|mount|ptrace|setuid' "$directory/allowed")" -eq 1 ]
  equal "$(comm -23 "$directory/made" "$directory/allowed")" ""
}
