// Encryption: its words.
#include <string>

#include <gtest/gtest.h>

#include "database/Encryption.h"

namespace Tessel::Database {
namespace {

TEST(Encryption, ItsWordsSayWhetherAndHowTheServerIsKnown) {
  Encryption encryption{"TLSv1.3", "TLS_AES_256_GCM_SHA384", "CN=db1", Encryption::Check::Name};
  const std::string start = "TLS_AES_256_GCM_SHA384 (TLSv1.3), certificate of ";
  EXPECT_EQ(encryption.text(), start + "CN=db1 verified by its name");
  EXPECT_EQ(encryption.checkText(), "name");
  EXPECT_TRUE(encryption.isVerified());
  encryption.check = Encryption::Check::Fingerprint;
  EXPECT_EQ(encryption.text(), start + "CN=db1 verified by its fingerprint");
  EXPECT_TRUE(encryption.isVerified());
  encryption.check = Encryption::Check::Authority;
  EXPECT_EQ(encryption.text(), start + "CN=db1 verified by its authority, but not for this host");
  EXPECT_EQ(encryption.checkText(), "authority");
  EXPECT_FALSE(encryption.isVerified());
  encryption.check = Encryption::Check::None;
  encryption.subject.clear();
  EXPECT_EQ(encryption.text(), start + "an unknown owner not verified");
  EXPECT_EQ(encryption.checkText(), "nothing");
  EXPECT_FALSE(encryption.isVerified());
}

}  // namespace
}  // namespace Tessel::Database
