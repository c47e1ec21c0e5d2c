# What the checks share: the files of the tree, and how faults are reported. Sourced, not run.
# shellcheck shell=bash

faults=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# enter_tree [ROOT]: goes to the tree to be checked, the one of this script when none is named.
enter_tree() {
  local root=${1:-}
  [[ -n $root ]] || root=$(dirname "${BASH_SOURCE[0]}")/../..
  cd "$root" || exit
}

# The files that belong to the tree: what git tracks or would track, otherwise all but build trees.
tree_files() {
  if [[ -e .git ]] && command -v git >/dev/null &&
    git ls-files --cached --others --exclude-standard >"$scratch/files" 2>/dev/null; then
    # A file that is being renamed may be listed and gone.
    while IFS= read -r file; do [[ -f $file ]] && printf '%s\n' "$file"; done <"$scratch/files" | sort -u
  else
    find . -type f -not -path './build/*' -not -path './.git/*' | sed 's|^\./||' | sort
  fi
}

# fault TEXT: reports one fault.
fault() {
  printf '%s\n' "$1"
  faults=$((faults + 1))
}

# finish NAME COVERED: the last line; ends the script, with 1 when there were faults.
finish() {
  if ((faults)); then
    echo "$1: $faults fault(s)"
    exit 1
  fi
  echo "$1: clean ($2)"
  exit 0
}

# in_parallel FUNCTION ARGUMENT...: calls the exported function with the arguments and each line of
# standard input, as many at once as there are processors. Their outputs are kept apart.
in_parallel() {
  xargs -r -d '\n' -P "$(nproc)" -I{} bash -c \
    'output=$("$@") || output+="
FAULT could not run: $*"; [[ -z $output ]] || printf "%s\n" "$output"' in_parallel "$@" {}
}
