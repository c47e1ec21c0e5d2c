// Statement: a small scanner of SQL tokens, and the judgements that rest on it.
#include "database/Statement.h"

#include <vector>

#include "base/bytes.h"
#include "base/stringCompareNoCase.h"

namespace Tessel::Database {

namespace {

// Longest string literal, in bytes without its quotes, that a message shows whole.
constexpr std::size_t s_maxLiteral = 40;
// How much of a longer one it shows.
constexpr std::size_t s_literalStart = 20;
// Longest statement, in bytes, that a message shows whole.
constexpr std::size_t s_maxStatement = 500;

enum class Kind { Word, Name, Literal, Symbol, Comment };

struct Token {
  Kind kind;
  std::string_view text;
};

bool s_isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool s_isWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || (static_cast<unsigned char>(c) & 0x80U) != 0;
}

// End of the quoted token that starts at `start`: behind its closing quote, or the end of the text.
std::size_t s_quotedEnd(std::string_view text, std::size_t start) {
  const char quote = text[start];
  std::size_t at = start + 1;
  while (at < text.size()) {
    const bool escape = text[at] == '\\' && quote != '`';
    const bool twice = text[at] == quote && at + 1 < text.size() && text[at + 1] == quote;
    if (text[at] == quote && !twice) return at + 1;
    at += escape || twice ? 2 : 1;
  }
  return text.size();
}

// The token at `at`, which must not be a blank or the end.
Token s_tokenAt(std::string_view text, std::size_t at) {
  const char c = text[at];
  const std::string_view rest = text.substr(at);
  if (c == '\'' || c == '"') {
    return {Kind::Literal, text.substr(at, s_quotedEnd(text, at) - at)};
  }
  if (c == '`') return {Kind::Name, text.substr(at, s_quotedEnd(text, at) - at)};
  // A hint changes how a statement is carried out, and not what it does.
  if (const std::size_t end = rest.find("*/"); rest.starts_with("/*+") && end != rest.npos) {
    return {Kind::Symbol, rest.substr(0, end + 2)};
  }
  // What a comment hides, or makes the server execute, is not judged: it takes in the rest.
  if (c == '#' || rest.starts_with("--") || rest.starts_with("/*")) return {Kind::Comment, rest};
  std::size_t end = at;
  while (end < text.size() && s_isWordCharacter(text[end])) ++end;
  if (end > at) return {Kind::Word, text.substr(at, end - at)};
  return {Kind::Symbol, text.substr(at, 1)};
}

std::vector<Token> s_tokens(std::string_view text) {
  std::vector<Token> tokens;
  std::size_t at = 0;
  while (at < text.size()) {
    if (s_isBlank(text[at])) {
      ++at;
      continue;
    }
    tokens.push_back(s_tokenAt(text, at));
    at += tokens.back().text.size();
  }
  return tokens;
}

bool s_isWord(const Token& token, std::string_view word) {
  return token.kind == Kind::Word && stringCompareNoCase(token.text, word, 0);
}

bool s_isSymbol(const Token& token, char symbol) {
  return token.kind == Kind::Symbol && token.text[0] == symbol;
}

// Walks over tokens; a step that does not fit makes the walk fail for good.
class Walk {
 public:
  Walk(const std::vector<Token>& tokens, std::size_t start) : m_tokens(tokens), m_at(start) {}

  [[nodiscard]] bool atEnd() const { return m_at >= m_tokens.size(); }
  bool word(std::string_view text) { return step(!atEnd() && s_isWord(m_tokens[m_at], text)); }
  bool symbol(char text) { return step(!atEnd() && s_isSymbol(m_tokens[m_at], text)); }
  bool name() {
    return step(!atEnd() &&
                (m_tokens[m_at].kind == Kind::Word || m_tokens[m_at].kind == Kind::Name));
  }
  bool literal() { return step(!atEnd() && m_tokens[m_at].kind == Kind::Literal); }

 private:
  bool step(bool fits) {
    if (fits) ++m_at;
    return fits;
  }

