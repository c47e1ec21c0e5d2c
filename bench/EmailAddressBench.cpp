// Speed of addresses: parsing, comparing, copying sets and writing, each compared with the same
// work done by hand with `std::string` where there is such a thing.
#include <array>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>

#include "Rounds.h"
#include "address/EmailAddress.h"

namespace Tessel::Bench {
namespace {

constexpr std::array<std::string_view, 5> s_five = {
    "anna.berg@mail.example.com", "bernd.c@example.com", "carla+lists@sub.example.org",
    "d.e.fischer@example.net", "emil@departments.example.com"};

std::string s_joinedFive() {
  std::string joined;
  for (const std::string_view address : s_five) {
    if (!joined.empty()) joined += ',';
    joined += address;
  }
  return joined;
}

bool s_isAddressCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-' || c == '+' || c == '_';
}

// The least that a hand-written split would check: one "@" with something on both sides, and no
// strange characters.
bool s_bareIsAddress(std::string_view text) {
  std::size_t at = text.size();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '@' && at == text.size()) {
      at = i;
    } else if (!s_isAddressCharacter(text[i])) {
      return false;
    }
  }
  return at > 0 && at + 1 < text.size();
}

struct BareAddress {
  std::string local;
  std::string domain;
};

BareAddress s_bareParse(std::string_view text) {
  if (!s_bareIsAddress(text)) return {};
  const std::size_t at = text.find('@');
  return {std::string(text.substr(0, at)), std::string(text.substr(at + 1))};
}

std::set<std::string> s_bareParseSet(std::string_view text) {
  std::set<std::string> addresses;
  while (!text.empty()) {
    const std::string_view item = text.substr(0, text.find(','));
    if (s_bareIsAddress(item)) addresses.emplace_hint(addresses.end(), item);
    text.remove_prefix(item.size() < text.size() ? item.size() + 1 : item.size());
  }
  return addresses;
}

// The side that hands `text` to `parse`.
template <class Parse>
Side s_parsing(const std::string& text, Parse parse) {
  return timed(Clock::Own, [text, parse](std::size_t) {
    benchmark::DoNotOptimize(text.data());
    benchmark::DoNotOptimize(parse(text));
  });
}

Side s_parsing5321(const std::string& text) {
  return s_parsing(text, [](const std::string& t) { return EmailAddress::rfc5321Parse(t, false); });
}

Side s_parsing5322(const std::string& text) {
  return s_parsing(text, [](const std::string& t) { return EmailAddress::rfc5322Parse(t, false); });
}

Side s_parsingSet() {
  return s_parsing(s_joinedFive(), [](const std::string& t) {
    return EmailAddress::rfc5322ParseSet(t, true, false);
  });
}

constexpr const char* s_plain = "anna.berg@mail.example.com";

void addressParse5321(benchmark::State& state) {
  compare(state, {"rfc5321Parse of a plain address", 80, Kind::Nanoseconds}, s_parsing5321(s_plain),
          {});
}

void addressParse5321Bare(benchmark::State& state) {
  compare(state, {"rfc5321Parse / bare split"}, s_parsing5321(s_plain),
          s_parsing(s_plain, [](const std::string& t) { return s_bareParse(t); }));
}

void addressParse5321Quoted(benchmark::State& state) {
  compare(state, {"rfc5321Parse of a quoted local part", s_noLimit, Kind::Nanoseconds},
          s_parsing5321("\"anna berg\"@mail.example.com"), {});
}

void addressParse5322DisplayName(benchmark::State& state) {
  compare(state, {"rfc5322Parse with a name and a comment", s_noLimit, Kind::Nanoseconds},
          s_parsing5322("\"Berg, Anna\" <anna.berg@mail.example.com> (desk)"), {});
}

void addressParseSetOfFive(benchmark::State& state) {
  compare(state, {"rfc5322ParseSet of five, an address", 120, Kind::Nanoseconds, s_five.size()},
          s_parsingSet(), {});
}

void addressParseSetOfFiveBare(benchmark::State& state) {
  compare(state, {"rfc5322ParseSet / bare split"}, s_parsingSet(),
          s_parsing(s_joinedFive(), [](const std::string& t) { return s_bareParseSet(t); }));
}

constexpr const char* s_text = "anna.berg@ex.example.com";
// Differs in every word of eight bytes: the worst case for a comparison without regard to case.
constexpr const char* s_textInOtherCase = "Anna.Berg@EX.Example.COM";
// Members of one domain, alike in their first letters, as neighbours in a set are.
constexpr const char* s_first = "anna.berg1@x.example.com";
constexpr const char* s_second = "anna.berg2@x.example.com";

EmailAddress s_parsed(const char* text) {
  return EmailAddress::rfc5321Parse(text, false);
}

// The side that compares `a` with `b` by `Less` or `Equal`.
template <template <class> class Compare, class Value>
Side s_comparing(const Value& a, const Value& b) {
  return timed(Clock::Own, [a, b](std::size_t) {
    benchmark::DoNotOptimize(&a);
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(Compare<Value>()(a, b));
  });
}

template <template <class> class Compare>
void s_compare(benchmark::State& state, const std::string& name, const char* a, const char* b) {
  compare(state, {name}, s_comparing<Compare>(s_parsed(a), s_parsed(b)),
          s_comparing<Compare>(std::string(a), std::string(b)));
}

void addressEqual(benchmark::State& state) {
  s_compare<std::equal_to>(state, "== / std::string ==", s_text, s_text);
}

void addressEqualOtherCase(benchmark::State& state) {
  compare(state, {"==, every word in other case / std::string =="},
          s_comparing<std::equal_to>(s_parsed(s_text), s_parsed(s_textInOtherCase)),
          s_comparing<std::equal_to>(std::string(s_text), std::string(s_text)));
}

void addressLess(benchmark::State& state) {
  s_compare<std::less>(state, "< / std::string <", s_first, s_second);
}

template <class Set>
Side s_copying(const Set& set) {
  return timed(Clock::Own, [set](std::size_t) {
    Set copy = set;
    benchmark::DoNotOptimize(copy);
  });
}

void addressCopySetOfFive(benchmark::State& state) {
  compare(state, {"copy of a set of five / set of std::string"},
          s_copying(EmailAddress::rfc5322ParseSet(s_joinedFive(), true, false)),
          s_copying(std::set<std::string>(s_five.begin(), s_five.end())));
}

void addressWrite(benchmark::State& state) {
  const auto write = [address = s_parsed(s_text)](std::size_t) {
    benchmark::DoNotOptimize(address.address());
  };
  compare(state, {"text of an address", s_noLimit, Kind::Nanoseconds}, timed(Clock::Own, write),
          {});
}

BENCHMARK(addressParse5321)->Apply(inRounds);
BENCHMARK(addressParse5321Bare)->Apply(inRounds);
BENCHMARK(addressParse5321Quoted)->Apply(inRounds);
BENCHMARK(addressParse5322DisplayName)->Apply(inRounds);
BENCHMARK(addressParseSetOfFive)->Apply(inRounds);
BENCHMARK(addressParseSetOfFiveBare)->Apply(inRounds);
BENCHMARK(addressEqual)->Apply(inRounds);
BENCHMARK(addressEqualOtherCase)->Apply(inRounds);
BENCHMARK(addressLess)->Apply(inRounds);
BENCHMARK(addressCopySetOfFive)->Apply(inRounds);
BENCHMARK(addressWrite)->Apply(inRounds);

}  // namespace
}  // namespace Tessel::Bench
