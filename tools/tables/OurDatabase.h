// The name of the library's database.
#ifndef TSL_TOOLS_TABLES_OURDATABASE_H
#define TSL_TOOLS_TABLES_OURDATABASE_H

namespace Tessel::Tool {

// The one database of the library.
inline constexpr char s_database[] = "ts_address_map";

}  // namespace Tessel::Tool

#endif
