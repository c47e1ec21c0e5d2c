// Replays the kept inputs of the fuzz targets, and others that are made of them by chance: each
// must pass the checks that its target makes. The seed is printed and may be given in
// TSL_TEST_SEED.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fuzz/Fuzz.h"

using Target = int (*)(const std::uint8_t* data, std::size_t size);

extern "C" int testAddressKeyFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testConfigurationFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testConnectionFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testEmailAddressFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testFileSyntaxFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testMembersFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testNetstringFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testOptionFileFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testRowFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testSnapshotFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testTableFileFuzz(const std::uint8_t* data, std::size_t size);

namespace Tessel::Fuzz {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using Inputs = std::vector<std::string>;

struct Replay {
  const char* name;
  Target target;
  const char* corpus;   // Its directory under fuzz/corpus.
  std::size_t kept;     // The least number of inputs in it.
  std::size_t changed;  // How many inputs are made of them.
};

void PrintTo(const Replay& replay, std::ostream* stream) {
  *stream << replay.name;
}

constexpr Replay s_replays[] = {
    {"AddressKey", testAddressKeyFuzz, "address-key", 40, 20000},
    {"Configuration", testConfigurationFuzz, "configuration", 75, 600},
    {"Connection", testConnectionFuzz, "connection", 30, 3000},
    {"EmailAddress", testEmailAddressFuzz, "email-address", 70, 8000},
    {"FileSyntax", testFileSyntaxFuzz, "file-syntax", 30, 3000},
    {"Members", testMembersFuzz, "members", 60, 6000},
    {"Netstring", testNetstringFuzz, "netstring", 20, 20000},
    {"OptionFile", testOptionFileFuzz, "option-file", 25, 2000},
    {"Row", testRowFuzz, "row", 55, 3000},
    {"Snapshot", testSnapshotFuzz, "snapshot", 30, 3000},
    {"TableFile", testTableFileFuzz, "table-file", 55, 3000},
};

Inputs s_kept(const std::string& corpus) {
  Inputs inputs;
  for (const auto& entry : std::filesystem::directory_iterator(TSL_CORPUS "/" + corpus)) {
    std::ifstream file(entry.path(), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << entry.path();
    inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  // Directories have no order.
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

unsigned long s_seed() {
  const char* const given =
      std::getenv("TSL_TEST_SEED");  // NOLINT(concurrency-mt-unsafe): one thread
  const unsigned long seed = given != nullptr ? std::strtoul(given, nullptr, 10) : 1;
  std::cout << "TSL_TEST_SEED=" << seed << '\n';
  return seed;
}

// Makes inputs of kept ones. The same seed makes the same inputs.
class Changer {
 public:
  Changer(const Inputs& kept, unsigned long seed) : m_kept(kept), m_random(seed) {}

  std::string next() {
    std::string input = any();
    for (std::size_t changes = below(4) + 1; changes > 0; --changes) change(input);
    return input;
  }

 private:
  std::size_t below(std::size_t bound) { return m_random() % bound; }
  const std::string& any() { return m_kept[below(m_kept.size())]; }

  void change(std::string& input) {
    const std::size_t at = below(input.size() + 1);
    const std::size_t count = below(8) + 1;
    const char byte = s_bytes[below(sizeof(s_bytes) - 1)];
    const unsigned bit = 1U << below(8);
    const std::string& other = any();
    const std::size_t from = below(other.size() + 1);
    switch (below(6)) {
      case 0:
        input.insert(at, 1, byte);
        break;
      case 1:
        input.insert(at, other.substr(from, count));
        break;
      case 2:
        input.erase(at, count);
        break;
      case 3:
        input.replace(at, std::string::npos, other, from);
        break;
      case 4:
        if (at < input.size()) input[at] = byte;
        break;
      default:
        if (at < input.size())
          input[at] = static_cast<char>(static_cast<unsigned char>(input[at]) ^ bit);
        break;
    }
  }

  // What the formats give a meaning, and bytes that have none anywhere.
  static constexpr char s_bytes[] = "\0\n\r\t :;,.<>@\"\\()[]*'!=\x1d\x1e\x7f\x80\xc3\xff";

  const Inputs& m_kept;
  std::mt19937_64 m_random;
};

// What `target` finds wrong with `input`, with its bytes; empty when it passes.
std::string s_faultOf(Target target, const std::string& input) {
  std::string fault;
  try {
    target(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    return {};
  } catch (const Violation& violation) {
    fault = violation.what;
  } catch (const std::exception& other) {
    fault = other.what();
  }
  return fault + "; input: " + testing::PrintToString(input);
}

// The first fault among inputs made of `kept`; empty when there is none.
std::string s_changedFault(Target target, const Inputs& kept, std::size_t count) {
  Changer changer(kept, s_seed());
  for (std::size_t i = 0; i < count; ++i) {
    std::string fault = s_faultOf(target, changer.next());
    if (!fault.empty()) return fault;
  }
  return {};
}

class FuzzReplay : public testing::TestWithParam<Replay> {};

TEST_P(FuzzReplay, EveryKeptInputPasses) {
  const Inputs kept = s_kept(GetParam().corpus);
  EXPECT_GE(kept.size(), GetParam().kept);
  for (const std::string& input : kept) EXPECT_THAT(s_faultOf(GetParam().target, input), IsEmpty());
}

TEST_P(FuzzReplay, InputsMadeOfKeptOnesPass) {
  const Replay& replay = GetParam();
  EXPECT_THAT(s_changedFault(replay.target, s_kept(replay.corpus), replay.changed), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, FuzzReplay, testing::ValuesIn(s_replays),
                         [](const auto& instance) { return std::string(instance.param.name); });

// The replay itself: it finds what is wrong, and shows the input.
int s_refusesNul(const std::uint8_t* data, std::size_t size) {
  require(asText(data, size).find('\0') == std::string_view::npos, "no NUL");
  return 0;
}

int s_throws(const std::uint8_t* /*data*/, std::size_t /*size*/) {
  throw Exception("context", 4, nullptr, 0);
}

TEST(FuzzReplayItself, AViolationIsReportedWithItsInput) {
  EXPECT_THAT(s_faultOf(s_refusesNul, "abc"), IsEmpty());
  const std::string got = s_faultOf(s_refusesNul, std::string("a\0c", 3));
  EXPECT_THAT(got, HasSubstr("no NUL"));
  EXPECT_THAT(got, HasSubstr("a\\0c"));
}

TEST(FuzzReplayItself, AnExceptionIsReported) {
  EXPECT_THAT(s_faultOf(s_throws, ""), HasSubstr("context"));
}

TEST(FuzzReplayItself, ChangedInputsMeetWhatKeptOnesDoNot) {
  EXPECT_THAT(s_changedFault(s_refusesNul, {"", "abc"}, 1000), HasSubstr("no NUL"));
}

TEST(FuzzReplayItself, OneSeedMakesTheSameInputs) {
  const Inputs kept{"abc", "defghi"};
  Changer first(kept, 7);
  Changer second(kept, 7);
  Changer other(kept, 8);
  std::size_t differing = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string got = first.next();
    EXPECT_EQ(got, second.next());
    if (got != other.next()) ++differing;
  }
  EXPECT_GT(differing, 50U);
}

}  // namespace
}  // namespace Tessel::Fuzz
