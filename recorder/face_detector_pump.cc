#include "recorder/face_detector_pump.h"

#include <algorithm>

namespace nembra {
namespace {

double overlap(const FaceRect& a, const FaceRect& b) {
  const double left = std::max(a.x, b.x);
  const double top = std::max(a.y, b.y);
  const double right = std::min(a.x + a.width, b.x + b.width);
  const double bottom = std::min(a.y + a.height, b.y + b.height);
  if (right <= left || bottom <= top) return 0;
  const double shared = (right - left) * (bottom - top);
  return shared / (a.width * a.height + b.width * b.height - shared);
}

}  // namespace

FaceDetectorPump::FaceDetectorPump(std::unique_ptr<FaceDetector> detector, FaceOutlineView& outline,
                                   ToLayer toLayer, Found found)
    : detector_(std::move(detector)),
      outline_(outline),
      toLayer_(std::move(toLayer)),
      found_(std::move(found)) {}

FaceDetectorPump::~FaceDetectorPump() {
  queue_.sync([] {});
}

void FaceDetectorPump::onVideoFrame(const SharedVideoFrame& frame) {
  if (frame->pts < nextSearchAt_ || frame->width <= 0 || frame->height <= 0) return;
  if (busy_.exchange(true)) return;  // the last search is still running: skip this picture
  nextSearchAt_ = frame->pts + kMinimumInterval;
  ++searches_;
  // Area-average the luma down to the search width: enough for a cascade, and cheap.
  const double factor = std::max(1.0, static_cast<double>(frame->width) / kSearchWidth);
  const int width = std::max(1, static_cast<int>(frame->width / factor));
  const int height = std::max(1, static_cast<int>(frame->height / factor));
  std::vector<uint8_t> gray(static_cast<size_t>(width) * height);
  const uint8_t* luma = frame->planes[0].data();
  const int stride = frame->strides[0];
  for (int y = 0; y < height; ++y) {
    const int top = static_cast<int>(y * factor);
    const int bottom =
        std::max(top + 1, std::min(frame->height, static_cast<int>((y + 1) * factor)));
    for (int x = 0; x < width; ++x) {
      const int left = static_cast<int>(x * factor);
      const int right =
          std::max(left + 1, std::min(frame->width, static_cast<int>((x + 1) * factor)));
      int sum = 0;
      for (int sy = top; sy < bottom; ++sy) {
        const uint8_t* row = luma + static_cast<size_t>(sy) * stride;
        for (int sx = left; sx < right; ++sx) sum += row[sx];
      }
      gray[static_cast<size_t>(y) * width + x] =
          static_cast<uint8_t>(sum / ((bottom - top) * (right - left)));
    }
  }
  queue_.async([this, gray = std::move(gray), width, height, factor, frameWidth = frame->width,
                frameHeight = frame->height]() mutable {
    search(std::move(gray), width, height, factor, frameWidth, frameHeight);
    busy_ = false;
  });
}

int64_t FaceDetectorPump::idFor(const FaceRect& rect, const std::vector<Tracked>& previous) {
  const Tracked* best = nullptr;
  double bestOverlap = 0.3;  // less than this is another face
  for (const Tracked& face : previous) {
    const double o = overlap(rect, face.rect);
    if (o >= bestOverlap) {
      best = &face;
      bestOverlap = o;
    }
  }
  return best ? best->id : nextId_++;
}

void FaceDetectorPump::search(std::vector<uint8_t> gray, int width, int height, double factor,
                              int frameWidth, int frameHeight) {
  const std::vector<FaceBox> boxes = detector_->detect({gray.data(), width, height, width});
  std::vector<Tracked> now;
  std::vector<int64_t> ids;
  for (const FaceBox& box : boxes) {
    FaceRect rect{box.x * factor, box.y * factor, box.width * factor, box.height * factor};
    if (toLayer_) rect = toLayer_(rect, frameWidth, frameHeight);
    const int64_t id = idFor(rect, tracked_);
    if (std::find(ids.begin(), ids.end(), id) != ids.end()) continue;  // one box per face
    now.push_back({id, rect});
    ids.push_back(id);
    outline_.addFace(id, rect);
    if (found_) found_(id, rect);
  }
  outline_.retainFaces(ids);
  tracked_ = std::move(now);
}

}  // namespace nembra
