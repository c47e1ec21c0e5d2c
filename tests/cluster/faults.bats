#!/usr/bin/env bats
# Servers fail under load: no answer is wrong, nothing is "not there" that is there, and no acknowledged write is lost.
# With TSL_TEST_SECONDS all scenarios run for that long, at random moments, on a cluster and then on a primary with a
# replica: run that on a quiet machine. The table at the end is that of docs/cluster.md.

@test "a node is killed, and another one is cut off, while all are in use" {
  if [[ ${TSL_TEST_SECONDS:-} ]]; then
    words=(--seconds "$TSL_TEST_SECONDS")
  else
    words=(--scenario kill --scenario isolate)
  fi
  run python3 "$BATS_TEST_DIRNAME/faults.py" --spoil "${words[@]}"
  echo "$output"
  [ "$status" -eq 0 ]
  if [[ ${TSL_TEST_SECONDS:-} ]]; then echo "$output" >&3; fi
}
