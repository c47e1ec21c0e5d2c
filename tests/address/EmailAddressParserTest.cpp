// The parsers: what they accept and how they read it, and what they refuse and why. Characters,
// UTF-8, domains and literals are in EmailAddressGrammarTest.cpp.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "address/EmailAddress.h"
#include "tests/address/EmailAddressTestSupport.h"

namespace Tessel {
namespace {

class AcceptedAddress : public ::testing::TestWithParam<AcceptedCase> {};

TEST_P(AcceptedAddress, IsReadAsGivenAndWrittenSoThatItReadsBack) {
  expectAccepted(GetParam());
}

constexpr Parser s_smtp = Parser::rfc5321;
constexpr Parser s_header = Parser::rfc5322;
constexpr Parser s_list = Parser::rfc5322Set;
constexpr Parser s_groups = Parser::rfc5322SetWithGroups;

const AcceptedCase s_smtpAccepted[] = {
    {"Plain", s_smtp, false, "Smith@bar.com", "Smith", "bar.com", "Smith@bar.com"},
    {"CaseIsKept", s_smtp, false, "JoHN@ExAMPLE.Com", "JoHN", "ExAMPLE.Com", "JoHN@ExAMPLE.Com"},
    {"OneLetterEach", s_smtp, false, "a@b", "a", "b", "a@b"},
    {"Dots", s_smtp, false, "john.q.public@example.com", "john.q.public", "example.com",
     "john.q.public@example.com"},
    {"PlusTag", s_smtp, false, "user+mailbox@example.com", "user+mailbox", "example.com",
     "user+mailbox@example.com"},
    {"SlashAndEqualsSign", s_smtp, false, "customer/department=shipping@example.com",
     "customer/department=shipping", "example.com", "customer/department=shipping@example.com"},
    {"DollarFirst", s_smtp, false, "$A12345@example.com", "$A12345", "example.com",
     "$A12345@example.com"},
    {"BangAndPercent", s_smtp, false, "!def!xyz%abc@example.com", "!def!xyz%abc", "example.com",
     "!def!xyz%abc@example.com"},
    {"UnderscoreFirst", s_smtp, false, "_somename@example.com", "_somename", "example.com",
     "_somename@example.com"},
    {"AllAtomCharacters", s_smtp, false, "!#$%&'*+-/=?^_`{|}~@example.com", "!#$%&'*+-/=?^_`{|}~",
     "example.com", "!#$%&'*+-/=?^_`{|}~@example.com"},
    {"Mask", s_smtp, false, "*@example.com", "*", "example.com", "*@example.com"},
    {"MaskInside", s_smtp, false, "a*b@example.com", "a*b", "example.com", "a*b@example.com"},
    {"Digits", s_smtp, false, "1234567890@example.com", "1234567890", "example.com",
     "1234567890@example.com"},
    {"HyphensOnly", s_smtp, false, "------@example.com", "------", "example.com",
     "------@example.com"},
    {"Apostrophe", s_smtp, false, "o'brien@example.com", "o'brien", "example.com",
     "o'brien@example.com"},
    {"BlanksAround", s_smtp, false, " \t a@b \t\r", "a", "b", "a@b"},
    {"CarriageReturnBehind", s_smtp, false, "a@b\r", "a", "b", "a@b"},
    {"QuotedAt", s_smtp, false, R"("Abc@def"@example.com)", "Abc@def", "example.com",
     R"("Abc@def"@example.com)"},
    {"QuotedBlank", s_smtp, false, R"("Fred Bloggs"@example.com)", "Fred Bloggs", "example.com",
     R"("Fred Bloggs"@example.com)"},
    {"QuotedBackslash", s_smtp, false, R"("Joe\\Blow"@example.com)", "Joe\\Blow", "example.com",
     R"("Joe\\Blow"@example.com)"},
    {"QuotedPairOfComma", s_smtp, false, R"("Joe\,Smith"@example.com)", "Joe,Smith", "example.com",
     R"("Joe,Smith"@example.com)"},
    {"QuotedPairOfAt", s_smtp, false, R"("Abc\@def"@example.com)", "Abc@def", "example.com",
     R"("Abc@def"@example.com)"},
    {"QuotedPairOfQuote", s_smtp, false, R"("a\"b"@example.com)", "a\"b", "example.com",
     R"("a\"b"@example.com)"},
    {"QuotedPairOfLetter", s_smtp, false, R"("\a\b"@example.com)", "ab", "example.com",
     "ab@example.com"},
    {"QuotesNotNeeded", s_smtp, false, R"("john.doe"@example.com)", "john.doe", "example.com",
     "john.doe@example.com"},
    {"QuotedDotFirst", s_smtp, false, R"(".john"@example.com)", ".john", "example.com",
     R"(".john"@example.com)"},
    {"QuotedDotLast", s_smtp, false, R"("john."@example.com)", "john.", "example.com",
     R"("john."@example.com)"},
    {"QuotedTwoDots", s_smtp, false, R"("a..b"@example.com)", "a..b", "example.com",
     R"("a..b"@example.com)"},
    {"QuotedEmpty", s_smtp, false, R"(""@example.com)", "", "example.com", R"(""@example.com)"},
    {"QuotedOneBlank", s_smtp, false, R"(" "@example.com)", " ", "example.com",
     R"(" "@example.com)"},
    {"QuotedBlankPair", s_smtp, false, R"("\ "@example.com)", " ", "example.com",
     R"(" "@example.com)"},
    {"QuotedSpecials", s_smtp, false, R"("()<>[]:;,.@"@example.com)", "()<>[]:;,.@", "example.com",
     R"("()<>[]:;,.@"@example.com)"},
    {"QuotedUtf8", s_smtp, false, "\"J\xc3\xb6rg B\"@example.com", "J\xc3\xb6rg B", "example.com",
     "\"J\xc3\xb6rg B\"@example.com"},
    {"Utf8Local", s_smtp, false, "J\xc3\xb6rg@example.com", "J\xc3\xb6rg", "example.com",
     "J\xc3\xb6rg@example.com"},
    {"Utf8Everywhere", s_smtp, false,
     "\xe5\xbc\xa0@\xe4\xbe\x8b\xe5\xad\x90.\xe6\xb5\x8b\xe8\xaf\x95", "\xe5\xbc\xa0",
     "\xe4\xbe\x8b\xe5\xad\x90.\xe6\xb5\x8b\xe8\xaf\x95",
     "\xe5\xbc\xa0@\xe4\xbe\x8b\xe5\xad\x90.\xe6\xb5\x8b\xe8\xaf\x95"},
    {"AllUsersMarker", s_smtp, true, "allusers_example.com", "allusers_example.com", "",
     "allusers_example.com"},
    {"DomainIsReadWhereItNeedNotBe", s_smtp, true, "a@b", "a", "b", "a@b"},
    {"NoDomainQuoted", s_smtp, true, R"("all users")", "all users", "", R"("all users")"},
    {"NoDomainQuotedAt", s_smtp, true, R"("a@b")", "a@b", "", R"("a@b")"},
    {"Local64", s_smtp, false, repeatedText("a", 64) + "@b", repeatedText("a", 64), "b",
     repeatedText("a", 64) + "@b"},
    {"QuotedLocal64", s_smtp, false, "\"" + repeatedText(" ", 62) + "\"@b", repeatedText(" ", 62),
     "b", "\"" + repeatedText(" ", 62) + "\"@b"},
    {"QuotedPairsLocal64", s_smtp, false, "\"" + repeatedText("\\\"", 31) + "\"@b",
     repeatedText("\"", 31), "b", "\"" + repeatedText("\\\"", 31) + "\"@b"},
    {"Whole254", s_smtp, false, "ab@" + repeatedText("abcdefghi.", 25) + "x", "ab",
     repeatedText("abcdefghi.", 25) + "x", "ab@" + repeatedText("abcdefghi.", 25) + "x"},
    {"NoDomain254", s_smtp, true, repeatedText("x", 254), repeatedText("x", 254), "",
     repeatedText("x", 254)},
    {"NoDomainQuoted254", s_smtp, true, "\"" + repeatedText(" ", 252) + "\"",
     repeatedText(" ", 252), "", "\"" + repeatedText(" ", 252) + "\""},
    {"TextEndsAtNul", s_smtp, false, std::string("a@b\0c d", 7), "a", "b", "a@b"},
    {"NulBehindBlank", s_smtp, false, std::string("a@b \0", 5), "a", "b", "a@b"},
};
INSTANTIATE_TEST_SUITE_P(Smtp, AcceptedAddress, ::testing::ValuesIn(s_smtpAccepted),
                         caseName<AcceptedCase>);

const AcceptedCase s_headerAccepted[] = {
    {"DisplayName", s_header, false, "John Doe <jdoe@machine.example>", "jdoe", "machine.example",
     "jdoe@machine.example"},
    {"QuotedDisplayName", s_header, false, R"("Joe Q. Public" <john.q.public@example.com>)",
     "john.q.public", "example.com", "john.q.public@example.com"},
    {"DisplayNameWithDot", s_header, false, "Joe Q. Public <john.q.public@example.com>",
     "john.q.public", "example.com", "john.q.public@example.com"},
    {"DisplayNameWithDotsTogether", s_header, false, "Wait... what <a@b>", "a", "b", "a@b"},
    {"DisplayNameWithQuestionMark", s_header, false, "Who? <one@y.test>", "one", "y.test",
     "one@y.test"},
    {"NoDisplayName", s_header, false, "<boss@nil.test>", "boss", "nil.test", "boss@nil.test"},
    {"EmptyDisplayName", s_header, false, "\"\" <boss@nil.test>", "boss", "nil.test",
     "boss@nil.test"},
    {"DisplayNameWithQuotesAndSemicolon", s_header, false,
     R"("Giant; \"Big\" Box" <sysservices@example.net>)", "sysservices", "example.net",
     "sysservices@example.net"},
    {"DisplayNameWithComma", s_header, false, R"("Doe, John" <jdoe@example.net>)", "jdoe",
     "example.net", "jdoe@example.net"},
    {"DisplayNameWithAddress", s_header, false, R"("x@y.z" <a@b>)", "a", "b", "a@b"},
    {"DisplayNameWithTab", s_header, false, "\"a\tb\" <a@b>", "a", "b", "a@b"},
    {"DisplayNameTouchesBracket", s_header, false, "John<a@b>", "a", "b", "a@b"},
    {"DisplayNameUtf8", s_header, false, "J\xc3\xb6rg <j@b>", "j", "b", "j@b"},
    {"EncodedWord", s_header, false, "=?ISO-8859-1?Q?Keld_J=F8rn_Simonsen?= <keld@dkuug.dk>",
     "keld", "dkuug.dk", "keld@dkuug.dk"},
    {"LongDisplayName", s_header, false, repeatedText("name ", 2000) + "<a@b>", "a", "b", "a@b"},
    {"LongQuotedDisplayName", s_header, false, "\"" + repeatedText("n", 10000) + "\" <a@b>", "a",
     "b", "a@b"},
    {"CommentsEverywhere", s_header, false,
     R"(Pete(A nice \) chap) <pete(his account)@silly.test(his host)>)", "pete", "silly.test",
     "pete@silly.test"},
    {"CommentBehindAt", s_header, false, "Chris Jones <c@(Chris's host.)public.example>", "c",
     "public.example", "c@public.example"},
    {"CommentBehindBracket", s_header, false, "John <jdoe@one.test> (my dear friend)", "jdoe",
     "one.test", "jdoe@one.test"},
    {"CommentFirst", s_header, false, "(who) a@b", "a", "b", "a@b"},
    {"CommentsNested", s_header, false, "a@b (1(2(3)2)1)", "a", "b", "a@b"},
    {"CommentsNestedDeeply", s_header, false,
     repeatedText("(", 10000) + repeatedText(")", 10000) + "a@b", "a", "b", "a@b"},
    {"CommentLong", s_header, false, "a@b(" + repeatedText("x", 10000) + ")", "a", "b", "a@b"},
    {"CommentWithQuoteAndAt", s_header, false, "a(\"@<)@b", "a", "b", "a@b"},
    {"CommentWithFolding", s_header, false, "a@b (one\r\n two\n\tthree)", "a", "b", "a@b"},
    {"CommentUtf8", s_header, false, "a@b (\xe2\x82\xac)", "a", "b", "a@b"},
    {"CommentInDomain", s_header, false, "John Doe <jdoe@machine(comment).  example>", "jdoe",
     "machine.example", "jdoe@machine.example"},
    {"BlanksAroundDomainDot", s_header, false, "jdoe@test  . example", "jdoe", "test.example",
     "jdoe@test.example"},
    {"BlanksAroundAt", s_header, false, "jdoe @ test", "jdoe", "test", "jdoe@test"},
    {"BlanksAroundLocalDots", s_header, false, "a . b .c@d", "a.b.c", "d", "a.b.c@d"},
    {"WordsOfLocalPartQuoted", s_header, false, R"("a b".c."d"@e)", "a b.c.d", "e",
     R"("a b.c.d"@e)"},
    {"WordsOfLocalPartQuotedForNothing", s_header, false, R"("a"."b"@c)", "a.b", "c", "a.b@c"},
    {"EmptyWordBeforeDot", s_header, false, R"("".a@c)", ".a", "c", R"(".a"@c)"},
    {"QuotedLocalPart", s_header, false, R"(Name <"a b"@c>)", "a b", "c", R"("a b"@c)"},
    {"QuotedUtf8Pair", s_header, false, "\"\\\xc3\xb6 x\"@c", "\xc3\xb6 x", "c",
     "\"\xc3\xb6 x\"@c"},
    {"FoldedInDisplayName", s_header, false, "Mary Smith\r\n          <mary@example.net>", "mary",
     "example.net", "mary@example.net"},
    {"FoldedWithBareLineFeed", s_header, false, "Mary\n <mary@example.net>", "mary", "example.net",
     "mary@example.net"},
    {"FoldedInQuotedLocalPart", s_header, false, "\"a\r\n b\"@c", "a b", "c", R"("a b"@c)"},
    {"FoldedBeforeAll", s_header, false, "\r\n a@b", "a", "b", "a@b"},
    {"FoldedBehindAll", s_header, false, "a@b\r\n \t\n ", "a", "b", "a@b"},
    {"FoldedInLiteral", s_header, false, "a@[ 127.0.\r\n 0.1 ]", "a", "[127.0.0.1]",
     "a@[127.0.0.1]"},
    {"LiteralBehindBlank", s_header, false, "a@ (c) [127.0.0.1] (d)", "a", "[127.0.0.1]",
     "a@[127.0.0.1]"},
    {"BlanksInBrackets", s_header, false, "< a@b >", "a", "b", "a@b"},
    {"CommentsDoNotCount", s_header, false,
     repeatedText("a", 32) + "(" + repeatedText("x", 300) + ")." + repeatedText("b", 31) + "@c",
     repeatedText("a", 32) + "." + repeatedText("b", 31), "c",
     repeatedText("a", 32) + "." + repeatedText("b", 31) + "@c"},
    {"MarkerInBrackets", s_header, true, "All <allusers_example.com>", "allusers_example.com", "",
     "allusers_example.com"},
    {"MarkerWithComment", s_header, true, "allusers_example.com (all)", "allusers_example.com", "",
     "allusers_example.com"},
    {"MarkerQuoted", s_header, true, R"("a"."b c")", "a.b c", "", R"("a.b c")"},
    {"TextEndsAtNul", s_header, false, std::string("A <a@b>\0>", 9), "a", "b", "a@b"},
};
INSTANTIATE_TEST_SUITE_P(Header, AcceptedAddress, ::testing::ValuesIn(s_headerAccepted),
                         caseName<AcceptedCase>);

