// Opens arbitrary bytes as an MP4 file from memory and reads every sample. Whatever the bytes,
// opening either fails with a Media error or lists samples that lie inside the data in decode
// order, and reading delivers well-formed access units with timestamps that never go back.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <variant>
#include <vector>

#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/mp4/media_source_mp4.h"
#include "platform/media/mp4/mp4_demuxer.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void checkDemuxer(std::span<const uint8_t> bytes) {
  nembra::OptionalError error;
  auto demuxer = nembra::Mp4Demuxer::open(nembra::Mp4ByteSource::memory(bytes), error);
  if (!demuxer) {
    check(error && error->kind == nembra::ErrorKind::Media && !error->message.empty());
    return;
  }
  double last = -1e300;
  for (const nembra::Mp4Sample& sample : demuxer->samples()) {
    check(sample.offset <= bytes.size() && sample.size <= bytes.size() - sample.offset);
    check(sample.time >= last);
    last = sample.time;
    std::span<const uint8_t> read;
    check(!demuxer->readSample(sample, read));
    check(read.size() == sample.size &&
          std::equal(read.begin(), read.end(), bytes.begin() + sample.offset));
  }
}

void checkSource(std::span<const uint8_t> bytes) {
  nembra::OptionalError error;
  auto source = nembra::MediaSourceMp4::open(nembra::Mp4ByteSource::memory(bytes), "fuzz", error);
  if (!source) return;
  nembra::MediaSourceItem item;
  double last = 0.0;
  std::vector<nembra::h264::NalUnit> units;
  while (source->read(item, error)) {
    if (auto* video = std::get_if<nembra::EncodedVideoSample>(&item)) {
      check(video->pts >= last);
      last = video->pts;
      units.clear();
      check(nembra::h264::splitLengthPrefixed(video->data, 4, units) && !units.empty());
      for (nembra::h264::NalUnit unit : units) {
        const uint8_t type = nembra::h264::nalType(unit);
        check(type != nembra::h264::kNalSps && type != nembra::h264::kNalPps &&
              type != nembra::h264::kNalAccessUnitDelimiter);
      }
    } else if (auto* audio = std::get_if<nembra::EncodedAudioSample>(&item)) {
      check(audio->pts >= last && !audio->data.empty());
      last = audio->pts;
    }
  }
  check(!error || error->kind == nembra::ErrorKind::Media);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  checkDemuxer(bytes);
  checkSource(bytes);
  return 0;
}
