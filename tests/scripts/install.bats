#!/usr/bin/env bats
# An installation as others find it: the example is built outside the tree against a staged
# installation, by CMake and by pkg-config, and run against a private server.

load server

setup_file() {
  start_server
  tool alias set staff@example.com ann@example.com
  export prefix=$server_folder/prefix
  cmake --install "$TSL_BUILD" --prefix "$prefix" >"$server_folder/install.log"
}

teardown_file() { stop_server; }

expands() {
  run with_server "$1" staff@example.com
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$output" = ann@example.com ]
}

library_folder() { dirname "$(find "$prefix" -name 'libtsladdressmap.so.1')"; }

@test "the public headers are installed, and no private one" {
  cd "$prefix/include/tsladdressmap"
  find . -type f | sort >"$BATS_TEST_TMPDIR/installed"
  (cd "$TSL_SOURCE/include2" && find . -name '*.h') >"$BATS_TEST_TMPDIR/expected"
  printf './%s\n' address/EmailAddress.h address/tsl_emailaddress.h base/Exception.h base/Export.h \
    >>"$BATS_TEST_TMPDIR/expected"
  diff <(sort "$BATS_TEST_TMPDIR/expected") "$BATS_TEST_TMPDIR/installed"
}

@test "each installed header compiles against the installation alone" {
  cd "$prefix/include/tsladdressmap"
  find . -name '*.h' | sed 's|^\./||' | while read -r header; do
    echo "#include \"$header\"" |
      g++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I"$PWD" -x c++ - || exit 1
  done
}

@test "a CMake project finds the package" {
  cmake -S "$TSL_SOURCE/examples/outside" -B "$BATS_TEST_TMPDIR/cmake" -DCMAKE_PREFIX_PATH="$prefix"
  cmake --build "$BATS_TEST_TMPDIR/cmake"
  expands "$BATS_TEST_TMPDIR/cmake/expand"
  ldd "$BATS_TEST_TMPDIR/cmake/expand" | grep -F "$prefix" | grep -q libtsladdressmap.so.1
}

@test "a CMake project that wants another major version does not find it" {
  cp -r "$TSL_SOURCE/examples" "$BATS_TEST_TMPDIR/examples"
  sed -i 's/find_package(TslAddressMap 1 /find_package(TslAddressMap 2 /' \
    "$BATS_TEST_TMPDIR/examples/outside/CMakeLists.txt"
  run cmake -S "$BATS_TEST_TMPDIR/examples/outside" -B "$BATS_TEST_TMPDIR/other" \
    -DCMAKE_PREFIX_PATH="$prefix"
  [ "$status" -ne 0 ]
}

@test "pkg-config finds the module" {
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(library_folder)/pkgconfig
  [ "$(pkg-config --modversion tsladdressmap)" = "$(cat "$TSL_SOURCE/VERSION")" ]
  # The flags are words for the compiler.
  g++ -std=c++20 "$TSL_SOURCE/examples/expand.cpp" -o "$BATS_TEST_TMPDIR/expand" \
    $(pkg-config --cflags --libs tsladdressmap) -Wl,-rpath,"$(library_folder)"
  expands "$BATS_TEST_TMPDIR/expand"
}

@test "the installed tool runs with the installed libraries" {
  run "$prefix/bin/tsl-address-map" --version
  [ "$output" = "tsl-address-map $(cat "$TSL_SOURCE/VERSION")" ]
  run ldd "$prefix/bin/tsl-address-map"
  [[ $output == *"libtslplatform.so.1 => $prefix"* ]]
}

@test "an installation may be moved" {
  mv "$prefix" "$server_folder/moved"
  prefix=$server_folder/moved
  PKG_CONFIG_PATH=$(library_folder)/pkgconfig run pkg-config --cflags-only-I tsladdressmap
  [[ $output == *"moved"* ]]
  run "$prefix/bin/tsl-address-map" --version
  mv "$server_folder/moved" "$server_folder/prefix"
  [ "$status" -eq 0 ]
}

@test "the libraries name their major version" {
  for library in tsladdressmap tslplatform; do
    objdump -p "$(library_folder)/lib$library.so.1" | grep -q "SONAME *lib$library.so.1$"
  done
}
