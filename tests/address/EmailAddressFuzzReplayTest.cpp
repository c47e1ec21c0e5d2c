// Replays the kept inputs of the address fuzz target: each must pass the checks that the target
// makes.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

TEST(EmailAddressFuzzReplay, EveryKeptInputPasses) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(TSL_ADDRESS_CORPUS)) {
    SCOPED_TRACE(entry.path().string());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    ASSERT_TRUE(file.is_open());
    EXPECT_EQ(
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()),
        0);
    ++count;
  }
  EXPECT_GE(count, 30U);
}

}  // namespace
