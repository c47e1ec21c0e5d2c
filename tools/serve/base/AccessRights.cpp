// What the files of the configuration do not allow this process.
#include "serve/base/AccessRights.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "base/sizes.h"

namespace Tessel::Serve {

namespace {

// The id that a user namespace shows for those that it does not map, as with PrivateUsers= of a
// unit.
constexpr gid_t s_unmapped = 65534;

struct Need {
  std::filesystem::path path;
  int access;        // For faccessat(2).
  const char* what;  // What the process may not do.
  mode_t bits;       // What the group needs; the same as for chmod(1):
  const char* mode;
};

std::string s_userName(uid_t id) {
  std::array<char, 4_KiB> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(id, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->pw_name : std::to_string(id);
}

std::string s_groupName(gid_t id) {
  std::array<char, 16_KiB> buffer{};
  group entry{};
  group* found = nullptr;
  getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->gr_name : std::to_string(id);
}

// How the right is granted. The group of a path that gives it to its members is the intended way.
std::string s_remedy(const Need& need, const struct stat& status,
                     const std::vector<gid_t>& groups) {
  const std::string& path = need.path.native();
  const bool isMember = std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
  if ((status.st_mode & need.bits) == need.bits && status.st_gid != 0) {
    const bool isKnown = status.st_gid != s_unmapped;
    return "add the user to the group " + (isKnown ? s_groupName(status.st_gid) : "of " + path) +
           " and restart the service";
  }
  std::string commands = "chmod g+" + std::string(need.mode) + " " + path;
  if (!isMember) commands.insert(0, "chgrp " + s_groupName(groups.front()) + " " + path + " && ");
  return "to allow it: " + commands;
}

std::string s_text(const Need& need, int error) {
  const std::string& path = need.path.native();
  const std::vector<gid_t> groups = ownGroups();
  std::string names;
  for (const gid_t group : groups) names += (names.empty() ? "" : ", ") + s_groupName(group);
  std::string text =
      "the user " + s_userName(geteuid()) + " (groups: " + names + ") may not " + need.what + path;
  if (error == EROFS) {
    return text +
           ", which is read-only for the service; name its directory in ReadWritePaths= of"
           " the unit";
  }
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return text;
  std::array<char, 8> mode{};
  std::snprintf(mode.data(), mode.size(), "%04o",
                static_cast<unsigned int>(status.st_mode & 07777));
  return text + " (" + s_userName(status.st_uid) + ":" + s_groupName(status.st_gid) + ", mode " +
         mode.data() + "); " + s_remedy(need, status, groups);
}

}  // namespace

std::vector<gid_t> ownGroups() {
  std::vector<gid_t> groups{getegid()};
  std::vector<gid_t> others(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  const int count = getgroups(static_cast<int>(others.size()), others.data());
  others.resize(static_cast<std::size_t>(std::max(count, 0)));
  for (const gid_t group : others) {
    if (std::find(groups.begin(), groups.end(), group) == groups.end()) groups.push_back(group);
  }
  return groups;
}

std::string missingRight(const std::string& directory) {
  const std::filesystem::path last = std::filesystem::absolute(directory).lexically_normal();
  std::vector<Need> needs;
  std::filesystem::path path;
  for (const std::filesystem::path& part : last) {
    path /= part;
    if (!part.empty()) needs.push_back({path, X_OK, "enter ", S_IXGRP, "x"});
  }
  needs.push_back({last / "data.mdb", R_OK, "read ", S_IRGRP, "r"});
  needs.push_back({last / "lock.mdb", R_OK | W_OK, "read and write ", S_IRGRP | S_IWGRP, "rw"});
  for (const Need& need : needs) {
    if (faccessat(AT_FDCWD, need.path.c_str(), need.access, AT_EACCESS) == 0) continue;
    return errno == EACCES || errno == EROFS ? s_text(need, errno) : "";
  }
  return "";
}

}  // namespace Tessel::Serve
