// OptionSource: checks a named option file before the client library reads it, which takes a
// missing or broken file for an empty one.
#include "database/OptionSource.h"

#include <cstdlib>

#include "base/Exception.h"
#include "base/sourceLine.h"

namespace Tessel::Database {

namespace {

constexpr char s_variable[] = "TSL_DATABASE_OPTION_FILE";

[[noreturn]] void s_fail(const std::string& file, const std::string& why, int line = sourceLine()) {
  throw Exception(Exception("Database::Connection", 4, "OptionSource", line)
                      .stringParameter("The database option file '" + file + "'" + why));
}

}  // namespace

OptionSource OptionSource::current() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; callers keep the environment still
  const char* const file = std::getenv(s_variable);
  if (file == nullptr || *file == '\0') return {};
  const std::string why = optionFileFault(file);
  if (!why.empty()) {
    s_fail(file, std::string(", named by ") + s_variable + ", " + why +
                     "; correct the file or the variable, or unset it to use the standard option"
                     " files");
  }
  return {file};
}

OptionSource OptionSource::of(const std::string& file) {
  const std::string why = file.empty() ? "" : optionFileFault(file);
  if (!why.empty()) s_fail(file, " " + why);
  return {file};
}

std::string OptionSource::text() const {
  return (file.empty() ? "the standard option files" : "option file " + file) +
         ", groups [client] and [" + s_optionGroup + "]";
}

}  // namespace Tessel::Database