class RefusedAddress : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedAddress, ThrowsTheReason) {
  expectRefused(GetParam());
}

const RefusedCase s_smtpRefused[] = {
    {"NoAt", s_smtp, false, "allusers_example.com", "The \"@\" is missing"},
    {"NoAtQuoted", s_smtp, false, R"("a@b")", "The \"@\" is missing"},
    {"AtAlone", s_smtp, false, "@", "The local part is empty"},
    {"NoLocalPart", s_smtp, false, "@example.com", "The local part is empty"},
    {"NoLocalPartNoDomainAllowed", s_smtp, true, "@example.com", "The local part is empty"},
    {"NoDomain", s_smtp, false, "a@", "The domain is empty"},
    {"NoDomainAfterAt", s_smtp, true, "a@", "The domain is empty"},
    {"EmptyQuotedWithoutDomain", s_smtp, true, R"("")", "The local part is empty"},
    {"TwoAts", s_smtp, false, "a@b@c", "A second \"@\" outside quotes"},
    {"TwoAtsTogether", s_smtp, false, "a@@b", "A second \"@\" outside quotes"},
    {"DotFirst", s_smtp, false, ".a@b", "The local part begins with a dot"},
    {"DotLast", s_smtp, false, "a.@b", "The local part ends with a dot"},
    {"TwoDots", s_smtp, false, "a..b@example.com", "Two dots in a row in the local part"},
    {"DotAlone", s_smtp, true, ".", "The local part begins with a dot"},
    {"MarkerDotLast", s_smtp, true, "allusers_example.", "The local part ends with a dot"},
    {"Blank", s_smtp, false, "a b@c", "A blank in the local part"},
    {"BlankBeforeAt", s_smtp, false, "a @c", "A blank in the local part"},
    {"Tab", s_smtp, false, "a\tb@c", "A blank in the local part"},
    {"BlankBehindAt", s_smtp, false, "a@ c", "Character \" \" is not allowed in the domain"},
    {"BackslashUnquoted", s_smtp, false, R"(Abc\@def@example.com)",
     R"(Character "\" is not allowed in an unquoted local part)"},
    {"BackslashBlankUnquoted", s_smtp, false, R"(Fred\ Bloggs@example.com)",
     R"(Character "\" is not allowed in an unquoted local part)"},
    {"QuoteInside", s_smtp, false, R"(a"b"@c)", R"(Character """ is not allowed)"},
    {"Comma", s_smtp, false, "a,b@c", "Character \",\" is not allowed"},
    {"Colon", s_smtp, false, "a:b@c", "Character \":\" is not allowed"},
    {"Semicolon", s_smtp, false, "a;b@c", "Character \";\" is not allowed"},
    {"Brackets", s_smtp, false, "<a@b>", "Character \"<\" is not allowed"},
    {"BracketBehind", s_smtp, false, "a@b>", "Character \">\" is not allowed in the domain"},
    {"DisplayName", s_smtp, false, "John <a@b>", "A blank in the local part"},
    {"Comment", s_smtp, false, "a(c)@b", "Character \"(\" is not allowed"},
    {"CommentInDomain", s_smtp, false, "a@b(c)", "Character \"(\" is not allowed in the domain"},
    {"SquareBracketLocal", s_smtp, false, "[a]@b", "Character \"[\" is not allowed"},
    {"List", s_smtp, false, "a@b,c@d", "Character \",\" is not allowed in the domain"},
    {"Control", s_smtp, false, "a\x01z@b", "A control character in the local part"},
    {"Delete", s_smtp, false, "a\x7f@b", "A control character in the local part"},
    {"ControlInQuotes", s_smtp, false, "\"a\x1f\"@b", "A control character in the local part"},
    {"TabInQuotes", s_smtp, false, "\"a\tb\"@c", "A blank in the local part"},
    {"LineFeedAlone", s_smtp, false, "\n", "A control character in the local part"},
    {"LineFeedBehind", s_smtp, false, "a@b\n", "A control character in the domain"},
    {"LineFeedInQuotes", s_smtp, false, "\"a\n b\"@c", "A control character in the local part"},
    {"CarriageReturnInside", s_smtp, false, "a\rb@c", "A control character in the local part"},
    {"QuoteNotClosed", s_smtp, false, R"("a@b)", "The quoted local part is not closed"},
    {"QuoteAlone", s_smtp, true, "\"", "The quoted local part is not closed"},
    {"BackslashLast", s_smtp, false, R"("a\)", "The quoted local part is not closed"},
    {"TextBehindQuote", s_smtp, false, R"("a"b@c)", "Text after the quoted local part"},
    {"DotBehindQuote", s_smtp, false, R"("a".b@c)", "Text after the quoted local part"},
    {"PairOutsideAscii", s_smtp, false, "\"\\\xc3\xb6\"@c", "A backslash before a character"},
    {"PairOfControl", s_smtp, false, "\"\\\x01\"@c", "A control character in the local part"},
    {"Local65", s_smtp, false, repeatedText("a", 65) + "@b", "local part is longer than 64 octets"},
    {"QuotedLocal65", s_smtp, false, "\"" + repeatedText(" ", 63) + "\"@b",
     "local part is longer than 64 octets"},
    {"QuotedLocal65ForNothing", s_smtp, false, "\"" + repeatedText("a", 63) + "\"@b",
     "local part is longer than 64 octets"},
    {"Utf8LocalIsCountedInOctets", s_smtp, false, repeatedText("\xc3\xb6", 32) + "a@b",
     "local part is longer than 64 octets"},
    {"Whole255", s_smtp, false, "abc@" + repeatedText("abcdefghi.", 25) + "x",
     "The address is longer than 254 octets"},
    {"Domain256", s_smtp, false, "a@" + repeatedText("abcdefghi.", 25) + "xyzxyz",
     "The domain is longer than 255 octets"},
    {"NoDomain255", s_smtp, true, repeatedText("x", 255), "The address is longer than 254 octets"},
    {"NoDomainQuoted255", s_smtp, true, "\"" + repeatedText(" ", 253) + "\"",
     "The address is longer than 254 octets"},
    {"NoDomainQuoted256Inside", s_smtp, true, "\"" + repeatedText(" ", 256) + "\"",
     "longer than 254 octets"},
    {"LocalTenThousand", s_smtp, false, repeatedText("a", 10000) + "@b",
     "local part is longer than 64 octets"},
    {"QuotedTenThousand", s_smtp, false, "\"" + repeatedText("a", 10000) + "\"@b",
     "longer than 254 octets"},
    {"DotsTenThousand", s_smtp, false, repeatedText(".", 10000), "begins with a dot"},
    {"AtsTenThousand", s_smtp, false, "a" + repeatedText("@", 10000), "A second \"@\""},
    {"QuotesTenThousand", s_smtp, false, repeatedText("\"", 10000),
     "Text after the quoted local part"},
};
INSTANTIATE_TEST_SUITE_P(Smtp, RefusedAddress, ::testing::ValuesIn(s_smtpRefused),
                         caseName<RefusedCase>);

