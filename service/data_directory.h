// Where the service keeps its files under the data directory DIR:
//   DIR/service.db                       metadata (MediaStore)
//   DIR/media/APP/KIND/MEDIA/STREAM/     a stream's file (video.mp4, audio.aac, image.jpg) and
//                                        its cover.jpg
//   DIR/tmp/                             uploads in flight; emptied at start
//   DIR/rtmp/                            the ingest's configuration, logs and raw recordings
// Every path is built from tokens that passed isSafeToken, so none can leave DIR.
//
// Threading: immutable after construction; any thread.
#pragma once

#include <string>

#include "nembra/error.h"
#include "service/media_records.h"

namespace nembra {

class DataDirectory {
 public:
  explicit DataDirectory(std::string root);

  // Creates the directories and empties DIR/tmp.
  OptionalError prepare() const;

  const std::string& root() const { return root_; }
  std::string databasePath() const { return root_ + "/service.db"; }
  std::string temporaryDirectory() const { return root_ + "/tmp"; }
  std::string rtmpDirectory() const { return root_ + "/rtmp"; }

  std::string mediaDirectory(const std::string& application, MediaKind kind,
                             const std::string& media) const;
  std::string streamDirectory(const std::string& application, MediaKind kind,
                              const std::string& media, const std::string& stream) const;
  // The stream's media file, named after the kind ("video.mp4", …).
  std::string streamFile(const std::string& application, MediaKind kind, const std::string& media,
                         const std::string& stream) const;
  std::string coverFile(const std::string& application, MediaKind kind, const std::string& media,
                        const std::string& stream) const;

  // A fresh, unused path in DIR/tmp ending in |suffix|.
  std::string newTemporaryPath(const std::string& suffix) const;

 private:
  const std::string root_;
};

}  // namespace nembra
