#!/usr/bin/env bats
# The units under systemd itself, which boots in namespaces of its own (boot.bash); units.bash has the checks.

load ../tools/helper

setup() {
  ((EUID == 0)) || skip "this needs root, who may mount"
  unshare --mount --net --pid --cgroup --fork true 2>/dev/null || skip "no namespaces of its own here"
  grep -qw cgroup2 /proc/filesystems || skip "this kernel has no cgroup2"
  [ -x /lib/systemd/systemd ] || skip "the package systemd is not installed"
  getent group postfix >/dev/null || skip "the package postfix is not installed"
}

boot() { timeout 120 bash "$BATS_TEST_DIRNAME/boot.bash" "$@" 3>&-; }

@test "under systemd the units start, stop, restart, reload and are watched without a lost lookup, in their sandbox" {
  run boot "$BATS_TEST_DIRNAME/units.bash"
  echo "$output"
  [ "$status" -eq 0 ]
  equal "$(grep -c '^ok: ' <<<"$output")" 13
}

@test "a script that fails under systemd is a failure, and what it writes and removes stays there" {
  cat >"$BATS_TEST_TMPDIR/failing.bash" <<'END'
for path in / /etc /var/lib /tmp /root "$@"; do touch "$path/written-under-systemd"; done
rm -rf "$@"
exit 3
END
  run -3 boot "$BATS_TEST_TMPDIR/failing.bash" "$BATS_TEST_TMPDIR" "$BATS_TEST_DIRNAME"
  equal "$(ls -d {,/etc,/var/lib,/tmp,/root,"$BATS_TEST_TMPDIR","$BATS_TEST_DIRNAME"}/written-under-systemd 2>/dev/null)" ""
  [ -e "$BATS_TEST_TMPDIR/failing.bash" ]
}
