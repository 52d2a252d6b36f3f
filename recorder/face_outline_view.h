// The face-outline overlay: the faces the detector reports, by identifier, outlined on each
// preview picture (a yellow frame, or the configured outline image stretched over the face).
// Faces that leave the picture are dropped when the detector stops reporting them.
//
// Threading: addFace and retainFaces on the detector's queue, drawRect on the preview thread,
// the rest anywhere; the face table is guarded by a lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/media/picture.h"
#include "platform/ui/video_frame.h"
#include "recorder/face.h"

namespace nembra {

class FaceOutlineView {
 public:
  // Finds or creates the Face |faceId| and sets its rectangle.
  void addFace(int64_t faceId, FaceRect rect);
  // Drops every face whose identifier is not in |faceIds|.
  void retainFaces(const std::vector<int64_t>& faceIds);
  std::map<int64_t, FaceRect> faceRects() const;

  // The configured outline image (decoded), or null for the drawn frame.
  void setOutlineDrawable(SharedPicture drawable);
  void setHidden(bool hidden);
  bool hidden() const;

  // Outlines every stored face on |picture|, whose pixels are the preview-layer coordinates.
  // Parts of a face outside the picture are clipped.
  void drawRect(VideoFrame& picture) const;

 private:
  mutable std::mutex mutex_;
  std::unique_ptr<std::map<int64_t, Face>> faces_;  // made on first use; guarded by mutex_
  SharedPicture drawable_;                          // guarded by mutex_
  bool hidden_ = false;                             // guarded by mutex_
};

}  // namespace nembra
