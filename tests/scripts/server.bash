# A private server for the tests of scripts and examples: one per file, in a directory with a short path.

start_server() {
  server_directory=$(mktemp -d /tmp/tsl-bats.XXXXXX)
  export server_directory
  "$TSL_BUILD/bin/tsl-address-map" --local="$server_directory/db" local start
  tool init
}

stop_server() {
  [[ -n ${server_directory:-} ]] || return 0
  tool local stop
  rm -rf "$server_directory"
}

tool() { "$TSL_BUILD/bin/tsl-address-map" --local="$server_directory/db" "$@"; }

# Points a program at the private server.
with_server() {
  TSL_DATABASE_OPTION_FILE=$server_directory/db/client.cnf TSL_CMF_PATH=$server_directory/db/cmf "$@"
}
