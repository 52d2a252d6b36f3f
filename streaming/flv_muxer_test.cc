// FLV tags as the muxer and its formatters build them.
#include "streaming/flv_muxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "streaming/aac_data_formatter.h"
#include "streaming/amf.h"
#include "streaming/avc_data_formatter.h"
#include "streaming/avcc_parser.h"
#include "streaming/media_callback.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAre;
using testing::ElementsAreArray;

// A baseline SPS (profile 66, constraints C0, level 31) and a PPS, NAL headers included.
const Bytes kSps = {0x67, 0x42, 0xC0, 0x1F, 0xDA, 0x01, 0x40, 0x16};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};
const Bytes kSlice = {0x65, 0x88, 0x84, 0x00};

void AppendUnit(Bytes& out, const Bytes& unit) {
  const auto size = static_cast<uint32_t>(unit.size());
  out.insert(out.end(), {static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                         static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)});
  out.insert(out.end(), unit.begin(), unit.end());
}

MediaFrame VideoFrame(bool key, double pts, bool withSets = true) {
  MediaFrame frame(MediaType::Video, MediaCodec::H264);
  frame.SetKeyFrame(key);
  frame.SetPTS(pts);
  if (key && withSets) {
    AppendUnit(frame.Data(), kSps);
    AppendUnit(frame.Data(), kPps);
  }
  AppendUnit(frame.Data(), kSlice);
  return frame;
}

MediaFrame AudioFrame(const Bytes& data, double pts) {
  MediaFrame frame(MediaType::Audio, MediaCodec::AAC);
  frame.SetPTS(pts);
  frame.Data() = data;
  return frame;
}

// Checks the tag frame around the body and returns the body.
Bytes BodyOf(const FLVFrame& tag) {
  const Bytes& data = tag.Data();
  EXPECT_GE(data.size(), 15u);
  if (data.size() < 15) return {};
  const size_t body = data.size() - 15;
  EXPECT_EQ(data[0], static_cast<uint8_t>(tag.FLVTagType()));
  EXPECT_EQ((size_t{data[1]} << 16) | (size_t{data[2]} << 8) | data[3], body);
  EXPECT_THAT(Bytes(data.begin() + 8, data.begin() + 11), ElementsAre(0, 0, 0));  // stream id
  const size_t trailer = (size_t{data[body + 11]} << 24) | (size_t{data[body + 12]} << 16) |
                         (size_t{data[body + 13]} << 8) | data[body + 14];
  EXPECT_EQ(trailer, body + 11);
  return Bytes(data.begin() + 11, data.begin() + 11 + static_cast<ptrdiff_t>(body));
}

class Collector {
 public:
  std::shared_ptr<MediaCallback<FLVFrame>> receiver =
      std::make_shared<MediaCallback<FLVFrame>>([this](FLVFrame tag) { tags.push_back(tag); });
  std::vector<FLVFrame> tags;
};

TEST(AVCCParserTest, BuildsDecoderConfigurationRecord) {
  AVCCParser parser;
  Bytes frame;
  AppendUnit(frame, {0x06, 0x05, 0x01});  // SEI, skipped
  AppendUnit(frame, kSps);
  AppendUnit(frame, kPps);
  AppendUnit(frame, kSlice);
  parser.ExtractSpsPps(frame);
  Bytes expected = {0x01, 0x42, 0xC0, 0x1F, 0xFF, 0xE1, 0x00, 0x08};
  expected.insert(expected.end(), kSps.begin(), kSps.end());
  expected.insert(expected.end(), {0x01, 0x00, 0x04});
  expected.insert(expected.end(), kPps.begin(), kPps.end());
  EXPECT_EQ(parser.GetDecoderConfigurationRecord(), expected);
}

TEST(AVCCParserTest, StopsAtLengthPastTheEnd) {
  AVCCParser parser;
  Bytes frame;
  AppendUnit(frame, kSps);
  frame.insert(frame.end(), {0, 0, 1, 0, 0x68});  // claims 256 bytes, has 1
  parser.ExtractSpsPps(frame);
  EXPECT_EQ(parser.SPS().size(), 1u);
  EXPECT_TRUE(parser.PPS().empty());
}

TEST(AVCCParserTest, RecordWithoutSpsFails) {
  AVCCParser parser;
  EXPECT_THROW(
      {
        try {
          parser.GetDecoderConfigurationRecord();
        } catch (const std::runtime_error& error) {
          EXPECT_STREQ(error.what(), "no sps defined");
          throw;
        }
      },
      std::runtime_error);
}

