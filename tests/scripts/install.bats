#!/usr/bin/env bats
# An installation as others find it: the examples are built outside the tree against a staged
# installation, by CMake and by pkg-config, and run against a private server.

load server

setup_file() {
  start_server
  tool alias set staff@example.com ann@example.com
  export prefix=$server_directory/prefix
  cmake --install "$TSL_BUILD" --prefix "$prefix" >"$server_directory/install.log"
}

teardown_file() { stop_server; }

expands() {
  run with_server "$1" staff@example.com
  echo "$output"
  [ "$status" -eq 0 ]
  [ "$output" = ann@example.com ]
}

# The C example leaves the tables as it found them, so it can run again.
runs_in_c() {
  run with_server "$1"
  echo "$output"
  [ "$status" -eq 0 ]
  [[ $output == *"reached: bob@partner.example"*"public: ann@shown.example"* ]]
}

library_directory() { dirname "$(find "$prefix" -name 'libtsladdressmap.so.1')"; }

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
      g++ -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$PWD" -x c++ - || exit 1
  done
}

@test "the headers of the C interface compile as C11 against the installation alone" {
  cd "$prefix/include/tsladdressmap"
  for header in tsl_address_map.h address/tsl_emailaddress.h base/Export.h; do
    printf '#include "%s"\nint tsl_unused;\n' "$header" |
      gcc -std=c11 -pedantic-errors -Wall -Wextra -Werror -fsyntax-only -I"$PWD" -x c -
  done
  # A C++ header shows that the language is C.
  run gcc -std=c11 -fsyntax-only -I"$PWD" -x c - <<<'#include "AddressMapDb.h"'
  [ "$status" -ne 0 ]
}

# foreign_headers DIRECTORY: what the headers there reach of the database, the storage and Boost.
foreign_headers() {
  (cd "$1" && find . -name '*.h') | while read -r header; do
    echo "#include \"$header\"" | g++ -std=c++20 -I"$1" -M -x c++ - | tr -s ' \\' '\n' |
      grep -E '/(mysql|mariadb|boost)/|/lmdb\.h$|/syslog\.h$' || true
  done
}

@test "no installed header reaches those of MariaDB, LMDB or Boost" {
  [ -z "$(foreign_headers "$prefix/include/tsladdressmap")" ]
  cp -r "$prefix/include/tsladdressmap" "$BATS_TEST_TMPDIR/headers"
  echo '#include <lmdb.h>' >>"$BATS_TEST_TMPDIR/headers/base/Exception.h"
  foreign_headers "$BATS_TEST_TMPDIR/headers" | grep -q '/lmdb\.h$'
}

@test "documents, manual and examples are installed" {
  [ "$(man -w -M "$prefix/share/man" tsl_address_map)" = "$prefix/share/man/man3/tsl_address_map.3" ]
  documents=$(dirname "$(find "$prefix/share/doc" -name c-interface.md)")
  [ -f "$documents/behaviour.md" ]
  [ -f "$documents/examples/c_interface.c" ]
  [ -f "$documents/examples/outside/CMakeLists.txt" ]
  # How to work on the project is for those who have its sources.
  [ ! -e "$documents/contributing.md" ]
}

@test "the completion of words is installed under the name of the program" {
  cmp "$TSL_SOURCE/packaging/tsl-address-map.bash" \
    "$prefix/share/bash-completion/completions/tsl-address-map"
}

@test "the service unit runs the program that was installed" {
  program=$(sed -n 's/^ExecStart=\([^ ]*\) .*/\1/p' "$prefix/lib/systemd/system/tsl-address-map.service")
  [ "$program" = "$prefix/bin/tsl-address-map" ]
  "$program" --version
  systemd-analyze verify --man=no "$prefix/lib/systemd/system/"tsl-address-map{.service,.socket,-policy.socket}
}

@test "the directory of the socket comes from systemd-tmpfiles, and from no unit, which would remove it with the socket" {
  cd "$prefix/lib/systemd/system"
  directory=$(dirname "$(sed -n 's/^ListenStream=//p' tsl-address-map.socket)")
  grep -qF "d $directory 0755 tsl-address-map tsl-address-map" "$prefix/lib/tmpfiles.d/tsl-address-map.conf"
  run grep -E "^RuntimeDirectory=.*${directory##*/}" tsl-address-map.service
  [ "$status" -eq 1 ]
}

