#!/usr/bin/env bats
# The Debian packages, made from the build tree: what is in them, what they need, that lintian finds no
# errors, and that they can be installed and removed, in a root of their own.

setup_file() {
  packages=$BATS_FILE_TMPDIR/packages
  unpacked=$BATS_FILE_TMPDIR/unpacked
  version=$(cat "$TSL_SOURCE/VERSION")-1
  architecture=$(dpkg --print-architecture)
  multiarch=$(gcc -print-multiarch)
  export packages unpacked version architecture multiarch
  mkdir "$packages" "$unpacked"
  # With a umask that must not show in them.
  (umask 077 && cpack --config "$TSL_BUILD/CPackConfig.cmake" -G DEB -B "$packages") \
    >"$BATS_FILE_TMPDIR/log" 2>&1 || {
    cat "$BATS_FILE_TMPDIR/log"
    return 1
  }
  for name in libtsladdressmap1 libtsladdressmap-dev tsl-address-map; do
    dpkg-deb --raw-extract "$(file_of "$name")" "$unpacked/$name"
  done
}

file_of() { echo "$packages/$1_${version}_$architecture.deb"; }
field() { dpkg-deb --field "$(file_of "$1")" "$2"; }

# contains PACKAGE FILE...: exactly these files and links, apart from those that every package has.
contains() {
  local name=$1
  shift
  printf '%s\n' "$@" /usr/share/doc/"$name"/{changelog.Debian.gz,changelog.gz,copyright} \
    /usr/share/lintian/overrides/"$name" | LC_ALL=C sort >"$BATS_TEST_TMPDIR/want"
  (cd "$unpacked/$name" && find usr ! -type d) | sed 's|^|/|' | LC_ALL=C sort |
    diff "$BATS_TEST_TMPDIR/want" -
}

