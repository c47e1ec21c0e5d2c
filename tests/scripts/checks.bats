#!/usr/bin/env bats
# The checks find what they are for: each is run over a small tree with one fault in it, and over the
# same tree without.

setup() {
  tree=$BATS_TEST_TMPDIR/tree
  mkdir -p "$tree"/{include2,src/core,src/map,src/alias,platform/base,platform/database,tests/base,packaging,docs}
  cd "$tree"
  echo 1.2.3 >VERSION
  printf '# Changes\n\n## 1.2.3\n' >CHANGELOG.md
  printf 'BasedOnStyle: Google\nColumnLimit: 100\n' >.clang-format
  printf '// Thing.\n#ifndef THING_H\n#define THING_H\n#include <string>\ninline std::string thing() { return "thing"; }\n#endif\n' \
    >platform/base/Thing.h
  printf '// Thing.\n#include "base/Thing.h"\n' >platform/base/Thing.cpp
  printf '// Test.\n#include "base/Thing.h"\n' >tests/base/ThingTest.cpp
  printf 'tsl_test(base_tests SOURCES ThingTest.cpp)\n' >tests/base/CMakeLists.txt
  printf '// Face.\n#include "base/Thing.h"\n' >include2/Face.h
}

check() { run "$TSL_SOURCE/scripts/$1" "${@:2}" "$tree"; }

passes() {
  check "$@"
  echo "$output"
  [ "$status" -eq 0 ]
}

# fails CHECK TEXT [OPTION...]: the check ends with 1 and says TEXT.
fails() {
  check "$1" "${@:3}"
  echo "$output"
  [ "$status" -eq 1 ]
  [[ $output == *"$2"* ]]
}

@test "check-format passes a tidy tree" { passes check-format; }

@test "check-format finds what clang-format would change" {
  printf '// Thing.\nint  thing( );\n' >platform/base/Ugly.h
  fails check-format "platform/base/Ugly.h:2"
}

@test "check-format finds a character outside ASCII" {
  printf '// Gr\xc3\xbc\xc3\x9fe.\n' >platform/base/Umlaut.h
  fails check-format "not ASCII: platform/base/Umlaut.h:1"
}

@test "check-format finds blanks at the end of a line" {
  printf 'Text. \n' >docs/text.md
  fails check-format "blank at the end of a line: docs/text.md:1"
}

@test "check-format finds a missing last line feed" {
  printf 'Text.' >docs/text.md
  fails check-format "no line feed at the end: docs/text.md"
}

@test "check-format does not pass an empty tree" {
  rm -r platform include2 tests
  fails check-format "no sources found"
}

@test "check-headers passes headers that stand alone" { passes check-headers; }

@test "check-headers finds a header that leans on another" {
  printf '// Leans.\ninline std::string leans() { return ""; }\n' >src/core/Leans.h
  fails check-headers "does not compile alone: src/core/Leans.h"
}

@test "check-headers finds a missing include guard" {
  printf '// Twice.\ninline int twice() { return 2; }\n' >src/core/Twice.h
  fails check-headers "does not compile alone: src/core/Twice.h"
}

@test "check-headers leaves to the build what a source includes first there, but for the guard" {
  printf '#ifndef LEANS_H\n#define LEANS_H\ninline std::string leans() { return ""; }\n#endif\n' \
    >src/core/Leans.h
  printf '#include "core/Leans.h"\n' >src/core/Leans.cpp
  compile_commands src/core/Leans.cpp
  fails check-headers "does not compile alone: src/core/Leans.h" --build build/release
  sed -i 's/ -o / -Werror -o /' build/release/compile_commands.json
  passes check-headers --build build/release
  printf '#include <string>\n#include "core/Leans.h"\n' >src/core/Leans.cpp
  fails check-headers "does not compile alone: src/core/Leans.h" --build build/release
  printf '#include "core/Leans.h"\n' >src/core/Leans.cpp
  printf '#include <string>\ninline std::string leans() { return ""; }\n' >src/core/Leans.h
  fails check-headers "has no include guard: src/core/Leans.h" --build build/release
  sed -i 's/ -o / -include x.hxx -o /' build/release/compile_commands.json
  fails check-headers "does not compile alone: src/core/Leans.h" --build build/release
}

