// Writing to standard output.
#include "terminal/Output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "failure/Failure.h"
#include "terminal/Progress.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

namespace {

// The reader of standard output may have seen enough ("| head"); that is not a failure.
[[noreturn]] void s_fail(int error) {
  if (error == EPIPE) {
    std::signal(SIGPIPE, SIG_DFL);
    std::raise(SIGPIPE);
  }
  throw Failure(ExitCode::OutputFailed, "writing to standard output",
                std::generic_category().message(error), "the answer is incomplete; try again");
}

void s_write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) s_fail(errno);
}

void s_writeLine(std::string_view text) {
  s_write(text);
  s_write("\n");
}

std::string s_text(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// `text`, which may hold tabs and the colours of the tool, without what may deceive its reader.
std::string s_shown(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of("\t\n\x1b"), text.size());
    shown += printable(text.substr(0, end));
    shown += text.substr(end, 1);
    text.remove_prefix(std::min(text.size(), end + 1));
  }
  return shown;
}

}  // namespace

void Output::line(std::string_view text) {
  if (!isTerminal(Stream::Output)) return s_writeLine(text);
  // At a line end, the standard library writes what it has.
  const Progress::Hidden hidden;
  s_writeLine(s_shown(text));
}

void Output::document(const Json& document) {
  line(s_text(document));
}

void Output::flush() {
  if (std::fflush(stdout) != 0) s_fail(errno);
}

ItemList::~ItemList() {
  try {
    end();
  } catch (const Failure&) {
    // Another failure was thrown already, and decides how the tool exits.
  }
}

void ItemList::addElement(const Json& element) {
  // The line stays open until the next element.
  if (isTerminal(Stream::Output)) Progress::endCurrent();
  s_write(m_started ? ",\n" : "[");
  m_started = true;
  s_write(s_text(element));
}

void ItemList::end() {
  if (m_ended) return;
  m_ended = true;
  if (m_output.isJson()) m_output.line(m_started ? "]" : "[]");
}

}  // namespace Tessel::Tool
