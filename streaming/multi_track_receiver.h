// The receiving end of a stage that takes frames of several tracks.
#pragma once

#include <cstdint>

namespace nembra {

template <class T>
class IMultiTrackReceiver {
 public:
  virtual ~IMultiTrackReceiver() = default;

  void PutFrame(T frame, uint32_t trackId) { PutFrameImpl(frame, trackId); }
  void Close() { CloseImpl(); }

 protected:
  virtual void PutFrameImpl(T frame, uint32_t trackId) = 0;
  virtual void CloseImpl() = 0;
};

}  // namespace nembra