TEST(AVCDataFormatterTest, FirstKeyFrameGivesSequenceHeaderThenFrame) {
  Collector out;
  AVCDataFormatter formatter(out.receiver);
  formatter.PutFrame(VideoFrame(true, 0.04));
  formatter.PutFrame(VideoFrame(false, 0.08));
  ASSERT_EQ(out.tags.size(), 3u);

  AVCCParser parser;
  parser.ExtractSpsPps(VideoFrame(true, 0).Data());
  Bytes header = {0x17, 0x00, 0x00, 0x00, 0x00};
  const Bytes record = parser.GetDecoderConfigurationRecord();
  header.insert(header.end(), record.begin(), record.end());
  EXPECT_EQ(BodyOf(out.tags[0]), header);

  Bytes first = {0x17, 0x01, 0x00, 0x00, 0x00};
  const Bytes keyData = VideoFrame(true, 0).Data();
  first.insert(first.end(), keyData.begin(), keyData.end());
  EXPECT_EQ(BodyOf(out.tags[1]), first);
  // Both carry the key frame's time: 40 ms.
  EXPECT_THAT(Bytes(out.tags[0].Data().begin() + 4, out.tags[0].Data().begin() + 8),
              ElementsAre(0, 0, 40, 0));
  EXPECT_THAT(Bytes(out.tags[1].Data().begin() + 4, out.tags[1].Data().begin() + 8),
              ElementsAre(0, 0, 40, 0));

  const Bytes second = BodyOf(out.tags[2]);
  ASSERT_GE(second.size(), 5u);
  EXPECT_THAT(Bytes(second.begin(), second.begin() + 5), ElementsAre(0x27, 0x01, 0, 0, 0));
}

struct RefusedFirstFrame {
  std::string name;
  MediaFrame frame;
  std::string message;
};

class AVCDataFormatterRefusalTest : public testing::TestWithParam<RefusedFirstFrame> {};