const RefusedCase s_headerRefused[] = {
    {"EmptyBrackets", s_header, false, "<>", "The angle brackets are empty"},
    {"EmptyBracketsWithName", s_header, true, "Nobody < >", "The angle brackets are empty"},
    {"SourceRoute", s_header, false, "<@a,@b:user@d>", "A source route is not accepted"},
    {"SourceRouteWithName", s_header, false, "Mary Smith <@node.test:mary@example.net>",
     "A source route is not accepted"},
    {"SourceRouteCommaFirst", s_header, false, "<,@a:user@d>", "A source route is not accepted"},
    {"BracketNotClosed", s_header, false, "<a@b", "The angle bracket is not closed"},
    {"BracketNotClosedBeforeComma", s_header, false, "<a@b,c@d>",
     "The angle bracket is not closed"},
    {"BracketNotOpened", s_header, false, "a@b>", "Text after the address"},
    {"TwoBrackets", s_header, false, "<<a@b>>", "Character \"<\" is not allowed here"},
    {"TextBehindBracket", s_header, false, "<a@b> c", "Text after the address"},
    {"TwoAddressesInBrackets", s_header, false, "<a@b><c@d>", "Text after the address"},
    {"List", s_header, false, "a@b, c@d", "More than one address"},
    {"CommaBehind", s_header, false, "a@b,", "More than one address"},
    {"CommaAlone", s_header, false, ",", "There is no address"},
    {"CommentAlone", s_header, false, "(nobody)", "There is no address"},
    {"Group", s_header, false, "A Group:a@b;", "A group is not accepted here"},
    {"Semicolon", s_header, false, "a@b;", "A semicolon outside a group"},
    {"SemicolonAlone", s_header, false, ";", "A semicolon outside a group"},
    {"NameAlone", s_header, false, "John Doe", "The \"@\" is missing"},
    {"NameAloneWhereNoDomainIsNeeded", s_header, true, "John Doe",
     "Two words without a dot between them"},
    {"NameInBrackets", s_header, true, "<John Doe>", "Two words without a dot between them"},
    {"NoAtInBrackets", s_header, false, "John <doe>", "The \"@\" is missing"},
    {"TwoWordsBeforeAt", s_header, false, "a b@c", "Two words without a dot between them"},
    {"QuoteTouchesWord", s_header, false, R"("a"b@c)", "Two words without a dot between them"},
    {"DisplayNameDotFirst", s_header, false, ".John <a@b>", "The display name begins with a dot"},
    {"LocalDotFirst", s_header, false, ". a@b", "The local part begins with a dot"},
    {"LocalDotLast", s_header, false, "a (x) . @b", "The local part ends with a dot"},
    {"LocalTwoDots", s_header, false, "a. .b@c", "Two dots in a row in the local part"},
    {"MarkerDotLast", s_header, true, "a.", "The local part ends with a dot"},
    {"LocalEmpty", s_header, false, "(x)@b", "The local part is empty"},
    {"CommentInBracketsAlone", s_header, true, "Name <(x)>", "The angle brackets are empty"},
    {"EmptyQuotedWithoutDomain", s_header, true, R"("")", "The local part is empty"},
    {"DomainEmpty", s_header, false, "a@ (x)", "The domain is empty"},
    {"DomainDotFirst", s_header, false, "a@ .b", "The domain begins with a dot"},
    {"DomainDotLast", s_header, false, "a@b. (x)", "The domain ends with a dot"},
    {"DomainTwoDots", s_header, false, "a@b. .c", "Two dots in a row in the domain"},
    {"DomainTwoWords", s_header, false, "a@b c", "Text after the address"},
    {"DomainQuoted", s_header, false, R"(a@"b")", "The domain is empty"},
    {"DomainAtomCharacter", s_header, false, "a@b$c",
     "Character \"$\" is not allowed in the domain"},
    {"TwoAts", s_header, false, "a@b@c", "A second \"@\" outside quotes"},
    {"TwoAtsInBrackets", s_header, false, "<a@b@c>", "The angle bracket is not closed"},
    {"AddressAsDisplayName", s_header, false, "a@b <a@b>", "Text after the address"},
    {"LiteralNotClosed", s_header, false, "a@[127.0.0.1", "The address literal is not closed"},
    {"LiteralBad", s_header, false, "a@[127.0.0.256]", "neither an IPv4 address nor a tag"},
    {"LiteralBackslash", s_header, false, R"(a@[x:\]])", R"(Character "\" is not allowed in an)"},
    {"LiteralControl", s_header, false, "a@[x:\x01]", "A control character in the address literal"},
    {"LiteralTooLong", s_header, false, "a@[x:" + repeatedText("y", 10000) + "]",
     "The domain is longer than 255 octets"},
    {"TextBehindLiteral", s_header, false, "a@[127.0.0.1]b", "Text after the address"},
    {"CommentNotClosed", s_header, false, "a@b (c(d)", "A comment is not closed"},
    {"CommentNotClosedDeeply", s_header, false, repeatedText("(", 10000),
     "A comment is not closed"},
    {"CommentEndsWithBackslash", s_header, false, "a@b (c\\", "A comment is not closed"},
    {"CommentNotOpened", s_header, false, "a@b )", "Text after the address"},
    {"CommentWithControl", s_header, false, "a@b (\x02)", "A control character in a comment"},
    {"CommentWithInvalidUtf8", s_header, false, "a@b (\xff)", "Invalid UTF-8 in a comment"},
    {"QuoteNotClosed", s_header, false, R"("John <a@b>)", "A quoted string is not closed"},
    {"QuoteEndsWithBackslash", s_header, false, R"("John\)", "A quoted string is not closed"},
    {"QuoteWithControl", s_header, false, "\"J\x03\" <a@b>", "A control character in a quoted"},
    {"QuoteWithInvalidUtf8", s_header, false, "\"J\xe4\" <a@b>", "Invalid UTF-8 in a quoted"},
    {"NameWithInvalidUtf8", s_header, false, "J\xf6rg <a@b>", "Invalid UTF-8 in the address"},
    {"NameWithControl", s_header, false, "J\x1b <a@b>", "A control character in the address"},
    {"TabInQuotedLocalPart", s_header, false, "\"a\tb\"@c", "A tab in the local part"},
    {"LineFeedBehind", s_header, false, "a@b\n", "A line break that is not followed by a blank"},
    {"LineFeedAlone", s_header, false, "\n", "A line break that is not followed by a blank"},
    {"LineFeedInside", s_header, false, "a\n@b", "A line break that is not followed by a blank"},
    {"CarriageReturnInside", s_header, false, "a\r@b", "A line break that is not followed by"},
    {"LineBreakInQuotes", s_header, false, "\"a\r\nb\"@c", "A control character in a quoted"},
    {"Backslash", s_header, false, R"(a\@b)", R"(Character "\" is not allowed here)"},
    {"SquareBracket", s_header, false, "[a]@b", "Character \"[\" is not allowed here"},
    {"InvalidUtf8InDomain", s_header, false, "a@\xff.b", "Invalid UTF-8 in the domain"},
    {"InvalidUtf8BehindDomain", s_header, false, "a@b\xff", "Invalid UTF-8 behind the address"},
    {"Local65", s_header, false, "<" + repeatedText("a", 65) + "@b>", "longer than 64 octets"},
    {"QuotedLocal65", s_header, false, "\"" + repeatedText(" ", 63) + "\"@b",
     "local part is longer than 64 octets"},
    {"QuotedPairsLocal66", s_header, false, "\"" + repeatedText("\\a", 32) + "\"@b",
     "local part is longer than 64 octets"},
    {"LocalWordsTenThousand", s_header, false, repeatedText("a.", 10000) + "a@b",
     "longer than 64 octets"},
    {"DomainTenThousand", s_header, false, "a@" + repeatedText("b.", 5000) + "c",
     "The domain is longer than 255 octets"},
    {"Whole255", s_header, false, "<abc@" + repeatedText("abcdefghi.", 25) + "x>",
     "The address is longer than 254 octets"},
    {"Marker255", s_header, true, "<" + repeatedText("x", 255) + ">",
     "The address is longer than 254 octets"},
};
INSTANTIATE_TEST_SUITE_P(Header, RefusedAddress, ::testing::ValuesIn(s_headerRefused),
                         caseName<RefusedCase>);

