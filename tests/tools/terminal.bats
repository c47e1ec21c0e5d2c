# The manners of the tool: progress and colour on a real terminal (a tmux of the suite's own), and what
# is left when it is interrupted or its reader goes.

load helper

setup_file() {
  start_server
  unset NO_COLOR TMUX
  # What the shell of a pane starts with. "t" is the tool.
  cat >"$BATS_FILE_TMPDIR/rc" <<'EOT'
PS1='$ '
t() { "$TSL_TOOL" --local="$SERVER" "$@"; }
EOT
  export ROWS=900 KILLS=8
  # A sanitizer makes everything slower.
  if grep -q __asan_init "$TSL_TOOL"; then KILLS=4; fi
}

teardown_file() {
  pane kill-server 2>/dev/null || true
  stop_server
}

setup() {
  empty_tables
  cd "$BATS_TEST_TMPDIR"
}

teardown() {
  sql 'drop trigger if exists held; drop table if exists alias_large;'
  pane kill-session -t "=$BATS_TEST_NUMBER" 2>/dev/null || true
}

pane() { tmux -S "$BATS_FILE_TMPDIR/tmux" -f /dev/null "$@"; }

# Opens a terminal of $1 columns with a shell in this directory, $2 in its environment.
open_terminal() {
  pane new-session -d -s "$BATS_TEST_NUMBER" -x "$1" -y 60 -e "${2:-_=}" \
    "exec bash --noprofile --rcfile '$BATS_FILE_TMPDIR/rc' -i"
  wait_for '^\$$'
}

enter() { pane send-keys -t "=$BATS_TEST_NUMBER:" "$@"; }

# What the terminal shows; with -e as well its colours, with -J without the breaks of wrapped lines.
screen() { pane capture-pane -p "$@" -t "=$BATS_TEST_NUMBER:"; }

# Waits until a line of the terminal matches $1.
wait_for() {
  local end=$((SECONDS + 60))
  until screen | grep -qE -e "$1"; do
    if ((SECONDS > end)); then
      printf 'never seen: %s\n' "$1"
      screen
      return 1
    fi
    sleep 0.02
  done
}

# Waits until the command $* succeeds.
wait_until() {
  local end=$((SECONDS + 60))
  until "$@"; do
    ((SECONDS > end)) && return 1
    sleep 0.02
  done
}

# Lines of aliases, which an import sorts: the last one in $ROWS is some hundred lines from the end.
numbered() { seq 1 "$ROWS" | sed 's/.*/a&@example.com:m&@example.com/'; }

# Runs $1 in a session of its own, which keeps its locks until let_go.
lock() {
  : >held.txt
  exec {held}> >(mariadb --defaults-file="$SERVER/client.cnf" ts_address_map -N -n >held.txt)
  echo "$1" >&"$held"
  wait_until grep -q 1 held.txt
}
# Makes statements wait that write the row of a800: with $1, insert or update.
hold() {
  sql "create trigger if not exists held before $1 on alias for each row
         do if( new.name = 'a800@example.com', get_lock( 'held', 300 ), 0 );"
  lock "select get_lock( 'held', 0 );"
}
let_go() { exec {held}>&-; }
is_held() {
  [ "$(sql "select count(*) from information_schema.processlist where state = 'User lock'")" = 1 ]
}

# Whether the server has nothing left of clients that went. It updates the list of transactions only
# when nobody has read it for 0.1 seconds: looking more often shows a transaction that is gone.
is_idle() {
  sleep 0.15
  [ "$(sql "select ( select count(*) from information_schema.innodb_trx )
             + ( select count(*) from information_schema.processlist where id != connection_id() and db = 'ts_address_map' )")" = 0 ]
}

# The import at a terminal of $1 columns, which waits in the middle and shows $2.
import_at() {
  numbered >in.txt
  open_terminal "$1"
  hold insert
  enter 't alias import in.txt' Enter
  wait_for "$2"
  # It is drawn again and again, as the rate shows, and in place.
  local before
  before=$(screen)
  wait_until eval '[ "$(screen)" != "$before" ]'
  wait_for "$2"
  # No line is wrapped: joining them changes nothing.
  equal "$(screen | wc -l)" "$(screen -J | wc -l)"
  equal "$(screen | grep -c 'writing')" 1
  equal "$(screen | sed '/^$/d' | wc -l)" 2
  let_go
  wait_for '^900 added'
  wait_for '^\$$'
  local number
  number=$(sql 'select max(number) from ts_address_map.history')
  # -J puts lines that are too long for the terminal together again.
  equal "$(screen -J | sed 's/ *$//; /^$/d')" "\$ t alias import in.txt
900 added, 0 changed, 0 left, 0 removed
tsl-address-map: 'tsl-address-map undo $number' takes this back
\$"
  # As it says; and what changed nothing is nothing to take back.
  enter "clear; t undo $number && t alias import /dev/null; echo end" Enter
  wait_for '^end$'
  contains "$(screen)" "900 removed"
  [[ "$(screen)" == *"0 removed"* && "$(screen)" != *"takes this back"* ]]
}

