// The built-in MP4 reader: sample for sample the same as the FFmpeg-based MediaSourceFile on files
// the ffmpeg program makes and on hand-built ones, and a clean refusal of broken files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "platform/ffmpeg/ffmpeg_file_source.h"
#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/mp4/media_source_mp4.h"
#include "platform/media/mp4/mp4_box_reader.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::HasSubstr;

// Cases print as their names in failure messages.
template <typename Case>
requires requires(const Case& c) { c.name; }
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// ---- what a source delivers ----

struct Delivered {
  std::vector<EncodedVideoSample> video;
  std::vector<EncodedAudioSample> audio;
  std::vector<double> pts;  // of every item, in delivery order
};

Delivered ReadAll(MediaSource& source) {
  Delivered out;
  MediaSourceItem item;
  OptionalError error;
  while (source.read(item, error)) {
    if (auto* video = std::get_if<EncodedVideoSample>(&item)) {
      out.pts.push_back(video->pts);
      out.video.push_back(std::move(*video));
    } else if (auto* audio = std::get_if<EncodedAudioSample>(&item)) {
      out.pts.push_back(audio->pts);
      out.audio.push_back(std::move(*audio));
    }
  }
  EXPECT_FALSE(error) << error->message;
  return out;
}

// Same samples per track; the interleaving of the tracks may differ (file order there, decode
// order here), so each track is compared on its own.
void ExpectSameSamples(const Delivered& mine, const Delivered& theirs) {
  ASSERT_EQ(mine.video.size(), theirs.video.size());
  for (size_t i = 0; i < mine.video.size(); ++i) {
    const EncodedVideoSample& a = mine.video[i];
    const EncodedVideoSample& b = theirs.video[i];
    ASSERT_EQ(a.data, b.data) << "video " << i;
    ASSERT_EQ(a.keyFrame, b.keyFrame) << "video " << i;
    ASSERT_EQ(a.sps, b.sps) << "video " << i;
    ASSERT_EQ(a.pps, b.pps) << "video " << i;
    ASSERT_NEAR(a.pts, b.pts, 1e-6) << "video " << i;
  }
  ASSERT_EQ(mine.audio.size(), theirs.audio.size());
  for (size_t i = 0; i < mine.audio.size(); ++i) {
    ASSERT_EQ(mine.audio[i].data, theirs.audio[i].data) << "audio " << i;
    ASSERT_EQ(mine.audio[i].asc, theirs.audio[i].asc) << "audio " << i;
    ASSERT_NEAR(mine.audio[i].pts, theirs.audio[i].pts, 1e-6) << "audio " << i;
  }
  EXPECT_TRUE(std::is_sorted(mine.pts.begin(), mine.pts.end()));
}

void ExpectSameInfo(const MediaSourceInfo& mine, const MediaSourceInfo& theirs) {
  EXPECT_EQ(mine.description, theirs.description);
  EXPECT_EQ(mine.hasVideo, theirs.hasVideo);
  EXPECT_EQ(mine.hasAudio, theirs.hasAudio);
  EXPECT_EQ(mine.videoEncoded, theirs.videoEncoded);
  EXPECT_EQ(mine.audioEncoded, theirs.audioEncoded);
  EXPECT_EQ(mine.width, theirs.width);
  EXPECT_EQ(mine.height, theirs.height);
  EXPECT_NEAR(mine.frameRate, theirs.frameRate, 1e-6);
  EXPECT_EQ(mine.sampleRate, theirs.sampleRate);
  EXPECT_EQ(mine.channels, theirs.channels);
  EXPECT_NEAR(mine.duration, theirs.duration, 1e-6);
}

// Opens |path| with both readers and compares everything they deliver.
void ExpectSameAsMediaSourceFile(const std::string& path) {
  OptionalError error;
  auto mine = MediaSourceMp4::open(path, error);
  ASSERT_TRUE(mine) << error->message;
  auto theirs = MediaSourceFile::open(path, error);
  ASSERT_TRUE(theirs) << error->message;
  ExpectSameInfo(mine->info(), theirs->info());
  const Delivered a = ReadAll(*mine);
  const Delivered b = ReadAll(*theirs);
  EXPECT_FALSE(a.video.empty() && a.audio.empty());
  ExpectSameSamples(a, b);
}

// ---- files made by the ffmpeg program ----

const std::vector<std::string> kVideoIn = {"-f", "lavfi", "-i",
                                           "testsrc2=size=160x120:rate=25:duration=2"};
const std::vector<std::string> kAudioIn = {"-f", "lavfi", "-i", "sine=frequency=440:duration=2"};

std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const std::vector<std::string> kBaseline = {"-c:v",    "libx264",   "-profile:v", "baseline",
                                            "-preset", "ultrafast", "-pix_fmt",   "yuv420p",
                                            "-g",      "10"};
const std::vector<std::string> kBFrames = {"-c:v", "libx264", "-preset", "veryfast", "-bf",
                                           "2",    "-g",      "12",      "-pix_fmt", "yuv420p"};
const std::vector<std::string> kAac = {"-c:a", "aac"};

