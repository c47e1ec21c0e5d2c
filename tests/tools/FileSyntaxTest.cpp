// Tests of the formats of table files: what each writes, reads back, and refuses.
#include "files/FileSyntax.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

using namespace std::string_view_literals;
using testing::HasSubstr;
using Testing::ScratchFile;
using testing::StartsWith;

const TableFormat& s_alias = TableFormat::alias();
const TableFormat& s_mask = TableFormat::mask();

// The format `name`; names of aliases(5) are those of d.example.
std::unique_ptr<FileSyntax> s_syntax(const char* name, const TableFormat& table) {
  return FileSyntax::named(name, table, name == "aliases"sv ? "d.example" : "");
}

TableEntry s_entry(const TableFormat& table, std::string_view key, std::string_view value) {
  RowReader reader(table.kind);
  TableEntry entry;
  const auto fault = readEntry(reader, key, value, entry);
  EXPECT_FALSE(fault) << key << ":" << value << ": " << fault->why;
  return entry;
}

struct Written {
  const TableFormat& table;
  const char* format;
  const char* key;
  const char* value;
  const char* line;
};

TEST(FileSyntax, WhatAFormatWritesItReadsBack) {
  const Written cases[] = {
      {s_alias, "native", "t@d.example", "b@x,a@x", "t@d.example:a@x,b@x"},
      {s_alias, "native", R"("a:b"@d.example)", "a@x", R"("a:b"@d.example:a@x)"},
      {s_alias, "native", "t@d.example", "allusers_d.example", "t@d.example:allusers_d.example"},
      {s_mask, "native", "*@in", "*@out", "*@in:*@out"},
      {s_alias, "jsonl", "t@d.example", "b@x,a@x",
       R"({"address":"t@d.example","members":["a@x","b@x"]})"},
      {s_alias, "jsonl", R"("\"{"@d.example)", "allusers_d",
       R"({"address":"\"\\\"{\"@d.example","members":["allusers_d"]})"},
      {s_mask, "jsonl", "a@in", "a@out", R"({"private":"a@in","public":"a@out"})"},
      {s_alias, "csv", "t@d.example", "a@x", "t@d.example,a@x\r"},
      {s_alias, "csv", R"("a,b"@d.example)", "b@x,a@x",
       R"("""a,b""@d.example","a@x,b@x")"
       "\r"},
      {s_mask, "csv", "a@in", "a@out", "a@in,a@out\r"},
      {s_alias, "virtual", "t@d.example", "b@x,a@x", "t@d.example a@x,b@x"},
      {s_mask, "virtual", "a@in", R"("a b"@out)", R"(a@in "a b"@out)"},
      {s_mask, "virtual", "*@in", "*@out", "@in @out"},
      {s_alias, "aliases", "t@d.example", "b@x,a@x", "t: a@x,b@x"},
      {s_alias, "aliases", "#t@d.example", "a@x", R"("#t": a@x)"},
      {s_alias, "aliases", R"("a b"@d.example)", R"("c,d"@x)", R"("a b": "c,d"@x)"},
  };
  for (const Written& one : cases) {
    SCOPED_TRACE(std::string(one.format) + " " + one.line);
    const auto syntax = s_syntax(one.format, one.table);
    const TableEntry want = s_entry(one.table, one.key, one.value);
    std::string line;
    EXPECT_FALSE(syntax->write(want, line));
    EXPECT_EQ(line, one.line);
    if (line.ends_with('\r')) line.pop_back();
    TableEntry got;
    EXPECT_FALSE(syntax->read(line, got));
    EXPECT_EQ(got.line(), want.line());
  }
}

struct Read {
  const TableFormat& table;
  const char* format;
  const char* record;
  const char* line;
};