@test "the progress of an import on a terminal" {
  import_at 80 '^writing \[=+ +\]  55%  500 of 900 rows, [0-9]+/s, [0-9]+:[0-9]{2} left$'
}

@test "the progress of an import on a narrow terminal" {
  import_at 40 '^writing: 55%, [0-9]+ rows/s(, [0-9]+:[0-9]{2} left)?$'
}

@test "the progress of work that waits for the server" {
  tool alias set team@example.com ann@example.com
  open_terminal 80
  lock "lock tables alias write; select 1;"
  enter 't alias who ann@example.com' Enter
  wait_for '^reading: [0-9]+:[0-9]{2}$'
  let_go
  wait_for '^team@example.com -> ann@example.com$'
  wait_for '^\$$'
  equal "$(screen)" \
    $'$ t alias who ann@example.com\nteam@example.com -> ann@example.com\n$'
}

@test "nothing is written over lines that a person types, or over a pager" {
  open_terminal 80
  enter 't alias import --format native -' Enter
  # The shell would not show what is typed before.
  wait_until eval '[ "$(pane display-message -p -t "=$BATS_TEST_NUMBER:" "#{pane_current_command}")" = tsl-address-map ]'
  enter 'team@example.com:ann@example.com' Enter
  wait_for '^team@example.com:ann@example.com$'
  lock 'lock tables alias write; select 1;'
  pane split-window -t "=$BATS_TEST_NUMBER:" -b "exec bash --noprofile --rcfile '$BATS_FILE_TMPDIR/rc' -i"
  wait_for '^\$$'
  enter 't alias who ann@example.com | cat' Enter
  # Longer than it takes for a bar to come.
  sleep 1.3
  equal "$(pane capture-pane -p -t "=$BATS_TEST_NUMBER:.0" | sed '/^$/d')" \
    '$ t alias who ann@example.com | cat'
  equal "$(pane capture-pane -p -t "=$BATS_TEST_NUMBER:.1" | sed '/^$/d')" \
    $'$ t alias import --format native -\nteam@example.com:ann@example.com'
  let_go
  pane send-keys -t "=$BATS_TEST_NUMBER:.1" C-d
  wait_until eval '[ "$(sql "select count(*) from alias")" = 1 ]'
}

@test "an interrupted import leaves the table and the terminal as they were" {
  numbered >in.txt
  open_terminal 80
  hold insert
  enter 't alias import in.txt' Enter
  wait_for '^writing \['
  pane resize-window -t "=$BATS_TEST_NUMBER:" -x 40
  wait_for '^writing: '
  equal "$(screen | grep -c 'writing')" 1
  enter C-c
  wait_for '^\$$'
  let_go
  wait_until is_idle
  equal "$(sql 'select count(*) from alias')" 0
  enter 'echo "it was $?"' Enter
  wait_for '^it was 130$'
  [[ "$(screen)" != *writing* ]]
  [[ "$(screen)" != *^C* ]]
}

# Runs the tool with $3... on a held table, sends it the signal $1, and expects that it ends by it, $2
# being its status, and that the table is as before.
interrupt() {
  local signal=$1 expected=$2 code=0 before
  shift 2
  before=$(sql 'checksum table alias')
  env --default-signal="$signal" "$TSL_TOOL" --option-file "$SERVER/client.cnf" "$@" >out.txt 2>&1 &
  local pid=$!
  wait_until is_held
  kill -"$signal" "$pid"
  wait "$pid" || code=$?
  equal "$code" "$expected"
  equal "$(<out.txt)" ""
  let_go
  wait_until is_idle
  equal "$(sql 'checksum table alias')" "$before"
}

@test "signals undo an import and leave nothing written" {
  numbered >in.txt
  hold insert
  interrupt INT 130 alias import in.txt
  hold insert
  interrupt TERM 143 alias import in.txt
  equal "$(sql 'select count(*) from alias')" 0
}

@test "signals undo a drop everywhere" {
  numbered | sed 's/$/,bob@example.net/' | tool alias import -
  hold update
  interrupt INT 130 alias drop --everywhere bob@example.net
  equal "$(sql "select count(*) from alias where members like '%bob%'")" "$ROWS"
}

