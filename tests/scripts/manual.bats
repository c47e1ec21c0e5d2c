#!/usr/bin/env bats
# The manual pages that scripts/make-manual makes: those of a small tree, and of this one.

# A tree with one document of interest.
setup() {
  tree=$BATS_TEST_TMPDIR/tree
  pages=$BATS_TEST_TMPDIR/pages
  mkdir -p "$tree"/{scripts,docs,include2,platform/address}
  cp "$TSL_SOURCE/scripts/make-manual" "$tree/scripts"
  cp "$TSL_SOURCE/VERSION" "$tree"
  printf '# Title\n\nText.\n' | tee "$tree"/docs/{files,serve,c-interface}.md >"$tree/docs/tool.md"
  touch "$tree"/include2/tsl_address_map.h "$tree"/platform/address/tsl_emailaddress.h
}

make_manual() { "$tree/scripts/make-manual" "${lowdown:-lowdown}" "$pages"; }
# shown PAGE: as a terminal of 80 columns shows it.
shown() { MANWIDTH=80 man -l -Tutf8 "$1" | sed 's/\x1b\[[0-9;]*m//g' | col -bx; }
# has TEXT: whether the page shows these lines.
has() {
  shown "$pages/$1" >"$BATS_TEST_TMPDIR/shown"
  cat "$BATS_TEST_TMPDIR/shown"
  [[ $(<"$BATS_TEST_TMPDIR/shown") == *"$2"* ]]
}

@test "a page begins with its name, and has the sections of its document" {
  printf '# The tool\n\nText.\n\n## A part\n\n### `word`\n\nMore.\n' >"$tree/docs/tool.md"
  make_manual
  has tsl-address-map.1 "NAME
       tsl-address-map - "
  has tsl-address-map.1 "DESCRIPTION
       Text.

A PART
   word
       More.

SEE ALSO
       tsl-address-map-files(5), tsl-address-map-serve(8), tsl_address_map(3)"
}

@test "a table becomes a list" {
  printf '# T\n\n| Option | Meaning |\n|---|---|\n| `--a\|b` | does |\n\n| Map | Key | Value |\n|---|---|---|\n| m | k | |\n| n | k | v |\n' \
    >"$tree/docs/tool.md"
  make_manual
  has tsl-address-map.1 "       --a|b
            does

       m
            Key: k

       n
            Key: k
            Value: v"
}

@test "a link becomes the name of a page or of a document" {
  printf '# T\n\nSee [serve.md](serve.md), [the files](files.md#x), [schema.md](schema.md) and [below](#x).\n' >"$tree/docs/tool.md"
  make_manual
  has tsl-address-map.1 "See tsl-address-map-serve(8), tsl-address-map-files(5), schema.md and
       below."
}

@test "code can be copied" {
  printf "# T\n\n\`'a'-b\`\n\n\`\`\`sh\n# ## | 'c'-d\n| e\n\`\`\`\n" >"$tree/docs/tool.md"
  make_manual
  has tsl-address-map.1 "       'a'-b

           # ## | 'c'-d
           | e"
  # Elsewhere than on Debian, hyphens and quotes are typeset unless they are written like this.
  grep -qF "\fB\(aqa\(aq\-b\fR" "$pages/tsl-address-map.1"
  grep -qF "| \(aqc\(aq\-d" "$pages/tsl-address-map.1"
}

@test "the functions come from the headers" {
  printf '/* ---- Things ---- */\n\n/* Other. */\nint x;\n\n/* Does a `thing`\n   for "*", as tsl_a_b(). */\nTSL_EXPORT int tsl_do(int a,\n                      int b);\n' \
    >"$tree/include2/tsl_address_map.h"
  make_manual
  has tsl_address_map.3 'FUNCTIONS
   Things
       int tsl_do(int a, int b);
            Does a thing for "*", as tsl_a_b().
'
}

@test "no page is written if its document is missing or lowdown fails" {
  rm "$tree/docs/tool.md"
  run make_manual
  [ "$status" -ne 0 ]
  [ -z "$(ls "$pages")" ]
  cp "$tree/docs/files.md" "$tree/docs/tool.md"
  lowdown=false run make_manual
  [ "$status" -ne 0 ]
  [ -z "$(ls "$pages")" ]
  make_manual
  [ "$(ls "$pages" | wc -l)" -eq 4 ]
}

@test "the pages have all exported functions, and no Markdown" {
  "$TSL_SOURCE/scripts/make-manual" lowdown "$pages"
  for page in "$pages"/*; do
    shown "$page" >"$BATS_TEST_TMPDIR/text"
    run grep -E '\]\(|^ *```|\*\*[^ ]|^ *##+ |│|\|---' "$BATS_TEST_TMPDIR/text"
    echo "$page: $output"
    [ "$status" -eq 1 ]
  done
  functions=0
  while read -r name; do
    functions=$((functions + 1))
    sed -n '/FUNCTIONS/,$p' "$pages/tsl_address_map.3" | grep -q "^\\\\fB.*$name("
  done < <(cat "$TSL_SOURCE"/packaging/*.symbols | grep -oE '^tsl_(emailaddress|address)_[a-z_]+$')
  [ "$functions" -gt 30 ]
}

@test "without lowdown the build says that there are no pages, and installs none" {
  run cmake -G Ninja -S "$TSL_SOURCE" -B "$BATS_TEST_TMPDIR/build" -DTSL_LOWDOWN=OFF -DTSL_BUILD_TESTS=OFF -DTSL_BUILD_BENCH=OFF
  [ "$status" -eq 0 ]
  [[ $output == *"No lowdown: no manual pages are built and installed"* ]]
  run grep 'packaging/man/' "$BATS_TEST_TMPDIR/build/cmake_install.cmake"
  [ "$status" -eq 1 ]
  grep -q 'packaging/man/' "$TSL_BUILD/cmake_install.cmake"
}
