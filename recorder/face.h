// One face the detector follows, and where it is in preview-layer coordinates (the pixels of the
// picture the preview shows). The detector's queue writes the rectangle while the preview
// thread reads it, so it is read and written whole under a lock.
//
// Threading: any thread.
#pragma once

#include <mutex>

namespace nembra {

struct FaceRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  bool operator==(const FaceRect&) const = default;
};

class Face {
 public:
  Face() = default;
  explicit Face(FaceRect rect) : rect_(rect) {}
  Face(const Face& other) : rect_(other.rect()) {}
  Face& operator=(const Face& other) {
    setRect(other.rect());
    return *this;
  }

  FaceRect rect() const {
    std::lock_guard lock(mutex_);
    return rect_;
  }
  void setRect(FaceRect rect) {
    std::lock_guard lock(mutex_);
    rect_ = rect;
  }

 private:
  mutable std::mutex mutex_;
  FaceRect rect_;  // guarded by mutex_
};

}  // namespace nembra