const RefusedCase s_listRefused[] = {
    {"Group", s_list, true, "a@b, Team: c@d;", "A group is not accepted here"},
    {"GroupInGroup", s_groups, false, "A: B: c@d;;", "A group inside a group"},
    {"GroupWithoutName", s_groups, false, ": c@d;", "The group has no name"},
    {"GroupNameDotFirst", s_groups, false, ".x: c@d;", "The display name begins with a dot"},
    {"GroupNotClosed", s_groups, false, "A: c@d, e@f", "The group is not closed by a semicolon"},
    {"GroupEmptyNotClosed", s_groups, false, "A:", "The group is not closed by a semicolon"},
    {"TextBehindGroup", s_groups, false, "A: c@d; e@f", "Text after the group"},
    {"TwoSemicolons", s_groups, false, "A: c@d;;", "Text after the group"},
    {"SemicolonInList", s_groups, false, "a@b; c@d", "A semicolon outside a group"},
    {"OneMemberIsBad", s_list, true, "a@b,c..d@e,f@g", "Two dots in a row in the local part"},
    {"OneMemberHasNoAt", s_list, false, "a@b,c", "The \"@\" is missing"},
    {"LastMemberIsBad", s_list, true, "a@b,c@", "The domain is empty"},
    {"BlankBetween", s_list, true, "a@b c@d", "Text after the address"},
    {"CommentNotClosed", s_list, true, "a@b,(c", "A comment is not closed"},
    {"LineFeedBetween", s_list, true, "a@b,\nc@d", "A line break that is not followed"},
};
INSTANTIATE_TEST_SUITE_P(List, RefusedAddress, ::testing::ValuesIn(s_listRefused),
                         caseName<RefusedCase>);

