// Marks what the shared libraries export; everything else stays hidden.
#ifndef TSL_BASE_EXPORT_H
#define TSL_BASE_EXPORT_H

#define TSL_EXPORT __attribute__((visibility("default")))

#endif
