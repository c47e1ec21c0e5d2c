// Every rule about the age of rows, on a clock that the test sets: at each moment something happens
// to a real database, the service looks, and is asked.
#include <fnmatch.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "serve/answer/Lookup.h"
#include "serve/base/SettingsText.h"
#include "serve/image/Readiness.h"
#include "serve/image/TableWatch.h"
#include "support/ErrorOutput.h"
#include "support/ScratchFile.h"
#include "support/TestServer.h"
#include "tables/AliasRule.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Testing::TestServer;

namespace fs = std::filesystem;

// A scenario begins with a rule and the time of --stale. Each line after that is a moment: the
// second, what happens, what is asked, the reply, and the text of /ready ("-" when all is well).
// Lines with ">" are what is logged then, with a star for any text. --refresh is a second.
//
// What happens: "rows N": the table alias has the rows u1@d to uN@d, which lead to x@d. "create T
// N": the table T is created, with N such rows. "away": the database cannot be reached, until
// "back". "reload": SIGHUP. "restart": the service ends, and starts with its snapshots.
// "configuration": it was read. "keep" and "put back": the snapshots are copied, and the copies put
// in their place. "list MEMBERS": the alias list@d has these. "rule ALIAS N": its rule is that it
// expires at second N. "pause": the database's second is over. All else is SQL.
constexpr std::string_view s_scenarios = R"(
== the last rows answer for the time of --stale, and an outage is never "not found" | 1h
0    | rows 1                    | alias u1@d   | OK x@d   | -
10   |                           | alias u2@d   | NOTFOUND | -
20   | away                      | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *; table alias answers with rows of * s ago
3600 |                           | alias u1@d   | OK x@d   | -
3609 |                           | alias u2@d   | NOTFOUND | -
3611 |                           | alias u1@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 3601 s ago)
> error: table alias was last known to be right 3601 s ago, longer than --stale: what needs it is answered TEMP until it can be read again
3612 |                           | alias u2@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 3602 s ago)
9999 | back                      | alias u1@d   | OK x@d   | -
> warning: the database is available again
> warning: table alias is not too old any more

== --stale may be forever | forever
0    | rows 1                    | alias u1@d   | OK x@d   | -
1    | away                      | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *
9999999 |                        | alias u2@d   | NOTFOUND | -

== --stale 0s still lets five seconds pass | 0s
0    | rows 1                    | alias u1@d   | OK x@d   | -
2    | away                      | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *
4    |                           | alias u1@d   | OK x@d   | -
6    |                           | alias u1@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 6 s ago)
> error: table alias was last known to be right 6 s ago, longer than --stale: *

== before the first rows nothing is known | 1h
0    | away                      | alias u1@d   | TEMP the table could not be read yet | -
> error: the database is unavailable: *
5    | back                      | alias u1@d   | NOTFOUND | -
> warning: the database is available again

== an answer is stale when the table was not looked at for more than five seconds | 1h
0    | rows 1                    | metric stale_answers_total | 0 | -
1    | away                      | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *
4    |                           | alias u1@d   | OK x@d   | -
4    |                           | metric stale_answers_total | 0 | -
6    |                           | alias u1@d   | OK x@d   | -
6    |                           | metric stale_answers_total | 1 | -
60   |                           | metric data_age_seconds{table="alias"} | 60 | -

== a snapshot is as old as its last confirmation, which is written every ten seconds | 1h
0    | rows 1                    | alias u1@d   | OK x@d   | -
10   |                           | alias u1@d   | OK x@d   | -
20   |                           | alias u1@d   | OK x@d   | -
29   |                           | alias u1@d   | OK x@d   | -
35   |                           | alias u1@d   | OK x@d   | -
44   |                           | alias u1@d   | OK x@d   | -
100  | away; restart             | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *
3634 |                           | alias u2@d   | NOTFOUND | -
3636 |                           | alias u1@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 3601 s ago)
> error: table alias was last known to be right 3601 s ago, longer than --stale: *