struct ListCase {
  const char* name;
  Parser parser;
  bool allowNoDomain;
  std::string text;
  std::string members;
};

void PrintTo(const ListCase& list, std::ostream* stream) {
  *stream << list.name;
}

class AcceptedList : public ::testing::TestWithParam<ListCase> {};

TEST_P(AcceptedList, GivesItsMembersInOrder) {
  const ListCase& list = GetParam();
  EXPECT_EQ(parsed(list.parser, list.text, list.allowNoDomain), list.members);
}

const ListCase s_lists[] = {
    {"Empty", s_list, false, "", ""},
    {"Blank", s_list, false, " \t\r", ""},
    {"NulFirst", s_list, false, std::string("\0a@b", 4), ""},
    {"One", s_list, false, "a@b", "a@b"},
    {"Members", s_list, false, "a@b,c@d,e@f", "a@b,c@d,e@f"},
    {"NotInOrder", s_list, false, "e@f,a@b,c@d", "a@b,c@d,e@f"},
    {"TheFirstOfEqualOnesStays", s_list, false, "A@b,a@B,a@b", "A@b"},
    {"EmptyItems", s_list, false, ",,a@b, ,c@d,", "a@b,c@d"},
    {"CommentItems", s_list, false, "(none), a@b,(x)(y),", "a@b"},
    {"CommasOnly", s_list, false, ",,,", ""},
    {"BlanksAround", s_list, false, " a@b , c@d \t", "a@b,c@d"},
    {"Folded", s_list, false, "a@b,\r\n c@d,\n\te@f", "a@b,c@d,e@f"},
    {"HeaderSyntax", s_list, false, "Mary Smith <mary@x.test>, jdoe@example.org, Who? <one@y.test>",
     "jdoe@example.org,mary@x.test,one@y.test"},
    {"HeaderSyntaxQuoted", s_list, false,
     R"(<boss@nil.test>, "Giant; \"Big\" Box" <sysservices@example.net>)",
     "boss@nil.test,sysservices@example.net"},
    {"QuotedComma", s_list, false, R"("a,b"@c,"d;e:f"@g)", R"("a,b"@c,"d;e:f"@g)"},
    {"Marker", s_list, true, "allusers_example.com", "allusers_example.com"},
    {"MarkerAmongAddresses", s_list, true, "b@c,allusers_example.com,a",
     "a,allusers_example.com,b@c"},
    {"TrailingNul", s_list, true, std::string("a@b,c@d\0", 8), "a@b,c@d"},
    {"TrailingCarriageReturnAndNul", s_list, true, std::string("a@b,c@d\r\0", 9), "a@b,c@d"},
    {"Group", s_groups, false,
     "A Group:Ed Jones <joe@where.test>,joe@where.test,John <jdoe@one.test>;",
     "jdoe@one.test,joe@where.test"},
    {"GroupEmpty", s_groups, false, "Undisclosed recipients:;", ""},
    {"GroupEmptyItems", s_groups, false, "A:,,;", ""},
    {"GroupWithComments", s_groups, false,
     "A Group(Some people)\r\n     :Chris Jones <c@(Chris's host.)public.example>,\r\n"
     "         joe@example.org,\r\n  John <jdoe@one.test> (my dear friend); (the end of the group)",
     "c@public.example,jdoe@one.test,joe@example.org"},
    {"GroupEmptyWithComments", s_groups, false,
     "(Empty list)(start)Hidden recipients  :(nobody(that I know))  ;", ""},
    {"GroupAmongAddresses", s_groups, false, "a@b, \"T\": c@d, e@f; , g@h", "a@b,c@d,e@f,g@h"},
    {"TwoGroups", s_groups, false, "A: a@b;, B: c@d;", "a@b,c@d"},
    {"GroupOfMarkers", s_groups, true, "A: x, y;", "x,y"},
    {"MembersInSmallAndCapitalLetters", s_list, false, "b@x,A@x,C@x", "A@x,b@x,C@x"},
};
INSTANTIATE_TEST_SUITE_P(Lists, AcceptedList, ::testing::ValuesIn(s_lists), caseName<ListCase>);

