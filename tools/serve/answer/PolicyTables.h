// What questions about policies are answered from.
#ifndef TSL_TOOLS_SERVE_ANSWER_POLICYTABLES_H
#define TSL_TOOLS_SERVE_ANSWER_POLICYTABLES_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "serve/answer/CurrentRules.h"
#include "serve/answer/Policy.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// The tables that the policy contexts of mail servers name. One thread.
class PolicyTables {
 public:
  // What one context is answered from.
  struct Context {
    std::string why;  // Why nothing can be answered; empty when it can.
    PolicyData data;
    std::vector<PolicyData::Source> masks;  // Those of the same names, as far as there are any.
    std::uint64_t number{};                 // Another one for each content.

   private:
    friend class PolicyTables;

    std::vector<std::string> names;      // Store names; empty for a context that names no tables.
    std::vector<std::uint64_t> content;  // Numbers of all that answers depend on.
  };

  // The references must outlive the object.
  PolicyTables(Tables& tables, CurrentRules& rules) : m_tables(tables), m_rules(rules) {}

  // The context that the mail server calls `text`: maps of aliases, "alias, alias.staff"; the base
  // tables when it is empty. As it is at `now`, and until the next call.
  const Context& refresh(std::string_view text, Clock::time_point now);
  // Lets go of tables and images.
  void sweep();

 private:
  Context& contextOf(std::string_view text);
  void findTables(Context& context, Clock::time_point now);
  void refreshSources(Context& context, std::vector<PolicyData::Source>& sources,
                      std::vector<std::uint64_t>& content, Clock::time_point now);

  Tables& m_tables;
  CurrentRules& m_rules;
  std::map<std::string, Context, std::less<>> m_contexts;
  std::uint64_t m_last{};  // The number that was given last.
};

}  // namespace Tessel::Serve

#endif