@test "three packages come out" {
  run find "$packages" -maxdepth 1 -name '*.deb' -printf '%f\n'
  [ "$(sort <<<"$output")" = "libtsladdressmap-dev_${version}_$architecture.deb
libtsladdressmap1_${version}_$architecture.deb
tsl-address-map_${version}_$architecture.deb" ]
}

@test "the library's package has both libraries, and nothing that another major version has" {
  contains libtsladdressmap1 \
    /usr/lib/"$multiarch"/lib{tsladdressmap,tslplatform}.so.{1,"$(cat "$TSL_SOURCE/VERSION")"}
}

@test "the development package has headers, both ways to find the library, manual and documents" {
  name=libtsladdressmap-dev
  (
    cd "$TSL_SOURCE"
    find include2 -name '*.h' | sed 's|^include2|/usr/include/tsladdressmap|'
    find docs -name '*.md' ! -name contributing.md | sed "s|^docs|/usr/share/doc/$name|"
    find examples -type f ! -path examples/CMakeLists.txt | sed "s|^|/usr/share/doc/$name/|"
    # Named after the type of the build.
    cd "$unpacked/$name"
    find usr/lib -name 'TslAddressMapTargets-*.cmake' | sed 's|^|/|'
  ) >"$BATS_TEST_TMPDIR/files"
  mapfile -t files <"$BATS_TEST_TMPDIR/files"
  contains "$name" "${files[@]}" \
    /usr/include/tsladdressmap/{base/Exception,base/Export,address/EmailAddress}.h \
    /usr/include/tsladdressmap/address/tsl_emailaddress.h \
    /usr/lib/"$multiarch"/lib{tsladdressmap,tslplatform}.so \
    /usr/lib/"$multiarch"/cmake/TslAddressMap/TslAddressMap{Config,ConfigVersion,Targets}.cmake \
    /usr/lib/"$multiarch"/pkgconfig/tsladdressmap.pc \
    /usr/share/man/man3/tsl_address_map.3.gz
}

@test "the tool's package has the program, its documents, its manual and its completion" {
  contains tsl-address-map /usr/bin/tsl-address-map \
    /usr/share/man/man{1/tsl-address-map.1,5/tsl-address-map-files.5,8/tsl-address-map-serve.8}.gz \
    /usr/share/bash-completion/completions/tsl-address-map \
    /usr/lib/systemd/system/tsl-address-map{.service,.socket,-policy.socket} \
    /usr/lib/{sysusers,tmpfiles}.d/tsl-address-map.conf \
    /usr/share/doc/tsl-address-map/{production,tool,serve,postfix,masks,sendmail,exim,opensmtpd,configuration,failures}.md
}

@test "the service unit of the package runs its program" {
  grep -q '^ExecStart=/usr/bin/tsl-address-map serve ' \
    "$unpacked/tsl-address-map/usr/lib/systemd/system/tsl-address-map.service"
}

@test "the packages need each other in this version, and the libraries that they are linked with" {
  [ "$(field libtsladdressmap-dev Depends)" = "libtsladdressmap1 (= $version), libc6-dev" ]
  [[ "$(field tsl-address-map Depends)" == "libtsladdressmap1 (= $version), "*libstdc++6* ]]
  [ "$(field tsl-address-map Recommends)" = mariadb-server-core ]
  depends=$(field libtsladdressmap1 Depends)
  for needed in libboost-thread libc6 liblmdb0 libmariadb3 libssl3 libstdc++6; do
    [[ $depends == *"$needed"* ]]
  done
  [[ $depends != *-dev* ]]
}

@test "programs that are linked with the libraries will need this version or a newer one" {
  [ "$(cat "$unpacked/libtsladdressmap1/DEBIAN/shlibs")" = "libtsladdressmap 1 libtsladdressmap1 (>= $version)
libtslplatform 1 libtsladdressmap1 (>= $version)" ]
}

@test "the loader's cache is renewed by a trigger, and no script runs" {
  [ "$(cat "$unpacked/libtsladdressmap1/DEBIAN/triggers")" = "activate-noawait ldconfig" ]
  run find "$unpacked" -path '*/DEBIAN/*' -regex '.*/\(pre\|post\)\(inst\|rm\)'
  [ -z "$output" ]
}

@test "every file is in its package's list of checksums" {
  for name in libtsladdressmap1 libtsladdressmap-dev tsl-address-map; do
    cd "$unpacked/$name"
    md5sum --quiet --check DEBIAN/md5sums
    find usr -type f | sort | diff <(sed 's/^[^ ]*  //' DEBIAN/md5sums | sort) -
  done
}

@test "everybody may read the files, and only root may change them" {
  for name in libtsladdressmap1 libtsladdressmap-dev tsl-address-map; do
    run dpkg-deb --contents "$(file_of "$name")"
    [ "$status" -eq 0 ]
    [ -z "$(grep -vE '^(drwxr-xr-x|-rw-r--r--|lrwxrwxrwx) root/root ' <<<"$output" |
      grep -vE '^-rwxr-xr-x root/root .* \./usr/bin/tsl-address-map$')" ]
  done
}

# The dynamic section and the names of the sections of a program or library.
about() { readelf --dynamic --section-headers --wide "$1"; }

@test "programs and libraries are stripped and name no directory to load from" {
  found=0
  while read -r file; do
    found=$((found + 1))
    run about "$file"
    [[ $output != *RPATH* && $output != *RUNPATH* ]]
    [[ $output != *.debug_info* && $output != *.symtab* ]]
    # Addresses are bound before the program runs, and cannot be changed after that.
    [[ $output == *"Flags: NOW"* ]]
  done < <(find "$unpacked" -type f \( -name '*.so.*' -o -path '*/bin/*' \))
  [ "$found" -eq 3 ]
  # The build tree's own would not pass.
  run about "$TSL_BUILD/lib/libtsladdressmap.so.1"
  [[ $output == *RUNPATH* && $output == *.symtab* ]]
}

@test "the change log describes this version" {
  for name in libtsladdressmap1 libtsladdressmap-dev tsl-address-map; do
    gzip -dc "$unpacked/$name/usr/share/doc/$name/changelog.Debian.gz" >"$BATS_TEST_TMPDIR/changelog"
    [ "$(dpkg-parsechangelog --file "$BATS_TEST_TMPDIR/changelog" --show-field Version)" = "$version" ]
  done
}

check_with_lintian() {
  local as_root=()
  ((EUID)) || as_root=(--allow-root)
  run lintian "${as_root[@]}" --fail-on error "$@"
  echo "$output"
}

@test "lintian finds no errors" {
  check_with_lintian "$packages"/*.deb
  [ "$status" -eq 0 ]
}

@test "lintian fails where it should" {
  cp -r "$unpacked/libtsladdressmap1" "$BATS_TEST_TMPDIR/broken"
  rm "$BATS_TEST_TMPDIR/broken/DEBIAN/shlibs"
  dpkg-deb --root-owner-group --build "$BATS_TEST_TMPDIR/broken" "$BATS_TEST_TMPDIR/broken.deb"
  check_with_lintian "$BATS_TEST_TMPDIR/broken.deb"
  [ "$status" -ne 0 ]
  [[ $output == *"E: libtsladdressmap1: no-shlibs"* ]]
}

# A root with a data base of installed packages, of which there are none.
make_root() {
  root=$BATS_TEST_TMPDIR/root
  mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
  touch "$root/var/lib/dpkg/status"
}

dpkg_in_root() {
  local as_root=()
  ((EUID == 0)) || as_root=(fakeroot)
  # dpkg looks for programs that only packages with scripts need.
  PATH=$PATH:/usr/sbin:/sbin "${as_root[@]}" dpkg --root="$root" --force-not-root --no-triggers \
    --log="$BATS_TEST_TMPDIR/log" "$@"
}

@test "the packages can be installed, used and removed" {
  make_root
  # The packages of others that ours need are not there.
  dpkg_in_root --force-depends --install "$packages"/*.deb
  [ "$(dpkg_in_root --list | grep -c '^i')" -eq 3 ]

  run env LD_LIBRARY_PATH="$root/usr/lib/$multiarch" "$root/usr/bin/tsl-address-map" --version
  [ "$output" = "tsl-address-map $(cat "$TSL_SOURCE/VERSION")" ]
  LD_LIBRARY_PATH=$root/usr/lib/$multiarch ldd "$root/usr/bin/tsl-address-map" |
    grep -q "libtslplatform.so.1 => $root/usr"

  # A program is built as on a machine that has the packages.
  cd "$BATS_TEST_TMPDIR"
  export PKG_CONFIG_PATH=$root/usr/lib/$multiarch/pkgconfig
  examples=$root/usr/share/doc/libtsladdressmap-dev/examples
  gcc -std=c11 -c "$examples/c_interface.c" $(pkg-config --cflags tsladdressmap)
  g++ -std=c++20 -c "$examples/c_guard.cpp"
  g++ -o c_interface c_interface.o c_guard.o $(pkg-config --libs tsladdressmap)
  cmake -S "$examples/outside" -B outside -DCMAKE_PREFIX_PATH="$root/usr"

  dpkg_in_root --purge tsl-address-map libtsladdressmap-dev libtsladdressmap1
  run find "$root" -path "$root/var" -prune -o ! -type d -print
  echo "$output"
  [ "$status" -eq 0 ]
  [ -z "$output" ]
}

@test "the tool is not set up without its library" {
  make_root
  run dpkg_in_root --install "$(file_of tsl-address-map)"
  echo "$output"
  [ "$status" -ne 0 ]
  [[ $output == *"tsl-address-map depends on libtsladdressmap1 (= $version)"* ]]
}
