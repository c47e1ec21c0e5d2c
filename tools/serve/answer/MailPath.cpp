// What a mail server does with mail to an address.
#include "serve/answer/MailPath.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string_view>

#include "address/EmailAddress.h"
#include "serve/image/Pages.h"
#include "tables/AddressKey.h"
#include "tables/Extension.h"

namespace Tessel::Serve {

namespace {

constexpr std::string_view s_ok = "OK ";
constexpr std::string_view s_notFound = "NOTFOUND ";

class Follower {
 public:
  Follower(const std::string& table, const std::string& delimiters, const AskMap& ask)
      : m_suffix(table.empty() ? "" : "." + table), m_delimiters(delimiters), m_ask(ask) {}

  MailPath follow(const std::string& address) {
    const std::string masked = step("mask_private", address);
    if (isFailure(masked)) return std::move(m_path);
    const std::string recipient = masked.starts_with(s_ok) ? masked.substr(s_ok.size()) : address;
    if (!expand(recipient)) return std::move(m_path);
    m_path.fate = m_finals.empty() ? Fate::Refused : Fate::Mailbox;
    for (const EmailAddress& final : m_finals) {
      m_path.recipients.push_back(recipientOf(final));
      m_path.fate = std::max(m_path.fate, m_path.recipients.back().fate);
    }
    return std::move(m_path);
  }

 private:
  static bool isFailure(const std::string& reply) {
    return !reply.starts_with(s_ok) && !reply.starts_with(s_notFound);
  }

  std::string step(const std::string& map, const std::string& key) {
    std::string reply = m_ask(map + m_suffix, key);
    m_path.steps.push_back({map + m_suffix, key, reply, baseOf(map + m_suffix, key, reply)});
    return reply;
  }

  // `key` without its tag, if `reply` is what the row of that makes of it; otherwise empty text.
  // One reply does not tell, so the map is asked for that, too.
  std::string baseOf(const std::string& map, const std::string& key, const std::string& reply) {
    if (!reply.starts_with(s_ok)) return "";
    const Tool::ExtendedAddress cut = Tool::cutExtension(key, m_delimiters);
    if (cut.extension.empty()) return "";
    const std::string other = m_ask(map, cut.base);
    if (!other.starts_with(s_ok)) return "";
    // A service may drop the tag, or keep it.
    const bool isSame =
        reply == other || reply.substr(s_ok.size()) ==
                              Tool::allWithExtension(std::string_view(other).substr(s_ok.size()),
                                                     cut.extension, m_delimiters);
    return isSame ? cut.base : "";
  }

  // Adds the members of the alias `address`, or itself. False when a lookup fails.
  bool expand(const std::string& address) {
    m_followed.insert(Tool::comparisonKey(address));
    const std::string reply = step("alias", address);
    if (isFailure(reply)) return false;
    const bool isAlias = reply.starts_with(s_ok);
    const std::string list = isAlias ? reply.substr(s_ok.size()) : address;
    for (const EmailAddress& one : EmailAddress::rfc5322ParseSet(list, true, false)) {
      if (!isFollowed(one)) {
        m_finals.insert(one);
      } else if (!expand(one.address())) {
        return false;
      }
    }
    return true;
  }

  // True if the mail server goes on from the member `address`: it asks for each, and finds what the
  // service has not followed, pages and aliases without the tag.
  bool isFollowed(const EmailAddress& address) {
    const std::string text = address.address();
    std::string key;
    if (Tool::addressKey(text, key) && Pages::isPage(key)) return true;
    if (Tool::cutExtension(text, m_delimiters).extension.empty()) return false;
    return !m_ask("alias" + m_suffix, text).starts_with(s_notFound) &&
           m_followed.insert(key).second;
  }

  MailRecipient recipientOf(const EmailAddress& address) {
    const std::string text = address.address();
    if (address.domain().empty()) return {text, Fate::Elsewhere};
    auto domain = m_domains.find(address.domain());
    if (domain == m_domains.end()) {
      domain = m_domains.emplace(address.domain(), m_ask("domain", address.domain())).first;
    }
    if (isFailure(domain->second)) return {text, Fate::Waits};
    if (!domain->second.starts_with(s_ok)) return {text, Fate::Elsewhere};
    const std::string reply = m_ask("mailbox", text);
    if (isFailure(reply)) return {text, Fate::Waits};
    if (!reply.starts_with(s_ok)) return {text, Fate::Refused};
    // The reply is the key of the mailbox.
    std::string mailbox = reply.substr(s_ok.size());
    if (mailbox == Tool::comparisonKey(text)) mailbox.clear();
    return {text, Fate::Mailbox, mailbox};
  }

  const std::string m_suffix;
  const std::string& m_delimiters;
  const AskMap& m_ask;
  MailPath m_path;
  std::set<EmailAddress> m_finals;
  std::set<std::string> m_followed;              // Keys of the addresses with tags.
  std::map<std::string, std::string> m_domains;  // The replies for them.
};

}  // namespace

const char* textOf(Fate fate) {
  switch (fate) {
    case Fate::Mailbox:
      return "mailbox";
    case Fate::Elsewhere:
      return "elsewhere";
    case Fate::Refused:
      return "refused";
    case Fate::Waits:
      return "waits";
  }
  return "";
}

MailPath mailPathOf(const std::string& address, const std::string& table,
                    const std::string& delimiters, const AskMap& ask) {
  return Follower(table, delimiters, ask).follow(address);
}

}  // namespace Tessel::Serve
