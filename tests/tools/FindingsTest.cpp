// Tests of findings: their lines, their JSON, and the commands that they name.
#include "check/Findings.h"

#include <string>

#include <gtest/gtest.h>

#include "check/DomainCheck.h"
#include "cmf/Writer.h"
#include "tests/support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

// What is written about findings, to standard output and then to standard error.
template <class Add>
std::string s_written(bool json, Add add) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Output output(json);
  Findings findings(output);
  add(findings);
  findings.end();
  output.flush();
  const std::string written = testing::internal::GetCapturedStdout();
  return written + testing::internal::GetCapturedStderr();
}

TEST(Findings, AreLinesOfFieldsAndCounted) {
  const std::string got = s_written(false, [](Findings& findings) {
    findings.add({Severity::Error, "cycle", "alias", "a@d", "a@d -> b@d -> a@d", "run this", {}});
    findings.add({Severity::Notice, "kind", "", "", "tab\there", "", {}});
    findings.add({Severity::Error, "kind", "mask", "x", "what", "", {}});
  });
  EXPECT_EQ(got,
            "error\tcycle\talias\ta@d\ta@d -> b@d -> a@d\trun this\n"
            "notice\tkind\t\t\ttab\\x09here\t\n"
            "error\tkind\tmask\tx\twhat\t\n"
            "tsl-address-map: 2 errors, 0 warnings, 1 notice\n");
}

TEST(Findings, HaveNullsInJsonForWhatIsUnknown) {
  const std::string got = s_written(true, [](Findings& findings) {
    findings.add({Severity::Warning, "cycle", "alias", "a@d", "what", "run this", {"a@d", "b@d"}});
    findings.add({Severity::Notice, "kind", "", "", "what", "", {}});
  });
  EXPECT_EQ(Json::parse(got.substr(0, got.find("tsl-address-map: "))), Json::parse(R"([
    {"severity": "warning", "finding": "cycle", "table": "alias", "address": "a@d", "what": "what",
     "command": "run this", "addresses": ["a@d", "b@d"]},
    {"severity": "notice", "finding": "kind", "table": null, "address": null, "what": "what",
     "command": null, "addresses": []}])"));
}

TEST(DomainCheck, NamesDomainsInSeveralSpellings) {
  const Testing::ScratchFile scratch;
  ::setenv("TSL_CMF_PATH", scratch.directory().c_str(), 1);
  CMF::Writer writer;
  for (const char* domain : {"d.example", "b\u00fcro.example", "xn--bro-hoa.example"}) {
    writer.addDomain(domain);
  }
  writer.commit();
  const std::string got =
      s_written(false, [](Findings& findings) { checkDomains(MailUsers(), findings); });
  ::unsetenv("TSL_CMF_PATH");
  EXPECT_EQ(
      got,
      "error\tdomain-spellings\t\tb\u00fcro.example\tis stored in 2 spellings, each with users of"
      " its own: a program that compares letter by letter finds those of one only\t"
      "tsl-address-map domain merge 'b\u00fcro.example'\n"
      "tsl-address-map: 1 error, 0 warnings, 0 notices\n");
}

TEST(Findings, OnlyErrorsAndWarningsCountForTheExitStatus) {
  const auto codeOf = [](Severity severity) {
    auto code = ExitCode::Done;
    s_written(false, [&](Findings& findings) {
      EXPECT_EQ(findings.code(), ExitCode::Done);
      findings.add({severity, "kind", "", "", "what", "", {}});
      code = findings.code();
    });
    return code;
  };
  EXPECT_EQ(codeOf(Severity::Notice), ExitCode::Done);
  EXPECT_EQ(codeOf(Severity::Warning), ExitCode::BadData);
  EXPECT_EQ(codeOf(Severity::Error), ExitCode::BadData);
}

TEST(Findings, NameTheCommandOnTheirTable) {
  EXPECT_EQ(commandOn("alias", "alias tree a@d"), "tsl-address-map alias tree a@d");
  EXPECT_EQ(commandOn("alias_x_1", "alias list"), "tsl-address-map --table x_1 alias list");
  // No option can name such a table.
  EXPECT_EQ(commandOn("alias_", "alias list"), "");
  EXPECT_EQ(commandOn("alias_a-b", "alias list"), "");
  EXPECT_EQ(commandOn("alias_a b", "alias list"), "");
}

TEST(Findings, QuoteWhatAShellWouldRead) {
  EXPECT_EQ(shellWord("a.b+c@d.example"), "a.b+c@d.example");
  EXPECT_EQ(shellWord(""), "''");
  EXPECT_EQ(shellWord("$(x) \"y\""), "'$(x) \"y\"'");
  EXPECT_EQ(shellWord("o'hara@d"), "'o'\\''hara@d'");
}

TEST(Findings, QuoteWhatSqlWouldRead) {
  EXPECT_EQ(selectRow("alias", "name", "o'hara@d"),
            "select * from `alias` where name='o\\'hara@d';");
}

}  // namespace
}  // namespace Tessel::Tool
