// A stage that turns input frames into output frames for the next receiver.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "streaming/receiver.h"

namespace nembra {

enum class TransformResult : uint8_t {
  Complete = 0,       // the output is finished and the input is used up
  NeedMoreInput = 1,  // keep the output under construction and wait for the next input
  HasMoreOutput = 2,  // the output is finished, the same input holds data for another one
};

// One input may yield several outputs (HasMoreOutput) or several inputs one output
// (NeedMoreInput). An output that is still open when the chain closes is dropped, not flushed.
template <class In, class Out>
class MediaTransformer : public IReceiver<In> {
 public:
  // |next| may be empty: finished outputs are then dropped.
  explicit MediaTransformer(std::shared_ptr<IReceiver<Out>> next) : next_(std::move(next)) {}

 protected:
  virtual Out CreateOutputFrame(const In& input) = 0;
  virtual TransformResult Transform(In& input, Out& output) = 0;

  // The result of the last Transform; subclasses read it to tell a continuation from a start.
  TransformResult State() const { return state_; }

  void PutFrameImpl(In input) override {
    for (;;) {
      if (state_ != TransformResult::NeedMoreInput) {
        output_ = CreateOutputFrame(input);
      }
      state_ = Transform(input, *output_);
      if (state_ == TransformResult::NeedMoreInput) {
        return;
      }
      if (next_) {
        next_->PutFrame(*output_);
      }
      if (state_ != TransformResult::HasMoreOutput) {
        return;
      }
    }
  }

  void CloseImpl() override {
    if (next_) {
      next_->Close();
    }
  }

 private:
  std::shared_ptr<IReceiver<Out>> next_;
  TransformResult state_ = TransformResult::Complete;
  std::optional<Out> output_;  // frames have no empty state; engaged after the first input
};

}  // namespace nembra
