#!/usr/bin/env bats
# scripts/setup-packages with the real package data base of this machine, or a copy of it in which
# packages are missing. Nothing is installed here: an apt-get of our own writes down its arguments.

setup() {
  setup_packages=$TSL_SOURCE/scripts/setup-packages
  bin=$BATS_TEST_TMPDIR/bin
  calls=$BATS_TEST_TMPDIR/calls
  mkdir "$bin"
  printf '#!/bin/bash\necho "apt-get $*" >>"%s"\n' "$calls" >"$bin/apt-get"
  printf '#!/bin/bash\n[[ $1 == -n ]] && shift\nexec "$@"\n' >"$bin/sudo"
  chmod +x "$bin"/*
}

# A copy of the package data base without the packages named.
without() {
  mkdir -p "$BATS_TEST_TMPDIR/dpkg"
  local names
  names=$(IFS='|' && echo "$*")
  awk -v RS= -v ORS='\n\n' -v names="^Package: ($names)\$" \
    '{split($0, lines, "\n"); if (lines[1] !~ names) print}' /var/lib/dpkg/status \
    >"$BATS_TEST_TMPDIR/dpkg/status"
  export DPKG_ADMINDIR=$BATS_TEST_TMPDIR/dpkg
}

@test "nothing is printed and done when nothing is missing" {
  PATH=$bin:$PATH run "$setup_packages" test
  [ "$status" -eq 0 ]
  [ -z "$output" ]
  [ ! -e "$calls" ]
}

@test "what is missing is named and installed, and nothing else" {
  without bats liblmdb-dev
  PATH=$bin:$PATH run "$setup_packages" test
  echo "$output"
  [ "$status" -eq 0 ]
  [[ $output == "Installing missing packages: liblmdb-dev bats"* ]]
  [ "$(sed -n 1p "$calls")" = "apt-get update --quiet" ]
  [ "$(sed -n 2p "$calls")" = "apt-get install --yes --quiet --no-install-recommends liblmdb-dev bats" ]
}

@test "the demo does not need what only the tests need" {
  without bats libgtest-dev clang-14
  PATH=$bin:$PATH run "$setup_packages" demo
  [ "$status" -eq 0 ]
  [ ! -e "$calls" ]
}

@test "Postfix gets no settings, so that the system never starts it" {
  without postfix
  printf '#!/bin/bash\nsed "s/^/debconf /" >>"%s"\n' "$calls" >"$bin/debconf-set-selections"
  chmod +x "$bin/debconf-set-selections"
  PATH=$bin:$PATH run "$setup_packages" test
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$(sed -n 1p "$calls")" = "debconf postfix postfix/main_mailer_type select No configuration" ]
  [ "$(sed -n 3p "$calls")" = "apt-get install --yes --quiet --no-install-recommends postfix" ]
}

@test "the database server of the system is started neither now nor later" {
  without mariadb-server
  export TSL_POLICY_FILE=$BATS_TEST_TMPDIR/policy-rc.d
  # What the scripts of packages learn while they are installed.
  cat >>"$bin/apt-get" <<END
[[ \$1 == update ]] && exit
for service in mariadb postfix; do
  status=0
  "$TSL_POLICY_FILE" \$service start || status=\$?
  echo "policy \$service \$status" >>"$calls"
done
exit \${APT_STATUS:-0}
END
  printf '#!/bin/bash\necho "update-rc.d $*" >>"%s"\n' "$calls" >"$bin/update-rc.d"
  chmod +x "$bin/update-rc.d"
  PATH=$bin:$PATH run "$setup_packages" test
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$(sed -n '3,$p' "$calls")" = $'policy mariadb 101\npolicy postfix 0\nupdate-rc.d mariadb disable' ]
  [ ! -e "$TSL_POLICY_FILE" ]
  APT_STATUS=100 PATH=$bin:$PATH run "$setup_packages" test
  [ "$status" -eq 100 ]
  [ ! -e "$TSL_POLICY_FILE" ]
  # The rule of somebody else stays.
  printf '#!/bin/sh\nexit 101\n' >"$TSL_POLICY_FILE"
  chmod +x "$TSL_POLICY_FILE"
  PATH=$bin:$PATH run "$setup_packages" test
  [ "$status" -eq 0 ]
  [ "$(sed -n 2p "$TSL_POLICY_FILE")" = "exit 101" ]
}

@test "another mail server stays" {
  without postfix
  printf 'Package: %s\nStatus: install ok installed\nMaintainer: x\nArchitecture: all\nVersion: 1\nProvides: mail-transport-agent\nDescription: x\n\n' \
    other-mail-server >>"$DPKG_ADMINDIR/status"
  PATH=$bin:$PATH run "$setup_packages" test
  echo "$output"
  [ "$status" -eq 0 ]
  [ ! -e "$calls" ]
}

@test "a failing apt-get is a failure" {
  without bats
  printf '#!/bin/bash\nexit 100\n' >"$bin/apt-get"
  PATH=$bin:$PATH run "$setup_packages" test
  [ "$status" -eq 100 ]
}

@test "without the rights of root the command to run is printed" {
  without bats
  rm "$bin/sudo"
  printf '#!/bin/bash\nexit 1\n' >"$bin/sudo"
  chmod +x "$bin/sudo"
  as_nobody=()
  if ((EUID == 0)); then
    as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    # The directories above are the caller's own.
    cp "$setup_packages" "$bin/setup-packages"
    cp "$DPKG_ADMINDIR/status" "$bin/status"
    directory=$(mktemp -d /tmp/setup-packages.XXXXXX)
    mv "$bin" "$directory/bin"
    chmod 755 "$directory"
    bin=$directory/bin
    setup_packages=$bin/setup-packages
    DPKG_ADMINDIR=$bin
  fi
  PATH=$bin:$PATH run "${as_nobody[@]}" "$setup_packages" test </dev/null
  [ -z "${directory:-}" ] || rm -r "$directory"
  echo "$output"
  [ "$status" -eq 1 ]
  [[ $output == *"apt-get update && apt-get install --yes --no-install-recommends bats"* ]]
}

@test "on another system the packages are named" {
  PATH=/nonexistent run /bin/bash "$setup_packages" demo
  echo "$output"
  [ "$status" -eq 1 ]
  [[ $output == *"not a Debian system"*"libmariadb-dev"* ]]
  PATH=/nonexistent TSL_SETUP=skip run /bin/bash "$setup_packages" demo
  [ "$status" -eq 0 ]
}

@test "an unknown list is refused" {
  run "$setup_packages" everything
  [ "$status" -eq 64 ]
}
