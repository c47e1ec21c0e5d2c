#!/bin/bash
# Runs the blocks of docs/production.md, or of the page $1, in order, as an administrator copies them. The caller has
# given it namespaces of its own for mounts, processes and the network: what the blocks write into /etc, /usr and /var
# is in layers of memory above the host's, and ends with this program.
#
# What is not real here: apt-get, which copies what the packages have; systemctl, which starts the service as the units
# say, behind a socket that stays open; the database server, a private one at the place of the usual one.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_root=$(cd "$here/../.." && pwd)
page=${1:-$source_root/docs/production.md}
umask 022
unset TSL_DATABASE_OPTION_FILE TSL_CMF_PATH XDG_STATE_HOME MAIL_CONFIG
export LC_ALL=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
# Below /run, which is in memory, as overlays need it.
mount -t tmpfs -o mode=755 tmpfs /run
for directory in etc usr var; do
  mkdir -p "/run/layers/$directory"/{upper,work}
  mount -t overlay -o "lowerdir=/$directory,upperdir=/run/layers/$directory/upper,workdir=/run/layers/$directory/work" \
    overlay "/$directory"
done
python3 - <<'PYTHON'
import fcntl, socket, struct
flags = struct.pack("16sh", b"lo", 0x41)  # Up and running.
fcntl.ioctl(socket.socket(), 0x8914, flags)
PYTHON

scratch=/run/production
mkdir -p "$scratch/blocks" "$scratch/packages" /run/mysqld
# Whatever goes wrong, the logs say more, also from a function that writes into one.
exec 5>&1
trap '[[ $? == 0 ]] || tail -n 60 "$scratch/log" /var/log/postfix.log >&5 2>/dev/null' EXIT
touch "$scratch"/packages/{libtsladdressmap1,tsl-address-map}_1_amd64.deb

program() { cat >"/usr/local/sbin/$1" && chmod 755 "/usr/local/sbin/$1"; }

program apt-get <<END
#!/bin/bash
set -euo pipefail
[[ \$* == *.deb ]] || exit 0
for kind in sysusers tmpfiles; do
  install -D -m 644 "$source_root/packaging/systemd/tsl-address-map.\$kind" "/usr/lib/\$kind.d/tsl-address-map.conf"
done
install -D -m 644 -t /usr/lib/systemd/system "$source_root"/packaging/systemd/tsl-address-map.socket
sed 's|@tsl_program_dir@|/usr/bin|' "$source_root"/packaging/systemd/tsl-address-map.service.in \
  >/usr/lib/systemd/system/tsl-address-map.service
ln -sf "$TSL_TOOL" /usr/bin/tsl-address-map
END

# What the units say of the service: its user, options and state directory, its socket and the group of that.
program systemctl <<END
#!/bin/bash
set -euo pipefail
setting() { sed -n "s/^\$2=-\\?//p" "/usr/lib/systemd/system/tsl-address-map.\$1"; }
pid_file=$scratch/service.pid
start() {
  local key value user command
  while IFS== read -r key value; do export "\$key=\$value"; done <"\$(setting service EnvironmentFile)"
  user=\$(setting service User)
  export STATE_DIRECTORY=/var/lib/\$(setting service StateDirectory)
  install -d -o "\$user" -g "\$user" -m "\$(setting service StateDirectoryMode)" "\$STATE_DIRECTORY"
  eval "command=(\$(setting service ExecStart))"
  setsid python3 "$here/activate.py" "\$(setting socket ListenStream)" "\$(setting socket ExecStartPost | sed 's/.* :\([a-z]*\) .*/\1/')" \
    /usr/bin/setpriv --reuid="\$user" --regid="\$user" --init-groups --no-new-privs --bounding-set=-all --inh-caps=-all \
    "\${command[@]}" >>$scratch/log 2>&1 3>&- </dev/null &
  echo \$! >"\$pid_file"
}
case "\$*" in
  daemon-reload) ;;
  "enable tsl-address-map.socket tsl-address-map.service") setting service ExecStart && setting socket ListenStream ;;
  "start tsl-address-map.socket tsl-address-map.service") start ;;
  "restart tsl-address-map.service" | "try-restart tsl-address-map.service")
    kill -HUP "\$(<"\$pid_file")"
    sleep 0.5
    ;;
  "enable --now mailmap-prune.timer") eval "\$(sed -n 's/^ExecStart=//p' /etc/systemd/system/mailmap-prune.service)" ;;
  "reload tsl-address-map") kill -HUP "\$(pgrep -P "\$(<"\$pid_file")")" ;;
  "restart postfix")
    postfix status 2>/dev/null && postfix stop
    postfix start
    ;;
  *)
    echo "not known here: systemctl \$*"
    exit 1
    ;;
