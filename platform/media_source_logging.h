// How much FFmpeg itself prints to standard error while sources and encoders run.
#pragma once

namespace nembra {

// Verbose: FFmpeg's informational lines (encoder settings and statistics) too. Otherwise only
// its errors. Process-wide; call before opening sources.
void setMediaLogVerbose(bool verbose);

}  // namespace nembra