@test "check-headers finds a C header that is not C" {
  printf '#ifndef C_H\n#define C_H\n#ifdef __cplusplus\nextern "C" {\n#endif\nint f(bool flag);\n#ifdef __cplusplus\n}\n#endif\n#endif\n' \
    >src/core/c.h
  fails check-headers "src/core/c.h (as C11)"
}

@test "check-layers passes includes that go down" {
  printf '#include "base/Thing.h"\n' >src/core/Down.h
  passes check-layers
}

@test "check-layers finds an include that goes up" {
  printf '// Up.\n' >src/map/Up.h
  printf '#include "map/Up.h"\n' >platform/base/Thing.cpp
  fails check-layers "platform/base/Thing.cpp includes src/map/Up.h, which it must not know"
}

@test "check-layers finds a relative include that goes up" {
  printf '// Up.\n' >src/map/Up.h
  printf '#include "../map/Up.h"\n' >src/core/Sneaks.h
  fails check-layers "src/core/Sneaks.h includes"
}

@test "check-layers finds neighbours that must not know each other" {
  mkdir -p tools/cli tools/serve tools/terminal tools/tables
  printf '// Here.\n' | tee tools/serve/Serve.h tools/terminal/Terminal.h >tools/cli/Cli.h
  printf '#include "serve/Serve.h"\n' >tools/cli/Cli.cpp
  printf '#include "terminal/Terminal.h"\n' | tee tools/serve/Serve.cpp >tools/tables/Tables.cpp
  fails check-layers "tools/cli/Cli.cpp includes tools/serve/Serve.h, which it must not know"
  [[ $output == *"tools/serve/Serve.cpp includes tools/terminal/Terminal.h"* ]]
  [[ $output == *"tools/tables/Tables.cpp includes tools/terminal/Terminal.h"* ]]
}

@test "check-layers finds a third-party header in a foreign directory" {
  printf '#include <mysql.h>\n' >src/map/Direct.cpp
  printf '#include <lmdb.h>\n' >platform/database/Direct.cpp
  fails check-layers "src/map/Direct.cpp: <mysql.h> belongs to platform/database"
  [[ $output == *"platform/database/Direct.cpp: <lmdb.h> belongs to platform/cmf"* ]]
}

@test "check-layers finds a header that only one file may include in another" {
  mkdir -p tools/cli
  printf '#include <CLI/CLI.hpp>\n' | tee tools/cli/Command.cpp >tools/cli/OtherCommand.cpp
  fails check-layers "tools/cli/OtherCommand.cpp: <CLI/CLI.hpp> belongs to tools/cli/Command.cpp"
  [[ $output != *"tools/cli/Command.cpp: <"* ]]
}

@test "check-layers finds a public header that includes a private one" {
  printf '// Private.\n' >src/map/Private.h
  printf '#include "../src/map/Private.h"\n' >include2/Face.h
  fails check-layers "a public header includes"
}

@test "check-layers finds a public header that reaches Boost behind others" {
  printf '#include <boost/version.hpp>\n' >platform/base/Thing.h
  fails check-layers "include2/Face.h reaches"
}

@test "check-layers does not pass a tree without sources" {
  rm -r include2 src platform tests
  fails check-layers "no sources found"
}

@test "check-tests passes a source with a test that is built" { passes check-tests; }

@test "check-tests finds a source without a test" {
  printf '// Lonely.\n' >src/core/Lonely.cpp
  fails check-tests "no test: src/core/Lonely.cpp"
}

@test "check-tests finds a test that is not built" {
  printf '// Other.\n' >tests/base/OtherTest.cpp
  fails check-tests "not built: tests/base/OtherTest.cpp"
}