TEST(FileSyntax, WhatPeopleWriteIsRead) {
  const Read cases[] = {
      {s_alias, "native", " t@d.example : b@x, The Boss <a@x>, B@x", "t@d.example:a@x,b@x"},
      {s_alias, "native", "x@[IPv6:2001:db8::1]:a@x", "x@[IPv6:2001:db8::1]:a@x"},
      {s_alias, "jsonl", R"( { "members": [ "b@x", "a@x", "B@x" ], "address": "t@d" } )",
       "t@d:a@x,b@x"},
      {s_alias, "csv", R"("t@d.example",a@x)", "t@d.example:a@x"},
      {s_alias, "virtual", "t@d.example\t b@x ,\ta@x", "t@d.example:a@x,b@x"},
      {s_mask, "virtual", "a@in   a@out ", "a@in:a@out"},
      {s_alias, "aliases", "t : b, a@x,, \"c,d\"", "t@d.example:a@x,b@d.example,\"c,d\"@d.example"},
      {s_alias, "aliases", "t@e.example: b", "t@e.example:b@d.example"},
  };
  for (const Read& one : cases) {
    TableEntry got;
    EXPECT_FALSE(s_syntax(one.format, one.table)->read(one.record, got)) << one.record;
    EXPECT_EQ(got.line(), one.line) << one.format;
  }
}

struct Refused {
  const TableFormat& table;
  const char* format;
  std::string_view record;
  RowFault fault;
  const char* why;
};

TEST(FileSyntax, WhatAFormatCannotReadItNames) {
  constexpr auto format = RowFault::BadFormat;
  constexpr auto key = RowFault::BadKey;
  constexpr auto value = RowFault::BadValue;
  constexpr auto empty = RowFault::EmptyValue;
  const Refused cases[] = {
      {s_alias, "native", "t@d a@x", format, "there is no colon after an address"},
      {s_alias, "native", R"("t:x@d)", format, "there is no colon after an address"},
      {s_alias, "native", "t:a@x", key, "bad alias: "},
      {s_alias, "native", "t@d:a@", value, "bad members: "},
      {s_alias, "native", "t@d:", empty, "the members are empty"},
      {s_alias, "native", ":a@x", RowFault::EmptyKey, "the alias is empty"},
      {s_mask, "native", "a@in:a@out,b@out", value, "bad public address: "},
      {s_alias, "native", "t@d:a@x\0,b@x"sv, format, "it contains a NUL character"},
      {s_alias, "jsonl", "[1]", format, "it is not a JSON object"},
      {s_alias, "jsonl", "{", format, "it is not a JSON object"},
      {s_alias, "jsonl", R"({"address":"t@d"})", format,
       "it does not have the keys 'address' and 'members'"},
      {s_alias, "jsonl", R"({"address":"t@d","members":[],"x":1})", format,
       "it does not have the keys 'address' and 'members'"},
      {s_alias, "jsonl", R"({"address":"t@d","members":["a@x"],"members":["b@x"]})", format,
       "the key 'members' is there twice"},
      {s_alias, "jsonl", R"({"address":1,"members":[]})", format, "'address' is not a string"},
      {s_alias, "jsonl", R"({"address":"t@d","members":"a@x"})", format, "'members' is not a list"},
      {s_alias, "jsonl", R"({"address":"t@d","members":[1]})", format,
       "'members' contains something that is not a string"},
      {s_alias, "jsonl", R"({"address":"t@d","members":["a@x\u0000"]})", value,
       "it contains a NUL character"},
      {s_alias, "jsonl", R"({"address":"t@d\u0000","members":["a@x"]})", key,
       "bad alias: it contains a NUL character"},
      {s_alias, "jsonl", R"({"address":"t@d","members":["a@x,b@x"]})", value, ""},
      {s_alias, "jsonl", R"({"address":"t@d","members":[" "]})", value, "a member is empty"},
      {s_alias, "jsonl", R"({"address":"t","members":["a@x"]})", key, "bad alias: "},
      {s_alias, "jsonl", R"({"address":"t@d","members":[]})", empty, "the members are empty"},
      {s_mask, "jsonl", R"({"private":"a@in","public":["a@out"]})", format,
       "'public' is not a string"},
      {s_alias, "csv", "t@d", format, "its number of fields is 1, and not 2 as in the header"},
      {s_alias, "csv", "t@d,a@x,b@x", format, "its number of fields is 3, and not 2"},
      {s_alias, "csv", R"(t"@d,a@x)", format, "a field without quotes contains a quote"},
      {s_alias, "csv", R"("t@d,a@x)", format, "a field has no closing quote in its line"},
      {s_alias, "csv", R"("t@d"x,a@x)", format, "there is text after a closing quote"},
      {s_alias, "virtual", " t@d a@x", format, "it continues a line, and there is none before it"},
      {s_alias, "virtual", "t@d", format, "there is nothing after the key"},
      {s_alias, "virtual", "@d a@x", format, "an alias cannot mean a whole domain"},
      {s_alias, "virtual", "t@d a", value, "bad members: "},
      {s_alias, "virtual", "t a@x", key, "bad alias: "},
      {s_alias, "virtual", "t@d ,", empty, "the members are empty"},
      {s_mask, "virtual", "@in a@out", format,
       "a whole domain can be shown as a whole domain only"},
      {s_mask, "virtual", "*@in *@out", format, "a '*' would make it a pair of whole domains"},
      {s_alias, "aliases", "\tt: a", format, "it continues a line, and there is none before it"},
      {s_alias, "aliases", "t a", format, "there is no colon after a name"},
      {s_alias, "aliases", ": a", key, "bad name: it is empty"},
      {s_alias, "aliases", "t: a@", value, "bad members: "},
      {s_alias, "aliases", "t: |cat", value,
       "the target '|cat' is not an address: it delivers to a command"},
      {s_alias, "aliases", "t: \"/dev/null\"", value,
       "the target '\"/dev/null\"' is not an address: it delivers to a file"},
      {s_alias, "aliases", "t: :include:/x", value,
       "the target ':include:/x' is not an address: it includes a file"},
      {s_alias, "aliases", "t: ,", empty, "the members are empty"},
  };
  for (const Refused& one : cases) {
    TableEntry entry;
    const auto fault = s_syntax(one.format, one.table)->read(one.record, entry);
    ASSERT_TRUE(fault) << one.format << " " << one.record;
    EXPECT_EQ(fault->kind, one.fault) << one.format << " " << one.record;
    EXPECT_THAT(fault->why, StartsWith(one.why)) << one.format << " " << one.record;
  }
}

