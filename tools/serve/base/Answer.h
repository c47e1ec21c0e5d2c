// The answer to one request.
#ifndef TSL_TOOLS_SERVE_BASE_ANSWER_H
#define TSL_TOOLS_SERVE_BASE_ANSWER_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace Tessel::Serve {

// In the order of the names in `s_resultNames`.
enum class Result : std::size_t { Ok, NotFound, Temp, Perm };
inline constexpr std::size_t s_results = 4;

// A value.
struct Answer {
  Result result = Result::NotFound;
  // The addresses of `Ok`, never empty; the reason of `Temp` and `Perm`, without any address.
  std::string data;
  // True when it is valid for a moment only, even while the tables do not change.
  bool isVolatile = false;

  static Answer ok(std::string data) { return {Result::Ok, std::move(data), false}; }
  static Answer notFound() { return {}; }
  static Answer temp(std::string why) { return {Result::Temp, std::move(why), true}; }
  static Answer perm(std::string why) { return {Result::Perm, std::move(why), false}; }

  // What goes to the mail server. A blank follows the word even when nothing follows the blank: the
  // protocol requires it.
  [[nodiscard]] std::string reply() const {
    static constexpr std::string_view s_words[s_results] = {"OK ", "NOTFOUND ", "TEMP ", "PERM "};
    std::string reply(s_words[static_cast<std::size_t>(result)]);
    return reply += data;
  }
};

}  // namespace Tessel::Serve

#endif