@test "check-tests finds threads that the thread sanitizer does not look at" {
  printf '#include <thread>\n// std::this_thread, std::thread::id\n' >tests/base/ThingTest.cpp
  passes check-tests
  printf 'std::thread thread(f);\n' >>tests/base/ThingTest.cpp
  fails check-tests "starts threads, but is not among THREADS: tests/base/ThingTest.cpp"
  echo 'tsl_test(name THREADS ThingTest.cpp LIBRARIES l)' >tests/base/CMakeLists.txt
  passes check-tests
}

@test "check-tests finds a suite that is not run" {
  printf "@test \"x\" { true; }\n" >tests/base/other.bats
  fails check-tests "not run: tests/base/other.bats"
}

@test "check-tests finds a test that is switched off" {
  off=DISABLED
  printf 'TEST(Thing, %s_DoesSomething) {}\n' "$off" >>tests/base/ThingTest.cpp
  fails check-tests "a test is switched off: tests/base/ThingTest.cpp"
}

@test "check-tests finds a test that is skipped, wherever the command is" {
  echo 'other.bats' >>tests/base/CMakeLists.txt
  printf '@test "x" {\n  true --skip-bad || false\n}\n' >tests/base/other.bats
  passes check-tests
  off=skip
  printf '@test "x" {\n  false || %s "not now"\n}\n' "$off" >tests/base/other.bats
  fails check-tests "a test is switched off: tests/base/other.bats"
}

@test "check-tests finds a comment that names a test which is not there" {
  printf '// Test.\nTEST(Thing,\n     HasAName) {}\n' >tests/base/ThingTest.cpp
  printf '// Thing. Pinned by\n// Thing.HasAName. Pinned by the tests of Thing.\nint f();\n' \
    >platform/base/Thing.cpp
  passes check-tests
  printf '// Thing. Pinned by\n// Thing.HasNoName.\n' >platform/base/Thing.cpp
  fails check-tests "platform/base/Thing.cpp names a test that is not there: Thing.HasNoName"
  printf '// Thing. Pinned by the tests of Thin.\n' >platform/base/Thing.cpp
  fails check-tests "platform/base/Thing.cpp names a test that is not there: the tests of Thin"
  printf '// Thing. Pinned by a test.\n' >platform/base/Thing.cpp
  fails check-tests "platform/base/Thing.cpp names a test that is not there: a"
}

@test "check-tests finds a change log of another version" {
  printf '# Changes\n\n## 1.2.4\n\n## 1.2.3\n' >CHANGELOG.md
  fails check-tests "VERSION says '1.2.3', CHANGELOG.md begins with '1.2.4'"
}

# A build tree's compile commands for one source.
compile_commands() {
  mkdir -p build/release
  printf '[\n{\n  "directory": "%s",\n  "command": "/usr/bin/c++ -Iinclude2 -Isrc -Iplatform -std=c++20 -o x.o -c %s/%s",\n  "file": "%s/%s"\n}\n]\n' \
    "$tree" "$tree" "$1" "$tree" "$1" >build/release/compile_commands.json
}

guarded_source() {  # With the lock taken, or not.
  cat <<END
struct __attribute__((capability("mutex"))) Lock {
  void lock() __attribute__((acquire_capability()));
  void unlock() __attribute__((release_capability()));
};
Lock s_lock;
int s_value __attribute__((guarded_by(s_lock)));
int value() {
  $1
  const int result = s_value;
  $2
  return result;
}
END
}

@test "check-thread-safety passes a guarded field under its lock" {
  guarded_source "s_lock.lock();" "s_lock.unlock();" >platform/base/Guarded.cpp
  compile_commands platform/base/Guarded.cpp
  passes check-thread-safety
}

@test "check-thread-safety finds a guarded field without its lock" {
  guarded_source "" "" >platform/base/Guarded.cpp
  compile_commands platform/base/Guarded.cpp
  fails check-thread-safety "the analysis of locks fails: platform/base/Guarded.cpp"
}

