// The answer to one request.
#ifndef TSL_TOOLS_SERVE_BASE_ANSWER_H
#define TSL_TOOLS_SERVE_BASE_ANSWER_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace Tessel::Serve {

// In the order of the names in `s_resultNames`.
// `Refused` is of policies only: the mail is not wanted.
enum class Result : std::size_t { Ok, NotFound, Temp, Perm, Refused };
inline constexpr std::size_t s_results = 5;

// How long an answer may be given again.
enum class Validity {
  Once,    // Not at all.
  Moment,  // For a moment: it may change while the table stays as it is.
  Pages,   // As long as the pages are there that it names.
  Image,   // As long as the image that it was made from is the newest.
};

// A value. One that nobody has filled has the mail server wait, and loses no mail.
struct Answer {
  Result result = Result::Temp;
  // The addresses of `Ok`, never empty; the reason of `Temp` and `Perm`, without any address.
  std::string data;
  Validity validity = Validity::Once;

  static Answer ok(std::string data) { return {Result::Ok, std::move(data), Validity::Image}; }
  static Answer notFound() { return {Result::NotFound, {}, Validity::Image}; }
  // To a key that is no address: nobody asks for it again but who means harm.
  static Answer noAddress() { return {Result::NotFound, {}, Validity::Once}; }
  static Answer temp(std::string why) { return {Result::Temp, std::move(why), Validity::Once}; }
  static Answer perm(std::string why) { return {Result::Perm, std::move(why), Validity::Image}; }

  // What goes to the mail server that has asked for a map. A blank follows the word even when
  // nothing follows the blank: the protocol requires it.
  [[nodiscard]] std::string reply() const {
    static constexpr std::string_view s_words[s_results] = {"OK ", "NOTFOUND ", "TEMP ", "PERM ",
                                                            ""};
    std::string reply(s_words[static_cast<std::size_t>(result)]);
    return reply += data;
  }
};

}  // namespace Tessel::Serve

#endif