@test "an interrupted import of users writes all of them or none" {
  local kill code users end start took kinds=(disabled user)
  "$TSL_TOOL" --cmf . domain add example.com
  seq 1 20000 | sed 's/.*/user&@example.com/' >users.txt
  start=$(date +%s%N)
  "$TSL_TOOL" --cmf . user import users.txt --kind shared
  end=$(date +%s%N)
  took=$(((end - start) / 1000))
  for ((kill = 0; kill < KILLS; kill++)); do
    env --default-signal=INT "$TSL_TOOL" --cmf . user import users.txt --kind "$((kill % 2))" >out.txt 2>&1 &
    local pid=$!
    # A random moment of the time that a whole import takes.
    sleep "$(printf '%d.%06d' 0 $((RANDOM * 32768 % took % 1000000)))"
    code=0
    kill -INT "$pid" 2>/dev/null || true
    wait "$pid" || code=$?
    [ "$code" = 0 ] || equal "$code" 130
    # All have one kind.
    users=$("$TSL_TOOL" --cmf . user list example.com | cut -f2 | sort | uniq -c | tr -s ' ')
    [[ "$users" =~ ^' 20000 '(shared|disabled|user)$ ]]
    # Those of an import that was through have its kind.
    [ "$code" = 130 ] || equal "$users" " 20000 ${kinds[kill % 2]}"
  done
}

@test "colour on a terminal" {
  sql "insert into alias ( name, members ) values( 'bad@', 'x@example.com' ), ( 'a@example.com', 'b@example.com' ),
         ( 'b@example.com', 'a@example.com,c@example.com' ), ( 'n@example.com', 'nowhere' );"
  open_terminal 200
  enter 't check | cat >plain.txt; t check' Enter
  wait_for '[0-9] errors?, [0-9] warnings?, [0-9] notice'
  wait_for '^error'
  enter 't alias tree a@example.com; "$TSL_TOOL" --option-file /nowhere status; echo end' Enter
  wait_for '^end$'
  local shown
  shown=$(screen -e)
  contains "$shown" $'\e[31merror\e[39m'
  contains "$shown" $'\e[33mwarning\e[39m'
  contains "$shown" $'\e[33mcycle\e[39m'
  contains "$shown" $'tsl-address-map: \e[31m--option-file\e[39m: '
  # Into a pipe none.
  contains "$(<plain.txt)" $'error\tbroken-row'
  [[ "$(<plain.txt)" != *$'\e'* ]]
  # In data none.
  pane clear-history -t "=$BATS_TEST_NUMBER:"
  enter 'clear; t check --json; t alias tree a@example.com --dot; t alias tree a@example.com --json; echo all' Enter
  wait_for '^all$'
  contains "$(screen)" '"severity":"error"'
  contains "$(screen)" 'digraph'
  [[ "$(screen -e | grep -v 'tsl-address-map: ')" != *$'\e'* ]]
}

@test "no colour where it is not wanted" {
  sql "insert into alias ( name, members ) values( 'bad@', 'x@example.com' );"
  open_terminal 200 NO_COLOR=1
  enter 't check; "$TSL_TOOL" --option-file /nowhere status; TERM=dumb NO_COLOR= t check; echo end' Enter
  wait_for '^end$'
  equal "$(screen | grep -c '^error')" 2
  [[ "$(screen -e)" != *$'\e'* ]]
  # An empty text counts as none.
  enter 'clear; NO_COLOR= t check; echo all' Enter
  wait_for '^all$'
  contains "$(screen -e)" $'\e[31merror\e[39m'
}

