// What the service learns from a stored file: its picture size, duration and tracks (which fill
// the stream model), whether it suits the media kind, and a cover picture grabbed at 0 s.
//
// Threading: any thread, several at once (the probe and grabber keep no state).
#pragma once

#include <memory>
#include <string>

#include "platform/media/frame_grabber.h"
#include "platform/media/media_probe.h"
#include "service/media_records.h"
#include "service/result.h"

namespace nembra {

struct MediaFacts {
  int width = 0;
  int height = 0;
  double duration = 0.0;
  bool hasVideo = false;
  bool hasAudio = false;
};

class MediaAnalyzer {
 public:
  MediaAnalyzer(std::unique_ptr<MediaProbe> probe, std::unique_ptr<FrameGrabber> grabber);

  // A Media error when the file is not media or lacks what |kind| needs: a video a picture or
  // sound track, an audio a sound track, an image a picture.
  Result<MediaFacts> analyze(const std::string& path, MediaKind kind) const;

  // Writes the picture at 0 s, fit inside 1920x1080, as a JPEG at |coverPath|; its size.
  Result<int64_t> grabCover(const std::string& mediaPath, const std::string& coverPath) const;

 private:
  std::unique_ptr<MediaProbe> probe_;
  std::unique_ptr<FrameGrabber> grabber_;
};

}  // namespace nembra
