// Marks what the shared libraries export; everything else stays hidden. What is nested in an
// exported class is exported with it unless it is marked as hidden.
#ifndef TSL_BASE_EXPORT_H
#define TSL_BASE_EXPORT_H

#define TSL_EXPORT __attribute__((visibility("default")))
#define TSL_HIDDEN __attribute__((visibility("hidden")))

#endif
