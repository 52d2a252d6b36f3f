// The receiving end of a pipeline stage.
#pragma once

namespace nembra {

// Holds no lock: one thread drives a chain at a time.
template <class T>
class IReceiver {
 public:
  virtual ~IReceiver() = default;

  // Takes the frame by value: a handle copy, never a payload copy.
  void PutFrame(T frame) { PutFrameImpl(frame); }
  void Close() { CloseImpl(); }

 protected:
  virtual void PutFrameImpl(T frame) = 0;
  virtual void CloseImpl() = 0;
};

}  // namespace nembra