== a snapshot that is put back is as old as it was when it was copied | 1h
0    | rows 1                    | alias u1@d   | OK x@d   | -
10   |                           | alias u1@d   | OK x@d   | -
20   |                           | alias u1@d   | OK x@d   | -
30   | keep                      | alias u1@d   | OK x@d   | -
1000 |                           | alias u1@d   | OK x@d   | -
2000 | away; put back; restart   | alias u1@d   | OK x@d   | -
> error: the database is unavailable: *
3619 |                           | alias u1@d   | OK x@d   | -
3621 |                           | alias u1@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 3601 s ago)
> error: table alias was last known to be right 3601 s ago, longer than --stale: *

== a table that is missing is not answered from, however long, until it is back | 1h
0    | rows 2                    | alias u1@d   | OK x@d   | -
10   | drop table alias          | alias u1@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 10 s ago)
> warning: table alias is missing in the database: its requests are answered TEMP until it is back; if it is gone for good, reload the service
9000 |                           | alias u2@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 9000 s ago)
9001 | create alias 0            | alias u2@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 9001 s ago)
> warning: table alias has 0 rows instead of 2: *
9002 | rows 2                    | alias u2@d   | OK x@d   | -
> warning: table alias answers again

== a service that starts with a snapshot knows that a table had rows | 1h
0    | rows 2                    | alias u1@d   | OK x@d   | -
10   |                           | alias u1@d   | OK x@d   | -
20   |                           | alias u1@d   | OK x@d   | -
30   | drop table alias          | alias u1@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 10 s ago)
> warning: table alias is missing in the database: *
40   | restart                   | alias u1@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 20 s ago)
> warning: table alias is missing in the database: *
50   | create alias 0; restart   | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 30 s ago)
> warning: table alias has 0 rows instead of 2: *

== a base table that is gone for good is still expected | 1h
0    | rows 2                    | alias u1@d   | OK x@d   | -
10   | drop table alias          | alias u1@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 10 s ago)
> warning: table alias is missing in the database: *
20   | reload                    | alias u1@d   | TEMP there is no such table | alias: there is no such table (last known to be right 20 s ago)
> warning: table alias is gone for good
30   | create alias 0            | alias u1@d   | NOTFOUND | -
> warning: table alias answers again

== a named table that is gone for good is forgotten, and so is its snapshot | 1h
0    | rows 0; create alias_x 1  | alias.x u1@d | OK x@d   | -
10   |                           | alias.x u1@d | OK x@d   | -
20   |                           | metric rows{table="alias_x"} | 1 | -
30   | drop table alias_x        | alias.x u1@d | TEMP the table is missing in the database | alias_x: the table is missing in the database (last known to be right 10 s ago)
> warning: table alias_x is missing in the database: *
40   | reload                    | alias.x u1@d | TEMP there is no such table | -
> warning: table alias_x is gone for good
50   |                           | metric rows{table="alias_x"} |  | -
60   | restart                   | alias.x u1@d | TEMP there is no such table | alias_x: mail servers ask for it, and it is not served
> error: mail servers ask for table alias_x and *
70   | create alias_x 0          | alias.x u1@d | NOTFOUND | -

== a table that has lost all its rows is not answered from until it has rows | 1h
0    | rows 2                    | alias u1@d   | OK x@d   | -
10   | rows 0                    | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 10 s ago)
> warning: table alias has 0 rows instead of 2: its requests are answered TEMP until it has rows again; if it is to be empty, reload the service
9000 |                           | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 9000 s ago)
9001 | rows 3                    | alias u3@d   | OK x@d   | -
> warning: table alias answers again

== a table that is meant to be empty is confirmed by SIGHUP | 1h
0    | rows 2                    | alias u1@d   | OK x@d   | -
10   | rows 0                    | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 10 s ago)
> warning: table alias has 0 rows instead of 2: *
20   | reload                    | alias u1@d   | NOTFOUND | -
> warning: table alias answers again

== a table that was missing and has fewer rows waits until it has not changed for ten times --refresh | 1h
0    | rows 3                    | alias u1@d   | OK x@d   | -
10   | drop table alias          | alias u1@d   | TEMP the table is missing in the database | alias: the table is missing in the database (last known to be right 10 s ago)
> warning: table alias is missing in the database: *
20   | create alias 1            | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 20 s ago)
> warning: table alias has 1 rows instead of 3: these are not used until it has not changed for 10 s, or the service is reloaded
25   | rows 2                    | alias u2@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 25 s ago)
34   |                           | alias u2@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 34 s ago)
36   |                           | alias u2@d   | OK x@d   | -
> warning: table alias answers again
36   |                           | alias u3@d   | NOTFOUND | -

