// Messages between processes: whole ones arrive as they were sent, others never do.
#include "serve/image/Frame.h"

#include <cstddef>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

constexpr std::size_t s_longest = 1000;

TEST(Frame, ArrivesWholeFromPiecesOfAnySize) {
  const std::string text = std::string("one\0two", 7) + std::string(900, 'x');
  const std::string bytes = encoded({'a', text}) + encoded({'b', ""});
  for (const std::size_t step : {std::size_t{1}, std::size_t{7}, bytes.size()}) {
    FrameReader reader(s_longest);
    std::string kinds;
    for (std::size_t i = 0; i < bytes.size(); i += step) {
      reader.add(bytes.substr(i, step));
      while (const auto frame = reader.next()) {
        EXPECT_EQ(frame->text, frame->kind == 'a' ? text : "");
        kinds += frame->kind;
      }
    }
    EXPECT_EQ(kinds, "ab") << step;
  }
}

TEST(Frame, IsNotThereBeforeItsLastByte) {
  const std::string bytes = encoded({'a', "text"});
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    FrameReader reader(s_longest);
    reader.add(bytes.substr(0, size));
    EXPECT_FALSE(reader.next()) << size;
  }
}

TEST(Frame, ADamagedOneIsRefusedWhereverTheDamageIs) {
  const std::string bytes = encoded({'a', "text"});
  for (std::size_t place = 0; place < bytes.size(); ++place) {
    for (const int bit : {0x01, 0x80}) {
      std::string damaged = bytes;
      damaged[place] = static_cast<char>(damaged[place] ^ bit);
      FrameReader reader(s_longest);
      reader.add(damaged);
      bool isTaken = false;
      try {
        // A longer one than it was has not arrived yet.
        isTaken = reader.next().has_value();
      } catch (const std::runtime_error& error) {
        const std::string why = error.what();
        EXPECT_TRUE(why == "a message is damaged" || why == "a message is too long") << why;
      }
      EXPECT_FALSE(isTaken) << place;
    }
  }
}

TEST(Frame, OneThatIsTooLongIsRefusedBeforeItArrives) {
  const std::string bytes = encoded({'a', std::string(s_longest + 1, 'x')});
  FrameReader reader(s_longest);
  reader.add(bytes.substr(0, 20));
  EXPECT_THAT([&] { reader.next(); },
              testing::ThrowsMessage<std::runtime_error>("a message is too long"));
  FrameReader other(s_longest + 1);
  other.add(bytes);
  EXPECT_TRUE(other.next());
}

}  // namespace
}  // namespace Tessel::Serve
