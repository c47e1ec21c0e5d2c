// Replays the kept inputs of the fuzz targets of the lookup service: each must pass the checks that
// its target makes.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

extern "C" int testAddressKeyFuzz(const std::uint8_t* data, std::size_t size);
extern "C" int testNetstringFuzz(const std::uint8_t* data, std::size_t size);

namespace {

// Gives `target` each file of the folder `name`; the number of files.
std::size_t s_replay(const std::string& name, int (*target)(const std::uint8_t*, std::size_t)) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(TSL_CORPUS "/" + name)) {
    SCOPED_TRACE(entry.path().string());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    EXPECT_TRUE(file.is_open());
    EXPECT_EQ(target(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), 0);
    ++count;
  }
  return count;
}

TEST(FuzzReplay, EveryKeptAddressPasses) {
  EXPECT_GE(s_replay("address-key", &testAddressKeyFuzz), 25U);
}

TEST(FuzzReplay, EveryKeptStreamOfNetstringsPasses) {
  EXPECT_GE(s_replay("netstring", &testNetstringFuzz), 15U);
}

}  // namespace