# drops_a_lock SOURCE FILE LINE: the project's own SOURCE passes, and fails when LINE of FILE is gone.
drops_a_lock() {
  cp -r "$TSL_SOURCE"/{include2,src,platform} .
  compile_commands "$1"
  passes check-thread-safety
  [ "$(grep -cF "$3" "$2")" -gt 0 ]
  grep -vF "$3" "$2" >changed
  cp changed "$2"
  fails check-thread-safety "the analysis of locks fails: $1"
}

@test "check-thread-safety finds a lock that is missing in the registry of tables" {
  drops_a_lock src/map/AddressMapDbImpl.cpp src/map/AddressMapDbImpl.cpp "SharedHold hold(m_aliasDbsMutex);"
}

@test "check-thread-safety finds a statement that is sent without the mutex of the connection" {
  drops_a_lock src/alias/AddressAliasDbMySQL.cpp src/alias/AddressAliasDbMySQL.cpp "const Synchronized lock(*m_mutex);"
}

@test "check-thread-safety finds that a guarded value is reached without its lock" {
  drops_a_lock platform/base/Logger.cpp platform/base/Guarded.h "const Hold hold(m_lock);"
}

@test "check-thread-safety does not pass without a build tree" {
  fails check-thread-safety "run cmake --preset release first"
}

@test "check-tidy finds what the rules forbid, and passes what they allow" {
  cp "$TSL_SOURCE/.clang-tidy" .
  printf 'int* nothing() { return nullptr; }\n' >platform/base/Null.cpp
  compile_commands platform/base/Null.cpp
  TSL_SOURCE_ROOT=$tree run "$TSL_SOURCE/scripts/check-tidy" --build build/release
  echo "$output"
  [ "$status" -eq 0 ]
  printf 'int* nothing() { return 0; }\n' >platform/base/Null.cpp
  TSL_SOURCE_ROOT=$tree run "$TSL_SOURCE/scripts/check-tidy" --build build/release
  [ "$status" -eq 1 ]
  [[ $output == *"clang-tidy finds faults: platform/base/Null.cpp"* ]]
}

# Two libraries with the names ours have, exporting one function each.
build_libraries() {
  mkdir -p build/release/lib
  printf 'extern "C" int tsl_thing() { return 1; }\n%s\n' "${1:-}" >thing.cpp
  g++ -shared -fPIC thing.cpp -o build/release/lib/libtslplatform.so.1
  cp build/release/lib/libtslplatform.so.1 build/release/lib/libtsladdressmap.so.1
}

@test "check-exports passes names as listed, and takes a new list" {
  build_libraries
  fails check-exports "no list: packaging/libtslplatform.symbols"
  run "$TSL_SOURCE/scripts/check-exports" --update "$tree"
  [ "$status" -eq 0 ]
  grep -qx tsl_thing packaging/libtsladdressmap.symbols
  passes check-exports
}

@test "check-exports finds a name that is not listed and one that is gone" {
  build_libraries
  "$TSL_SOURCE/scripts/check-exports" --update "$tree"
  echo tsl_gone >>packaging/libtslplatform.symbols
  build_libraries 'namespace Tessel { int fresh() { return 2; } }'
  fails check-exports "exported and not listed: Tessel::fresh()"
  [[ $output == *"no longer exported: tsl_gone"* ]]
}

@test "check-exports does not pass libraries that are not built" {
  fails check-exports "not built: build/release/lib/libtslplatform.so.1"
}

# Documents that tell what the small tree does, and a program whose help is like the tool's.
write_documents() {
  mkdir -p build/release/bin examples docs
  cat >build/release/bin/tsl-address-map <<'END'
#!/bin/sh
case "$*" in
  --help) printf 'Options:\n  -h,--help  Help\n  --json  JSON\n\nSubcommands:\n  alias  Aliases\n  serve  Serve\n\nExamples:\n  none\n' ;;
  "alias --help") printf 'Options:\n  -h,--help  Help\n\nSubcommands:\n  set  Set\n\nMore.\n' ;;
  "alias set --help") printf 'Options:\n  -h,--help  Help\n  --force  Force\n  --dry-run  Try\n' ;;
  "serve --help") printf 'Options:\n  -h,--help  Help\n  --listen  Listen\n' ;;
