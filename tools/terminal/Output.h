// Standard output of the tool: plain lines, or one JSON document.
#ifndef TSL_TOOLS_TERMINAL_OUTPUT_H
#define TSL_TOOLS_TERMINAL_OUTPUT_H

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Tessel::Tool {

// Keys keep the order in which they were set.
using Json = nlohmann::ordered_json;

// Writes to standard output and checks every write. When the reader has gone, the process ends as
// quietly as SIGPIPE ends it; other failures throw Failure, `OutputFailed`. One thread.
class Output {
 public:
  explicit Output(bool json) : m_json(json) {}

  // True when a JSON document is wanted instead of lines.
  [[nodiscard]] bool isJson() const noexcept { return m_json; }
  // Writes `text` and a line end.
  void line(std::string_view text);
  // Writes the whole document.
  void document(const Json& document);
  // Hands what was written to the reader.
  void flush();

 private:
  bool m_json;
};

// A list that is written item by item: plain lines, or the elements of one JSON array. The array is
// closed by `end`, or by the destructor when a failure leaves the list early, so that what was
// written is a whole document even then. One thread.
class ItemList {
 public:
  // `output` must outlive the list.
  explicit ItemList(Output& output) : m_output(output) {}
  ~ItemList();
  ItemList(const ItemList&) = delete;
  ItemList& operator=(const ItemList&) = delete;

  // Writes one item; `json` makes its JSON form.
  template <class MakeJson>
  void add(std::string_view plain, MakeJson json) {
    if (m_output.isJson()) {
      addElement(json());
    } else {
      m_output.line(plain);
    }
  }
  // Ends the list.
  void end();

 private:
  void addElement(const Json& element);

  Output& m_output;
  bool m_started = false;
  bool m_ended = false;
};

}  // namespace Tessel::Tool

#endif
