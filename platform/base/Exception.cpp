// Exception: shared immutable state, and the text of the whole chain.
#include "base/Exception.h"

#include <utility>

#include "base/bytes.h"

namespace Tessel {

struct Exception::State {
  std::string context;
  int code;
  bool hasFile;
  std::string file;
  int line;
  std::string detail;
  std::shared_ptr<const Exception> cause;
  std::string text;
};

namespace {

// What came from outside must not forge log lines or terminal sequences.
std::string s_visible(const std::string& text) {
  std::string visible;
  visible.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      visible += c;
    } else {
      appendEscaped(visible, c);
    }
  }
  return visible;
}

}  // namespace

Exception::Exception(const std::string& context, int code, const char* file, int line) {
  replaceState({context, code, file != nullptr, file != nullptr ? file : "", line, {}, {}, {}});
}

Exception::~Exception() = default;

Exception& Exception::stringParameter(const std::string& text) {
  State state = *m_state;
  state.detail = text;
  replaceState(std::move(state));
  return *this;
}

Exception& Exception::cause(const Exception& caught) {
  State state = *m_state;
  state.cause = caught.clone();
  replaceState(std::move(state));
  return *this;
}

const std::string& Exception::context() const noexcept {
  return m_state->context;
}

int Exception::code() const noexcept {
  return m_state->code;
}

const char* Exception::file() const noexcept {
  return m_state->hasFile ? m_state->file.c_str() : nullptr;
}

int Exception::line() const noexcept {
  return m_state->line;
}

const std::string& Exception::stringParameter() const noexcept {
  return m_state->detail;
}

const Exception* Exception::cause() const noexcept {
  return m_state->cause.get();
}

const char* Exception::what() const noexcept {
  return m_state->text.c_str();
}

std::shared_ptr<const Exception> Exception::clone() const {
  return std::make_shared<Exception>(*this);
}

void Exception::replaceState(State state) {
  std::string text = s_visible(state.context);
  if (!state.detail.empty()) text += ": " + s_visible(state.detail);
  text += " (code " + std::to_string(state.code);
  if (state.hasFile) text += ", " + s_visible(state.file) + ":" + std::to_string(state.line);
  text += ")";
  if (state.cause) text += ", caused by: " + std::string(state.cause->what());
  state.text = std::move(text);
  m_state = std::make_shared<const State>(std::move(state));
}

}  // namespace Tessel
