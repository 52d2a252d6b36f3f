// The end of a chain: hands each frame to a callable, typically a member of the owning object.
#pragma once

#include <functional>
#include <utility>

#include "streaming/receiver.h"

namespace nembra {

template <class T>
class MediaCallback : public IReceiver<T> {
 public:
  using Callable = std::function<void(T)>;

  // An empty callable accepts frames and drops them.
  explicit MediaCallback(Callable callable = {}) : callable_(std::move(callable)) {}

 protected:
  void PutFrameImpl(T frame) override {
    if (callable_) {
      callable_(frame);
    }
  }
  void CloseImpl() override {}

 private:
  Callable callable_;
};

}  // namespace nembra
