// A VideoSurface that keeps the most recent frame for whoever draws or inspects it: the window
// uploads it on its next paint, the headless view lets tests read it.
//
// Threading: present/clear from any thread; latest() from any thread.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/ui/video_surface.h"

namespace nembra {

class LatestFrameSurface final : public VideoSurface {
 public:
  void present(SharedVideoFrame frame) override;
  void clear() override;

  // The frame shown now (null when cleared), and a count that moves on every change so a drawer
  // can skip uploading the same frame twice.
  SharedVideoFrame latest(uint64_t* generation = nullptr) const;
  uint64_t framesPresented() const;

 private:
  mutable std::mutex mutex_;
  SharedVideoFrame frame_;   // guarded by mutex_
  uint64_t generation_ = 0;  // guarded by mutex_
  uint64_t presented_ = 0;   // guarded by mutex_
};

}  // namespace nembra
