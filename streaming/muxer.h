// A multi-track stage whose tracks are declared before frames arrive.
#pragma once

#include <cstdint>

#include "streaming/media_types.h"
#include "streaming/multi_track_receiver.h"

namespace nembra {

template <class T>
class IMuxer : public IMultiTrackReceiver<T> {
 public:
  // Returns the id under which frames of the new track are put.
  uint32_t AddTrack(MediaDescriptor descriptor) { return AddTrackImpl(descriptor); }

 protected:
  virtual uint32_t AddTrackImpl(MediaDescriptor descriptor) = 0;
};

}  // namespace nembra
