#!/usr/bin/env bats
# The blocks of docs/production.md, in order, as an administrator copies them, with a check of what each section
# promises. production.bash says what is not real.

load ../tools/helper

setup() {
  ((EUID == 0)) || skip "this needs root, who may mount"
  unshare --mount --net --pid --fork true 2>/dev/null || skip "no namespaces of its own here"
  command -v postfix >/dev/null || PATH=$PATH:/usr/sbin command -v postfix >/dev/null || skip "the package postfix is not installed"
}

walk() {
  timeout 90 unshare --mount --net --pid --fork --mount-proc --kill-child bash "$BATS_TEST_DIRNAME/production.bash" "$@" 3>&-
}

@test "from an empty Debian to production: every block of the page works, and so does what it sets up" {
  blocks=$(grep -cE '^```[a-z]' "$BATS_TEST_DIRNAME/../../docs/production.md")
  run walk
  [[ $status == 0 ]] || { echo "$output"; return 1; }
  equal "${lines[-1]}" "$blocks blocks"
}

@test "a block that fails is named, with its section and output" {
  printf '## 1. One\n\n```sh\ntrue\n```\n\n```sh\necho before; false\necho after\n```\n' >"$BATS_TEST_TMPDIR/page.md"
  run -1 walk "$BATS_TEST_TMPDIR/page.md"
  contains "$output" "section 1, this block fails:"
  equal "$(grep -xE 'before|after' <<<"$output")" before
}

@test "a block in a language that cannot be run is a fault" {
  printf '## 1. One\n\n```conf\ntrue\n```\n' >"$BATS_TEST_TMPDIR/page.md"
  run -1 walk "$BATS_TEST_TMPDIR/page.md"
  contains "$output" "no language that can be run"
}
