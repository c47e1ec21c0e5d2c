# local start --nodes: a private Galera cluster of three nodes, and what the tool does when some of
# them are gone. The tests build on each other, because a cluster takes ten seconds to set up.

load helper

setup_file() {
  SERVER=$(mktemp -d /tmp/tsl-tool-XXXXXX)
  export SERVER
  "$TSL_TOOL" local start --nodes 3 --local="$SERVER" >"$BATS_FILE_TMPDIR/started"
  "$TSL_TOOL" init --option-file "$SERVER/client.cnf" >/dev/null
}
teardown_file() { stop_server; }

# The tool on the cluster, which it does not start: of `--local` that is a test of its own.
cluster() { "$TSL_TOOL" --option-file "$SERVER/client.cnf" "$@"; }

# The process id and the port of node $1.
pid_of() { tool local status | sed -n "s/^node-$1: .*, pid //p"; }
port_of() { tool local status | sed -n "s/^node-$1: 127\.0\.0\.1:\([0-9]*\),.*/\1/p"; }

# The tool on the node $1 alone.
on_node() {
  sed "s/^host=.*/host=127.0.0.1:$(port_of "$1")/" "$SERVER/client.cnf" >"$BATS_TEST_TMPDIR/node-$1.cnf"
  "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/node-$1.cnf" "${@:2}"
}

# SQL on the node $1.
sql_on() { mariadb --defaults-file="$SERVER/client.cnf" -h 127.0.0.1 -P "$(port_of "$1")" -N -e "$2"; }

# The processes that work in the cluster's directory.
processes() { pgrep -f -- "$SERVER/node-" || true; }

@test "three nodes start, and belong to one cluster" {
  run cat "$BATS_FILE_TMPDIR/started"
  equal "${lines[0]}" "running, 3 of 3 nodes"
  [[ "${lines[4]}" =~ ^node-3:\ 127\.0\.0\.1:[0-9]+,\ pid\ [0-9]+$ ]]
  run -0 tool local status --json
  [[ "$output" =~ ^\{\"running\":true,\"nodes\":\[\{\"name\":\"node-1\",\"pid\":$(pid_of 1),\"port\":$(port_of 1)\}, ]]
  for node in 1 2 3; do
    equal "$(sql_on "$node" "show status like 'wsrep_cluster_size'")" $'wsrep_cluster_size\t3'
    # Never root: it could not take a state transfer.
    [ "$(stat -c %u "/proc/$(pid_of "$node")")" != 0 ]
  done
}

@test "only the owner of the option file logs in, and only from this machine" {
  equal "$(stat -c %a "$SERVER/client.cnf")" 600
  for user in root mysql tsl "$(id -un)" ""; do
    run -1 mariadb --no-defaults -h 127.0.0.1 -P "$(port_of 2)" -u "$user" -e "select 1"
    contains "$output" "Access denied"
  done
  run -0 bash -c "ss -Hltnp | grep -F 'pid=$(pid_of 2),'"
  [[ "$output" != *"0.0.0.0:"[1-9]* && "$output" != *"[::]:"* ]]
}

@test "a write on one node is seen on the next" {
  cluster alias set team@example.com ann@example.com
  for node in 1 2 3; do
    equal "$(sql_on "$node" 'set wsrep_sync_wait = 1; select members from ts_address_map.alias')" ann@example.com
  done
}

@test "a command on the next node sees what was written on one" {
  local member
  for member in ann@example.com bob@example.com eve@example.com; do
    on_node 1 alias set seen@example.com "$member"
    run -0 on_node 2 alias expand seen@example.com
    equal "$output" "$member"
  done
}

@test "edits of one alias on two nodes at the same time lose nothing" {
  on_node 1 alias set both@example.com first@example.com
  (for i in 1 2 3 4 5 6 7 8; do on_node 1 alias add both@example.com "a$i@example.com"; done) &
  for i in 1 2 3 4 5 6 7 8; do on_node 2 alias add both@example.com "b$i@example.com"; done
  wait
  run -0 on_node 3 alias expand both@example.com
  equal "${#lines[@]}" 17
}

@test "an import goes on although its rows are edited on another node meanwhile" {
  seq -f 'list%.0f@example.com:ann@example.com' 5000 >"$BATS_TEST_TMPDIR/table.txt"
  on_node 1 alias import "$BATS_TEST_TMPDIR/table.txt" >"$BATS_TEST_TMPDIR/answer"
  sed 's/ann@/bob@/' "$BATS_TEST_TMPDIR/table.txt" >"$BATS_TEST_TMPDIR/changed.txt"
  on_node 1 --verbose alias import "$BATS_TEST_TMPDIR/changed.txt" 2>"$BATS_TEST_TMPDIR/statements" &
  local import=$!
  until grep -q 'for update' "$BATS_TEST_TMPDIR/statements"; do sleep 0.01; done
  on_node 2 alias set list1@example.com eve@example.com
  wait "$import"
  run -0 on_node 3 alias expand list5000@example.com
  equal "$output" bob@example.com
}

@test "two nodes go on without the third, which comes back when it is started" {
  kill -9 "$(pid_of 1)"
  cluster alias add team@example.com bob@example.com
  # It does not start nodes behind the back of somebody who tries what happens without them.
  run -0 --separate-stderr tool alias show team@example.com
  equal "$output" $'ann@example.com\nbob@example.com'
  run -0 tool local status
  equal "${lines[0]}" "running, 2 of 3 nodes"
  [[ "${lines[2]}" =~ ^node-1:\ .*,\ not\ running$ ]]
  run -0 tool local start
  equal "${lines[0]}" "running, 3 of 3 nodes"
  equal "$(sql_on 1 "select members from ts_address_map.alias where name = 'team@example.com'")" ann@example.com,bob@example.com
  run -0 --separate-stderr tool local start --nodes 3
  contains "$stderr" "runs already"
}

@test "all stop, and start again after a crash of all, at the same ports" {
  before=$(grep ^host "$SERVER/client.cnf")
  mapfile -t pids < <(pid_of 1 && pid_of 2 && pid_of 3)
  kill -9 "${pids[@]}"
  run -0 --separate-stderr tool alias show team@example.com
  contains "$stderr" "started the private server in $SERVER"
  equal "$output" $'ann@example.com\nbob@example.com'
  equal "$(grep ^host "$SERVER/client.cnf")" "$before"
  # A suspended process ends too.
  kill -STOP "$(pid_of 2)"
  run -0 tool local stop
  equal "$(processes)" ""
  run -1 tool local status
  equal "${lines[0]}" "not running"
  run -0 --separate-stderr tool local stop
  contains "$stderr" "no private server runs"
}

@test "directories that cannot become this cluster" {
  run -75 --separate-stderr tool local start --nodes 2
  contains "$stderr" "holds a cluster of 3 nodes"
  run -64 --separate-stderr tool local start --nodes 1
  contains "$stderr" "2 to 9 nodes"
  mkdir -p "$BATS_TEST_TMPDIR/single/data"
  run -75 --separate-stderr "$TSL_TOOL" local start --nodes 3 --local="$BATS_TEST_TMPDIR/single"
  contains "$stderr" "holds a single private server"
}