== a table that was empty and has fewer rows waits in the same way, three times as long at most | 1h
0    | rows 9                    | alias u1@d   | OK x@d   | -
10   | rows 0                    | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 10 s ago)
> warning: table alias has 0 rows instead of 9: *
20   | rows 1                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 20 s ago)
> warning: table alias has 1 rows instead of 9: *
28   | rows 2                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 28 s ago)
36   | rows 3                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 36 s ago)
44   | rows 4                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 44 s ago)
49   | rows 5                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 49 s ago)
51   | rows 6                    | alias u6@d   | OK x@d   | -
> warning: table alias answers again

== a table that is filled again is used as soon as it has as many rows, or at SIGHUP | 1h
0    | rows 3                    | alias u1@d   | OK x@d   | -
10   | rows 0                    | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 10 s ago)
> warning: table alias has 0 rows instead of 3: *
11   | rows 2                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 11 s ago)
> warning: table alias has 2 rows instead of 3: *
12   | rows 3                    | alias u3@d   | OK x@d   | -
> warning: table alias answers again
20   | rows 0                    | alias u1@d   | TEMP the table has lost all its rows | alias: the table has lost all its rows (last known to be right 8 s ago)
> warning: table alias has 0 rows instead of 3: *
21   | rows 2                    | alias u1@d   | TEMP the table is being filled again | alias: the table is being filled again (last known to be right 9 s ago)
> warning: table alias has 2 rows instead of 3: *
22   | reload                    | alias u2@d   | OK x@d   | -
> warning: table alias answers again

== more than half of at least ten rows are missed until the table has not changed for ten times --refresh | 1h
0    | rows 10                   | alias u9@d   | OK x@d   | -
10   | rows 4                    | alias u9@d   | OK x@d   | -
> warning: table alias has 4 rows instead of 10: these are not used until it has not changed for 10 s, or the service is reloaded
19   |                           | alias u9@d   | OK x@d   | -
21   |                           | alias u9@d   | NOTFOUND | -

== and three times as long at most while it changes | 1h
0    | rows 10                   | alias u9@d   | OK x@d   | -
10   | rows 4                    | alias u9@d   | OK x@d   | -
> warning: table alias has 4 rows instead of 10: *
18   | rows 3                    | alias u9@d   | OK x@d   | -
26   | rows 4                    | alias u9@d   | OK x@d   | -
34   | rows 3                    | alias u9@d   | OK x@d   | -
39   | rows 4                    | alias u9@d   | OK x@d   | -
41   | rows 3                    | alias u9@d   | NOTFOUND | -

== half of ten rows, or all but one of nine, are a change like any other | 1h
0    | rows 10                   | alias u9@d   | OK x@d   | -
10   | rows 5                    | alias u9@d   | NOTFOUND | -
20   | rows 9                    | alias u9@d   | OK x@d   | -
30   | rows 1                    | alias u9@d   | NOTFOUND | -

== a table in the place of another, with fewer rows, answers with the last ones in the same way | 1h
0    | rows 3                    | alias u3@d   | OK x@d   | -
10   | pause; drop table alias; create alias 2 | alias u3@d | OK x@d | -
> warning: table alias has 2 rows instead of 3: *
19   |                           | alias u3@d   | OK x@d   | -
21   |                           | alias u3@d   | NOTFOUND | -

== a table that the SQL user may not read is not missing, and its last rows answer for --stale | 1h
0    | rows 1; revoke select on ts_address_map.* from ages@localhost; grant select on alias to ages@localhost; create other 0; grant select on other to ages@localhost | alias u1@d | OK x@d | -
10   | revoke select on alias from ages@localhost | alias u1@d | OK x@d | -
> error: table alias cannot be read: *; grant the SQL user the right to select
3599 |                           | alias u1@d   | OK x@d   | -
3601 |                           | alias u1@d   | TEMP the database is unavailable, and the rows in memory are too old | alias: the database is unavailable, and the rows in memory are too old (last known to be right 3601 s ago)
> error: table alias was last known to be right 3601 s ago, *
3602 | grant select on ts_address_map.* to ages@localhost | alias u1@d | OK x@d | -
> warning: table alias can be read again
> warning: table alias is not too old any more

