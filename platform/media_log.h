// How much the media libraries (FFmpeg) write to standard error on their own. Process-wide: a
// host sets it once, before media work starts.
#pragma once

namespace nembra {

enum class MediaLogLevel { Quiet, Errors, Warnings, Info };

void setMediaLogLevel(MediaLogLevel level);

}  // namespace nembra