esac
END

# A Postfix as Debian sets it up for an Internet site. It sends no mail.
cp /etc/postfix/master.cf.proto /etc/postfix/master.cf
cat >/etc/postfix/main.cf <<'END'
compatibility_level = 3.6
myhostname = mail.test.example
mydestination = localhost
inet_interfaces = loopback-only
inet_protocols = ipv4
maillog_file = /var/log/postfix.log
END

# before_7, after_5 and so on: what the page says in words, and what must be true after the blocks of a section.

before_2() { start_database; }
start_database() {
  "$TSL_TOOL" local start --local=/run/database >/dev/null
  chmod 755 /run/database /run/database/run
  local socket
  socket=$(sed -n 's/^socket="\(.*\)"$/\1/p' /run/database/client.cnf)
  chmod 777 "$socket"
  ln -sf "$socket" /run/mysqld/mysqld.sock
}

after_3() {
  expect "$(stat -c '%U %a' /etc/tsl-address-map/*.cnf)" $'root 644\nroot 644'
  refused runuser -u nobody -- mailmap status
}

after_5() {
  cd /var/lib/tsl/cmf
  expect "$(stat -c '%n %U:%G %a' . *)" ". mailadmin:tsl-address-map 2750
data.mdb mailadmin:tsl-address-map 640
lock.mdb mailadmin:tsl-address-map 660"
  cd "$scratch/packages"
}

# The units, with what the page adds to them, as far as that can be seen without systemd.
after_6() {
  expect "$(systemd-analyze --man=no verify tsl-address-map.service tsl-address-map.socket 2>&1 | grep tsl-address-map)" ""
  expect "$(stat -c '%U %a' /var/lib/tsl-address-map)" "tsl-address-map 700"
}

# What Postfix says to recipients.
recipients() {
  python3 - "$@" <<'PYTHON'
import smtplib, sys
client = smtplib.SMTP("127.0.0.1", 25, timeout=20)
client.ehlo()
client.mail("friend@example.net")
print(*(client.rcpt(address)[0] for address in sys.argv[1:]))
client.quit()
PYTHON
}
answer() { postmap -q "$2" "socketmap:unix:/run/tsl-address-map/socketmap:$1" 2>&1 || true; }

before_7() {
  awk '/^```/ {inside = !inside && /main.cf$/ && !blocks++; next} inside' "$source_root/docs/postfix.md" >>/etc/postfix/main.cf
  echo "virtual_transport = discard:" >>/etc/postfix/main.cf
}
after_7() {
  expect "$(recipients team@example.com ann@example.com info@shop.example jon.smith@example.com)" "250 250 250 250"
  expect "$(recipients nobody@example.com nobody@shop.example)" "550 550"
  # The service may not write.
  refused runuser -u tsl-address-map -- \
    tsl-address-map --option-file /etc/tsl-address-map/service.cnf alias set a@example.com b@example.com
}

