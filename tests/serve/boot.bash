#!/bin/bash
# Boots a systemd in namespaces of its own and runs a script in it, as root: boot.bash SCRIPT [ARGUMENT...]. The exit
# status is that of the script.
#
# A booting systemd empties /tmp and writes settings of the kernel, so nothing of the host can be written: the root is a
# layer in memory above that of the host, and of its other directories only those of the source, the program and the
# script are there, to be read, as are the settings of the kernel. The services of the host do not start.
set -euo pipefail
source_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# The host's side: a control group of its own, which is removed with what is below it.
outside() {
  local group
  unified=$(mktemp -d)
  mount -t cgroup2 cgroup2 "$unified"
  group=$unified/boot-$$
  mkdir "$group"
  mkfifo "$unified.output"
  cat "$unified.output" &
  local status=0
  (
    echo "$BASHPID" >"$group/cgroup.procs"
    exec timeout 120 unshare --mount --pid --net --cgroup --uts --ipc --fork --kill-child \
      bash "${BASH_SOURCE[0]}" --inside "$@" >"$unified.output" 2>&1
  ) || status=$?
  wait
  find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || true
  umount "$unified"
  rm -r "$unified" "$unified.output"
  return $status
}

# Makes what takes the place of the host's root, and becomes systemd, which runs the script.
inside() {
  local root=/mnt path
  mount --make-rprivate /
  mount -t tmpfs -o mode=755 tmpfs "$root"
  mkdir "$root"/{upper,work,root}
  mount -t overlay -o "lowerdir=/,upperdir=$root/upper,workdir=$root/work" overlay "$root/root"
  root=$root/root
  mount -t tmpfs -o mode=755 tmpfs "$root/run"
  mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
  mount -t proc proc "$root/proc"
  mount --bind "$root/proc/sys" "$root/proc/sys"
  mount -o remount,bind,ro "$root/proc/sys"
  mount -t sysfs -o ro sysfs "$root/sys"
  mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
  make_devices "$root/dev"
  for path in "$source_root" "$(dirname "$(dirname "$TSL_TOOL")")" "$(dirname "$1")"; do
    mkdir -p "$root$path"
    mount --bind -o ro "$path" "$root$path"
  done
  # /run is where systemd looks for units that somebody wrote for the time until the next boot.
  mkdir -p "$root/run/systemd/system"
  {
    printf '[Unit]\nRequires=basic.target\nAfter=basic.target\nSuccessAction=exit-force\nFailureAction=exit-force\n'
    printf '[Service]\nType=oneshot\nStandardOutput=file:/dev/console\nStandardError=inherit\n'
    printf 'Environment=TSL_TOOL=%s LC_ALL=C.UTF-8 HOME=/root\n' "$TSL_TOOL"
    printf 'ExecStart=/bin/bash'
    printf ' "%s"' "$@"
    echo
  } >"$root/run/systemd/system/script.service"
  without_services "$root"
  cd "$root"
  pivot_root . mnt
  umount -l /mnt
  exec env -i container=boot PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --unit=script.service --log-target=journal --show-status=no
}

make_devices() {
  local name
  mount -t tmpfs -o mode=755 tmpfs "$1"
  for name in null zero full random urandom tty; do
    touch "$1/$name"
    mount --bind "/dev/$name" "$1/$name"
  done
  mkdir "$1"/{pts,shm}
  mount -t devpts -o newinstance,ptmxmode=666 devpts "$1/pts"
  mount -t tmpfs -o mode=1777 tmpfs "$1/shm"
  ln -s pts/ptmx "$1/ptmx"
  ln -s /proc/self/fd "$1/fd"
  touch "$1/console"
  mount --bind /proc/self/fd/1 "$1/console"
}

# The journal is all that starts with systemd in the root $1.
without_services() {
  local unit
  rm -rf "$1"/etc/systemd/{system,network} "$1"/{etc,lib}/systemd/system-generators
  mkdir -p "$1/etc/systemd/system"
  for unit in "$1"/lib/systemd/system/{sysinit,sockets,local-fs,timers}.target.wants/* "$1/lib/systemd/system/timers.target"; do
    [[ $unit == *journald* ]] || ln -sf /dev/null "$1/etc/systemd/system/${unit##*/}"
  done
  : >"$1/etc/fstab"
  echo 0123456789abcdef0123456789abcdef >"$1/etc/machine-id"
}

if [[ $1 == --inside ]]; then
  shift
  inside "$@"
elif [[ $1 == --outside ]]; then
  shift
  outside "$@"
else
  # The control groups are mounted where nobody else sees them.
  exec unshare --mount bash "${BASH_SOURCE[0]}" --outside "$@"
fi