== the configuration answers for --stale too, and needs no database | 1h
0    | away                      | domain d.example | TEMP the configuration of domains and mail users cannot be read | configuration: it could not be read yet
> error: the database is unavailable: *
10   | configuration             | domain d.example | OK d.example | -
3609 |                           | mailbox bob@d.example | OK bob@d.example | -
3611 |                           | mailbox bob@d.example | TEMP the configuration of domains and mail users cannot be read | configuration: it is too old (last known to be right 3601 s ago)
> error: the configuration of domains and mail users was last known to be right 3601 s ago, longer than --stale: what needs it is answered TEMP until it can be read again
3612 |                           | domain none.example | TEMP the configuration of domains and mail users cannot be read | configuration: it is too old (last known to be right 3602 s ago)
4000 | configuration             | domain none.example | NOTFOUND | -
> warning: the configuration of domains and mail users is not too old any more

== an alias that has expired is not there, and not a member, also for stale rows and a snapshot | 1h
0    | rows 1; list u1@d,y@d; rule u1@d 100 | alias u1@d | OK x@d | -
10   |                           | alias list@d | OK x@d,y@d | -
20   |                           | alias list@d | OK x@d,y@d | -
30   | away                      | alias list@d | OK x@d,y@d | -
> error: the database is unavailable: *; table alias answers with rows of * s ago; table rules answers with rows of * s ago
98   |                           | alias u1@d   | OK x@d   | -
98   |                           | alias list@d | OK x@d,y@d | -
102  |                           | alias u1@d   | NOTFOUND | -
102  |                           | alias u1+a@d | NOTFOUND | -
102  |                           | alias list@d | OK y@d   | -
103  | restart                   | alias list@d | OK y@d   | -
> error: the database is unavailable: *
104  |                           | alias u1@d   | NOTFOUND | -
105  | back                      | alias u1@d   | NOTFOUND | -
> warning: the database is available again
106  | rule u1@d 900             | alias u1@d   | OK x@d   | -
107  | list u1+a@d,y@d; rule u1@d 50 | alias list@d | OK y@d | -
108  | list u1@d                 | alias list@d | PERM this alias reaches nobody | -

== a rule that cannot be read makes its alias unknown, and those that lead to it | 1h
0    | rows 2; list u1@d,y@d; rule u1@d 1; update rules set writers = 'x' | alias u1@d | TEMP the rule of this alias, or of one that it leads to, cannot be read | -
> warning: table rules: 1 rows cannot be read and are left out; 'tsl-address-map check' names them
1    |                           | alias list@d | TEMP the rule of this alias, or of one that it leads to, cannot be read | -
2    |                           | alias u2@d   | OK x@d   | -

== rules that are missing may have let an alias expire, until a reload confirms that there are none | 1h
0    | rows 1; rule u2@d 1       | alias u1@d   | OK x@d   | -
10   | drop table rules          | alias u1@d   | TEMP the rules of aliases: the table is missing in the database | rules: the table is missing in the database (last known to be right 10 s ago)
> warning: table rules is missing in the database: requests for aliases are answered TEMP until it is back; if it is gone for good, reload the service
20   | reload                    | alias u1@d   | OK x@d   | -
> warning: table rules is gone for good
30   | rule u1@d 25              | alias u1@d   | NOTFOUND | -

== of a few rules the last one may be removed, of ten not all | 1h
0    | rows 1; rule u1@d -5      | alias u1@d   | NOTFOUND | -
10   | delete from rules         | alias u1@d   | OK x@d   | -
20   | rule u0@d 1; rule u2@d 1; rule u3@d 1; rule u4@d 1; rule u5@d 1; rule u6@d 1; rule u7@d 1; rule u8@d 1; rule u9@d 1; rule u10@d 1 | alias u1@d | OK x@d | -
30   | delete from rules         | alias u1@d   | TEMP the rules of aliases: the table has lost all its rows | rules: the table has lost all its rows (last known to be right 10 s ago)
> warning: table rules has 0 rows instead of 10: requests for aliases are answered TEMP until it has rows again; if it is to be empty, reload the service

