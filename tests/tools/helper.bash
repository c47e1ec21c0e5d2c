# What the end-to-end tests share: a private server for each file of tests, which the tool starts and
# stops. TSL_TOOL is the path of the tool.
bats_require_minimum_version 1.5.0

# Nothing that the caller has set up may reach the tests.
unset TSL_DATABASE_OPTION_FILE TSL_CMF_PATH XDG_STATE_HOME
export LC_ALL=C.UTF-8
: "${TSL_TOOL:?must be the path of tsl-address-map}"

start_server() {
  SERVER=$(mktemp -d /tmp/tsl-tool-XXXXXX)
  export SERVER
  "$TSL_TOOL" local start --local="$SERVER" >/dev/null
  "$TSL_TOOL" init --local="$SERVER" >/dev/null
}

stop_server() {
  "$TSL_TOOL" local stop --local="$SERVER"
  rm -rf "$SERVER"
}

# Runs the tool on the private server.
tool() { "$TSL_TOOL" --local="$SERVER" "$@"; }

# Runs the tool without a database, and leaves its warning about that out.
without_database() {
  local code=0
  "$TSL_TOOL" "$@" 2>"$BATS_TEST_TMPDIR/messages" || code=$?
  grep -v 'warning: the change is not in the history: ' "$BATS_TEST_TMPDIR/messages" >&2 || true
  return $code
}

# Runs SQL statements, outside the tool's own code, and prints the rows without a heading.
sql() {
  mariadb --defaults-file="$SERVER/client.cnf" --default-character-set=utf8mb4 -N \
    "${DATABASE-ts_address_map}" -e "$1"
}

empty_tables() { sql 'delete from alias; delete from mask;'; }

# Makes an option file that leads to the private server as the user $1 with the password $2.
option_file() {
  local file="$BATS_TEST_TMPDIR/$1.cnf"
  printf '[client]\nsocket="%s"\nuser=%s\npassword=%s\n' "$(socket)" "$1" "$2" >"$file"
  chmod 600 "$file"
  printf '%s' "$file"
}

socket() { sed -n 's/^socket="\(.*\)"$/\1/p' "$SERVER/client.cnf"; }

# A free port of the loopback address: $port.
choose_port() {
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
}

# The process id of the private server.
server_pid() { tool local status | sed -n 's/^running, pid //p'; }

# Fails with a message unless both texts are the same.
equal() {
  [ "$1" = "$2" ] && return
  printf 'got:  %s\nwant: %s\n' "$1" "$2"
  return 1
}

# Fails unless $1 contains $2.
contains() {
  [[ "$1" == *"$2"* ]] && return
  printf 'got:     %s\nwithout: %s\n' "$1" "$2"
  return 1
}