esac
END
  chmod +x build/release/bin/tsl-address-map
  cat >docs/tool.md <<'END'
## Global options
`--json`, `--help`
## Trying
Each takes `--dry-run`.
### `alias set ADDRESS`
`--force`, with `--json`
### `serve`
END
  printf '## Options\n\n`--listen`, with `--json`\n' >docs/serve.md
  printf '`TSL_THING`\n' >docs/configuration.md
  printf '| Where | Context | Code | File | Line | Detail | Cause |\n| thing | `doThing` | 4 | `Thing` | 7 | | |\n\n`0x3000001`\n' >docs/failures.md
  printf '## Words\n\n| Use | Instead of |\n|---|---|\n| directory | `folder`, `folders` |\n| mean | `stands for`, end |\n\n## More\n' \
    >docs/contributing.md
  printf '// Thing.\nvoid f() { getenv("TSL_THING"); throw Exception("doThing", 4, "Thing", 7); }\nint code = 0x3000001;\n' \
    >src/map/Thing.cpp
  printf 'int main() {}\n' >examples/expand.cpp
  printf 'See [tool](docs/tool.md).\n\n```cpp\nint main() {}\n```\n' >README.md
}

@test "check-docs passes documents that tell what the sources do" {
  write_documents
  passes check-docs
}

@test "check-docs finds a command that is not documented, and one that is not there" {
  write_documents
  sed -i 's/alias set/alias drop/' docs/tool.md
  fails check-docs "docs/tool.md: command not documented: alias set"
  [[ $output == *"docs/tool.md: documented, but no command: alias drop"* ]]
}

@test "check-docs finds an option that is not documented" {
  write_documents
  sed -i 's/--json/--yaml/' docs/tool.md
  fails check-docs "docs/tool.md: option not documented: Global options --json"
  [[ $output == *"documented, but no option: Global options --yaml"* ]]
}

@test "check-docs finds an option that is documented at another command" {
  write_documents
  printf '### `alias show`\n\n`--force`\n' >>docs/tool.md
  fails check-docs "docs/tool.md: documented, but no option: alias show --force"
}

@test "check-docs finds that a section names no option of its command" {
  write_documents
  sed -i '/^### /,$s/`--force`/Nothing./' docs/tool.md
  fails check-docs "docs/tool.md: option not documented: alias set --force"
}

@test "check-docs finds that no sentence describes the option of all commands that write" {
  write_documents
  sed -i '/takes/d' docs/tool.md
  fails check-docs "docs/tool.md: option not documented: alias set --dry-run"
}

@test "check-docs finds an option of the service that is not documented, and one that is not there" {
  write_documents
  sed -i 's/--listen/--hear/' docs/serve.md
  fails check-docs "docs/serve.md: option not documented: Options --listen"
  [[ $output == *"docs/serve.md: documented, but no option: Options --hear"* ]]
}

@test "check-docs finds an option that a document only mentions" {
  write_documents
  printf '## More\n\nWith `alias set --yaml`.\n' >>docs/tool.md
  printf '## More\n\nWith `--hear`.\n' >>docs/serve.md
  fails check-docs "docs/tool.md: no such option: --yaml"
  [[ $output == *"docs/serve.md: no such option: --hear"* ]]
}

@test "check-docs finds an environment variable that is not documented" {
  write_documents
  printf 'None.\n' >docs/configuration.md
  fails check-docs "environment variable not documented: TSL_THING"
}

@test "check-docs finds a key of option files that is not documented, and one that there is not" {
  write_documents
  mkdir -p platform/database
  printf '    Known{{"host", "place"}, 1},\n' >platform/database/ClientOptions.cpp
  printf '### Every option\n\n| `host`, `site` | `x` |\n' >>docs/configuration.md
  fails check-docs "docs/configuration.md: key of option files not documented: place"
  [[ $output == *"documented, but no key of option files: site"* ]]
}

@test "check-docs finds an error whose line differs" {
  write_documents
  sed -i 's/"Thing", 7/"Thing", 8/' src/map/Thing.cpp
  fails check-docs 'no row for "doThing", code 4, Thing, 8'
}