@test "statements are shown, short and fit for a terminal" {
  numbered >in.txt
  run -0 --separate-stderr tool --verbose alias import in.txt
  equal "$output" "900 added, 0 changed, 0 left, 0 removed"
  contains "$stderr" "tsl-address-map: sql: set names utf8mb4, "
  contains "$stderr" $'\ntsl-address-map: sql: start transaction\n'
  contains "$stderr" $'\ntsl-address-map: sql: select name, members from alias for update;\n'
  contains "$stderr" $'\ntsl-address-map: sql: commit'
  local line size
  line=$(grep 'sql: insert into alias' <<<"$stderr" | head -1)
  size=$(sed -n 's/.*\.\.\. (\([0-9]*\) bytes more)$/\1/p' <<<"$line")
  ((size > 10000))
  ((${#line} < 600))
  equal "$(grep -cv '^tsl-address-map: ' <<<"$stderr")" 0
  # On one line, whatever they hold.
  run -0 --separate-stderr tool --verbose table create verbose
  [[ $stderr != *"ts_address_map, table"* ]]
  contains "$stderr" 'sql: create table if not exists alias_verbose(\x0a name '
  equal "$(grep -cv '^tsl-address-map: ' <<<"$stderr")" 0
  tool table drop verbose --yes
  # Without the option, nothing.
  run -0 --separate-stderr tool alias import in.txt
  equal "$stderr" ""
}

@test "no password is shown with the statements" {
  DATABASE= sql "create or replace user mail@localhost identified by 'hidden';
                 grant select on ts_address_map.* to mail@localhost;"
  run -0 --separate-stderr "$TSL_TOOL" --option-file "$(option_file mail hidden)" --verbose alias list
  contains "$stderr" "sql: select"
  [[ "$output$stderr" != *hidden* ]]
  DATABASE= sql 'drop user mail@localhost;'
}

@test "a list ends quietly when its reader has seen enough" {
  sql "create table alias_large like alias;
       insert into alias_large ( name, members ) select concat( 'a', seq, '@example.com' ), 'm@example.com' from seq_1_to_20000;"
  for words in 'alias list' 'alias export' 'alias list --json' 'check'; do
    sql "update alias_large set members = '' where '$words' = 'check';"
    run --separate-stderr bash -c "'$TSL_TOOL' '--local=$SERVER' --table large $words | head -c 100 | wc -c
      echo \"\${PIPESTATUS[0]}\""
    equal "$output" $'100\n141'
    equal "$stderr" ""
  done
}

@test "what changes while a person is asked stays, and an interrupt loses nothing that was edited" {
  tool alias set team@example.com ann@example.com bob@example.com
  open_terminal 100
  enter "TMPDIR=. EDITOR='sed -i s/bob/rob/' t alias edit" Enter
  wait_for 'Write these changes: 0 added, 1 changed, 0 removed\? \[y/N\]'
  tool alias add team@example.com eve@example.com
  enter y Enter
  wait_for 'somebody has changed 1 rows since they were shown'
  equal "$(sql 'select members from alias')" ann@example.com,bob@example.com,eve@example.com
  enter "clear; TMPDIR=. EDITOR='sed -i s/bob/rob/' t alias edit" Enter
  wait_for 'Write these changes'
  enter C-c
  wait_for 'the edited file is kept: \./tsl-address-map-edit-'
  equal "$(grep -l rob ./tsl-address-map-edit-*/alias.txt | wc -l)" 2
  local last
  last=$(sql 'select max(number) from ts_address_map.history')
  enter "clear; EDITOR='sed -i s/bob/rob/' t alias edit --yes" Enter
  wait_for "undo $((last + 1))' takes this back"
  # The same holds for a table that is to be replaced.
  echo 'new@example.com:x@x.example' >new.txt
  tool alias set more@example.com x@x.example
  enter 'clear; t alias import --replace new.txt' Enter
  wait_for 'Replace the table\? \[y/N\]'
  tool alias set last@example.com x@x.example
  enter y Enter
  wait_for 'somebody has changed it since the question'
  equal "$(sql 'select count(*) from alias')" 3
  # And for aliases that would be left empty.
  enter 'clear; t alias drop --everywhere x@x.example' Enter
  wait_for 'Remove 2 aliases\? \[y/N\]'
  tool alias set third@example.com x@x.example
  enter y Enter
  wait_for 'somebody has changed a table since the question'
  equal "$(sql 'select count(*) from alias')" 4
  # And for a table that is to be dropped.
  tool table create asked
  enter 'clear; t table drop asked' Enter
  wait_for 'Drop alias_asked with 0 rows and mask_asked with 0 rows\? \[y/N\]'
  tool --table asked alias set third@example.com x@x.example
  enter y Enter
  wait_for 'somebody has added or removed rows since the question'
  tool table drop asked --yes
  # And for a domain.
  tool domain add asked.example
  tool user add ann@asked.example
  enter 'clear; t domain remove asked.example' Enter
  wait_for 'Remove asked.example\? \[y/N\]'
  tool user add bob@asked.example
  enter y Enter
  wait_for 'somebody has changed its mail users meanwhile'
  equal "$(tool user list asked.example | wc -l)" 2
  tool domain remove asked.example --yes
  # The editor gets an interrupt alone.
  enter "clear; TMPDIR=. EDITOR='sh -c \"trap : INT; echo waits; sleep 60; exit 0\"' t alias edit" Enter
  wait_for '^waits$'
  enter C-c
  wait_for 'nothing changed'
  wait_for '^\$$'
}
