// Whether somebody may write to an address.
#include "serve/answer/Policy.h"

#include <algorithm>
#include <set>
#include <utility>

#include "serve/answer/DisabledUser.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/RowReader.h"

namespace Tessel::Serve {

namespace {

// Bytes of members that are read for a short effort.
constexpr std::size_t s_shortQuestion = 32768;
// The longest address in a reply of a mail server, which is a line of 512 bytes.
constexpr std::size_t s_longestAddress = 200;

constexpr char s_unknown[] =
    "it is not known now who may write to this address: a row, a rule, the users or the login";

// Thrown when an answer takes too long.
struct TooLong {};

// One question. One thread.
class Question {
 public:
  // All references must outlive the object.
  Question(const PolicyData& data, const Settings& settings, const Writer& writer, Effort effort)
      : m_data(data),
        m_settings(settings),
        m_writer(writer),
        m_left(effort == Effort::Short ? s_shortQuestion : std::string_view::npos) {}

  Verdict judge(const std::string& key) {
    bool isKnown = true;
    const bool isRefused = walk(
        key, isKnown,
        [&](const std::string& sqlName, const std::string& alias) {
          const Verdict verdict = judgeAlias(sqlName, alias);
          if (verdict == Verdict::Unknown) isKnown = false;
          return verdict == Verdict::Refuse;
        },
        [](std::string_view /*member*/) { return false; });
    if (isRefused) return Verdict::Refuse;
    return isKnown ? Verdict::Permit : Verdict::Unknown;
  }

 private:
  // An alias, as a table has it.
  struct Alias {
    const PolicyData::Source* source;
    std::string key;
  };

  // Walks the aliases that `key` leads to, each once, until a function returns true, and returns
  // whether one has. `visitAlias` gets each of them, `visitFinal` each member that is none, as its
  // text. `isKnown` becomes false when a row or a rule on the way cannot be read.
  template <class VisitAlias, class VisitFinal>
  bool walk(const std::string& key, bool& isKnown, VisitAlias visitAlias, VisitFinal visitFinal) {
    std::set<std::string> visited{key};
    std::vector<std::string> next{key};
    std::string memberKey;
    while (!next.empty()) {
      const std::string address = std::move(next.back());
      next.pop_back();
      bool isPresent = true;
      const std::optional<Alias> alias = find(address, isPresent, isKnown);
      if (!isPresent) continue;
      if (!alias) {
        if (visitFinal(address)) return true;
        continue;
      }
      if (visitAlias(alias->source->table->sqlName(), alias->key)) return true;
      const auto members = alias->source->image->alias().membersText(alias->key);
      if (!members) {
        isKnown = false;
        continue;
      }
      if (members->size() > m_left) throw TooLong();
      m_left -= members->size();
      m_reader.readValue(*members);
      for (const std::string_view member : m_reader.values()) {
        // An alias that names itself is delivered to as well.
        if (!Tool::addressKey(member, memberKey) || memberKey == address) {
          if (visitFinal(member)) return true;
        } else if (visited.insert(memberKey).second) {
          next.push_back(memberKey);
        }
      }
    }
    return false;
  }

  // The alias that a mail server finds for `key`: in the first table that has it, or its base.
  // `isPresent` becomes false for one that has expired.
  std::optional<Alias> find(const std::string& key, bool& isPresent, bool& isKnown) const {
    const std::string base = baseOf(key);
    for (const PolicyData::Source& source : m_data.sources) {
      for (const std::string* const asked : {&key, &base}) {
        if (asked->empty() || !source.image->alias().isAlias(*asked)) continue;
        const auto presence = m_data.rules.presence(source.table->sqlName(), *asked);
        if (presence == RuleImage::Presence::There) {
          isPresent = true;
          return Alias{&source, *asked};
        }
        if (presence == RuleImage::Presence::Unknown) isKnown = false;
        isPresent = false;
      }
    }
    return std::nullopt;
  }

  Verdict judgeAlias(const std::string& sqlName, const std::string& alias) {
    if (!m_data.whyNoRules.empty()) return Verdict::Unknown;
    const auto rule = m_data.rules.image->rule(sqlName, alias);
    if (!rule) return Verdict::Unknown;
    if (rule->writers == Tool::Writers::Anyone) return Verdict::Permit;
    if (rule->writers == Tool::Writers::Authenticated) {
      return m_writer.isPerson || m_writer.isTrusted ? Verdict::Permit : Verdict::Refuse;
    }
    if (!m_writer.isPerson) return Verdict::Refuse;
    // Somebody, and nobody knows who.
    if (m_writer.key.empty()) return Verdict::Unknown;
    switch (rule->writers) {
      case Tool::Writers::Domain:
        return isUserOf(Tool::domainOf(alias));
      case Tool::Writers::Members:
        return isMember(alias);
      default:
        return isListed(*rule);
    }
  }

