// Speed of addresses: parsing, comparing, copying sets and writing, each beside the same work done
// by hand with `std::string` where there is such a thing.
#include <array>
#include <cstddef>
#include <limits>
#include <set>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>

#include "Ratios.h"
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

// Measures `operation`.
template <class Operation>
void s_measure(benchmark::State& state, const Operation& operation) {
  for (auto _ : state) operation();
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

void addressParse5321(benchmark::State& state) {
  std::string text = "anna.berg@mail.example.com";
  s_measure(state, [&] {
    benchmark::DoNotOptimize(text.data());
    benchmark::DoNotOptimize(EmailAddress::rfc5321Parse(text, false));
  });
}

void addressParse5321Bare(benchmark::State& state) {
  std::string text = "anna.berg@mail.example.com";
  s_measure(state, [&] {
    benchmark::DoNotOptimize(text.data());
    benchmark::DoNotOptimize(s_bareParse(text));
  });
}

void addressParse5321Quoted(benchmark::State& state) {
  const std::string text = "\"anna berg\"@mail.example.com";
  s_measure(state, [&] { benchmark::DoNotOptimize(EmailAddress::rfc5321Parse(text, false)); });
}

void addressParse5322DisplayName(benchmark::State& state) {
  const std::string text = "\"Berg, Anna\" <anna.berg@mail.example.com> (desk)";
  s_measure(state, [&] { benchmark::DoNotOptimize(EmailAddress::rfc5322Parse(text, false)); });
}

void addressParseSetOfFive(benchmark::State& state) {
  const std::string text = s_joinedFive();
  s_measure(state,
            [&] { benchmark::DoNotOptimize(EmailAddress::rfc5322ParseSet(text, true, false)); });
}

void addressParseSetOfFiveBare(benchmark::State& state) {
  const std::string text = s_joinedFive();
  s_measure(state, [&] { benchmark::DoNotOptimize(s_bareParseSet(text)); });
}

constexpr const char* s_text = "anna.berg@ex.example.com";
// Differs in every word of eight bytes: the worst case for a comparison without regard to case.
constexpr const char* s_textInOtherCase = "Anna.Berg@EX.Example.COM";
// Members of one domain, alike in their first letters, as neighbours in a set are.
constexpr const char* s_first = "anna.berg1@x.example.com";
constexpr const char* s_second = "anna.berg2@x.example.com";

template <class Value>
void s_equal(benchmark::State& state, const Value& a, const Value& b) {
  s_measure(state, [&] {
    benchmark::DoNotOptimize(&a);
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(a == b);
  });
}

template <class Value>
void s_less(benchmark::State& state, const Value& a, const Value& b) {
  s_measure(state, [&] {
    benchmark::DoNotOptimize(&a);
    benchmark::ClobberMemory();
    benchmark::DoNotOptimize(a < b);
  });
}

EmailAddress s_parsed(const char* text) {
  return EmailAddress::rfc5321Parse(text, false);
}

void addressEqual(benchmark::State& state) {
  s_equal(state, s_parsed(s_text), s_parsed(s_text));
}

void addressEqualOtherCase(benchmark::State& state) {
  s_equal(state, s_parsed(s_text), s_parsed(s_textInOtherCase));
}

void addressEqualBare(benchmark::State& state) {
  s_equal(state, std::string(s_text), std::string(s_text));
}

void addressLess(benchmark::State& state) {
  s_less(state, s_parsed(s_first), s_parsed(s_second));
}

void addressLessBare(benchmark::State& state) {
  s_less(state, std::string(s_first), std::string(s_second));
}

template <class Set>
void s_copy(benchmark::State& state, const Set& set) {
  s_measure(state, [&] {
    Set copy = set;
    benchmark::DoNotOptimize(copy);
  });
}

void addressCopySetOfFive(benchmark::State& state) {
  s_copy(state, EmailAddress::rfc5322ParseSet(s_joinedFive(), true, false));
}

void addressCopySetOfFiveBare(benchmark::State& state) {
  s_copy(state, std::set<std::string>(s_five.begin(), s_five.end()));
}

void addressWrite(benchmark::State& state) {
  const EmailAddress address = s_parsed(s_text);
  s_measure(state, [&] { benchmark::DoNotOptimize(address.address()); });
}

BENCHMARK(addressParse5321);
BENCHMARK(addressParse5321Bare);
BENCHMARK(addressParse5321Quoted);
BENCHMARK(addressParse5322DisplayName);
BENCHMARK(addressParseSetOfFive);
BENCHMARK(addressParseSetOfFiveBare);
BENCHMARK(addressEqual);
BENCHMARK(addressEqualOtherCase);
BENCHMARK(addressEqualBare);
BENCHMARK(addressLess);
BENCHMARK(addressLessBare);
BENCHMARK(addressCopySetOfFive);
BENCHMARK(addressCopySetOfFiveBare);
BENCHMARK(addressWrite);

const bool s_compared = [] {
  constexpr double s_none = std::numeric_limits<double>::infinity();
  compare("rfc5321Parse of a plain address", Kind::Nanoseconds, "addressParse5321", "", 1, 80);
  compare("rfc5322ParseSet of five, an address", Kind::Nanoseconds, "addressParseSetOfFive", "", 5,
          120);
  compare("rfc5321Parse / bare split", Kind::Ratio, "addressParse5321", "addressParse5321Bare", 1,
          s_none);
  compare("rfc5322ParseSet / bare split", Kind::Ratio, "addressParseSetOfFive",
          "addressParseSetOfFiveBare", 1, s_none);
  compare("== / std::string ==", Kind::Ratio, "addressEqual", "addressEqualBare", 1, s_none);
  compare("==, every word in other case / std::string ==", Kind::Ratio, "addressEqualOtherCase",
          "addressEqualBare", 1, s_none);
  compare("< / std::string <", Kind::Ratio, "addressLess", "addressLessBare", 1, s_none);
  compare("copy of a set of five / set of std::string", Kind::Ratio, "addressCopySetOfFive",
          "addressCopySetOfFiveBare", 1, s_none);
  return true;
}();

}  // namespace
}  // namespace Tessel::Bench
