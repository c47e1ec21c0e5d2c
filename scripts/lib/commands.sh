# The compile commands of a build tree, for the checks that analyse sources. Sourced, not run.
# shellcheck shell=bash

# need_build BUILD: ends the script when the build tree has no compile commands.
need_build() {
  [[ -f $1/compile_commands.json ]] && return
  echo "There is no $1/compile_commands.json: run cmake --preset release first." >&2
  exit 1
}

# compiled_sources BUILD: the sources that the build tree compiles, as paths from the root.
compiled_sources() {
  sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$1/compile_commands.json" |
    sed "s|^$PWD/||" | grep -v '^/' | grep -v '^build/' | sort -u
}

# flags_of BUILD SOURCE: include directories, definitions and the language version of the source.
flags_of() {
  grep -F -- "-c $PWD/$2\"" "$1/compile_commands.json" | head -1 | tr ' ' '\n' |
    awk '/^-(I|D|std=)/ {print; next} previous == "-isystem" {print "-isystem"; print} {previous = $0}' |
    sed 's|\\\\\\"|"|g; s|\\"|"|g'  # Quotes, escaped for the shell and for JSON.
}
