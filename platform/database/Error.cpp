// Error: composes the detail text once, and keeps the facts in one shared immutable record.
#include "database/Error.h"

#include <cstddef>
#include <utility>

#include "database/Statement.h"

namespace Tessel::Database {

struct Error::Data {
  unsigned int number;
  std::string sqlState;
  std::string statement;
  bool outcomeUnknown;
};

namespace {

// Bytes of a message kept in the detail text: servers quote up to 80 characters of a statement, and
// a message is no place for more of it.
constexpr std::size_t s_maxMessage = 600;

std::string s_detail(const Error::Facts& facts, const std::string& statement) {
  std::string text = cutText(facts.message, s_maxMessage);
  text += " (error " + std::to_string(facts.number) + ", SQL state " + facts.sqlState + ")";
  if (!statement.empty()) text += "; statement: " + statement;
  return text;
}

}  // namespace

Error::Error(const std::string& context, const char* file, int line, const Facts& facts)
    : Exception(context, static_cast<int>(facts.number), file, line) {
  Data data{facts.number, facts.sqlState, shortenedStatement(facts.statement),
            facts.outcomeUnknown};
  stringParameter(s_detail(facts, data.statement));
  m_data = std::make_shared<const Data>(std::move(data));
}

Error::~Error() = default;

unsigned int Error::number() const noexcept {
  return m_data->number;
}

const std::string& Error::sqlState() const noexcept {
  return m_data->sqlState;
}

const std::string& Error::statement() const noexcept {
  return m_data->statement;
}

bool Error::outcomeUnknown() const noexcept {
  return m_data->outcomeUnknown;
}

std::shared_ptr<const Exception> Error::clone() const {
  return std::make_shared<Error>(*this);
}

}  // namespace Tessel::Database
