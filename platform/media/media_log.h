// How much the media libraries (FFmpeg) write to standard error on their own. Process-wide; a
// level set before the media plug-in is loaded applies once it is.
#pragma once

namespace nembra {

enum class MediaLogLevel { Quiet, Errors, Warnings, Info };

void setMediaLogLevel(MediaLogLevel level);

}  // namespace nembra
