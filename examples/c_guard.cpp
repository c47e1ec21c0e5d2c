// The part of the C example that must be C++: no C frame is between the function that throws and
// the one that catches.
#include "c_guard.h"

#include <exception>
#include <iostream>

int guard_table_call(void (*function)(const char*), const char* table) {
  try {
    function(table);
    return 0;
  } catch (const std::exception& exception) {
    std::cerr << "c_interface: table \"" << table << "\": " << exception.what() << '\n';
    return -1;
  }
}
