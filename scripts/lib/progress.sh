# Progress lines for the scripts: what is being done, and how long it took. Sourced, not run.
# shellcheck shell=bash

# step TITLE COMMAND...: runs the command, with the seconds it took. Its output is shown only when it
# fails; then the script ends with its exit status.
step() {
  local title=$1 log start status=0
  shift
  # The file has no name from here on, so that nothing is left of it however this ends.
  log=$(mktemp)
  exec 9<>"$log"
  rm -f "$log"
  start=$SECONDS
  printf '==> %s ... ' "$title"
  "$@" >&9 2>&1 </dev/null || status=$?
  if ((status)); then
    printf 'FAILED after %d s (exit status %d)\n' $((SECONDS - start)) "$status"
    cat /dev/fd/9
    printf '==> %s FAILED\n' "$title" >&2
    exit "$status"
  fi
  printf '%d s\n' $((SECONDS - start))
  exec 9>&-
}
