// The answer for an alias.
#ifndef TSL_TOOLS_SERVE_ANSWER_ALIASANSWER_H
#define TSL_TOOLS_SERVE_ANSWER_ALIASANSWER_H

#include <optional>
#include <string>

#include "serve/base/Answer.h"
#include "serve/base/Log.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// Why requests that need the configuration cannot be answered without it.
inline constexpr char s_noConfiguration[] =
    "the configuration of domains and mail users cannot be read";

// What the alias with `key` expands to in `image`, an image of `table`, without what has expired by
// `rules`; a long list gets pages. Nothing when that takes more than `effort`. Failures are answers
// too. Any thread.
std::optional<Answer> aliasAnswer(Tables& tables, const Table& table, const TableImage& image,
                                  const Rules& rules, const std::string& key, Effort effort,
                                  Clock::time_point now, Log& log);

// The answer for the exception that is being handled. Any thread.
Answer failureAnswer(Log& log);

}  // namespace Tessel::Serve

#endif