== a table that nobody has is reported, and is in /ready for a minute after the last request | 1h
0    | rows 1                    | alias.x u1@d | TEMP there is no such table | alias_x: mail servers ask for it, and it is not served
> error: mail servers ask for table alias_x and are answered TEMP: there is no such table; there are no named tables
59   |                           | alias.x u1@d | TEMP there is no such table | alias_x: mail servers ask for it, and it is not served
118  |                           | alias u1@d   | OK x@d   | alias_x: mail servers ask for it, and it is not served
120  |                           | alias u1@d   | OK x@d   | -
130  | create alias_x 1          | alias.x u1@d | OK x@d   | -
)";

// The parts of `text` between the separators, without blanks around them.
std::vector<std::string> s_split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    const std::size_t first = part.find_first_not_of(' ');
    parts.push_back(first == std::string::npos
                        ? ""
                        : part.substr(first, part.find_last_not_of(' ') - first + 1));
  }
  return parts;
}

class AgeTest : public testing::Test {
 protected:
  void SetUp() override {
    sql("drop database if exists ts_address_map");
    AddressMapDb::initialize(AddressMapDb::MySQL, false);
    m_domains.emplace();
    sql("use ts_address_map");
    sql("drop table mask");
    sql("rename table alias to kept");
    sql("create or replace user ages@localhost identified by 'secret'");
    sql("grant select on ts_address_map.* to ages@localhost");
    m_good =
        "[client]\nuser=ages\npassword=secret\nsocket=" + TestServer::shared().socketPath() + "\n";
    m_options.emplace(TestServer::shared(), m_good);
  }

  // Begins a scenario.
  void begin(const std::string& stale) {
    sql("drop table if exists alias_x, other, rules");
    sql("create table if not exists alias like kept");
    sql("delete from alias");
    m_options->write(m_good);
    m_scratch.emplace();
    m_settings = Settings();
    m_settings.stale.reset();
    if (stale != "forever") m_settings.stale = parseTime("--stale", stale, milliseconds(0));
    m_settings.snapshot = m_scratch->directory();
    m_service.reset();
    m_service.emplace(m_settings, m_log);
  }

  void happen(const std::string& what) {
    std::istringstream words(what);
    std::string word;
    words >> word;
    if (word == "rows") {
      sql("delete from alias");
      words >> word;
      insert("alias", std::stoi(word));
    } else if (word == "list") {
      words >> word;
      sql("replace into alias (name, members) values ('list@d', '" + word + "')");
    } else if (word == "rule") {
      std::string alias;
      words >> alias >> word;
      rule(alias, m_start + seconds(std::stoi(word)));
    } else if (word == "create") {
      std::string table;
      words >> table >> word;
      sql("create table " + table + " like kept");
      insert(table, std::stoi(word));
    } else if (word == "away") {
      m_options->write("[client]\nsocket=/nonexistent/socket\n");
    } else if (word == "back") {
      m_options->write(m_good);
    } else if (word == "restart") {
      m_service.reset();
      m_service.emplace(m_settings, m_log);
    } else if (word == "reload") {
      m_service->watch.reload();
    } else if (word == "configuration") {
      m_service->tables.configuration().publish(ServedDomains::image(), m_now);
    } else if (word == "keep" || word == "put") {
      const bool isKeeping = word == "keep";
      fs::copy_file(m_settings.snapshot + (isKeeping ? "/alias.image" : "/kept"),
                    m_settings.snapshot + (isKeeping ? "/kept" : "/alias.image"),
                    fs::copy_options::overwrite_existing);
    } else if (word == "pause") {
      std::this_thread::sleep_for(seconds(1));
    } else {
      sql(what);
    }
  }

  static TestServer::Rows sql(const std::string& statement) {
    return TestServer::shared().sql(statement);
  }
  static void insert(const std::string& table, int rows) {
    std::string values;
    for (int i = 1; i <= rows; ++i) {
      values += (i == 1 ? "('u" : ", ('u") + std::to_string(i) + "@d', 'x@d')";
    }
    if (rows > 0) sql("insert into " + table + " (name, members) values " + values);
  }
  // The rule that the alias expires at `time`.
  static void rule(const std::string& alias, Clock::time_point time) {
    const auto wall = std::chrono::system_clock::now() + (time - Clock::now());
    sql("create table if not exists rules( table_name varchar( 64 ), name varchar( 255 ),"
        " writers varchar( 16 ) not null, listed text not null, owners text not null,"
        " expires datetime, note text not null, primary key( table_name, name ) )");
    sql("replace into rules values ('alias', '" + alias + "', 'anyone', '', '', '" +
        Tool::timeText(std::chrono::floor<seconds>(wall)) + "', '')");
  }
  // What the server notes of a change is its second, by its own clock. For a new connection all
  // tables are other ones.
  static void endConnections() { sql("kill user ages@localhost"); }