struct FfmpegCase {
  std::string name;
  std::string file;
  std::vector<std::string> args;
  // When set, a first file "source.mp4" is made with these and the case's args read it.
  std::vector<std::string> sourceArgs = {};
};

class Mp4EquivalenceTest : public ::testing::TestWithParam<FfmpegCase> {};

TEST_P(Mp4EquivalenceTest, SameSamplesAsMediaSourceFile) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
  testing::MediaTestFiles files;
  std::vector<std::string> args = GetParam().args;
  if (!GetParam().sourceArgs.empty()) {
    const std::string source = files.make("source.mp4", GetParam().sourceArgs);
    ASSERT_FALSE(source.empty());
    args.insert(args.begin(), {"-i", source});
  }
  const std::string path = files.make(GetParam().file, args);
  ASSERT_FALSE(path.empty());
  ExpectSameAsMediaSourceFile(path);
}

INSTANTIATE_TEST_SUITE_P(
    Files, Mp4EquivalenceTest,
    ::testing::Values(
        FfmpegCase{"BaselineMoovAtEnd", "clip.mp4", Join({kVideoIn, kAudioIn, kBaseline, kAac})},
        FfmpegCase{"FastStart", "clip.mp4",
                   Join({kVideoIn, kAudioIn, kBaseline, kAac, {"-movflags", "+faststart"}})},
        FfmpegCase{"QuickTime", "clip.mov", Join({kVideoIn, kAudioIn, kBaseline, kAac})},
        FfmpegCase{"BFramesWithCompositionOffsets", "clip.mp4",
                   Join({kVideoIn, kAudioIn, kBFrames, kAac})},
        FfmpegCase{"BFramesQuickTime", "clip.mov", Join({kVideoIn, kAudioIn, kBFrames, kAac})},
        FfmpegCase{"VideoOnly", "clip.mp4", Join({kVideoIn, kBaseline})},
        // Key frames marked by recovery point SEIs rather than IDR slices.
        FfmpegCase{"IntraRefresh", "clip.mp4",
                   Join({kVideoIn, kBaseline, {"-x264-params", "intra-refresh=1:keyint=8"}})},
        FfmpegCase{"AudioOnlyStereo48k", "clip.m4a",
                   Join({kAudioIn, kAac, {"-ac", "2", "-ar", "48000"}})},
        FfmpegCase{"Video30fpsAudio22k", "clip.mp4",
                   Join({kVideoIn, kAudioIn, kBaseline, kAac, {"-r", "30", "-ar", "22050"}})},
        // A stream copy from the middle of a GOP: edit lists that start inside the media.
        FfmpegCase{"CutInsideAGop",
                   "cut.mp4",
                   {"-ss", "1.3", "-c", "copy"},
                   Join({{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=4"},
                         {"-f", "lavfi", "-i", "sine=duration=4"},
                         kBFrames,
                         kAac})}),
    [](const auto& info) { return info.param.name; });

// ---- hand-built files ----

void Put(Bytes& out, uint64_t value, int size) {
  // Fields wider than the value (reserved runs of zeros) get leading zero bytes.
  for (int i = size - 1; i >= 0; --i) {
    out.push_back(i >= 8 ? 0 : static_cast<uint8_t>(value >> (8 * i)));
  }
}

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes Fields(std::initializer_list<std::pair<uint64_t, int>> fields) {
  Bytes out;
  for (auto [value, size] : fields) Put(out, value, size);
  return out;
}

Bytes Text(const char* fourCc) { return Bytes(fourCc, fourCc + 4); }

Bytes Box(const char* type, const Bytes& payload) {
  Bytes box;
  Put(box, payload.size() + 8, 4);
  box.insert(box.end(), type, type + 4);
  box.insert(box.end(), payload.begin(), payload.end());
  return box;
}

Bytes FullBox(const char* type, uint32_t versionAndFlags, const Bytes& payload) {
  return Box(type, Cat({Fields({{versionAndFlags, 4}}), payload}));
}

Bytes AvcSampleEntry(const Bytes& sps, const Bytes& pps, int nalLengthSize) {
  const Bytes avcC = Cat(
      {Fields({{1, 1}, {sps.size() > 3 ? sps[1] : 66, 1}, {0, 1}, {30, 1}}),
       Fields({{0xFCu | static_cast<uint32_t>(nalLengthSize - 1), 1}, {0xE1, 1}, {sps.size(), 2}}),
       sps, Fields({{1, 1}, {pps.size(), 2}}), pps});
  return Box("avc1", Cat({Fields({{0, 6}, {1, 2}, {0, 16}, {160, 2}, {120, 2}}),
                          Fields({{0x480000, 4}, {0x480000, 4}, {0, 4}, {1, 2}}), Bytes(32, 0),
                          Fields({{0x18, 2}, {0xFFFF, 2}}), Box("avcC", avcC)}));
}

Bytes AacSampleEntry(std::array<uint8_t, 2> asc, uint8_t objectTypeIndication = 0x40) {
  const Bytes decoderInfo = {0x05, 2, asc[0], asc[1]};
  const Bytes config =
      Cat({Fields({{0x04, 1}, {13 + decoderInfo.size(), 1}}),
           Fields({{objectTypeIndication, 1}, {0x15, 1}, {0, 3}, {0, 4}, {0, 4}}), decoderInfo});
  const Bytes es = Cat({Fields({{0x03, 1}, {3 + config.size() + 3, 1}, {1, 2}, {0, 1}}), config,
                        Fields({{0x06, 1}, {1, 1}, {2, 1}})});
  return Box("mp4a", Cat({Fields({{0, 6}, {1, 2}, {0, 8}, {1, 2}, {16, 2}, {0, 4}}),
                          Fields({{44100u << 16, 4}}), FullBox("esds", 0, es)}));
}

struct TrackPlan {
  bool video = true;
  uint32_t timescale = 1000;
  Bytes entry;  // the sample description
  std::vector<Bytes> samples = {};
  std::vector<uint32_t> durations = {};  // one per sample
  std::vector<int32_t> offsets = {};     // composition offsets; none when empty
  std::vector<bool> keys = {};           // as stss; no stss when empty
  // An edit list: an empty edit of |delay| (movie ticks, skipped when 0), then the media from
  // |mediaTime| for |length| movie ticks.
  std::optional<std::array<int64_t, 3>> edit = std::nullopt;
};

struct Layout {
  bool moovFirst = true;
  bool wideOffsets = false;   // co64 instead of stco
  bool compactSizes = false;  // stz2 with 16-bit sizes instead of stsz
  bool largeMdat = false;     // a 64-bit size in the mdat header
  size_t samplesPerChunk = 1;
};

uint64_t MediaTicks(const TrackPlan& track) {
  uint64_t ticks = 0;
  for (uint32_t d : track.durations) ticks += d;
  return ticks;
}

uint64_t MovieTicks(const TrackPlan& track) { return MediaTicks(track) * 1000 / track.timescale; }

Bytes SampleTable(const TrackPlan& track, const std::vector<uint64_t>& chunkOffsets,
                  const Layout& layout) {
  Bytes stts;
  uint32_t runs = 0;
  for (size_t i = 0; i < track.durations.size();) {
    size_t j = i;
    while (j < track.durations.size() && track.durations[j] == track.durations[i]) ++j;
    Put(stts, j - i, 4);
    Put(stts, track.durations[i], 4);
    ++runs;
    i = j;
  }
  Bytes table = Cat({FullBox("stsd", 0, Cat({Fields({{1, 4}}), track.entry})),
                     FullBox("stts", 0, Cat({Fields({{runs, 4}}), stts}))});
  if (!track.offsets.empty()) {
    Bytes entries = Fields({{track.offsets.size(), 4}});
    for (int32_t offset : track.offsets) {
      Put(entries, 1, 4);
      Put(entries, static_cast<uint32_t>(offset), 4);
    }
    table = Cat({table, FullBox("ctts", 0, entries)});
  }
  const size_t count = track.samples.size();
  const size_t perChunk = layout.samplesPerChunk;
  Bytes stsc = Fields({{count % perChunk ? 2 : 1, 4}, {1, 4}, {perChunk, 4}, {1, 4}});
  if (count % perChunk)
    Put(stsc, count / perChunk + 1, 4), Put(stsc, count % perChunk, 4), Put(stsc, 1, 4);
  table = Cat({table, FullBox("stsc", 0, stsc)});
  Bytes sizes;
  for (const Bytes& sample : track.samples) Put(sizes, sample.size(), layout.compactSizes ? 2 : 4);
  table = Cat({table, layout.compactSizes
                          ? FullBox("stz2", 0, Cat({Fields({{16, 4}, {count, 4}}), sizes}))
                          : FullBox("stsz", 0, Cat({Fields({{0, 4}, {count, 4}}), sizes}))});
  Bytes offsets = Fields({{chunkOffsets.size(), 4}});
  for (uint64_t offset : chunkOffsets) Put(offsets, offset, layout.wideOffsets ? 8 : 4);
  table = Cat({table, FullBox(layout.wideOffsets ? "co64" : "stco", 0, offsets)});
  if (!track.keys.empty()) {
    Bytes sync;
    uint32_t keys = 0;
    for (size_t i = 0; i < track.keys.size(); ++i) {
      if (track.keys[i]) Put(sync, i + 1, 4), ++keys;
    }
    table = Cat({table, FullBox("stss", 0, Cat({Fields({{keys, 4}}), sync}))});
  }
  return Box("stbl", table);
}

Bytes Track(const TrackPlan& track, uint32_t id, const std::vector<uint64_t>& chunkOffsets,
            const Layout& layout) {
  const uint64_t mediaTicks = MediaTicks(track);
  Bytes edts;
  if (track.edit) {
    const auto [delay, mediaTime, length] = *track.edit;
    Bytes entries = Fields({{delay > 0 ? 2 : 1, 4}});
    if (delay > 0) Put(entries, delay, 4), Put(entries, 0xFFFFFFFF, 4), Put(entries, 0x10000, 4);
    Put(entries, length, 4), Put(entries, mediaTime, 4), Put(entries, 0x10000, 4);
    edts = Box("edts", FullBox("elst", 0, entries));
  }
  return Box(
      "trak",
      Cat({FullBox("tkhd", 3,
                   Cat({Fields({{0, 8}, {id, 4}, {0, 4}, {MovieTicks(track), 4}}), Bytes(60, 0)})),
           edts,
           Box("mdia",
               Cat({FullBox(
                        "mdhd", 0,
                        Fields(
                            {{0, 8}, {track.timescale, 4}, {mediaTicks, 4}, {0x55C4, 2}, {0, 2}})),
                    FullBox(
                        "hdlr", 0,
                        Cat({Fields({{0, 4}}), Text(track.video ? "vide" : "soun"), Bytes(13, 0)})),
                    Box("minf",
                        Cat({Box("dinf", FullBox("dref", 0,
                                                 Cat({Fields({{1, 4}}), FullBox("url ", 1, {})}))),
                             SampleTable(track, chunkOffsets, layout)}))}))}));
}

Bytes BuildMp4(const std::vector<TrackPlan>& tracks, const Layout& layout = {}) {
  // Chunks of the tracks alternate in the media data.
  Bytes media;
  std::vector<std::vector<uint64_t>> chunkOffsets(tracks.size());
  for (size_t chunk = 0;; ++chunk) {
    bool any = false;
    for (size_t t = 0; t < tracks.size(); ++t) {
      const size_t first = chunk * layout.samplesPerChunk;
      if (first >= tracks[t].samples.size()) continue;
      any = true;
      chunkOffsets[t].push_back(media.size());
      for (size_t s = first; s < std::min(first + layout.samplesPerChunk, tracks[t].samples.size());
           ++s) {
        media.insert(media.end(), tracks[t].samples[s].begin(), tracks[t].samples[s].end());
      }
    }
    if (!any) break;
  }
  const Bytes ftyp = Box("ftyp", Cat({Text("isom"), Fields({{0x200, 4}}), Text("isom")}));
  const Bytes mdatHeader =
      layout.largeMdat ? Cat({Fields({{1, 4}}), Text("mdat"), Fields({{media.size() + 16, 8}})})
                       : Cat({Fields({{media.size() + 8, 4}}), Text("mdat")});
  auto movie = [&](uint64_t base) {
    uint64_t duration = 0;
    Bytes traks;
    for (size_t t = 0; t < tracks.size(); ++t) {
      std::vector<uint64_t> offsets = chunkOffsets[t];
      for (uint64_t& offset : offsets) offset += base;
      duration = std::max(duration, MovieTicks(tracks[t]));
      traks = Cat({traks, Track(tracks[t], static_cast<uint32_t>(t + 1), offsets, layout)});
    }
    return Box(
        "moov",
        Cat({FullBox("mvhd", 0, Cat({Fields({{0, 8}, {1000, 4}, {duration, 4}}), Bytes(80, 0)})),
             traks}));
  };
  if (layout.moovFirst) {
    const size_t moovSize = movie(0).size();
    return Cat({ftyp, movie(ftyp.size() + moovSize + mdatHeader.size()), mdatHeader, media});
  }
  return Cat({ftyp, mdatHeader, media, movie(ftyp.size() + mdatHeader.size())});
}

// Re-prefixes a 4-byte-length access unit with |size|-byte lengths.
Bytes Reprefix(const Bytes& data, int size) {
  std::vector<h264::NalUnit> units;
  EXPECT_TRUE(h264::splitLengthPrefixed(data, 4, units));
  Bytes out;
  for (h264::NalUnit unit : units) {
    Put(out, unit.size(), size);
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

// 25 fps video and 44.1 kHz AAC with the samples of |real|.
std::vector<TrackPlan> RemuxTracks(const Delivered& real, int nalLengthSize) {
  TrackPlan video{true, 12800, AvcSampleEntry(real.video[0].sps, real.video[0].pps, nalLengthSize)};
  for (const EncodedVideoSample& sample : real.video) {
    video.samples.push_back(Reprefix(sample.data, nalLengthSize));
    video.durations.push_back(512);
    video.keys.push_back(sample.keyFrame);
  }
  TrackPlan audio{false, 44100, AacSampleEntry(real.audio[0].asc)};
  for (const EncodedAudioSample& sample : real.audio) {
    audio.samples.push_back(sample.data);
    audio.durations.push_back(1024);
  }
  return {video, audio};
}

struct RemuxCase {
  std::string name;
  int nalLengthSize = 4;
  Layout layout = {};
  std::optional<std::array<int64_t, 3>> videoEdit = std::nullopt;
  std::optional<std::array<int64_t, 3>> audioEdit = std::nullopt;
  bool syncTable = true;
};

class Mp4RemuxEquivalenceTest : public ::testing::TestWithParam<RemuxCase> {};

// Real H.264 and AAC in file structures the ffmpeg program does not write.
TEST_P(Mp4RemuxEquivalenceTest, SameSamplesAsMediaSourceFile) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
  testing::MediaTestFiles files;
  const std::string path = files.make("real.mp4", Join({kVideoIn, kAudioIn, kBaseline, kAac}));
  ASSERT_FALSE(path.empty());
  OptionalError error;
  auto real = MediaSourceFile::open(path, error);
  ASSERT_TRUE(real) << error->message;
  std::vector<TrackPlan> tracks = RemuxTracks(ReadAll(*real), GetParam().nalLengthSize);
  tracks[0].edit = GetParam().videoEdit;
  tracks[1].edit = GetParam().audioEdit;
  if (!GetParam().syncTable) tracks[0].keys.clear();
  const Bytes bytes = BuildMp4(tracks, GetParam().layout);
  WriteFile(files.path("remuxed.mp4"), bytes);
  ExpectSameAsMediaSourceFile(files.path("remuxed.mp4"));
}

INSTANTIATE_TEST_SUITE_P(
    Structures, Mp4RemuxEquivalenceTest,
    ::testing::Values(
        RemuxCase{"NalLengthSize2", 2},
        RemuxCase{"NalLengthSize3MoovAtEnd", 3, {.moovFirst = false}},
        RemuxCase{
            "WideOffsetsCompactSizesChunksOfFour",
            4,
            {.wideOffsets = true, .compactSizes = true, .largeMdat = true, .samplesPerChunk = 4}},
        // Half a second of nothing, then the audio without its priming frame.
        RemuxCase{"DelayedAudio", 4, {}, std::nullopt, {{{500, 1024, 1500}}}},
        // From the fourth frame (not a key frame) for one second.
        RemuxCase{"VideoEditInsideAGop", 4, {}, {{{0, 3 * 512, 1000}}}},
        RemuxCase{"NoSyncTable", 4, {}, std::nullopt, std::nullopt, false}),
    [](const auto& info) { return info.param.name; });

// ---- hand-built files with made-up content ----

// A made-up NAL unit: the header byte of |type|, then |size| - 1 bytes of |fill|.
Bytes Unit(uint8_t type, size_t size, uint8_t fill = 0x5A) {
  Bytes unit(size, fill);
  unit[0] = type;
  return unit;
}

Bytes AccessUnit(std::initializer_list<Bytes> units, int lengthSize) {
  Bytes out;
  for (const Bytes& unit : units) {
    Put(out, unit.size(), lengthSize);
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

const Bytes kSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};

// Six video frames (40 ms, key frames at 0 and 3) and eight AAC frames; the video track has an
// edit list so that its table can be broken too.
std::vector<TrackPlan> SmallTracks() {
  TrackPlan video{true, 1000, AvcSampleEntry(kSps, kPps, 4)};
  for (int i = 0; i < 6; ++i) {
    video.samples.push_back(AccessUnit({Unit(i % 3 ? 0x41 : 0x65, 30 + i)}, 4));
    video.durations.push_back(40);
    video.keys.push_back(i % 3 == 0);
  }
  video.edit = {{40, 0, 240}};
  TrackPlan audio{false, 44100, AacSampleEntry({0x12, 0x10})};
  for (int i = 0; i < 8; ++i) {
    audio.samples.push_back(Bytes(20, static_cast<uint8_t>(0x21 + i)));
    audio.durations.push_back(1024);
  }
  return {video, audio};
}

std::unique_ptr<MediaSourceMp4> OpenBytes(const Bytes& bytes, OptionalError& error) {
  return MediaSourceMp4::open(Mp4ByteSource::memory(bytes), "clip.mp4", error);
}

class Mp4NalLengthTest : public ::testing::TestWithParam<int> {};

TEST_P(Mp4NalLengthTest, RepacksWithFourByteLengthsAndTakesParameterSetsOut) {
  const int size = GetParam();
  const Bytes inBandSps = {0x67, 0x4D, 0x40, 0x1F};
  TrackPlan video{true, 1000, AvcSampleEntry(kSps, kPps, size)};
  video.samples = {AccessUnit({{0x09, 0xF0}, inBandSps, kPps, Unit(0x65, 200)}, size),
                   AccessUnit({Unit(0x41, 40), Unit(0x41, 3)}, size),
                   AccessUnit({{0x09, 0xF0}}, size)};  // nothing left to send
  video.durations = {40, 40, 40};
  video.keys = {true, false, false};
  OptionalError error;
  auto source = OpenBytes(BuildMp4({video}), error);
  ASSERT_TRUE(source) << error->message;
  EXPECT_EQ(source->info().description, "file clip.mp4");
  EXPECT_EQ(source->info().width, 160);
  EXPECT_EQ(source->info().frameRate, 25.0);
  const Delivered delivered = ReadAll(*source);
  ASSERT_EQ(delivered.video.size(), 2u);
  EXPECT_EQ(delivered.video[0].data, AccessUnit({Unit(0x65, 200)}, 4));
  EXPECT_EQ(delivered.video[0].sps, inBandSps);
  EXPECT_EQ(delivered.video[0].pps, kPps);
  EXPECT_TRUE(delivered.video[0].keyFrame);
  EXPECT_EQ(delivered.video[1].data, AccessUnit({Unit(0x41, 40), Unit(0x41, 3)}, 4));
  EXPECT_EQ(delivered.video[1].sps, inBandSps);  // in-band sets stay
  EXPECT_FALSE(delivered.video[1].keyFrame);
  EXPECT_DOUBLE_EQ(delivered.video[1].pts, 0.04);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Mp4NalLengthTest, ::testing::Values(1, 2, 3, 4));

struct KeyFrameCase {
  std::string name;
  std::vector<Bytes> units;
  bool keyFrame;
};

class MediaSourceMp4KeyFrameTest : public ::testing::TestWithParam<KeyFrameCase> {};

// From the bitstream, as MediaSourceFile marks them, whatever the sync-sample table says.
TEST_P(MediaSourceMp4KeyFrameTest, MarkedByIdrSliceOrRecoveryPointBeforeTheFirstSlice) {
  TrackPlan video{true, 1000, AvcSampleEntry(kSps, kPps, 4)};
  video.samples = {{}};
  for (const Bytes& unit : GetParam().units)
    video.samples[0] = Cat({video.samples[0], AccessUnit({unit}, 4)});
  video.durations = {40};
  video.keys = {!GetParam().keyFrame};
  OptionalError error;
  auto source = OpenBytes(BuildMp4({video}), error);
  ASSERT_TRUE(source) << error->message;
  const Delivered delivered = ReadAll(*source);
  ASSERT_EQ(delivered.video.size(), 1u);
  EXPECT_EQ(delivered.video[0].keyFrame, GetParam().keyFrame);
}

const Bytes kRecoverySei = {0x06, 0x06, 0x01, 0x80, 0x80};  // recovery_frame_cnt 0

INSTANTIATE_TEST_SUITE_P(
    AccessUnits, MediaSourceMp4KeyFrameTest,
    ::testing::Values(
        KeyFrameCase{"IdrSlice", {Unit(0x65, 9)}, true},
        KeyFrameCase{"Slice", {Unit(0x41, 9)}, false},
        KeyFrameCase{"RecoveryPoint", {kRecoverySei, Unit(0x41, 9)}, true},
        KeyFrameCase{"RecoveryPointAfterTheSlice", {Unit(0x41, 9), kRecoverySei}, false},
        KeyFrameCase{"OtherSei", {{0x06, 0x05, 0x02, 0xAA, 0xBB, 0x80}, Unit(0x41, 9)}, false},
        // A user data message of 00 00 01 (escaped as 00 00 03 01), then a recovery point.
        KeyFrameCase{
            "RecoveryPointAfterEscapedMessage",
            {{0x06, 0x05, 0x03, 0x00, 0x00, 0x03, 0x01, 0x06, 0x01, 0x80, 0x80}, Unit(0x41, 9)},
            true},
        KeyFrameCase{"RecoveryCountOutOfRange",
                     {{0x06, 0x06, 0x06, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x80}, Unit(0x41, 9)},
                     false}),
    [](const auto& info) { return info.param.name; });

TEST(Mp4DemuxerTest, MergesByDecodeTimeWithTiesToTheLowerOffset) {
  std::vector<TrackPlan> tracks = SmallTracks();
  tracks[0].edit.reset();
  tracks[1].timescale = 2000;       // 0.512 s per frame: times meet the video's at 0 only
  std::swap(tracks[0], tracks[1]);  // audio chunks come first in the file
  OptionalError error;
  const Bytes bytes = BuildMp4(tracks, {.moovFirst = false});
  auto demuxer = Mp4Demuxer::open(Mp4ByteSource::memory(bytes), error);
  ASSERT_TRUE(demuxer) << error->message;
  const std::vector<Mp4Sample>& samples = demuxer->samples();
  ASSERT_EQ(samples.size(), 14u);
  EXPECT_FALSE(samples[0].video);  // time 0 for both, audio at the lower offset
  EXPECT_TRUE(samples[1].video);
  for (size_t i = 1; i < samples.size(); ++i) {
    EXPECT_TRUE(
        samples[i - 1].time < samples[i].time ||
        (samples[i - 1].time == samples[i].time && samples[i - 1].offset < samples[i].offset))
        << i;
  }
  EXPECT_EQ(demuxer->startTime(), 0.0);
}

TEST(MediaSourceMp4Test, InterruptEndsReadingWithCancelled) {
  OptionalError error;
  auto source = OpenBytes(BuildMp4(SmallTracks()), error);
  ASSERT_TRUE(source) << error->message;
  MediaSourceItem item;
  ASSERT_TRUE(source->read(item, error));
  source->interrupt();
  EXPECT_FALSE(source->read(item, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Cancelled);
}

TEST(MediaSourceMp4Test, FileThatShrinksAfterOpeningIsAnErrorNotACrash) {
  testing::MediaTestFiles files;
  const Bytes bytes = BuildMp4(SmallTracks());
  const std::string path = files.path("clip.mp4");
  WriteFile(path, bytes);
  OptionalError error;
  auto source = MediaSourceMp4::open(path, error);
  ASSERT_TRUE(source) << error->message;
  std::filesystem::resize_file(path, bytes.size() - 100);
  MediaSourceItem item;
  while (source->read(item, error)) {
  }
  ASSERT_TRUE(error);
  EXPECT_THAT(error->message, HasSubstr("file ends before offset"));
}

struct PathCase {
  std::string name;
  std::string path;
  ErrorKind kind;
};

class MediaSourceMp4PathTest : public ::testing::TestWithParam<PathCase> {};

// Media errors send the caller to MediaSourceFile; a missing file would fail there too.
TEST_P(MediaSourceMp4PathTest, RefusesWithTheRightKind) {
  OptionalError error;
  EXPECT_FALSE(MediaSourceMp4::open(GetParam().path, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, GetParam().kind) << error->message;
  EXPECT_THAT(error->message, HasSubstr(GetParam().path));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, MediaSourceMp4PathTest,
    ::testing::Values(PathCase{"Missing", "/nonexistent/clip.mp4", ErrorKind::File},
                      PathCase{"Url", "rtmp://localhost/live/clip", ErrorKind::Media},
                      PathCase{"Directory", "/tmp", ErrorKind::Media}),
    [](const auto& info) { return info.param.name; });

// ---- broken files ----

// Where the four-cc |type| occurs for the |nth| time (0-based): the box starts 4 bytes before.
size_t Find(const Bytes& bytes, const char* type, int nth = 0) {
  for (size_t i = 0; i + 4 <= bytes.size(); ++i) {
    if (std::equal(type, type + 4, bytes.begin() + static_cast<ptrdiff_t>(i)) && nth-- == 0) {
      return i;
    }
  }
  ADD_FAILURE() << type << " not found";
  return 0;
}

void PutAt(Bytes& bytes, size_t position, uint64_t value, int size) {
  Bytes field;
  Put(field, value, size);
  std::copy(field.begin(), field.end(), bytes.begin() + static_cast<ptrdiff_t>(position));
}

// Positions in a full box: its size field, and its first field after version and flags.
size_t SizeOf(const Bytes& b, const char* type, int nth = 0) { return Find(b, type, nth) - 4; }
size_t FieldsOf(const Bytes& b, const char* type, int nth = 0) { return Find(b, type, nth) + 8; }

void Rename(Bytes& bytes, const char* from, const char* to) {
  std::copy(to, to + 4, bytes.begin() + static_cast<ptrdiff_t>(Find(bytes, from)));
}

struct BrokenCase {
  std::string name;
  void (*breakIt)(Bytes&);
  std::string message;
};

class Mp4BrokenFileTest : public ::testing::TestWithParam<BrokenCase> {};

TEST_P(Mp4BrokenFileTest, RefusedWithAMessage) {
  Bytes bytes = BuildMp4(SmallTracks());
  GetParam().breakIt(bytes);
  OptionalError error;
  EXPECT_FALSE(OpenBytes(bytes, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media);
  EXPECT_THAT(error->message, ::testing::StartsWith("clip.mp4: "));
  EXPECT_THAT(error->message, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Files, Mp4BrokenFileTest,
    ::testing::Values(
        BrokenCase{"Empty", [](Bytes& b) { b.clear(); }, "no moov box"},
        BrokenCase{"NotAnMp4", [](Bytes& b) { b = Bytes(400, 'x'); },
                   "not an MP4 or QuickTime file"},
        BrokenCase{"CutInsideTheMovieBox", [](Bytes& b) { b.resize(Find(b, "stsz")); },
                   "moov box: size"},
        BrokenCase{"ChildLargerThanItsParent",
                   [](Bytes& b) { PutAt(b, SizeOf(b, "stsz"), 0x10000, 4); },
                   "stsz box: size 65536 runs past"},
        BrokenCase{"SizeSmallerThanTheHeader", [](Bytes& b) { PutAt(b, SizeOf(b, "stts"), 4, 4); },
                   "smaller than its header"},
        BrokenCase{"LargeSizeSmallerThanTheHeader",
                   [](Bytes& b) { PutAt(b, SizeOf(b, "stts"), 1, 4); }, "smaller than its header"},
        // Size 0 runs to the end of the parent: the tables after it are swallowed, not looped on.
        BrokenCase{"ZeroSizeSwallowsTheRest", [](Bytes& b) { PutAt(b, SizeOf(b, "stts"), 0, 4); },
                   "no stsz or stz2 box"},
        BrokenCase{"HugeSampleCount",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "stsz") + 4, 0xFFFFFFFF, 4); },
                   "4294967295 sizes do not fit"},
        BrokenCase{"HugeConstantSampleSize",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "stsz"), 0x7FFFFFFF, 4); },
                   "do not fit in the file"},
        BrokenCase{"HugeChunkCount", [](Bytes& b) { PutAt(b, FieldsOf(b, "stco"), 0xFFFFFFFF, 4); },
                   "offsets do not fit"},
        BrokenCase{"HugeTimeTable", [](Bytes& b) { PutAt(b, FieldsOf(b, "stts"), 0x20000000, 4); },
                   "stts box: 536870912 entries do not fit"},
        BrokenCase{"HugeSampleToChunkTable",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "stsc"), 0xFFFFFFFF, 4); },
                   "stsc box: 4294967295 entries do not fit"},
        BrokenCase{"HugeSyncTable", [](Bytes& b) { PutAt(b, FieldsOf(b, "stss"), 0x40000000, 4); },
                   "stss box: 1073741824 entries do not fit"},
        BrokenCase{"HugeEditList", [](Bytes& b) { PutAt(b, FieldsOf(b, "elst"), 0xFFFFFFF0, 4); },
                   "elst box: 4294967280 entries do not fit"},
        BrokenCase{"OffsetPastTheEnd",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "stco") + 4, 0xFFFFFF00, 4); },
                   "sample 1 (offset 4294967040, 34 bytes) lies outside the file"},
        BrokenCase{"LastSampleRunsPastTheEnd", [](Bytes& b) { b.resize(b.size() - 1); },
                   "lies outside the file"},
        BrokenCase{"MissingSampleDescriptions", [](Bytes& b) { Rename(b, "stsd", "xxxx"); },
                   "no stsd box"},
        BrokenCase{"NoSampleDescription", [](Bytes& b) { PutAt(b, FieldsOf(b, "stsd"), 0, 4); },
                   "no sample description"},
        BrokenCase{"MissingAvcC", [](Bytes& b) { Rename(b, "avcC", "xxxx"); }, "without avcC"},
        BrokenCase{"AvcCParameterSetPastItsEnd",
                   [](Bytes& b) { PutAt(b, Find(b, "avcC") + 10, 0xFFFF, 2); }, "broken avcC box"},
        BrokenCase{"OtherVideoCodec", [](Bytes& b) { Rename(b, "avc1", "hvc1"); },
                   "unsupported video codec hvc1"},
        BrokenCase{"Mp3InMp4a", [](Bytes& b) { b[Find(b, "esds") + 4 + 4 + 5 + 2] = 0x6B; },
                   "mp4a with object type 0x6b"},
        BrokenCase{"NotAacObjectType",
                   [](Bytes& b) { b[Find(b, "esds") + 4 + 4 + 5 + 15 + 2] = 7 << 3; },
                   "audio object type 7"},
        BrokenCase{"Fragmented", [](Bytes& b) { Rename(b, "trak", "mvex"); },
                   "fragmented MP4 is not supported by the built-in reader"},
        BrokenCase{"TimeTableTooShort", [](Bytes& b) { PutAt(b, FieldsOf(b, "stts") + 4, 2, 4); },
                   "times for only 2 of 6 samples"},
        BrokenCase{"ChunksNotFromOne", [](Bytes& b) { PutAt(b, FieldsOf(b, "stsc") + 4, 2, 4); },
                   "does not start at chunk 1"},
        BrokenCase{"MoreSamplesInChunksThanSizes",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "stsc") + 8, 5, 4); },
                   "the chunks hold more samples"},
        BrokenCase{"TimeScaleZero", [](Bytes& b) { PutAt(b, FieldsOf(b, "mdhd") + 8, 0, 4); },
                   "time scale 0"},
        BrokenCase{"TwoEditSegments",
                   [](Bytes& b) { PutAt(b, FieldsOf(b, "elst") + 8, 0, 4); },  // was empty
                   "an edit list with more than one segment is not supported"},
        BrokenCase{"TableTwice", [](Bytes& b) { Rename(b, "stss", "stsz"); },
                   "more than one in a track"},
        BrokenCase{"NoMovieHeader", [](Bytes& b) { Rename(b, "mvhd", "xxxx"); }, "no mvhd box"},
        BrokenCase{"NoVideoOrAudioTrack",
                   [](Bytes& b) {
                     Rename(b, "vide", "text");
                     Rename(b, "soun", "text");
                   },
                   "neither a video nor an audio track"}),
    [](const auto& info) { return info.param.name; });

