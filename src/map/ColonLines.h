// Reading of the table files: lines of two texts with a colon between them.
#ifndef TSL_MAP_COLONLINES_H
#define TSL_MAP_COLONLINES_H

#include <functional>
#include <istream>
#include <string_view>

namespace Tessel {

// Calls `take` with the text before and after the first colon of each line of `stream`, in order;
// lines without a colon are skipped. What `take` throws ends the reading.
//
// Deliberate: the second text of a line that ended with a line feed carries one trailing NUL, and a
// line of more than 16383 characters is cut there and ends the reading, without an error. Pinned by
// the tests of ColonLines.
void forEachColonLine(std::istream& stream,
                      const std::function<void(std::string_view, std::string_view)>& take);

}  // namespace Tessel

#endif