@test "check-docs finds a log code that is not documented" {
  write_documents
  sed -i 's/0x3000001/0x3000002/' src/map/Thing.cpp
  fails check-docs "log code not documented: 0x3000002"
  [[ $output == *"documented, but no log code: 0x3000001"* ]]
}

@test "check-docs finds an example that differs from its file, and a broken link" {
  write_documents
  printf 'See [tool](docs/tools.md).\n\n```cpp\nint main() { return 1; }\n```\n' >README.md
  fails check-docs "README.md: its C++ example is not examples/expand.cpp"
  [[ $output == *"README.md: broken link: docs/tools.md"* ]]
}

@test "check-docs finds words that the glossary replaces, in comments, messages, scripts and documents" {
  write_documents
  mkdir -p scripts tools tests/tools
  printf '// The Folders of the end.\nconst char* s_text = "a star stands for all";\n' >src/map/Words.cpp
  printf 'echo "no folder"\n' >scripts/words
  printf '// In this folder.\n' >tools/Words.h
  printf '# A folder.\n' >tests/tools/words.bats
  echo 'Two folders.' >>README.md
  fails check-docs 'src/map/Words.cpp:1: "Folders": docs/contributing.md has a better word'
  [[ $output == *'src/map/Words.cpp:2: "stands for": '* ]]
  [[ $output == *'scripts/words:1: "folder": '* ]]
  [[ $output == *'tools/Words.h:1: "folder": '* ]]
  [[ $output == *'tests/tools/words.bats:1: "folder": '* ]]
  [[ $output == *'README.md:6: "folders": '* ]]
  [[ $output != *'"end"'* ]]
}

@test "check-docs passes such words as code and as parts of other words" {
  write_documents
  printf '// The key `folder`.\nint s_folder;\n' >src/map/Words.cpp
  passes check-docs
}

@test "check-docs finds that the glossary is gone" {
  write_documents
  printf 'None.\n' >docs/contributing.md
  fails check-docs "docs/contributing.md: no glossary"
}

@test "check-docs finds a check that the document for contributors does not mention" {
  write_documents
  mkdir scripts
  printf '#!/bin/sh\n' >scripts/check-more
  fails check-docs "docs/contributing.md: not mentioned: scripts/check-more"
}

# Two headers of the C interface, its document, and its example.
write_c_documents() {
  write_documents
  mkdir -p platform/address
  printf 'typedef struct tsl_address_map_body* tsl_address_map;\nTSL_EXPORT tsl_address_map\ntsl_address_map_open(void);\n' \
    >include2/tsl_address_map.h
  printf 'TSL_EXPORT void tsl_emailaddress_end(int address);\n' >platform/address/tsl_emailaddress.h
  printf 'int f();\n\nint g();\n' >examples/c_interface.c
  printf 'int h();\n' >examples/c_guard.cpp
  printf '`tsl_address_map_open()` and `tsl_emailaddress_end()`\n\n```c\nint f();\n```\n\n```c\nint g();\n```\n\n```cpp\nint h();\n```\n' \
    >docs/c-interface.md
}

@test "check-docs passes documents that name the C functions and show the C example" {
  write_c_documents
  passes check-docs
}

@test "check-docs finds a C function that is not documented, and one that is not there" {
  write_c_documents
  sed -i 's/tsl_address_map_open/tsl_address_map_openn/' docs/c-interface.md
  fails check-docs "docs/c-interface.md: C function not documented: tsl_address_map_open"
  [[ $output == *"docs/c-interface.md: documented, but in no C header: tsl_address_map_openn"* ]]
}

@test "check-docs finds a C example that differs from its file" {
  write_c_documents
  printf 'int g(int);\n' >>examples/c_interface.c
  printf 'int i();\n' >>examples/c_guard.cpp
  fails check-docs "docs/c-interface.md: its C example is not examples/c_interface.c"
  [[ $output == *"docs/c-interface.md: its C++ example is not examples/c_guard.cpp"* ]]
}
