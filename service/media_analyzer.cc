#include "service/media_analyzer.h"

#include <fstream>
#include <set>

namespace nembra {

MediaAnalyzer::MediaAnalyzer(std::unique_ptr<MediaProbe> probe,
                             std::unique_ptr<FrameGrabber> grabber)
    : probe_(std::move(probe)), grabber_(std::move(grabber)) {}

Result<MediaFacts> MediaAnalyzer::analyze(const std::string& path, MediaKind kind) const {
  MediaProbeResult probed;
  if (auto error = probe_->probe(path, probed)) return *error;
  if (kind == MediaKind::Audio && !probed.hasAudio) {
    return Error::media("the file has no sound track (found " + probed.container + ")");
  }
  if (kind == MediaKind::Image && !probed.hasVideo) {
    return Error::media("the file is not a picture (found " + probed.container + ")");
  }
  // A picture is one still frame: a file that runs for a while in a moving-picture codec, or
  // has sound, is a video whatever it was uploaded as.
  static const std::set<std::string> kStillCodecs = {"mjpeg", "png",  "gif",      "webp",
                                                     "bmp",   "tiff", "jpeg2000", "apng"};
  if (kind == MediaKind::Image &&
      (probed.hasAudio || (probed.duration > 0 && !kStillCodecs.count(probed.videoCodec)))) {
    return Error::media("the file is a video (" +
                        (probed.videoCodec.empty() ? probed.container : probed.videoCodec) +
                        "), not a picture: upload it as a video");
  }
  MediaFacts facts;
  facts.width = probed.width;
  facts.height = probed.height;
  facts.duration = kind == MediaKind::Image ? 0.0 : probed.duration;
  facts.hasVideo = probed.hasVideo;
  facts.hasAudio = probed.hasAudio;
  return facts;
}

Result<int64_t> MediaAnalyzer::grabCover(const std::string& mediaPath,
                                         const std::string& coverPath) const {
  GrabbedFrame frame;
  if (auto error = grabber_->grab(mediaPath, FrameGrabOptions{}, frame)) return *error;
  std::ofstream out(coverPath, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(frame.jpeg.data()),
            static_cast<std::streamsize>(frame.jpeg.size()));
  out.close();
  if (!out) return Error::file("cannot write " + coverPath);
  return static_cast<int64_t>(frame.jpeg.size());
}

}  // namespace nembra
