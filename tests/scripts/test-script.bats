#!/usr/bin/env bats
# The options of scripts/test, the build service's script, and the progress lines of both scripts.
# What scripts/test does with the tests is in collect-tests.bats.

@test "scripts/test explains itself, and refuses what it does not know" {
  run "$TSL_SOURCE/scripts/test" --help
  [ "$status" -eq 0 ]
  [[ $output == Usage:* ]]
  run "$TSL_SOURCE/scripts/test" --preset debug
  [ "$status" -eq 64 ]
  [[ $output == *"no such preset: debug"* ]]
  run "$TSL_SOURCE/scripts/test" --quick
  [ "$status" -eq 64 ]
}

@test "the build service runs scripts/test and hands on its exit status" {
  mkdir -p "$BATS_TEST_TMPDIR"/tree/{.ci,scripts}
  cp "$TSL_SOURCE/.ci/run" "$BATS_TEST_TMPDIR/tree/.ci/run"
  printf '#!/bin/sh\necho "in $PWD with $# arguments"\nexit 3\n' >"$BATS_TEST_TMPDIR/tree/scripts/test"
  chmod +x "$BATS_TEST_TMPDIR/tree/scripts/test"
  cd /
  run bash "$BATS_TEST_TMPDIR/tree/.ci/run"
  [ "$status" -eq 3 ]
  [ "$output" = "in $BATS_TEST_TMPDIR/tree with 0 arguments" ]
}

@test "a step that succeeds says so and keeps its output to itself" {
  run bash -c 'source "$TSL_SOURCE/scripts/lib/progress.sh"; step "count" echo one; echo after'
  [ "$status" -eq 0 ]
  [[ ${lines[0]} == "==> count ... "*" s" ]]
  [ "${lines[1]}" = after ]
}

@test "a step that fails shows its output and ends the script" {
  run bash -c 'source "$TSL_SOURCE/scripts/lib/progress.sh"; step "count" sh -c "echo one; exit 7"; echo after'
  [ "$status" -eq 7 ]
  [[ $output == *"==> count ... FAILED after"*one*"==> count FAILED"* ]]
  [[ $output != *after$'\n'* && ${lines[-1]} != after ]]
}