# All that the backup must have.
everything() {
  local domain
  mailmap table list
  mailmap alias list
  mailmap --table sales alias list
  mailmap mask list
  for domain in $(mailmap domain list | cut -f 1); do
    echo "$domain"
    mailmap user list "$domain"
  done
}
after_8() {
  local before
  mailmap domain add büro.example
  mailmap user add old@büro.example --kind disabled
  mailmap domain add empty.example
  mailmap table create sales --kind alias
  mailmap --table sales alias set "\"a b\"@example.com" loop@example.com root --local-names
  mailmap --table sales alias set loop@example.com '"a b"@example.com' --allow-cycle
  mailmap mask set '*@inside.example' '*@example.com'
  before=$(everything)
  mailmap-backup
  expect "$(find /var/backups/mailmap /var/backups/mailmap/* -printf '%m ' | tr ' ' '\n' | sort -u | xargs)" "600 700"
  # What another night would find: the restore takes all of it back.
  mailmap domain remove empty.example
  mailmap domain remove shop.example --yes
  mailmap domain add new.example
  mailmap user add ann@example.com --kind shared
  mailmap user add new@new.example
  mailmap alias remove team@example.com
  mailmap alias set new@new.example ann@example.com
  mailmap table drop sales --yes
  mailmap-restore
  expect "$(everything)" "$before"
  # The service reads the directory that took the place of the other.
  mailmap user add late@example.com
  wait_for late@example.com answer mailbox late@example.com
  mailmap user remove late@example.com
  mailmap mask remove '*@inside.example' '*@example.com'
  mailmap table drop sales --yes
  # A reload confirms what the service has reported.
  wait_for 503 curl --silent --output /dev/null --write-out '%{http_code}' http://127.0.0.1:9117/ready
  systemctl reload tsl-address-map
} >>"$scratch/log" 2>&1

wait_for() {
  local want=$1 end=$((SECONDS + 10))
  shift
  until [[ $("$@") == "$want" ]]; do
    if ((SECONDS >= end)); then
      echo "never $want: $*"
      return 1
    fi
    sleep 0.05
  done
}

after_9() {
  expect "$(/etc/cron.daily/mailmap-check 2>&1)" ""
  expect "$(/etc/cron.daily/mailmap-backup 2>&1)" ""
  mailmap alias set broken@example.com nobody@example.com
  [[ $(/etc/cron.daily/mailmap-check) == *nobody@example.com* ]]
  mailmap alias remove broken@example.com
}

after_12() {
  # A restart while the database is unavailable.
  "$TSL_TOOL" local stop --local=/run/database
  systemctl restart tsl-address-map.service
  wait_for ann@example.com,bob@example.com,friend@example.net answer alias team@example.com
  start_database
  # The database is lost; what is in the backup comes back.
  mariadb --socket=/run/mysqld/mysqld.sock -e 'drop database ts_address_map'
  mailmap init
  mailmap-restore
  wait_for office@example.com answer alias info@shop.example
} >>"$scratch/log" 2>&1

expect() {
  [[ $1 == "$2" ]] && return
  printf 'got:  %s\nwant: %s\n' "$1" "$2"
  return 1
}

refused() {
  if "$@" 2>/dev/null; then
    echo "not refused: $*"
    return 1
  fi
}

# One file for each block, NN-SECTION.LANGUAGE.
awk -v directory="$scratch/blocks" '
  /^## [0-9]/ && !inside {section = $2 + 0}
  /^```/ && inside {close(file); inside = 0; next}
  /^```/ {file = sprintf("%s/%03d-%d.%s", directory, ++count, section, substr($0, 4)); inside = 1; next}
  inside {print > file}' "$page"

run_hook() {
  declare -F "$1" || return 0
  "$1"
}
run_block() {
  case $1 in
    *.sh) bash -e -o pipefail "$1" ;;
    *.sql) mariadb --no-defaults --socket=/run/mysqld/mysqld.sock <"$1" ;;
    *)
      echo "no language that can be run"
      return 1
      ;;
  esac
}

cd "$scratch/packages"
section=0 blocks=0
for block in "$scratch"/blocks/*; do
  blocks=$((blocks + 1))
  next=${block##*-}
  next=${next%.*}
  if [[ $next != "$section" ]]; then
    run_hook "after_$section"
    section=$next
    run_hook "before_$section"
  fi
  # Shows where it hangs, if it does.
  echo "${block##*/}"
  if ! run_block "$block" >"$scratch/output" 2>&1 </dev/null; then
    echo "section $section, this block fails:"
    cat "$block"
    echo "its output:"
    cat "$scratch/output"
    exit 1
  fi
done
run_hook "after_$section"
# The last sections have no blocks.
((section < 11)) || run_hook after_12
echo "$blocks blocks"
