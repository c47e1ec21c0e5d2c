#!/usr/bin/env bats
# The combined test tree of scripts/test: every test of every preset is in it, under its preset's
# name and with its properties, and a failure of one fails the whole.

setup() {
  cd "$BATS_TEST_TMPDIR"
  mkdir source all
  cat >source/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(Sample LANGUAGES NONE)
enable_testing()
add_test(NAME says COMMAND sh -c "echo \"a;b $VALUE\"; test -f marker")
set_tests_properties(says PROPERTIES ENVIRONMENT "VALUE=1;OTHER=2" LABELS "threads;quick"
                     WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} FIXTURES_REQUIRED world TIMEOUT 7)
add_test(NAME prepares COMMAND sh -c "touch marker")
set_tests_properties(prepares PROPERTIES FIXTURES_SETUP world WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
add_test(NAME fails COMMAND false)
set_tests_properties(fails PROPERTIES WILL_FAIL TRUE)
END
}

# collect PRESET [CTEST-SELECTION...]: configures the sample and takes its tests over.
collect() {
  local preset=$1
  shift
  cmake -S source -B "$preset" >configure.log
  ctest --test-dir "$preset" "$@" --show-only=json-v1 >"$preset.json"
  cmake -DOUTPUT="$PWD/all/CTestTestfile.cmake" -DPRESET="$preset" -DTESTS="$PWD/$preset.json" \
    -DWRAPPER="${wrapper:-}" -P "$TSL_SOURCE/scripts/lib/collect-tests.cmake"
}

@test "the tests of all presets run, each under its preset's name" {
  collect one
  collect two
  run ctest --test-dir all
  echo "$output"
  [ "$status" -eq 0 ]
  [[ $output == *"one.says"*"two.says"*"100% tests passed, 0 tests failed out of 6"* ]]
}

@test "a selection of a preset's tests is kept" {
  collect one -L '^threads$'
  run ctest --test-dir all -N
  [[ $output == *"one.says"* ]]
  [[ $output != *"one.fails"* ]]
}

@test "properties are kept, and fixtures stay with their preset" {
  collect one
  run ctest --test-dir all --show-only=json-v1
  [[ $output == *"one.world"* ]]
  [[ $output == *"VALUE=1"*"OTHER=2"* ]]
  ctest --test-dir all -R one.says -V | tee out
  grep -q 'a;b 1' out
}

@test "the wrapper runs each test" {
  wrapper="env;WRAPPED=yes" collect one
  grep -q 'add_test(\[==\[one.says\]==\] \[==\[env\]==\] \[==\[WRAPPED=yes\]==\]' all/CTestTestfile.cmake
  ctest --test-dir all
}

@test "one failing test fails the whole" {
  echo 'add_test(NAME breaks COMMAND false)' >>source/CMakeLists.txt
  collect one
  run ctest --test-dir all
  [ "$status" -ne 0 ]
  [[ $output == *"one.breaks (Failed)"* ]]
}

@test "a test whose program was not built is an error" {
  echo 'add_test(NAME missing COMMAND /nonexistent/program)' >>source/CMakeLists.txt
  run collect one
  echo "$output"
  [ "$status" -ne 0 ]
  [[ $output == *"missing"* ]]
}
