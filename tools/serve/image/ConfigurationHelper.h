// The process that reads the configuration for the service, and may die of it.
#ifndef TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONHELPER_H
#define TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONHELPER_H

#include <cstddef>

#include "base/sizes.h"

namespace Tessel::Serve {

// The hidden command of the program that the service runs for it.
inline constexpr char s_helperCommand[] = "serve-configuration";

// The service asks with a byte, any; the answers are frames of these kinds.
enum class HelperFrame : char {
  Same = 's',     // The configuration is as it was in the last copy.
  Copy = 'c',     // What copyConfiguration() gives.
  Failed = 'f',   // It cannot be read; the text says why.
  Reading = 'r',  // It is being read: the answer follows.
};

// The longest copy: more than a hundred million users.
inline constexpr std::size_t s_longestCopy = 4096_MiB;

// Answers what comes over the socket `descriptor`, until its other end is closed. Ends the process
// with `s_damagedStatus` when the files turn out to be damaged in a way that kills who reads them.
// Its own process: call it first, from main().
int helpWithConfiguration(int descriptor);

inline constexpr int s_damagedStatus = 70;

}  // namespace Tessel::Serve

#endif