struct Unwritable {
  const TableFormat& table;
  const char* format;
  const char* key;
  const char* value;
  const char* why;
};

TEST(FileSyntax, WhatAFormatCannotExpressItNames) {
  const Unwritable cases[] = {
      {s_alias, "virtual", R"("a b"@d.example)", "a@x", "a key ends at a blank there"},
      {s_alias, "virtual", "#a@d.example", "a@x", "a line that begins with '#' is a comment there"},
      {s_alias, "virtual", "t@d.example", "a@x,allusers_d",
       "the member 'allusers_d' has no domain"},
      {s_mask, "virtual", "x*@in", "*@out",
       "only '*@domain' with '*@domain' means whole domains there"},
      {s_alias, "aliases", "t@e.example", "a@x",
       "names have no domain there, and its own is not 'd.example'"},
      {s_alias, "aliases", R"(""@d.example)", "a@x", "a name cannot be empty there"},
      {s_alias, "aliases", "t@d.example", "allusers_d", "the member 'allusers_d' has no domain"},
      {s_alias, "aliases", "t@d.example", "|cat@x",
       "the member '|cat@x' means something else there: it delivers to a command"},
  };
  for (const Unwritable& one : cases) {
    std::string line;
    const TableEntry entry = s_entry(one.table, one.key, one.value);
    const auto fault = s_syntax(one.format, one.table)->write(entry, line);
    ASSERT_TRUE(fault) << one.format << " " << one.key;
    EXPECT_EQ(fault->kind, RowFault::BadFormat);
    EXPECT_EQ(fault->why, one.why);
  }
}

