// Values of `--listen`: what they mean, and the messages for those that mean nothing.
#include "serve/base/ListenAddress.h"

#include <sys/un.h>

#include <optional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "failure/Failure.h"

namespace Tessel::Serve {
namespace {

using Kind = ListenAddress::Kind;

TEST(ListenAddress, AUnixSocketHasAPathAndNothingElseByDefault) {
  const ListenAddress address = parseListenAddress("unix:/run/tsl/map.sock");
  EXPECT_EQ(address.kind, Kind::Unix);
  EXPECT_EQ(address.protocol, Protocol::Netstrings);
  EXPECT_EQ(address.path, "/run/tsl/map.sock");
  EXPECT_FALSE(address.mode);
  EXPECT_EQ(address.group, "");
  EXPECT_EQ(address.port, 0);
}

TEST(ListenAddress, AUnixSocketMayHaveAModeAndAGroupInAnyOrder) {
  for (const char* value :
       {"unix:/a:b,mode=0660,group=postfix", "unix:/a:b,group=postfix,mode=660"}) {
    const ListenAddress address = parseListenAddress(value);
    EXPECT_EQ(address.path, "/a:b") << value;
    EXPECT_EQ(address.mode, std::optional<mode_t>(0660)) << value;
    EXPECT_EQ(address.group, "postfix") << value;
  }
  EXPECT_EQ(parseListenAddress("unix:/a,mode=0").mode, std::optional<mode_t>(0));
  EXPECT_EQ(parseListenAddress("unix:/a,mode=0777").mode, std::optional<mode_t>(0777));
  EXPECT_FALSE(parseListenAddress("unix:/a,group=g").mode);
}

TEST(ListenAddress, ANetworkSocketHasANumericHostAndAPort) {
  const ListenAddress v4 = parseListenAddress("inet:127.0.0.1:8025");
  EXPECT_EQ(v4.kind, Kind::Inet);
  EXPECT_EQ(v4.protocol, Protocol::Netstrings);
  EXPECT_EQ(v4.host, "127.0.0.1");
  EXPECT_EQ(v4.port, 8025);
  EXPECT_EQ(v4.path, "");
  const ListenAddress v6 = parseListenAddress("inet:[::1]:65535");
  EXPECT_EQ(v6.kind, Kind::Inet);
  EXPECT_EQ(v6.host, "::1");
  EXPECT_EQ(v6.port, 65535);
  EXPECT_EQ(parseListenAddress("inet:0.0.0.0:0").port, 0);
  EXPECT_EQ(parseListenAddress("inet:[::ffff:192.0.2.1]:1").host, "::ffff:192.0.2.1");
}

TEST(ListenAddress, TheLineProtocolIsPartOfTheKind) {
  const ListenAddress local = parseListenAddress("unix-line:/run/lines,mode=0600");
  EXPECT_EQ(local.kind, Kind::Unix);
  EXPECT_EQ(local.protocol, Protocol::Lines);
  EXPECT_EQ(local.path, "/run/lines");
  EXPECT_EQ(local.mode, std::optional<mode_t>(0600));
  const ListenAddress network = parseListenAddress("inet-line:[::1]:25");
  EXPECT_EQ(network.kind, Kind::Inet);
  EXPECT_EQ(network.protocol, Protocol::Lines);
  EXPECT_EQ(network.port, 25);
}

TEST(ListenAddress, PoliciesHaveAKindBeforeThatOfTheSocket) {
  const ListenAddress local = parseListenAddress("policy:unix:/run/policy,group=postfix");
  EXPECT_EQ(local.kind, Kind::Unix);
  EXPECT_EQ(local.protocol, Protocol::Policy);
  EXPECT_EQ(local.path, "/run/policy");
  EXPECT_EQ(local.group, "postfix");
  const ListenAddress network = parseListenAddress("policy:inet:127.0.0.1:7322");
  EXPECT_EQ(network.kind, Kind::Inet);
  EXPECT_EQ(network.protocol, Protocol::Policy);
  for (const char* wrong : {"policy:/run/policy", "policy:unix-line:/run/policy",
                            "policy:", "policy:policy:unix:/run/policy"}) {
    EXPECT_THROW(parseListenAddress(wrong), Tool::Failure) << wrong;
  }
}

TEST(ListenAddress, APathFillsTheSocketAddressAndNoMore) {
  const std::string longest = "/" + std::string(sizeof(sockaddr_un::sun_path) - 2, 'x');
  EXPECT_EQ(parseListenAddress("unix:" + longest + ",mode=0600").path, longest);
  try {
    parseListenAddress("unix:" + longest + "x");
    ADD_FAILURE() << "a path without room for its NUL was taken";
  } catch (const Tool::Failure& failure) {
    EXPECT_EQ(failure.why(), "the path has 108 bytes; a socket's has at most 107");
  }
}

struct Refused {
  const char* name;
  const char* value;
  const char* why;
};

void PrintTo(const Refused& param, std::ostream* stream) {
  *stream << testing::PrintToString(param.value);
}

// What to write instead of `value`: an example of its kind, or of all kinds.
std::string s_example(const std::string& value) {
  const bool isLine = value.find('\n') == std::string::npos;
  if (isLine && value.starts_with("unix:")) {
    return "write unix:/run/tsl/map.sock, or unix:/run/tsl/map.sock,mode=0660,group=postfix";
  }
  if (value.starts_with("inet:")) return "write inet:127.0.0.1:8025, or inet:[::1]:8025";
  return "write unix:/run/tsl/map.sock or inet:127.0.0.1:8025; with unix-line: or inet-line: it "
         "speaks the line protocol, with policy:unix: or policy:inet: that of Postfix's policies";
}

constexpr const char s_relative[] =
    "the path is relative, and where it leads depends on where the service is started";

class ListenAddressRefused : public testing::TestWithParam<Refused> {};

TEST_P(ListenAddressRefused, SaysWhatIsWrongAndGivesAnExample) {
  try {
    parseListenAddress(GetParam().value);
    ADD_FAILURE() << "taken: " << GetParam().value;
  } catch (const Tool::Failure& failure) {
    EXPECT_EQ(failure.code(), Tool::ExitCode::Usage);
    EXPECT_EQ(failure.subject(), "--listen '" + std::string(GetParam().value) + "'");
    EXPECT_EQ(failure.why(), GetParam().why);
    EXPECT_EQ(failure.hint(), s_example(GetParam().value));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ListenAddressRefused,
    testing::Values(
        Refused{"Empty", "", "it does not begin with a kind of socket"},
        Refused{"PathAlone", "/run/map", "it does not begin with a kind of socket"},
        Refused{"KindAlone", "unix", "it does not begin with a kind of socket"},
        Refused{"UnknownKind", "tcp:127.0.0.1:1", "it does not begin with a kind of socket"},
        Refused{"LargeKind", "UNIX:/a", "it does not begin with a kind of socket"},
        Refused{"HostAlone", "127.0.0.1:1", "it does not begin with a kind of socket"},
        Refused{"Newline", "unix:/a\nb", "it has control characters"},
        Refused{"NoPath", "unix:", "the path is missing"},
        Refused{"NoPathButMode", "unix:,mode=0600", "the path is missing"},
        Refused{"RelativePath", "unix:run/map", s_relative},
        Refused{"AbstractPath", "unix:@map", s_relative},
        Refused{"Directory", "unix:/run/", "the path names a directory"},
        Refused{"UnknownOption", "unix:/a,user=root",
                "'user=root' is neither mode=NUMBER nor group=NAME"},
        Refused{"OptionWithoutName", "unix:/a,,mode=0600",
                "'' is neither mode=NUMBER nor group=NAME"},
        Refused{"LastComma", "unix:/a,", "there is nothing after the last comma"},
        Refused{"LastCommaBehindOption", "unix:/a,mode=0600,",
                "there is nothing after the last comma"},
        Refused{"ModeNotOctal", "unix:/a,mode=0680",
                "'0680' is not a mode; modes are octal, from 0 to 0777"},
        Refused{"ModeTooLarge", "unix:/a,mode=1777",
                "'1777' is not a mode; modes are octal, from 0 to 0777"},
        Refused{"ModeEmpty", "unix:/a,mode=", "'' is not a mode; modes are octal, from 0 to 0777"},
        Refused{"ModeWithSign", "unix:/a,mode=-1",
                "'-1' is not a mode; modes are octal, from 0 to 0777"},
        Refused{"ModeWithLetters", "unix:/a,mode=rw",
                "'rw' is not a mode; modes are octal, from 0 to 0777"},
        Refused{"ModeTwice", "unix:/a,mode=0600,mode=0600", "mode is given twice"},
        Refused{"GroupEmpty", "unix:/a,group=", "group has no name"},
        Refused{"GroupTwice", "unix:/a,group=a,group=b", "group is given twice"},
        Refused{"NoHostAndPort", "inet:", "the port is missing"},
        Refused{"NoPort", "inet:127.0.0.1", "the port is missing"},
        Refused{"EmptyPort", "inet:127.0.0.1:", "'' is not a port; ports go from 0 to 65535"},
        Refused{"NoHost", "inet::8025", "'' is not an IPv4 address; names are not looked up"},
        Refused{"PortAlone", "inet:8025", "the port is missing"},
        Refused{"HostName", "inet:localhost:8025",
                "'localhost' is not an IPv4 address; names are not looked up"},
        Refused{"ShortHost", "inet:127.1:8025",
                "'127.1' is not an IPv4 address; names are not looked up"},
        Refused{"PortTooLarge", "inet:127.0.0.1:65536",
                "'65536' is not a port; ports go from 0 to 65535"},
        Refused{"PortHuge", "inet:127.0.0.1:99999999999",
                "'99999999999' is not a port; ports go from 0 to 65535"},
        Refused{"PortWithSign", "inet:127.0.0.1:+1",
                "'+1' is not a port; ports go from 0 to 65535"},
        Refused{"PortName", "inet:127.0.0.1:smtp",
                "'smtp' is not a port; ports go from 0 to 65535"},
        Refused{"BareIPv6", "inet:::1:8025", "an IPv6 address needs brackets"},
        Refused{"OpenBracket", "inet:[::1:8025", "the ']' is missing"},
        Refused{"IPv6WithoutPort", "inet:[::1]", "the port is missing"},
        Refused{"IPv6WithoutColon", "inet:[::1]8025", "the port is missing"},
        Refused{"IPv6EmptyPort", "inet:[::1]:", "'' is not a port; ports go from 0 to 65535"},
        Refused{"IPv4InBrackets", "inet:[127.0.0.1]:8025",
                "'127.0.0.1' is not an IPv6 address; names are not looked up"},
        Refused{"EmptyBrackets", "inet:[]:8025",
                "'' is not an IPv6 address; names are not looked up"}),
    [](const auto& refused) { return std::string(refused.param.name); });

}  // namespace
}  // namespace Tessel::Serve