// ---- files of other kinds made by the ffmpeg program ----

struct OtherFileCase {
  std::string name;
  std::string file;
  std::vector<std::string> args;
  std::string message;
};

class Mp4OtherFileTest : public ::testing::TestWithParam<OtherFileCase> {};

TEST_P(Mp4OtherFileTest, RefusedAsMediaSoTheCallerFallsBack) {
  if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
  testing::MediaTestFiles files;
  const std::string path = files.make(GetParam().file, GetParam().args);
  ASSERT_FALSE(path.empty());
  OptionalError error;
  EXPECT_FALSE(MediaSourceMp4::open(path, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media);
  EXPECT_THAT(error->message, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Files, Mp4OtherFileTest,
    ::testing::Values(
        OtherFileCase{"Mpeg4Part2Video", "clip.mp4", Join({kVideoIn, {"-c:v", "mpeg4"}}),
                      "unsupported video codec mp4v"},
        OtherFileCase{"Mp3Audio", "clip.mp4", Join({kAudioIn, {"-c:a", "libmp3lame"}}),
                      "object type 0x6b"},
        OtherFileCase{"OpusAudio", "clip.mp4", Join({kAudioIn, {"-c:a", "libopus"}}),
                      "unsupported audio codec Opus"},
        OtherFileCase{"PcmInQuickTime", "clip.mov", Join({kAudioIn, {"-c:a", "pcm_s16le"}}),
                      "unsupported audio codec sowt"},
        OtherFileCase{"FragmentedMp4", "clip.mp4",
                      Join({kVideoIn, kBaseline, {"-movflags", "frag_keyframe+empty_moov"}}),
                      "fragmented MP4 is not supported by the built-in reader"},
        OtherFileCase{"MpegTs", "clip.ts", Join({kVideoIn, kBaseline}),
                      "not an MP4 or QuickTime file"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace nembra