TEST(EmailAddressParser, BlankTextIsTheNullAddress) {
  for (const std::string& text :
       {std::string(), std::string(" \t\r "), std::string("\0a@b", 4), std::string(" \0", 2)}) {
    EXPECT_TRUE(EmailAddress::rfc5321Parse(text, false).isNull());
    EXPECT_TRUE(EmailAddress::rfc5321Parse(text, true).isNull());
    EXPECT_TRUE(EmailAddress::rfc5322Parse(text, false).isNull());
    EXPECT_TRUE(EmailAddress::rfc5322Parse(text, true).isNull());
  }
  EXPECT_TRUE(EmailAddress::rfc5321Parse({}, false).isNull());
  EXPECT_TRUE(EmailAddress::rfc5322ParseSet({}, false, false).empty());
}

TEST(EmailAddressParser, ReadsAListOfTenThousandMembers) {
  std::string text;
  for (int i = 0; i < 10000; ++i) text += "user" + std::to_string(i) + "@example.com,";
  EXPECT_EQ(EmailAddress::rfc5322ParseSet(text, false, false).size(), 10000U);
}

TEST(EmailAddressParser, PlainItemsAndItemsWithCommentsReadTheSame) {
  const std::string text = "a.b@c-d.example,E_f@g.h,*@i";
  std::string withComments;
  for (const EmailAddress& address : EmailAddress::rfc5322ParseSet(text, false, false)) {
    withComments += "(x)" + address.address() + "(y) ,";
  }
  EXPECT_EQ(joined(EmailAddress::rfc5322ParseSet(withComments, false, false)),
            joined(EmailAddress::rfc5322ParseSet(text, false, false)));
}

}  // namespace
}  // namespace Tessel
