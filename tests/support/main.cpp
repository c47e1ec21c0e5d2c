// The main program of every test program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ExpectedLog.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  Tessel::Testing::watchLog();
  return RUN_ALL_TESTS();
}