  const std::vector<Token>& m_tokens;
  std::size_t m_at;
};

// One "name = value" whose value does not depend on what the row holds: a repetition would
// otherwise count twice, as in "hits = hits + 1".
bool s_isFixedAssignment(Walk& walk) {
  if (!walk.name()) return false;
  while (walk.symbol('.')) {
    if (!walk.name()) return false;
  }
  if (!walk.symbol('=')) return false;
  if (walk.literal()) return true;
  if (!walk.word("values") && !walk.word("value")) return false;
  return walk.symbol('(') && walk.name() && walk.symbol(')');
}

// True when the tokens from `start` on are such assignments and nothing else.
bool s_areFixedAssignments(const std::vector<Token>& tokens, std::size_t start) {
  Walk walk(tokens, start);
  do {
    if (!s_isFixedAssignment(walk)) return false;
  } while (walk.symbol(','));
  walk.symbol(';');
  return walk.atEnd();
}

bool s_isRepeatableInsert(const std::vector<Token>& tokens) {
  for (std::size_t i = 1; i + 4 < tokens.size(); ++i) {
    if (s_isWord(tokens[i], "on") && s_isWord(tokens[i + 1], "duplicate") &&
        s_isWord(tokens[i + 2], "key") && s_isWord(tokens[i + 3], "update")) {
      return s_areFixedAssignments(tokens, i + 4);
    }
  }
  return false;
}

bool s_hasWord(const std::vector<Token>& tokens, std::string_view word) {
  for (const Token& token : tokens) {
    if (s_isWord(token, word)) return true;
  }
  return false;
}

// "drop table if exists", "drop database if exists" and their like.
bool s_isRepeatableDrop(const std::vector<Token>& tokens) {
  return tokens.size() > 4 && s_isWord(tokens[2], "if") && s_isWord(tokens[3], "exists");
}

bool s_isRepeatableCreate(const std::vector<Token>& tokens) {
  Walk walk(tokens, 1);
  return walk.word("table") && walk.word("if") && walk.word("not") && walk.word("exists");
}

}  // namespace

bool isRepeatable(std::string_view text) {
  const std::vector<Token> tokens = s_tokens(text);
  if (tokens.size() < 2 || tokens.back().kind == Kind::Comment) return false;
  const Token& first = tokens.front();
  for (const char* harmless : {"select", "show", "describe", "explain", "replace"}) {
    if (s_isWord(first, harmless)) return true;
  }
  // The other connection is closed, and its transaction undone.
  if (s_isWord(first, "start")) return s_isWord(tokens[1], "transaction");
  // MariaDB's "set statement ... for" carries any statement inside it.
  if (s_isWord(first, "set")) return !s_isWord(tokens[1], "statement");
  // With a limit each repetition deletes other rows; with "returning" the second answer is empty.
  if (s_isWord(first, "delete")) {
    return !s_hasWord(tokens, "limit") && !s_hasWord(tokens, "returning");
  }
  if (s_isWord(first, "insert")) return s_isRepeatableInsert(tokens);
  if (s_isWord(first, "create")) return s_isRepeatableCreate(tokens);
  if (s_isWord(first, "drop")) return s_isRepeatableDrop(tokens);
  return false;
}

bool onlyReads(std::string_view text) {
  const std::vector<Token> tokens = s_tokens(text);
  if (tokens.size() < 2) return false;
  const Token& first = tokens.front();
  return s_isWord(first, "select") || s_isWord(first, "show") ||
         (s_isWord(first, "start") && s_isWord(tokens[1], "transaction"));
}

bool staysInTransaction(std::string_view text) {
  const std::vector<Token> tokens = s_tokens(text);
  if (tokens.empty()) return false;
  for (const char* inside : {"select", "insert", "update", "delete", "replace", "show"}) {
    if (s_isWord(tokens.front(), inside)) return true;
  }
  return false;
}

std::string cutText(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return std::string(text);
  return std::string(cutUtf8(text, limit)) + "...";
}

std::string shortenedStatement(std::string_view text) {
  std::string shown;
  std::size_t at = 0;
  while (at < text.size() && shown.size() <= s_maxStatement) {
    const char c = text[at];
    if (c != '\'' && c != '"') {
      shown += c;
      ++at;
      continue;
    }
    const std::size_t end = s_quotedEnd(text, at);
    const std::string_view literal = text.substr(at, end - at);
    if (literal.size() <= s_maxLiteral + 2) {
      shown += literal;
    } else {
      shown += cutText(literal, 1 + s_literalStart) + c;
      shown += " (" + std::to_string(literal.size() - 2) + " bytes)";
    }
    at = end;
  }
  return cutText(shown, s_maxStatement);
}

std::string quotedName(std::string_view name) {
  std::string quoted = "`";
  for (const char c : name) {
    if (c == '`') quoted += '`';
    quoted += c;
  }
  return quoted += '`';
}

}  // namespace Tessel::Database
