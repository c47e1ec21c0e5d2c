// The one exception type of the platform and the library: where an operation failed, why, and the
// failure that caused it.
#ifndef TSL_BASE_EXCEPTION_H
#define TSL_BASE_EXCEPTION_H

#include <exception>
#include <memory>
#include <string>

#include "base/Export.h"

namespace Tessel {

// A failure: context (name of the operation), code, source position, a detail text, and the chain
// of causes. Copies share one immutable state, so copying never throws. One object may be changed
// by one thread at a time; copies are independent of each other.
class TSL_EXPORT Exception : public std::exception {
 public:
  // `file` is the name of the source that throws, or null where no position is given; the text is
  // copied. `line` belongs to `file`.
  Exception(const std::string& context, int code, const char* file, int line);
  Exception(const Exception&) noexcept = default;
  Exception& operator=(const Exception&) noexcept = default;
  ~Exception() override;

  // Sets the detail text. Returns `*this`, for chaining.
  Exception& stringParameter(const std::string& text);
  // Keeps a copy of `caught`, of its most derived type, as the cause. Returns `*this`.
  Exception& cause(const Exception& caught);

  [[nodiscard]] const std::string& context() const noexcept;
  [[nodiscard]] int code() const noexcept;
  // Source name, or null. Valid as long as this object or a copy of it.
  [[nodiscard]] const char* file() const noexcept;
  [[nodiscard]] int line() const noexcept;
  // Detail text; empty when none was set.
  [[nodiscard]] const std::string& stringParameter() const noexcept;
  // The owned copy of the cause, or null. Valid as long as this object or a copy of it.
  [[nodiscard]] const Exception* cause() const noexcept;
  // One line with the whole chain, fit for a log: control characters are shown escaped.
  [[nodiscard]] const char* what() const noexcept override;

  // A copy of the most derived type. A derived class that adds data overrides it.
  [[nodiscard]] virtual std::shared_ptr<const Exception> clone() const;

 private:
  struct State;
  TSL_HIDDEN void replaceState(State state);

  std::shared_ptr<const State> m_state;
};

}  // namespace Tessel

#endif