@test "the manual pages are well formed" {
  pages=0
  for page in "$prefix"/share/man/man*/*; do
    pages=$((pages + 1))
    [ -z "$(man -l --warnings -Tutf8 -Z "$page" 2>&1 >/dev/null)" ]
    name=$(basename "${page%.*}")
    lexgrog "$page" | grep -q "\"$name - "
    [ "$(man -w -M "$prefix/share/man" "${page##*.}" "$name")" = \
      "$page" ]
  done
  [ "$pages" -eq 4 ]
  # It would not pass one with a mistake.
  printf '.TH T 3\n.SH NAME\nt \\- thing\n.nosuch\n' >"$BATS_TEST_TMPDIR/t.3"
  [ -n "$(man -l --warnings -Tutf8 -Z "$BATS_TEST_TMPDIR/t.3" 2>&1 >/dev/null)" ]
}

# The examples as they were installed, without the tree around them. They ask for no standard of C++
# themselves, and the compiler's own one would not do.
@test "a CMake project finds the package, which brings C++20 with it" {
  cmake -S "$prefix/share/doc/TslAddressMap/examples/outside" -B "$BATS_TEST_TMPDIR/cmake" \
    -DCMAKE_PREFIX_PATH="$prefix"
  cmake --build "$BATS_TEST_TMPDIR/cmake" --parallel
  expands "$BATS_TEST_TMPDIR/cmake/expand"
  runs_in_c "$BATS_TEST_TMPDIR/cmake/c_interface"
  ldd "$BATS_TEST_TMPDIR/cmake/c_interface" | grep -F "$prefix" | grep -q libtsladdressmap.so.1
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
  PKG_CONFIG_PATH=$(library_directory)/pkgconfig
  [ "$(pkg-config --modversion tsladdressmap)" = "$(cat "$TSL_SOURCE/VERSION")" ]
  # The flags are words for the compiler.
  g++ -std=c++20 "$TSL_SOURCE/examples/expand.cpp" -o "$BATS_TEST_TMPDIR/expand" \
    $(pkg-config --cflags --libs tsladdressmap) -Wl,-rpath,"$(library_directory)"
  expands "$BATS_TEST_TMPDIR/expand"
}

@test "pkg-config serves a C program" {
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(library_directory)/pkgconfig
  cd "$BATS_TEST_TMPDIR"
  # As docs/c-interface.md has it.
  gcc -std=c11 -pedantic-errors -Wall -Wextra -Werror -c "$TSL_SOURCE/examples/c_interface.c" \
    $(pkg-config --cflags tsladdressmap)
  g++ -std=c++20 -c "$TSL_SOURCE/examples/c_guard.cpp"
  g++ -o c_interface c_interface.o c_guard.o $(pkg-config --libs tsladdressmap) \
    -Wl,-rpath,"$(library_directory)"
  runs_in_c ./c_interface
}

@test "a C program that calls nothing that throws is linked as C" {
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(library_directory)/pkgconfig
  # What the README shows.
  {
    printf '#include <stdio.h>\n#include <tsl_address_map.h>\nint main(void) {\n'
    sed -n '/^```c$/,/^```$/{/^```/d;p}' "$TSL_SOURCE/README.md"
    printf 'return 0;\n}\n'
  } >"$BATS_TEST_TMPDIR/reach.c"
  gcc -std=c11 -Wall -Wextra -Werror -o "$BATS_TEST_TMPDIR/reach" "$BATS_TEST_TMPDIR/reach.c" \
    $(pkg-config --cflags --libs tsladdressmap) -Wl,-rpath,"$(library_directory)"
  expands "$BATS_TEST_TMPDIR/reach"
}

@test "the installed tool runs with the installed libraries" {
  run "$prefix/bin/tsl-address-map" --version
  [ "$output" = "tsl-address-map $(cat "$TSL_SOURCE/VERSION")" ]
  run ldd "$prefix/bin/tsl-address-map"
  [[ $output == *"libtslplatform.so.1 => $prefix"* ]]
}

@test "an installation may be moved" {
  mv "$prefix" "$server_directory/moved"
  prefix=$server_directory/moved
  PKG_CONFIG_PATH=$(library_directory)/pkgconfig run pkg-config --cflags-only-I tsladdressmap
  [[ $output == *"moved"* ]]
  run "$prefix/bin/tsl-address-map" --version
  mv "$server_directory/moved" "$server_directory/prefix"
  [ "$status" -eq 0 ]
}

@test "the libraries name their major version" {
  for library in tsladdressmap tslplatform; do
    objdump -p "$(library_directory)/lib$library.so.1" | grep -q "SONAME *lib$library.so.1$"
  done
}

# hardened FILE: whether all of the program or library was compiled and linked with the protections. The
# debug information has the options of the compiler, once for each way in which they were combined.
hardened() {
  local about compiled options wanted
  about=$(readelf --wide --file-header --program-headers --dynamic --dyn-syms "$1")
  for wanted in 'Type: *DYN ' GNU_RELRO 'Flags: NOW' '__[a-z]*printf_chk@|__memcpy_chk@'; do
    grep -qE "$wanted" <<<"$about" || { echo "$1 is without $wanted"; return 1; }
  done
  compiled=$(readelf --string-dump=.debug_str "$1" | grep 'GNU C')
  while read -r options; do
    for wanted in -fstack-protector-strong -fstack-clash-protection -fcf-protection=full; do
      [[ $options == *" $wanted"* ]] || { echo "$1 is without $wanted: $options"; return 1; }
    done
  done <<<"$compiled"
}

@test "the installed program and libraries are hardened" {
  for file in bin/tsl-address-map "$(library_directory)"/lib{tsladdressmap,tslplatform}.so.1; do
    hardened "$(realpath "$prefix/${file#"$prefix/"}")"
  done
}

@test "a program without one of the protections is not hardened" {
  cd "$BATS_TEST_TMPDIR"
  printf '#include <stdio.h>\nint main(int n, char* v[]) { return printf(v[n - 1]); }\n' >program.c
  all="-g -O2 -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection -fcf-protection \
    -fPIE -pie -Wl,-z,relro,-z,now"
  gcc $all -o program program.c
  hardened program
  while read -r option instead; do
    echo "$option"
    gcc ${all/$option/$instead} -o program program.c
    run hardened program
    echo "$output"
    [ "$status" -eq 1 ]
  done <<'END'
-D_FORTIFY_SOURCE=2 -U_FORTIFY_SOURCE
-fstack-protector-strong
-fstack-clash-protection
-fcf-protection -fcf-protection=none
-pie -no-pie
-z,relro -z,norelro
-z,now -z,lazy
END
}