TEST_P(AVCDataFormatterRefusalTest, KeepsSequenceHeaderPending) {
  Collector out;
  AVCDataFormatter formatter(out.receiver);
  try {
    formatter.PutFrame(GetParam().frame);
    FAIL() << "formatted";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), GetParam().message);
  }
  EXPECT_TRUE(out.tags.empty());
  EXPECT_TRUE(formatter.SequenceHeaderPending());
  formatter.PutFrame(VideoFrame(true, 1));
  EXPECT_EQ(out.tags.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(FirstFrames, AVCDataFormatterRefusalTest,
                         testing::Values(RefusedFirstFrame{"NotKey", VideoFrame(false, 0),
                                                           "first AVC frame is not a keyframe"},
                                         RefusedFirstFrame{"KeyWithoutSps",
                                                           VideoFrame(true, 0, false),
                                                           "no sps found in keyframe"}),
                         [](const auto& info) { return info.param.name; });

TEST(AACDataFormatterTest, FirstFrameIsConfigThenRawFrames) {
  Collector out;
  AACDataFormatter formatter(out.receiver);
  formatter.PutFrame(AudioFrame({0x13, 0x90}, 0));
  formatter.PutFrame(AudioFrame({0x21, 0x22, 0x23}, 1.5));
  ASSERT_EQ(out.tags.size(), 2u);
  EXPECT_THAT(BodyOf(out.tags[0]), ElementsAre(0xAF, 0x00, 0x13, 0x90));
  EXPECT_THAT(BodyOf(out.tags[1]), ElementsAre(0xAF, 0x01, 0x21, 0x22, 0x23));
  // 1.5 s: 1500 ms in the low 24 bits, the extension byte 0.
  EXPECT_THAT(Bytes(out.tags[1].Data().begin() + 4, out.tags[1].Data().begin() + 8),
              ElementsAre(0x00, 0x05, 0xDC, 0x00));
}

struct TimestampCase {
  double pts;
  uint32_t timestamp;
};

class FLVTimestampTest : public testing::TestWithParam<TimestampCase> {};

TEST_P(FLVTimestampTest, SplitsIntoLow24BitsAndExtension) {
  Collector out;
  AACDataFormatter formatter(out.receiver);
  formatter.PutFrame(AudioFrame({1}, GetParam().pts));
  const uint32_t t = GetParam().timestamp;
  EXPECT_THAT(Bytes(out.tags[0].Data().begin() + 4, out.tags[0].Data().begin() + 8),
              ElementsAre((t >> 16) & 0xFF, (t >> 8) & 0xFF, t & 0xFF, t >> 24));
}

INSTANTIATE_TEST_SUITE_P(Times, FLVTimestampTest,
                         testing::Values(TimestampCase{0.0235, 23},  // truncated, not rounded
                                         TimestampCase{20000.0, 0x01312D00},
                                         TimestampCase{-1.0, 0}));

struct TrackCase {
  std::string name;
  MediaType type;
  MediaCodec codec;
  std::string message;
};

class FLVMuxerTrackTest : public testing::TestWithParam<TrackCase> {};

TEST_P(FLVMuxerTrackTest, RefusesUnsupportedTracks) {
  FLVMuxer muxer(nullptr);
  try {
    muxer.AddTrack(MediaDescriptor(GetParam().type, GetParam().codec));
    FAIL() << "added";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(Tracks, FLVMuxerTrackTest,
                         testing::Values(TrackCase{"VideoAAC", MediaType::Video, MediaCodec::AAC,
                                                   "unsupported video codec"},
                                         TrackCase{"AudioH264", MediaType::Audio, MediaCodec::H264,
                                                   "unsupported audio codec"},
                                         TrackCase{"Data", MediaType::Data, MediaCodec::None,
                                                   "unknown media type"}),
                         [](const auto& info) { return info.param.name; });

// The metadata keys, read back from the tag body.
std::vector<std::string> MetadataKeys(const FLVFrame& tag) {
  Bytes body = BodyOf(tag);
  BitstreamReader reader(body);
  auto name = std::dynamic_pointer_cast<AMFString>(AMFValue::ReadValue(reader));
  EXPECT_TRUE(name && name->Value() == "onMetaData");
  auto array = std::dynamic_pointer_cast<AMFArray>(AMFValue::ReadValue(reader));
  EXPECT_TRUE(array);
  EXPECT_EQ(reader.RemainingDataSize(), 0u);
  std::vector<std::string> keys;
  if (array) {
    for (const auto& [key, value] : array->Values()) keys.push_back(key);
    auto encoder = std::dynamic_pointer_cast<AMFString>(array->GetValue("encoder"));
    EXPECT_TRUE(encoder && encoder->Value() == "nembra");
  }
  return keys;
}

TEST(FLVMuxerTest, SendsMetadataOnceBeforeFirstFrame) {
  Collector out;
  FLVMuxer muxer(out.receiver);
  const uint32_t video = muxer.AddTrack(MediaDescriptor(MediaType::Video, MediaCodec::H264));
  const uint32_t audio = muxer.AddTrack(MediaDescriptor(MediaType::Audio, MediaCodec::AAC));
  EXPECT_NE(video, audio);
  muxer.PutFrame(AudioFrame({0x12, 0x10}, 0), audio);
  muxer.PutFrame(VideoFrame(true, 0), video);
  ASSERT_EQ(out.tags.size(), 4u);
  EXPECT_EQ(out.tags[0].FLVTagType(), FLVTagType::ScriptData);
  EXPECT_THAT(MetadataKeys(out.tags[0]),
              ElementsAre("audiocodecid", "audiodatarate", "audiosamplerate", "audiosamplesize",
                          "duration", "encoder", "filesize", "framerate", "height", "stereo",
                          "videocodecid", "videodatarate", "width"));
  EXPECT_EQ(out.tags[1].FLVTagType(), FLVTagType::Audio);
  EXPECT_EQ(out.tags[2].FLVTagType(), FLVTagType::Video);
  EXPECT_EQ(out.tags[3].FLVTagType(), FLVTagType::Video);
}

TEST(FLVMuxerTest, MetadataDescribesOnlyTracksPresent) {
  Collector out;
  FLVMuxer muxer(out.receiver);
  const uint32_t audio = muxer.AddTrack(MediaDescriptor(MediaType::Audio, MediaCodec::AAC));
  muxer.PutFrame(AudioFrame({0x12, 0x10}, 0), audio);
  ASSERT_EQ(out.tags.size(), 2u);
  EXPECT_THAT(MetadataKeys(out.tags[0]),
              ElementsAre("audiocodecid", "audiodatarate", "audiosamplerate", "audiosamplesize",
                          "duration", "encoder", "filesize", "stereo"));
}

TEST(FLVMuxerTest, RefusesUnknownTrack) {
  Collector out;
  FLVMuxer muxer(out.receiver);
  muxer.AddTrack(MediaDescriptor(MediaType::Video, MediaCodec::H264));
  try {
    muxer.PutFrame(VideoFrame(true, 0), 7);
    FAIL() << "muxed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "unknown track ID");
  }
  EXPECT_TRUE(out.tags.empty());
}

}  // namespace
}  // namespace nembra
