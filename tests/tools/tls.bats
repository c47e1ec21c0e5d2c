#!/usr/bin/env bats
# The tool and the service with a database server that is reached over the network: encrypted, or not
# at all.

load helper
load ../serve/service

# The private server again, with TLS and a port on 127.0.0.1.
setup_file() {
  start_server
  tool alias set team@example.com ann@example.com
  "$TSL_TOOL" local stop --local="$SERVER" >/dev/null
  cd "$SERVER"
  for name in ca server; do openssl ecparam -name prime256v1 -genkey -noout -out $name.key; done
  openssl req -x509 -key ca.key -days 2 -subj '/CN=Test authority' -out ca.pem
  openssl req -new -key server.key -subj '/O=Example/CN=db1' -out server.csr
  openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -set_serial 2 -days 2 -out server.pem \
    -extfile <(echo 'subjectAltName=IP:127.0.0.1') 2>/dev/null
  choose_port
  export port
  mariadbd --no-defaults --user="$(id -un)" --datadir="$SERVER/data" --socket="$(socket)" \
    --bind-address=127.0.0.1 --port="$port" --skip-name-resolve --innodb-buffer-pool-size=16M \
    --ssl-cert="$SERVER/server.pem" --ssl-key="$SERVER/server.key" >log.tls 2>&1 3>&- &
  echo $! >tls.pid
  for ((i = 0; i < 200; i++)); do
    DATABASE= sql 'select 1' >/dev/null 2>&1 && break
    sleep 0.05
  done
  DATABASE= sql "create user mail@'127.0.0.1' identified by 'secret'; grant all on ts_address_map.* to mail@'127.0.0.1';"
}
teardown_file() {
  kill "$(cat "$SERVER/tls.pid")"
  rm -rf "$SERVER"
}

# Runs the tool over the network with the lines $1 in its option file.
over_tls() {
  printf '[client]\nhost=127.0.0.1\nport=%s\nuser=mail\npassword=secret\n%s\n' "$port" "$1" \
    >"$BATS_TEST_TMPDIR/tls.cnf"
  shift
  "$TSL_TOOL" --option-file "$BATS_TEST_TMPDIR/tls.cnf" "$@"
}

@test "status shows the cipher, whose certificate it is, and how it was checked" {
  run -0 over_tls "ssl-ca=$SERVER/ca.pem" status
  [[ $output == *$'\nencryption: TLS_'*' (TLSv1.3), certificate of CN=db1,O=Example verified by its name'$'\n'* ]]
  run -0 over_tls "ssl-ca=$SERVER/ca.pem" status --json
  contains "$output" '"version":"TLSv1.3"'
  contains "$output" '"subject":"CN=db1,O=Example","checked":"name","verified":true}'
  run -0 over_tls 'ssl-verify-server-cert=0' status --json
  contains "$output" '"checked":"nothing","verified":false}'
  run -0 over_tls '' status
  contains "$output" $'\nencryption: none\n'
  run -0 over_tls '' status --json
  contains "$output" '"encryption":{"version":null,"cipher":null,"subject":null,"checked":"nothing","verified":false}'
}

@test "a server whose certificate is not trusted is unavailable" {
  run -75 --separate-stderr over_tls 'ssl-verify-server-cert=1' alias show team@example.com
  equal "$output" ''
  contains "$stderr" 'unable to get local issuer certificate'
  contains "$stderr" 'its certificate fits the options about TLS'
  run -75 over_tls 'ssl-verify-server-cert=1' status
  contains "$output" 'encryption: unknown'
}

@test "an option about TLS that would be ignored is a wrong setting, and the message names the line" {
  for line in ssl ssl-mode=REQUIRED ssl-verify-server-cert ssl-verify-server-cert=ON ssl-ca= ssl-ca=/nowhere; do
    run -78 --separate-stderr over_tls "$line" alias show team@example.com
    equal "$output" ''
    contains "$stderr" "$BATS_TEST_TMPDIR/tls.cnf', line 6: "
    [[ $stderr != *secret* ]]
  done
  contains "$stderr" "'ssl-ca' names '/nowhere', which cannot be read (No such file or directory): correct the path"
}

@test "the check of the settings of the service finds it, too" {
  for line in ssl-mode=REQUIRED ssl-ca=/nowhere; do
    run -78 --separate-stderr over_tls "$line" serve --check-config --listen "unix:$BATS_TEST_TMPDIR/socketmap"
    contains "$stderr" "$BATS_TEST_TMPDIR/tls.cnf', line 6: "
  done
  run over_tls "ssl-ca=$SERVER/ca.pem" serve --check-config --listen "unix:$BATS_TEST_TMPDIR/socketmap"
  [[ $output != *tls.cnf* ]]
}

@test "the service logs how its connection is encrypted, and has it as metrics" {
  directory=$BATS_TEST_TMPDIR
  server_port=$port
  choose_port
  printf '[client]\nhost=127.0.0.1\nport=%s\nuser=mail\npassword=secret\nssl-ca=%s\n' "$server_port" \
    "$SERVER/ca.pem" >"$directory/tls.cnf"
  "$TSL_TOOL" --option-file "$directory/tls.cnf" serve --listen "unix:$directory/socketmap" \
    --metrics "127.0.0.1:$port" 2>"$directory/log" 3>&- &
  local service=$!
  wait_for log_has 'encrypted with TLS_'
  run get metrics
  kill "$service"
  wait "$service"
  contains "$output" $'\ntsl_address_map_database_encrypted 1\n'
  contains "$output" $'\ntsl_address_map_database_verified 1\n'
  [ "$(grep -c "connected to the database at 127.0.0.1:$server_port, connection .*, encrypted with TLS_.* (TLSv1.3), certificate of CN=db1,O=Example verified by its name" "$directory/log")" = 1 ]
}
