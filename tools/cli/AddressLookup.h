// Looking up addresses through the library, as `alias expand` and `mask public` do.
#ifndef TSL_TOOLS_CLI_ADDRESSLOOKUP_H
#define TSL_TOOLS_CLI_ADDRESSLOOKUP_H

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "cli/RowReport.h"

namespace Tessel::Tool {

// A store of the library, whose failures at broken rows name these rows. All operations throw
// Failure or Exception when there is no answer. One thread.
class LookupStore {
 public:
  // `kind` is that of the table that is asked. `session` must outlive the object.
  LookupStore(const Session& session, TableKind kind) : m_session(session), m_kind(kind) {}

  // What `alias` expands to.
  std::set<EmailAddress> expand(const EmailAddress& alias);
  // The address of `side` in the pair of `address`; null for none.
  EmailAddress find(MaskSide side, const EmailAddress& address);
  // Opens the store, unless it is open. The operations above do so too.
  void open();
  // The next operation opens a new store: this one counted its rows when it was opened, and may not
  // see a row that came later.
  void close() { m_store.reset(); }

 private:
  const Session& m_session;
  TableKind m_kind;
  std::optional<AddressMapDb> m_store;
};

// The answer to one address.
struct LookupAnswer {
  const char* outcome;  // As --json has it.
  ExitCode code;
  std::set<EmailAddress> found;
  std::string absence;  // Said when this is the only address, and nothing was found.
};

// Looks up the addresses that `arguments` are, "-" being those of standard input: calls `ask` for
// each, and writes its answer before the next is asked for. With --json `key` has what was found,
// which `toJson` writes. The exit status is that of the worst answer.
ExitCode lookUp(Session& session, const std::vector<std::string>& arguments, const std::string& key,
                Json (*toJson)(const std::set<EmailAddress>& found),
                const std::function<LookupAnswer(const EmailAddress&)>& ask);

}  // namespace Tessel::Tool

#endif
