#include "platform/ui/latest_frame_surface.h"

namespace nembra {

void LatestFrameSurface::present(SharedVideoFrame frame) {
  std::lock_guard lock(mutex_);
  frame_ = std::move(frame);
  ++generation_;
  ++presented_;
}

void LatestFrameSurface::clear() {
  std::lock_guard lock(mutex_);
  frame_.reset();
  ++generation_;
}

SharedVideoFrame LatestFrameSurface::latest(uint64_t* generation) const {
  std::lock_guard lock(mutex_);
  if (generation) *generation = generation_;
  return frame_;
}

uint64_t LatestFrameSurface::framesPresented() const {
  std::lock_guard lock(mutex_);
  return presented_;
}

}  // namespace nembra
