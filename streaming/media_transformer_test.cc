#include "streaming/media_transformer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <vector>

#include "streaming/flv_frame.h"
#include "streaming/media_callback.h"

namespace nembra {
namespace {

using ::testing::ElementsAre;

// Appends each input's payload to the output under construction and answers from a script.
class ScriptedTransformer : public MediaTransformer<MediaFrame, MediaFrame> {
 public:
  ScriptedTransformer(std::shared_ptr<IReceiver<MediaFrame>> next,
                      std::deque<TransformResult> script)
      : MediaTransformer(std::move(next)), script_(std::move(script)) {}

  int created = 0;

 protected:
  MediaFrame CreateOutputFrame(const MediaFrame&) override {
    ++created;
    return MediaFrame(MediaType::Data, MediaCodec::None);
  }
  TransformResult Transform(MediaFrame& input, MediaFrame& output) override {
    output.Data().insert(output.Data().end(), input.Data().begin(), input.Data().end());
    const TransformResult result = script_.front();
    script_.pop_front();
    return result;
  }

 private:
  std::deque<TransformResult> script_;
};

class Collector : public IReceiver<MediaFrame> {
 public:
  std::vector<std::vector<uint8_t>> payloads;
  int closes = 0;

 protected:
  void PutFrameImpl(MediaFrame frame) override { payloads.push_back(frame.Data()); }
  void CloseImpl() override { ++closes; }
};

MediaFrame FrameOf(std::vector<uint8_t> bytes) {
  MediaFrame frame(MediaType::Data, MediaCodec::None);
  frame.Data() = std::move(bytes);
  return frame;
}

TEST(MediaTransformerTest, HasMoreOutputYieldsSeveralOutputsForOneInput) {
  auto collector = std::make_shared<Collector>();
  ScriptedTransformer transformer(
      collector,
      {TransformResult::HasMoreOutput, TransformResult::HasMoreOutput, TransformResult::Complete});
  transformer.PutFrame(FrameOf({1}));
  EXPECT_EQ(collector->payloads.size(), 3u);
  EXPECT_EQ(transformer.created, 3);
}

TEST(MediaTransformerTest, NeedMoreInputKeepsOutputForNextInput) {
  auto collector = std::make_shared<Collector>();
  ScriptedTransformer transformer(collector,
                                  {TransformResult::NeedMoreInput, TransformResult::NeedMoreInput,
                                   TransformResult::Complete, TransformResult::Complete});
  transformer.PutFrame(FrameOf({1}));
  transformer.PutFrame(FrameOf({2}));
  EXPECT_TRUE(collector->payloads.empty());
  transformer.PutFrame(FrameOf({3}));
  transformer.PutFrame(FrameOf({4}));
  EXPECT_THAT(collector->payloads, ElementsAre(ElementsAre(1, 2, 3), ElementsAre(4)));
}

TEST(MediaTransformerTest, CloseReachesNextReceiverAndDoesNotFlushOpenOutput) {
  auto collector = std::make_shared<Collector>();
  ScriptedTransformer transformer(collector, {TransformResult::NeedMoreInput});
  transformer.PutFrame(FrameOf({1}));
  transformer.Close();
  EXPECT_EQ(collector->closes, 1);
  EXPECT_TRUE(collector->payloads.empty());
}

TEST(MediaCallbackTest, EmptyCallableDropsFramesAndCallableSeesSameFrame) {
  MediaCallback<FLVFrame> dropping;
  dropping.PutFrame(FLVFrame(MediaType::Video, MediaCodec::H264, FLVTagType::Video));

  FLVFrame frame(MediaType::Video, MediaCodec::H264, FLVTagType::Video);
  MediaCallback<FLVFrame> callback([](FLVFrame received) {
    EXPECT_EQ(received.FLVTagType(), FLVTagType::Video);
    received.Data().push_back(42);  // writes through the shared handle
  });
  callback.PutFrame(frame);
  EXPECT_THAT(frame.Data(), ElementsAre(42));
}

}  // namespace
}  // namespace nembra
