// The answer for an alias.
#include "serve/answer/AliasAnswer.h"

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/Exception.h"
#include "serve/answer/DisabledUser.h"
#include "tables/WriteRule.h"

namespace Tessel::Serve {

namespace {

constexpr char s_noRule[] = "the rule of this alias, or of one that it leads to, cannot be read";

// Reports that mail for an alias was rejected.
void s_reportLoop(const Table& table, const AliasImage& image, const std::string& key, Log& log) {
  log.warning(
      "table " + table.sqlName() +
      ": mail for an alias was rejected because it leads into an alias loop and reaches nobody; "
      "'tsl-address-map check' names it");
  if (!log.isDebug()) return;
  std::string text;
  for (const std::string& address : image.loop(key)) {
    text += (text.empty() ? "" : " -> ") + address;
  }
  log.debug("alias loop: " + text);
}

std::string s_joined(const std::vector<std::string>& addresses) {
  std::string text;
  for (const std::string& address : addresses) text += (text.empty() ? "" : ",") + address;
  return text;
}

bool s_hasOtherAliases(const Tables& tables, const Table& table) {
  const std::vector<TablePointer> all = tables.all();
  return std::any_of(all.begin(), all.end(), [&](const TablePointer& other) {
    return other->kind() == TableKind::Alias && other.get() != &table;
  });
}

// The answer for an alias that no mail may be sent to.
Answer s_nobodyAnswer(bool isShort) {
  Answer answer = Answer::perm("this alias reaches nobody");
  if (isShort) answer.validity = Validity::Moment;
  return answer;
}

// The addresses without those that are aliases of `image` with an extension, which have expired.
// Nothing when the rule of one cannot be read.
std::optional<std::set<EmailAddress>> s_unexpired(const std::set<EmailAddress>& addresses,
                                                  const Table& table, const AliasImage& image,
                                                  const Rules& rules, const Settings& settings) {
  std::set<EmailAddress> left;
  for (const EmailAddress& address : addresses) {
    const std::string base = baseKey(address.address(), settings);
    const bool isTagged = !base.empty() && image.isAlias(base);
    const auto presence =
        isTagged ? rules.presence(table.sqlName(), base) : RuleImage::Presence::There;
    if (presence == RuleImage::Presence::Unknown) return std::nullopt;
    if (presence == RuleImage::Presence::There) left.insert(left.end(), address);
  }
  return left;
}

Answer s_foundAnswer(Tables& tables, const Table& table, const Rules& rules, const std::string& key,
                     const Expansion& found, Clock::time_point now, Log& log) {
  const Settings& settings = tables.settings();
  ConfigurationPointer users;
  if (settings.leaveOutDisabled) {
    users = tables.configuration().use(settings, now);
    if (users == nullptr) return Answer::temp(s_noConfiguration);
  }
  std::vector<std::string> addresses;
  bool hasLocalNames = false;
  bool hasDisabled = false;
  for (const EmailAddress& address : found.addresses) {
    if (!settings.localNames && address.domain().empty()) {
      hasLocalNames = true;
      continue;
    }
    addresses.push_back(address.address());
    if (users != nullptr && isDisabledUser(*users, addresses.back(), settings)) {
      hasDisabled = true;
      if (!goesElsewhere(tables, addresses.back(), &table, rules)) {
        addresses.pop_back();
        continue;
      }
    }
    if (Tool::hasCommaInLiteral(addresses.back())) {
      return Answer::temp("an address literal in this alias has a comma");
    }
  }
  // A mail server would give its own domain to them, and deliver to whoever has that name.
  if (hasLocalNames) {
    log.warning("table " + table.sqlName() +
                ": members without a domain are left out of answers; 'tsl-address-map check' names"
                " them, --local-names gives them");
  }
  if (addresses.empty() && hasLocalNames) {
    return Answer::temp("this alias has members without a domain only");
  }
  // Not "not found", with which a mail server would look for a mailbox of the name of the alias.
  // What becomes of disabled users also depends on the aliases of other tables.
  const bool isShort = found.dependsOnUsers || (hasDisabled && s_hasOtherAliases(tables, table));
  if (addresses.empty()) return s_nobodyAnswer(isShort);
  Pages& pages = tables.pages();
  const bool isDivided = !pages.fit(addresses);
  Answer answer = Answer::ok(isDivided ? pages.divide(table.number(), key, addresses, now)
                                       : s_joined(addresses));
  if (isDivided) answer.validity = Validity::Pages;
  if (isShort) answer.validity = Validity::Moment;
  return answer;
}

}  // namespace

std::optional<Answer> aliasAnswer(Tables& tables, const Table& table, const TableImage& image,
                                  const Rules& rules, const std::string& key, Effort effort,
                                  Clock::time_point now, Log& log) {
  const auto listUsers = [&](const std::string& domain, const auto& take) {
    const ConfigurationPointer configuration = tables.configuration().use(tables.settings(), now);
    return configuration != nullptr && configuration->listUsers(domain, take);
  };
  PresenceOf presenceOf;
  if (rules.hasExpiries()) {
    presenceOf = [&](std::string_view alias) { return rules.presence(table.sqlName(), alias); };
  }
  Expansion found = image.alias().expand(key, effort, listUsers, presenceOf);
  switch (found.kind) {
    case Expansion::Kind::Unknown:
      return std::nullopt;
    case Expansion::Kind::NoAlias:
      return Answer::notFound();
    case Expansion::Kind::Broken:
      return Answer::temp("the row of this alias cannot be read");
    case Expansion::Kind::NoUsers:
      return Answer::temp("this alias means all users of a domain, which could not be read");
    case Expansion::Kind::NoRule:
      return Answer::temp(s_noRule);
    case Expansion::Kind::Nobody:
      if (!found.dependsOnUsers && !found.hasExpired) s_reportLoop(table, image.alias(), key, log);
      return s_nobodyAnswer(found.dependsOnUsers);
    case Expansion::Kind::Found:
      break;
  }
  if (presenceOf) {
    auto left = s_unexpired(found.addresses, table, image.alias(), rules, tables.settings());
    if (!left) return Answer::temp(s_noRule);
    found.addresses = std::move(*left);
  }
  return s_foundAnswer(tables, table, rules, key, found, now, log);
}

Answer failureAnswer(Log& log) {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return Answer::temp("out of memory");
  } catch (const std::exception& exception) {
    log.debug(std::string("a request failed: ") + exception.what());
    const bool isConfiguration = dynamic_cast<const Exception*>(&exception) != nullptr;
    return Answer::temp(isConfiguration ? s_noConfiguration : "the request could not be answered");
  }
}

}  // namespace Tessel::Serve