  std::string answer(const std::string& asked) {
    constexpr std::string_view metric = "metric ";
    // Half a second after the look.
    const Clock::time_point now = m_now + milliseconds(500);
    if (!asked.starts_with(metric)) {
      const std::string* const reply = m_service->lookup.reply(asked, now);
      return reply->substr(0, reply->find_last_not_of(' ') + 1);
    }
    const std::string text = metricsText(m_service->metrics, m_service->tables, now);
    const std::string name = "\ntsl_address_map_" + asked.substr(metric.size()) + " ";
    const std::size_t at = text.find(name);
    return at == std::string::npos ? "" : std::to_string(std::stoi(text.substr(at + name.size())));
  }

  // What was logged since the last call, without the name of the program.
  std::string logged() {
    m_log.flush();
    std::string text;
    for (const std::string& line : s_split(m_error.take(), '\n')) {
      text += line.substr(line.find(": ") + 2) + "\n";
    }
    return text;
  }

  // What the service consists of, without its sockets.
  struct Parts {
    Parts(const Settings& settings, Log& log)
        : tables(settings),
          readiness(settings, tables, log),
          watch(settings, tables, metrics, log),
          lookup(settings, tables, metrics, log) {}

    Tables tables;
    Metrics metrics;
    Readiness readiness;
    TableWatch watch;
    Lookup lookup;
  };

  std::optional<ServedDomains> m_domains;
  Testing::ErrorOutput m_error;
  // Whatever is logged twice is seen twice.
  Log m_log{LogLevel::Warning, milliseconds(0)};
  std::optional<Testing::ScratchFile> m_scratch;
  std::string m_good;  // Option file of a database that is not away.
  std::optional<TestServer::OptionFile> m_options;
  Settings m_settings;
  std::optional<Parts> m_service;
  // Long ago: a snapshot of the future would be one of now.
  const Clock::time_point m_start = Clock::now() - std::chrono::hours(10000);
  Clock::time_point m_now;
};

TEST_F(AgeTest, EveryRuleHoldsAtEachMoment) {
  int moments = 0;
  std::string wanted;
  std::string log;
  std::string where;
  const auto checkLog = [&] {
    EXPECT_EQ(fnmatch(wanted.c_str(), log.c_str(), FNM_NOESCAPE), 0) << where << "\nlogged:\n"
                                                                     << log << "wanted:\n"
                                                                     << wanted;
    wanted.clear();
    log.clear();
  };
  std::string rule;
  for (const std::string& line : s_split(std::string(s_scenarios), '\n')) {
    if (line.empty()) continue;
    if (line.starts_with(">")) {
      wanted += line.substr(2) + "\n";
      continue;
    }
    checkLog();
    const std::vector<std::string> parts = s_split(line, '|');
    if (line.starts_with("==")) {
      rule = parts.at(0);
      begin(parts.at(1));
      continue;
    }
    where = rule + "\nat " + parts.at(0);
    ++moments;
    m_now = m_start + seconds(std::stoi(parts.at(0)));
    for (const std::string& what : s_split(parts.at(1), ';')) {
      if (what.empty()) continue;
      happen(what);
      endConnections();
    }
    m_service->watch.testOnlyLook(m_now);
    EXPECT_EQ(answer(parts.at(2)), parts.at(3)) << where;
    const Clock::time_point after = m_now + milliseconds(500);
    const std::string unready = m_service->readiness.whyNot(after);
    EXPECT_EQ(unready.empty() ? "-" : unready, parts.at(4)) << where;
    m_service->readiness.report(after);
    log = logged();
  }
  checkLog();
  EXPECT_GT(moments, 100);
}

}  // namespace
}  // namespace Tessel::Serve
