// Tests of files of known findings.
#include "check/KnownFindings.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "failure/Failure.h"
#include "tests/support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

Finding s_finding(const char* kind, const char* table, const char* address,
                  const char* what = "what") {
  return {Severity::Error, kind, table, address, what, "", {}};
}

// The messages about the file of `text`, its path being FILE.
template <class Use>
std::string s_said(const std::string& text, Use use) {
  const Testing::ScratchFile file;
  file.write(text);
  testing::internal::CaptureStderr();
  try {
    KnownFindings known(file.path());
    use(known);
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::BadData);
    EXPECT_EQ(failure.hint(), "nothing was checked; correct the lines and try again");
  }
  std::string said = testing::internal::GetCapturedStderr();
  for (std::size_t at = 0; (at = said.find(file.path(), at)) != std::string::npos;) {
    said.replace(at, file.path().size(), "FILE");
  }
  return said;
}

constexpr auto s_all = [](const std::string& /*table*/) { return true; };

TEST(KnownFindings, HaveTheirNotes) {
  const std::string text =
      "# What we know.\n\n"
      "cycle alias a@d # by intent # really\n"
      "\tdangling-member\talias_x\t\"a b\"@d#e\t#from 2019 \n"
      "domain-spellings - b\u00fcro.example # later\n";
  EXPECT_EQ(s_said(text,
                   [](KnownFindings& known) {
                     EXPECT_EQ(known.noteOf(s_finding("cycle", "alias", "a@d")),
                               "by intent # really");
                     EXPECT_EQ(known.noteOf(s_finding("dangling-member", "alias_x", "\"a b\"@d#e")),
                               "from 2019");
                     EXPECT_EQ(known.noteOf(s_finding("domain-spellings", "", "b\u00fcro.example")),
                               "later");
                     EXPECT_EQ(known.noteOf(s_finding("cycle", "alias", "A@d")), std::nullopt);
                     EXPECT_EQ(known.noteOf(s_finding("cycle", "mask", "a@d")), std::nullopt);
                     EXPECT_EQ(known.noteOf(s_finding("double-row", "alias", "a@d")), std::nullopt);
                     known.reportUnmet(s_all);
                   }),
            "");
}

TEST(KnownFindings, AreReadAsTheyAreWritten) {
  EXPECT_EQ(knownLineOf(s_finding("schema", "alias", "", "to do: #1 # 2")),
            "schema alias to do: \\x231 \\x23 2");
  EXPECT_EQ(knownLineOf(s_finding("broken-row", "alias_a b", " #x\ty ")),
            "broken-row alias_a\\x20b \\x20\\x23x\\x09y\\x20");
  for (const Finding& finding :
       {s_finding("schema", "alias", "", "to do: #1 # 2"), s_finding("no-configuration", "", ""),
        s_finding("broken-row", "alias_a b", " #x\ty "), s_finding("broken-row", "mask", "#"),
        s_finding("broken-row", "mask", " "), s_finding("cycle", "alias", "#a@d"),
        s_finding("cycle", "alias", "a  b")}) {
    EXPECT_EQ(s_said(knownLineOf(finding) + "  # why\n",
                     [&](KnownFindings& known) { EXPECT_EQ(known.noteOf(finding), "why"); }),
              "");
  }
}

TEST(KnownFindings, BadLinesAreNamed) {
  const std::string text =
      "cycle alias a@d # why\n"
      "cycle alias a@d\n"
      "cycle alias b@d #\n"
      "cycle alias # why\n"
      "cycle  alias a@d # why not\n";
  EXPECT_EQ(s_said(text, [](KnownFindings&) { ADD_FAILURE() << "it was read"; }),
            "tsl-address-map: FILE:2: it has no note: say why at its end, after a blank and '#'\n"
            "tsl-address-map: FILE:3: it has no note: say why at its end, after a blank and '#'\n"
            "tsl-address-map: FILE:4: it is not FINDING TABLE ADDRESS # NOTE\n"
            "tsl-address-map: FILE:5: it is in line 1 already\n");
}

TEST(KnownFindings, LinesWithoutAFindingAreReported) {
  const std::string text =
      "cycle mask z@d # why\n"
      "cycle alias a@d # why\n"
      "cycle alias_x a@d # why\n"
      "domain-spellings - d # why\n";
  EXPECT_EQ(s_said(text, [](KnownFindings& known) { known.reportUnmet(s_all); }),
            "tsl-address-map: warning: FILE:1: no finding is 'cycle mask z@d' any more: remove the"
            " line\n"
            "tsl-address-map: warning: FILE:2: no finding is 'cycle alias a@d' any more: remove the"
            " line\n"
            "tsl-address-map: warning: FILE:3: no finding is 'cycle alias_x a@d' any more: remove"
            " the line\n"
            "tsl-address-map: warning: FILE:4: no finding is 'domain-spellings - d' any more:"
            " remove the line\n");
  EXPECT_EQ(s_said(text,
                   [](KnownFindings& known) {
                     known.noteOf(s_finding("cycle", "alias", "a@d"));
                     known.reportUnmet([](const std::string& table) { return table == "alias"; });
                   }),
            "");
}

}  // namespace
}  // namespace Tessel::Tool
