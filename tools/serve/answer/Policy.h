// Whether somebody may write to an address, by the rules of the aliases that it leads to.
#ifndef TSL_TOOLS_SERVE_ANSWER_POLICY_H
#define TSL_TOOLS_SERVE_ANSWER_POLICY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "serve/base/Answer.h"
#include "serve/base/Settings.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// What a mail server says of a recipient that it is about to take. Only `login` says who
// writes: anybody can give any address as the sender.
struct PolicyRequest {
  std::string_view request;    // What is asked for.
  std::string_view state;      // Of the SMTP session.
  std::string_view recipient;  // As it was given.
  std::string_view login;      // Whom the mail server knows; empty for nobody.
  std::string_view client;     // The address of the host that sends.
  std::string_view context;    // Which tables the mail server asks for aliases.
};

// What questions are answered from. A value.
struct PolicyData {
  struct Source {
    TablePointer table;
    ImagePointer image;
    std::uint64_t generation = 0;  // Of the image.
  };

  std::vector<Source> sources;  // Of aliases, in the order in which the mail server asks them.
  std::string whyNoRules;       // Why the rules are not known; empty when they are.
  Rules rules;
  ConfigurationPointer users;  // Null: they are not known.
};

// Who writes.
struct Writer {
  std::string key;         // Of the address that the login is; empty for none that is known.
  bool isPerson = false;   // Somebody has logged in.
  bool isTrusted = false;  // The host is trusted.
};

enum class Verdict { Permit, Refuse, Unknown };

// Whether `writer` may write to the address with `key`, by the rule of each alias that it leads to;
// one that refuses is enough. Nothing when that takes more than `effort`. May throw what reading
// addresses does. Any thread.
std::optional<Verdict> mayWrite(const PolicyData& data, const Settings& settings,
                                const Writer& writer, const std::string& key, Effort effort);

// The answer for that, which is the action; `recipient` is the address with `key` as it was given.
// `configuration` is where a rule that is about users asks for them. Nothing as above. Any thread.
std::optional<Answer> policyAnswer(const PolicyData& data, const Settings& settings,
                                   Configuration& configuration, const Writer& writer,
                                   std::string_view recipient, const std::string& key,
                                   Effort effort);

// The writer of `request`. Any thread.
Writer writerOf(const PolicyRequest& request, const Settings& settings);

// The actions for a mail server. That mail waits, with the reason `why`, unless it is
// refused for another one; and that it is refused, with the text of `settings`. Any thread.
std::string deferAction(const std::string& why);
std::string refuseAction(const Settings& settings, std::string_view recipient);

// Where the address goes in the text of a refusal.
inline constexpr std::string_view s_addressPlace = "{address}";

}  // namespace Tessel::Serve

#endif