TEST(FileSyntax, NamesWithoutADomainAskForOne) {
  TableEntry entry;
  const auto fault = FileSyntax::named("aliases", s_alias, "")->read("t: a@x", entry);
  ASSERT_TRUE(fault);
  EXPECT_EQ(fault->why, "bad name: 't' has no domain; --default-domain gives one to such names");
}

TEST(FileSyntax, NamesOfAVirtualMapGetTheDomainThatIsGiven) {
  const auto syntax = FileSyntax::named("virtual", s_alias, "d.example");
  for (const auto& [record, want] : std::vector<std::pair<const char*, const char*>>{
           {"t ann, bob@x", "t@d.example:ann@d.example,bob@x"},
           {"t@e.example ann", "t@e.example:ann@d.example"},
           {R"("t,u" "a b")", R"("t,u"@d.example:"a b"@d.example)"}}) {
    TableEntry got;
    EXPECT_FALSE(syntax->read(record, got)) << record;
    EXPECT_EQ(got.line(), want);
  }
  TableEntry got;
  EXPECT_EQ(syntax->read("@d.example ann", got)->why, "an alias cannot mean a whole domain");
  EXPECT_EQ(syntax->read("t@ ann", got)->kind, RowFault::BadKey);
  EXPECT_EQ(syntax->read("t ann@", got)->kind, RowFault::BadValue);
}

TEST(FileSyntax, TheLinesOfAJsonListAreObjects) {
  const auto syntax = s_syntax("jsonl", s_mask);
  const std::string object = R"({"private":"a@in","public":"a@out"})";
  for (const std::string& record :
       {"[" + object + ",", object + ",", object + "]", "[ " + object + " ]", ", " + object}) {
    TableEntry got;
    EXPECT_FALSE(syntax->isFiller(record));
    EXPECT_FALSE(syntax->read(record, got)) << record;
    EXPECT_EQ(got.line(), "a@in:a@out");
  }
  for (const char* const record : {"[", "]", "[]", " , "}) EXPECT_TRUE(syntax->isFiller(record));
  TableEntry got;
  EXPECT_EQ(syntax->read("[" + object + "," + object + "]", got)->why, "it is not a JSON object");
}

TEST(FileSyntax, OnlyCsvHasAHeader) {
  for (const char* const name : {"native", "jsonl", "virtual", "aliases"}) {
    EXPECT_EQ(s_syntax(name, s_alias)->header(), "") << name;
  }
  EXPECT_EQ(s_syntax("csv", s_alias)->header(), "address,members\r");
  EXPECT_EQ(s_syntax("csv", s_mask)->header(), "private,public\r");
}

TEST(FileSyntax, ColumnsOfCsvAreFoundByTheirNames) {
  struct Case {
    const char* columns;
    const char* header;
    const char* record;
  };
  const Case cases[] = {
      {"", "address,members", R"(t@d,"a@x,b@x")"},
      {"", R"(No;"Members"; Address )", "1;a@x,b@x;t@d"},
      {"", "ADDRESS\tMEMBERS\tnote", "t@d\ta@x,b@x\t"},
      {"E-Mail, Ziel", "Name;Ziel;E-Mail", R"("T; U";"b@x,a@x";"t@d")"},
      {"a,b;c", R"("b;c",a)", R"("b@x,a@x",t@d)"},
  };
  for (const Case& one : cases) {
    const auto syntax = s_syntax("csv", s_alias);
    if (*one.columns != '\0') syntax->setColumns(one.columns);
    EXPECT_EQ(syntax->readHeader(one.header), std::nullopt) << one.header;
    TableEntry got;
    EXPECT_FALSE(syntax->read(one.record, got)) << one.record;
    EXPECT_EQ(got.line(), "t@d:a@x,b@x");
  }
  const auto csv = s_syntax("csv", s_mask);
  EXPECT_EQ(csv->readHeader("private"), "the header does not have the column 'public' once");
  EXPECT_EQ(csv->readHeader("private,public,Public"),
            "the header does not have the column 'public' once");
  EXPECT_EQ(csv->readHeader("\"private,public"), "a field has no closing quote in its line");
  for (const char* const names : {"", "a", "a,", " ,b"})
    EXPECT_THROW(csv->setColumns(names), Failure);
  EXPECT_THROW(s_syntax("native", s_alias)->setColumns("a,b"), Failure);
}