  // As baseKey(), for less where there is none.
  [[nodiscard]] std::string baseOf(const std::string& key) const {
    const bool hasDelimiter = key.find_first_of(m_settings.delimiter) != std::string::npos;
    return hasDelimiter ? baseKey(key, m_settings) : "";
  }

  // True for the address of the writer, in any spelling, also with an extension.
  [[nodiscard]] bool isWriter(const std::string& key) const {
    if (key == m_writer.key) return true;
    const std::string base = baseOf(key);
    return !base.empty() && base == m_writer.key;
  }

  // Whether the writer is a user mailbox of the domain.
  [[nodiscard]] Verdict isUserOf(std::string_view domain) const {
    if (Tool::comparisonDomain(domain) != Tool::domainOf(m_writer.key)) return Verdict::Refuse;
    if (m_data.users == nullptr) return Verdict::Unknown;
    return m_data.users->hasMailbox(m_writer.key) ? Verdict::Permit : Verdict::Refuse;
  }

  // Whether the alias or address with `key` leads to the writer.
  Verdict isMember(const std::string& key) {
    bool isKnown = true;
    std::string memberKey;
    const bool isFound = walk(
        key, isKnown, [](const std::string&, const std::string&) { return false; },
        [&](std::string_view member) {
          if (Tool::isMarker(member)) {
            const Verdict verdict = isUserOf(Tool::markerDomain(member));
            if (verdict == Verdict::Unknown) isKnown = false;
            return verdict == Verdict::Permit;
          }
          return Tool::addressKey(member, memberKey) && isWriter(memberKey);
        });
    if (isFound) return Verdict::Permit;
    return isKnown ? Verdict::Refuse : Verdict::Unknown;
  }

  Verdict isListed(const Tool::AliasRule& rule) {
    Verdict verdict = Verdict::Refuse;
    std::string key;
    for (const EmailAddress& address : rule.listed) {
      if (!Tool::addressKey(address.address(), key)) continue;
      if (isWriter(key)) return Verdict::Permit;
      const Verdict member = isMember(key);
      if (member == Verdict::Permit) return member;
      if (member == Verdict::Unknown) verdict = member;
    }
    return verdict;
  }

  const PolicyData& m_data;
  const Settings& m_settings;
  const Writer& m_writer;
  std::size_t m_left;
  Tool::RowReader m_reader{Tool::TableKind::Alias};
};

// Printable ASCII: nothing else can be in every reply of a mail server.
bool s_isPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

std::optional<Verdict> mayWrite(const PolicyData& data, const Settings& settings,
                                const Writer& writer, const std::string& key, Effort effort) {
  if (data.rules.image != nullptr && data.rules.image->isOpen()) return Verdict::Permit;
  try {
    return Question(data, settings, writer, effort).judge(key);
  } catch (const TooLong&) {
    return std::nullopt;
  }
}

std::optional<Answer> policyAnswer(const PolicyData& data, const Settings& settings,
                                   Configuration& configuration, const Writer& writer,
                                   std::string_view recipient, const std::string& key,
                                   Effort effort) {
  const std::optional<Verdict> verdict = mayWrite(data, settings, writer, key, effort);
  if (!verdict) return std::nullopt;
  if (*verdict == Verdict::Permit) return Answer::ok("DUNNO");
  if (*verdict == Verdict::Refuse) {
    return Answer{Result::Refused, refuseAction(settings, recipient), Validity::Image};
  }
  // It is read from now on, if that is what was missing.
  if (data.users == nullptr) configuration.setNeeded();
  return Answer{Result::Temp, deferAction(data.whyNoRules.empty() ? s_unknown : data.whyNoRules),
                Validity::Once};
}

Writer writerOf(const PolicyRequest& request, const Settings& settings) {
  Writer writer;
  writer.isPerson = !request.login.empty();
  writer.isTrusted = isIn(settings.trust, request.client);
  std::string login(request.login);
  if (writer.isPerson && login.find('@') == std::string::npos && !settings.loginDomain.empty()) {
    login += "@" + settings.loginDomain;
  }
  if (!Tool::addressKey(login, writer.key)) writer.key.clear();
  return writer;
}

std::string deferAction(const std::string& why) {
  return "DEFER_IF_PERMIT 4.3.0 " + why;
}

std::string refuseAction(const Settings& settings, std::string_view recipient) {
  std::string text = settings.policyText;
  const bool isShown = recipient.size() <= s_longestAddress && s_isPrintable(recipient);
  const std::string_view address = isShown ? recipient : "this address";
  const std::size_t place = text.find(s_addressPlace);
  if (place != std::string::npos) text.replace(place, s_addressPlace.size(), address);
  return "REJECT 5.7.1 " + text;
}

}  // namespace Tessel::Serve
