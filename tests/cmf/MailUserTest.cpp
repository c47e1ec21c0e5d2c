// The layout of a mail user, which is part of the storage format.
#include "cmf/MailUser.h"

#include <cstddef>

#include <gtest/gtest.h>

namespace {

TEST(MailUser, TheNameIsAtTheStartAndTheKindHas32Bits) {
  EXPECT_EQ(offsetof(__aps_mail_user, user_name), 0U);
  EXPECT_EQ(offsetof(__aps_mail_user, kind), 68U);
  EXPECT_EQ(sizeof(__aps_mail_user::kind), 4U);
  EXPECT_EQ(sizeof(__aps_mail_user), 72U);
  EXPECT_GT(sizeof(__aps_mail_user::user_name), Tessel::CMF::s_maxUserName);
}

TEST(MailUser, KindsAndTheTableHaveTheirNumbers) {
  EXPECT_EQ(Tessel::CMF::MailUserDisabled, 0);
  EXPECT_EQ(Tessel::CMF::MailUserMailbox, 1);
  EXPECT_EQ(Tessel::CMF::MailUserShared, 2);
  EXPECT_EQ(Tessel::CMF::s_mailUserTable, 346U);
}

}  // namespace
