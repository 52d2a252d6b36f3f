// Opens a media file for live publishing with its H.264 and AAC passed through: the built-in MP4
// reader for MP4 and QuickTime files, which needs no FFmpeg, and FFmpeg's demuxers (the media
// plug-in) for everything else, or when the built-in reader cannot handle the file.
//
// Threading: any thread.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/media_source.h"

namespace nembra {

std::unique_ptr<MediaSource> openMediaFileSource(const std::string& path, OptionalError& error);

}  // namespace nembra
