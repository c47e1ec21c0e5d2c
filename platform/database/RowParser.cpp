// The destructors that anchor the virtual tables of the parser classes in this library.
#include "database/RowParser.h"

namespace Tessel::Database {

RowParser::~RowParser() = default;

AllRowParser::~AllRowParser() = default;

}  // namespace Tessel::Database
