# What the tests of the running service share. Its log is $directory/log.

# Runs "$@" until it succeeds, for at most 20 s.
wait_for() {
  local i
  for ((i = 0; i < 400; i++)); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  printf 'never succeeded: %s\n' "$*"
  cat "$directory/log"
  return 1
}

log_has() { grep -qF -e "$1" "$directory/log"; }

# The status and the text of the page $1 there.
get() {
  python3 - "http://127.0.0.1:$port/$1" <<'PYTHON'
import sys, urllib.request, urllib.error
try:
    page = urllib.request.urlopen(sys.argv[1])
except urllib.error.HTTPError as error:
    page = error
print(page.status, page.read().decode())
PYTHON
}
is_ready() { [[ "$(get ready)" == "200 ready"$'\ndatabase: '* ]]; }
