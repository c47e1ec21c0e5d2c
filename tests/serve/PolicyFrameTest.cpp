// Requests of the policy delegation protocol, as they arrive.
#include "serve/socket/PolicyFrame.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

using FrameState = PolicyFrame::State;

constexpr std::size_t s_longest = 200;

FrameState s_frameState(std::string_view buffer, std::size_t most = s_longest) {
  const PolicyFrame frame = parsePolicyFrame(buffer, most);
  EXPECT_EQ(frame.state == FrameState::Frame, frame.consumed != 0);
  return frame.state;
}

TEST(PolicyFrame, HasTheAttributesThatAreUsedAndIgnoresTheRest) {
  const std::string first =
      "request=smtpd_access_policy\nprotocol_state=RCPT\nsender=x=y@d\nrecipient=a=b@d\n"
      "sasl_username=ann\nclient_address=192.0.2.1\npolicy_context=alias\nrecipient_count=0\n\n";
  const std::string both = first + "request=other\n";
  const PolicyFrame frame = parsePolicyFrame(both, s_longest);
  ASSERT_EQ(frame.state, FrameState::Frame);
  EXPECT_EQ(frame.consumed, first.size());
  EXPECT_EQ(frame.request.request, "smtpd_access_policy");
  EXPECT_EQ(frame.request.state, "RCPT");
  EXPECT_EQ(frame.request.recipient, "a=b@d");
  EXPECT_EQ(frame.request.login, "ann");
  EXPECT_EQ(frame.request.client, "192.0.2.1");
  EXPECT_EQ(frame.request.context, "alias");
}

TEST(PolicyFrame, MayHaveEmptyValuesAndLinesThatEndInCrLf) {
  const PolicyFrame frame = parsePolicyFrame("recipient=a@d\r\nsasl_username=\r\n\r\n", s_longest);
  ASSERT_EQ(frame.state, FrameState::Frame);
  EXPECT_EQ(frame.request.recipient, "a@d");
  EXPECT_EQ(frame.request.login, "");
}

TEST(PolicyFrame, EndsAtItsEmptyLineAndNotBefore) {
  const std::string whole = "request=smtpd_access_policy\nrecipient=a@d\n\n";
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(s_frameState(whole.substr(0, size)), FrameState::NeedMore) << size;
  }
  EXPECT_EQ(s_frameState(whole), FrameState::Frame);
}

TEST(PolicyFrame, IsMalformedWithALineThatIsNoAttribute) {
  using namespace std::string_view_literals;
  for (const std::string_view wrong :
       {"\n"sv, "\r\n"sv, "request\n"sv, "=value\n"sv, "a=b\nc\n"sv, "a=b\0c\n"sv, "QUIT\n"sv}) {
    EXPECT_EQ(s_frameState(wrong), FrameState::Malformed) << wrong;
  }
}

TEST(PolicyFrame, IsTooLongBehindTheLimit) {
  const std::string whole = "name=" + std::string(s_longest - 7, 'x') + "\n\n";
  ASSERT_EQ(whole.size(), s_longest);
  EXPECT_EQ(s_frameState(whole), FrameState::Frame);
  EXPECT_EQ(s_frameState(whole, s_longest - 1), FrameState::TooLong);
  EXPECT_EQ(s_frameState(std::string(s_longest, 'x')), FrameState::TooLong);
  EXPECT_EQ(s_frameState(std::string(s_longest - 1, 'x')), FrameState::NeedMore);
}

}  // namespace
}  // namespace Tessel::Serve
