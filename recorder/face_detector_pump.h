// Runs a FaceDetector over the camera's pictures without holding up the camera: at most ten
// pictures a second (by their timestamps), each shrunk to at most 480 pixels wide and handed to
// the serial queue "com.nembra.recorder.faces"; a picture that arrives while the last one is
// still being searched is skipped. Faces keep their identifier from one search to the next while
// their boxes overlap; each search's boxes, in preview-layer coordinates, go to the outline view
// (addFace, and the faces no longer seen are dropped) and to |found|.
//
// Threading: onVideoFrame on the feed's thread; |found| is called on the faces queue. The
// destructor waits for a search under way.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/dispatch/serial_queue.h"
#include "platform/vision/face_detector.h"
#include "recorder/camera_feed.h"
#include "recorder/face_outline_view.h"

namespace nembra {

class FaceDetectorPump final : public CaptureFrameObserver {
 public:
  static constexpr double kMinimumInterval = 0.1;  // seconds between searches
  static constexpr int kSearchWidth = 480;

  // A rectangle of a |frameWidth| × |frameHeight| capture in preview-layer coordinates.
  using ToLayer = std::function<FaceRect(const FaceRect& rect, int frameWidth, int frameHeight)>;
  using Found = std::function<void(int64_t faceId, const FaceRect& rect)>;

  // |outline| must outlive the pump. Without |toLayer| the capture's pixels are the layer's.
  FaceDetectorPump(std::unique_ptr<FaceDetector> detector, FaceOutlineView& outline,
                   ToLayer toLayer = {}, Found found = {});
  ~FaceDetectorPump() override;

  void onVideoFrame(const SharedVideoFrame& frame) override;

  // Searches started so far, and whether none is running now.
  int searches() const { return searches_.load(); }
  bool idle() const { return !busy_.load(); }

 private:
  struct Tracked {
    int64_t id;
    FaceRect rect;
  };
  void search(std::vector<uint8_t> gray, int width, int height, double factor, int frameWidth,
              int frameHeight);
  int64_t idFor(const FaceRect& rect, const std::vector<Tracked>& previous);

  std::unique_ptr<FaceDetector> detector_;  // faces queue only
  FaceOutlineView& outline_;
  ToLayer toLayer_;
  Found found_;
  double nextSearchAt_ = -1e300;  // feed thread only
  std::atomic<bool> busy_{false};
  std::atomic<int> searches_{0};
  std::vector<Tracked> tracked_;                    // faces queue only
  int64_t nextId_ = 1;                              // faces queue only
  SerialQueue queue_{"com.nembra.recorder.faces"};  // last: drained before the rest goes
};

}  // namespace nembra
