# A private server for the tests of scripts and examples: one per file, in a folder with a short path.

start_server() {
  server_folder=$(mktemp -d /tmp/tsl-bats.XXXXXX)
  export server_folder
  "$TSL_BUILD/bin/tsl-address-map" --local="$server_folder/db" local start
  tool init
}

stop_server() {
  [[ -n ${server_folder:-} ]] || return 0
  tool local stop
  rm -rf "$server_folder"
}

tool() { "$TSL_BUILD/bin/tsl-address-map" --local="$server_folder/db" "$@"; }

# Points a program at the private server.
with_server() {
  TSL_DATABASE_OPTION_FILE=$server_folder/db/client.cnf TSL_CMF_PATH=$server_folder/db/cmf "$@"
}
