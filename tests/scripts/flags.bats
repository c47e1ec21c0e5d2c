#!/usr/bin/env bats
# The flags that the sources are compiled and linked with: those of our presets, and those of somebody
# who configures without a preset and brings flags of their own.

# configure ARGUMENT...: without a preset, in a build tree of its own.
configure() { cmake -G Ninja -S "$TSL_SOURCE" -B "$BATS_TEST_TMPDIR/build" "$@"; }

# commands BUILD: how each source is compiled.
commands() { sed -n 's/^ *"command": "\(.*\)",$/\1/p' "$1/compile_commands.json"; }

@test "warnings are errors in our presets" {
  commands "$TSL_BUILD" >"$BATS_TEST_TMPDIR/commands"
  [ -s "$BATS_TEST_TMPDIR/commands" ]
  [ "$(grep -vc ' -Werror ' "$BATS_TEST_TMPDIR/commands")" -eq 0 ]
}

@test "flags from outside win, and warnings stop nobody else" {
  export CXXFLAGS="-O3 -g0 -D_FORTIFY_SOURCE=2 -fno-stack-protector -fomit-frame-pointer -fplt"
  export LDFLAGS="-Wl,-z,lazy"
  configure -DCMAKE_BUILD_TYPE=None
  commands "$BATS_TEST_TMPDIR/build" | grep ' -std=c++20 ' >"$BATS_TEST_TMPDIR/commands"
  grep -q '/tests/' "$BATS_TEST_TMPDIR/commands"
  grep -q '/tools/' "$BATS_TEST_TMPDIR/commands"
  [ "$(grep -vcF -- "$CXXFLAGS" "$BATS_TEST_TMPDIR/commands")" -eq 0 ]
  for ours in -O0 -g1 -Werror -D_FORTIFY_SOURCE=3 -fstack-protector -fno-omit-frame-pointer -fno-plt; do
    echo "$ours"
    [ "$(grep -c -e " $ours" "$BATS_TEST_TMPDIR/commands")" -eq 0 ]
  done
  # What they leave open stays as it is.
  [ "$(grep -vc -e ' -fstack-clash-protection ' "$BATS_TEST_TMPDIR/commands")" -eq 0 ]
  grep -q 'LINK_FLAGS = .*-Wl,-z,relro' "$BATS_TEST_TMPDIR/build/build.ninja"
  [ "$(grep -c -e '-Wl,-z,now' "$BATS_TEST_TMPDIR/build/build.ninja")" -eq 0 ]
}

@test "hardening can be switched off, and is no part of what is not optimised" {
  configure -DCMAKE_BUILD_TYPE=Release -DTSL_HARDENING=OFF -DTSL_BUILD_TESTS=OFF -DTSL_BUILD_BENCH=OFF
  [ "$(commands "$BATS_TEST_TMPDIR/build" | grep -cE 'FORTIFY|-fstack|-fcf')" -eq 0 ]
  configure -DCMAKE_BUILD_TYPE=Debug -DTSL_HARDENING=ON
  [ "$(commands "$BATS_TEST_TMPDIR/build" | grep -c FORTIFY)" -eq 0 ]
  configure -DCMAKE_BUILD_TYPE=Release
  [ "$(commands "$BATS_TEST_TMPDIR/build" | grep -c ' -D_FORTIFY_SOURCE=3 ')" -gt 0 ]
}
