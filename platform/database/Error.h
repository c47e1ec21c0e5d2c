// The failure of a database operation, with what the server said about it.
#ifndef TSL_DATABASE_ERROR_H
#define TSL_DATABASE_ERROR_H

#include <memory>
#include <string>
#include <string_view>

#include "base/Exception.h"
#include "base/Export.h"

namespace Tessel::Database {

// An `Exception` whose code is the error number of the server or of the client library. The detail
// text holds the message, number, SQL state and the shortened statement; never a password, and of a
// long literal only the beginning. Copies are independent values; copying never throws.
class TSL_EXPORT Error : public Exception {
 public:
  // The facts of one failure. `message` may carry hints of ours behind the server's text.
  struct Facts {
    unsigned int number = 0;
    std::string sqlState;
    std::string message;
    // The text that was to be executed, whole or shortened; empty where there was none.
    std::string_view statement;
    // True when the server may or may not have carried out the statement.
    bool outcomeUnknown = false;
  };

  // `context`, `file` and `line` are as for `Exception`.
  Error(const std::string& context, const char* file, int line, const Facts& facts);
  ~Error() override;
  Error(const Error&) noexcept = default;
  Error& operator=(const Error&) noexcept = default;

  // Error number of the server (1000 and above, 2000 to 2999 and 5000 to 5999: the client library).
  [[nodiscard]] unsigned int number() const noexcept;
  // Five characters, for example "42S02"; "HY000" where nothing more exact is known.
  [[nodiscard]] const std::string& sqlState() const noexcept;
  // The statement as the detail text shows it: shortened. Empty where there was none.
  [[nodiscard]] const std::string& statement() const noexcept;
  // True when a statement was sent and the connection broke before its answer: it may have been
  // carried out or not. False means that it was not carried out.
  [[nodiscard]] bool outcomeUnknown() const noexcept;

  [[nodiscard]] std::shared_ptr<const Exception> clone() const override;

 private:
  struct Data;
  std::shared_ptr<const Data> m_data;
};

}  // namespace Tessel::Database

#endif
