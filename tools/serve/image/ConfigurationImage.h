// The configuration of domains and mail users in memory, from which requests are answered.
#ifndef TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONIMAGE_H
#define TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONIMAGE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/Settings.h"
#include "tables/AddressIndex.h"

namespace Tessel::Serve {

// A copy of the configuration as one text, for another process. An entry is a letter, a name and a
// NUL: 'd' a domain, after it its users in ascending order: 'm' a user mailbox, 'o' one of another
// kind, 'x' one that is disabled.
//
// Reads one committed state of the configuration that TSL_CMF_PATH names. Calls `isAlive` now and
// then: a large one takes seconds. Throws Exception, or std::runtime_error for what cannot be right
// in it. A damaged file may end the process. Any thread.
std::string copyConfiguration(const std::function<void()>& isAlive = {});

// Calls `take` with the name of each user mailbox of a domain, each address once; false when the
// domain is not known.
using TakeUser = std::function<void(std::string_view name)>;
using ListUsers = std::function<bool(const std::string& domain, const TakeUser& take)>;

// It never changes. Domains and users are found by their keys (see AddressKey.h), so the spellings
// of a domain are one domain, which has the users of all of them. A user costs the length of the
// address and some 25 bytes. Any thread may call any operation.
class ConfigurationImage {
 public:
  // Reads what copyConfiguration() gave. Throws std::runtime_error when it is malformed.
  explicit ConfigurationImage(std::string_view copy);

  // True when the address with `key` is a mail user that is not disabled.
  [[nodiscard]] bool hasUser(std::string_view key) const;
  // True when the address with `key` is a user mailbox, neither shared nor disabled.
  [[nodiscard]] bool hasMailbox(std::string_view key) const;
  // True when the address with `key` is a mail user that is disabled.
  [[nodiscard]] bool isDisabled(std::string_view key) const;
  [[nodiscard]] bool hasDisabled() const noexcept { return m_hasDisabled; }
  // True when the domain with `key` is one of the configuration.
  [[nodiscard]] bool hasDomain(std::string_view key) const;
  // As `ListUsers` says; `domain` may have any spelling.
  bool listUsers(std::string_view domain, const TakeUser& take) const;

  // A later image has a higher one.
  [[nodiscard]] std::uint64_t number() const noexcept { return m_number; }
  [[nodiscard]] std::size_t users() const noexcept { return m_users.size(); }
  [[nodiscard]] std::size_t domains() const noexcept { return m_domains.size(); }

 private:
  using Id = Tool::AddressIndex::Id;
  class Reader;

  const std::uint64_t m_number;
  bool m_hasDisabled = false;
  Tool::AddressIndex m_domains;  // Their keys.
  std::vector<Id> m_firstUsers;  // By the number of the domain; its users follow each other.
  Tool::AddressIndex m_users;    // Addresses, equal to their keys but for ASCII letter case.
  std::string m_kinds;           // By the number of the user: the letters of the copy.
  std::unordered_map<Id, std::string> m_names;  // Of users whose key has another name.
};

using ConfigurationPointer = std::shared_ptr<const ConfigurationImage>;

// The newest image of the configuration, and how old it is. Any thread may call any operation.
class Configuration {
 public:
  // The newest image, for an answer; null when there was none yet, or it is too old for `settings`
  // at `now`. From then on the configuration is needed.
  ConfigurationPointer use(const Settings& settings, Clock::time_point now);
  // The newest image; null when there was none yet.
  [[nodiscard]] ConfigurationPointer image() const;
  // Replaces the image by one that was read by a look that began at `time`. From then on the
  // configuration is needed.
  void publish(ConfigurationPointer image, Clock::time_point time);
  // The configuration was found to be as the image has it, by a look that began at `time`.
  void confirm(Clock::time_point time);
  // How long ago the image was last known to be right; nothing when it never was.
  [[nodiscard]] std::optional<Clock::duration> age(Clock::time_point now) const;

  // A host may do without a configuration: one that is not there is no fault before it is needed.
  [[nodiscard]] bool isNeeded() const;
  void setNeeded();

 private:
  struct State {
    ConfigurationPointer image;
    Clock::time_point confirmed;  // Of the image.
    bool isNeeded = false;
  };

  Guarded<State> m_state;
};

}  // namespace Tessel::Serve

#endif