ExitCode s_codeOfNamed(const char* name, const TableFormat& table, const char* domain) {
  try {
    EXPECT_STREQ(FileSyntax::named(name, table, domain)->name(), name);
    return ExitCode::Done;
  } catch (const Failure& failure) {
    return failure.code();
  }
}

TEST(FileSyntax, OnlyFormatsOfTheTableHaveNames) {
  EXPECT_EQ(formatNames(s_alias), "native|jsonl|csv|virtual|aliases");
  EXPECT_EQ(formatNames(s_mask), "native|jsonl|csv|virtual");
  for (const char* const name : {"native", "jsonl", "csv", "virtual"}) {
    EXPECT_EQ(s_codeOfNamed(name, s_alias, ""), ExitCode::Done) << name;
    EXPECT_EQ(s_codeOfNamed(name, s_mask, ""), ExitCode::Done) << name;
    EXPECT_EQ(s_codeOfNamed(name, s_mask, "d.example"), ExitCode::Usage) << name;
  }
  for (const char* const name : {"native", "jsonl", "csv"}) {
    EXPECT_EQ(s_codeOfNamed(name, s_alias, "d.example"), ExitCode::Usage) << name;
  }
  EXPECT_EQ(s_codeOfNamed("virtual", s_alias, "d.example"), ExitCode::Done);
  EXPECT_EQ(s_codeOfNamed("aliases", s_alias, "d.example"), ExitCode::Done);
  EXPECT_EQ(s_codeOfNamed("aliases", s_mask, ""), ExitCode::Usage);
  EXPECT_EQ(s_codeOfNamed("", s_alias, ""), ExitCode::Usage);
}

// The name of the format that `text` is detected as, or why it is not.
std::string s_detected(const std::string& text, const TableFormat& table) {
  const ScratchFile file;
  file.write(text);
  const std::string name = "FILE";
  Lines lines(file.path(), name);
  try {
    std::string format = FileSyntax::detected(lines, name, table, "")->name();
    std::string_view first;
    EXPECT_EQ(lines.next(first), !text.empty());
    EXPECT_EQ(first, text.substr(0, text.find('\n')));
    return format;
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::BadData);
    return failure.why();
  }
}

TEST(FileSyntax, AFileIsDetectedByItsFirstLines) {
  EXPECT_EQ(s_detected("", s_alias), "native");
  EXPECT_EQ(s_detected("t@d:a@x\n", s_alias), "native");
  EXPECT_EQ(s_detected("\n{\"address\":\"t@d\",\"members\":[]}\n", s_alias), "jsonl");
  EXPECT_EQ(s_detected("[{\"address\":\"t@d\",\"members\":[]},\n", s_alias), "jsonl");
  EXPECT_EQ(s_detected("[]\n", s_alias), "jsonl");
  EXPECT_EQ(s_detected("address,members\nt@d,a@x\n", s_alias), "csv");
  EXPECT_EQ(s_detected("private,public\n", s_alias), "native");
  EXPECT_EQ(s_detected("# comment\nt@d a@x\n", s_alias), "virtual");
  EXPECT_EQ(s_detected("@in @out\n", s_mask), "virtual");
  EXPECT_EQ(s_detected("# comment\nt: a@x\n", s_alias), "aliases");
  EXPECT_EQ(s_detected("t: a@x\n", s_mask), "native");
  EXPECT_THAT(s_detected("t@d:a@x\nt@d a@x\n", s_alias), HasSubstr("cannot be recognised"));
  EXPECT_THAT(s_detected("# comment\nt@d:a@x\n", s_alias), HasSubstr("cannot be recognised"));
}

}  // namespace
}  // namespace Tessel::Tool
