#include "platform/media/mp4/mp4_demuxer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <string>

#include "platform/media/aac_audio_config.h"
#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/mp4/mp4_box_reader.h"

namespace nembra {
namespace {

// Tick counts beyond this are refused: every sum of timeline values then stays far from the
// int64 limits.
constexpr int64_t kMaxTicks = int64_t{1} << 60;

Error broken(uint32_t box, const std::string& why) {
  return Error::media("broken " + fourCcText(box) + " box: " + why);
}

Error cutShort(uint32_t box) { return broken(box, "cut short"); }

Error unsupported(const std::string& what) {
  return Error::media(what + " is not supported by the built-in reader");
}

// |value| * |num| / |den| rounded to the nearest, halves away from zero; |den| > 0.
int64_t rescale(int64_t value, int64_t num, int64_t den) {
  __extension__ using Wide = __int128;
  const Wide product = static_cast<Wide>(value) * num;
  const Wide half = den / 2;
  const Wide rounded = product >= 0 ? (product + half) / den : (product - half) / den;
  const Wide limit = std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(std::clamp<Wide>(rounded, -limit, limit));
}

// A box the parser looked for: absent, or its payload.
struct BoxSpan {
  bool present = false;
  std::span<const uint8_t> payload;
};

struct TrackBoxes {
  bool enabled = false;
  uint32_t handler = 0;
  uint32_t timescale = 0;
  uint64_t duration = 0;  // in the track's timescale
  bool selfContained = true;
  BoxSpan elst, stsd, stts, ctts, stsc, stsz, stz2, stco, co64, stss;
};

struct MovieBoxes {
  uint32_t timescale = 0;
  uint64_t duration = 0;
  std::vector<TrackBoxes> tracks;
};

template <typename Visit>
OptionalError forEachChild(std::span<const uint8_t> payload, Visit&& visit) {
  Mp4BoxReader reader(payload);
  Mp4BoxHeader header;
  std::span<const uint8_t> body;
  OptionalError error;
  while (reader.nextBox(header, body, error)) {
    if (auto failed = visit(header.type, body)) return failed;
  }
  return error;
}

OptionalError keep(BoxSpan& slot, uint32_t type, std::span<const uint8_t> payload) {
  if (slot.present) return broken(type, "more than one in a track");
  slot = {true, payload};
  return std::nullopt;
}

// ---- movie box ----

OptionalError parseMovieHeader(std::span<const uint8_t> payload, MovieBoxes& movie) {
  Mp4BoxReader reader(payload);
  uint8_t version = 0;
  uint32_t flags = 0;
  reader.fullBoxHeader(version, flags);
  reader.skip(version == 1 ? 16 : 8);  // creation and modification times
  movie.timescale = reader.u32();
  movie.duration = version == 1 ? reader.u64() : reader.u32();
  if (!reader.ok()) return cutShort(fourCc("mvhd"));
  return std::nullopt;
}

OptionalError parseTrackHeader(std::span<const uint8_t> payload, TrackBoxes& track) {
  Mp4BoxReader reader(payload);
  uint8_t version = 0;
  uint32_t flags = 0;
  reader.fullBoxHeader(version, flags);
  if (!reader.ok()) return cutShort(fourCc("tkhd"));
  track.enabled = (flags & 1) != 0;
  return std::nullopt;
}

OptionalError parseMediaHeader(std::span<const uint8_t> payload, TrackBoxes& track) {
  Mp4BoxReader reader(payload);
  uint8_t version = 0;
  uint32_t flags = 0;
  reader.fullBoxHeader(version, flags);
  reader.skip(version == 1 ? 16 : 8);
  track.timescale = reader.u32();
  track.duration = version == 1 ? reader.u64() : reader.u32();
  if (!reader.ok()) return cutShort(fourCc("mdhd"));
  return std::nullopt;
}

OptionalError parseHandler(std::span<const uint8_t> payload, TrackBoxes& track) {
  Mp4BoxReader reader(payload);
  reader.skip(8);  // version, flags, QuickTime's component type
  track.handler = reader.u32();
  if (!reader.ok()) return cutShort(fourCc("hdlr"));
  return std::nullopt;
}

// Media kept in another file cannot be read here; its offsets would point into this one.
OptionalError parseDataReferences(std::span<const uint8_t> payload, TrackBoxes& track) {
  Mp4BoxReader reader(payload);
  reader.skip(4);
  const uint32_t count = reader.u32();
  if (!reader.ok()) return cutShort(fourCc("dref"));
  Mp4BoxHeader header;
  std::span<const uint8_t> entry;
  OptionalError error;
  if (count == 0 || !reader.nextBox(header, entry, error)) return error;
  Mp4BoxReader entryReader(entry);
  uint8_t version = 0;
  uint32_t flags = 0;
  entryReader.fullBoxHeader(version, flags);
  if (!entryReader.ok()) return cutShort(header.type);
  track.selfContained = (flags & 1) != 0;
  return std::nullopt;
}

OptionalError parseSampleTable(std::span<const uint8_t> payload, TrackBoxes& track) {
  return forEachChild(payload, [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
    switch (type) {
      case fourCc("stsd"):
        return keep(track.stsd, type, body);
      case fourCc("stts"):
        return keep(track.stts, type, body);
      case fourCc("ctts"):
        return keep(track.ctts, type, body);
      case fourCc("stsc"):
        return keep(track.stsc, type, body);
      case fourCc("stsz"):
        return keep(track.stsz, type, body);
      case fourCc("stz2"):
        return keep(track.stz2, type, body);
      case fourCc("stco"):
        return keep(track.stco, type, body);
      case fourCc("co64"):
        return keep(track.co64, type, body);
      case fourCc("stss"):
        return keep(track.stss, type, body);
      default:
        return std::nullopt;
    }
  });
}

OptionalError parseMediaInformation(std::span<const uint8_t> payload, TrackBoxes& track) {
  return forEachChild(payload, [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
    if (type == fourCc("stbl")) return parseSampleTable(body, track);
    if (type == fourCc("dinf")) {
      return forEachChild(body, [&](uint32_t child, std::span<const uint8_t> references) {
        return child == fourCc("dref") ? parseDataReferences(references, track) : std::nullopt;
      });
    }
    return std::nullopt;
  });
}

OptionalError parseMedia(std::span<const uint8_t> payload, TrackBoxes& track) {
  return forEachChild(payload, [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
    switch (type) {
      case fourCc("mdhd"):
        return parseMediaHeader(body, track);
      case fourCc("hdlr"):
        return parseHandler(body, track);
      case fourCc("minf"):
        return parseMediaInformation(body, track);
      default:
        return std::nullopt;
    }
  });
}

OptionalError parseTrack(std::span<const uint8_t> payload, TrackBoxes& track) {
  return forEachChild(payload, [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
    switch (type) {
      case fourCc("tkhd"):
        return parseTrackHeader(body, track);
      case fourCc("mdia"):
        return parseMedia(body, track);
      case fourCc("edts"):
        return forEachChild(body, [&](uint32_t child, std::span<const uint8_t> edits) {
          return child == fourCc("elst") ? keep(track.elst, child, edits) : std::nullopt;
        });
      default:
        return std::nullopt;
    }
  });
}

OptionalError parseMovie(std::span<const uint8_t> payload, MovieBoxes& movie) {
  bool haveHeader = false;
  OptionalError error =
      forEachChild(payload, [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
        switch (type) {
          case fourCc("mvhd"):
            haveHeader = true;
            return parseMovieHeader(body, movie);
          case fourCc("trak"):
            movie.tracks.emplace_back();
            return parseTrack(body, movie.tracks.back());
          case fourCc("mvex"):
            return Error::media("fragmented MP4 is not supported by the built-in reader");
          case fourCc("cmov"):
            return unsupported("a compressed movie box");
          default:
            return std::nullopt;
        }
      });
  if (!error && !haveHeader) error = Error::media("no mvhd box in the movie box");
  return error;
}

// The movie box is read whole; everything else at the top level is only stepped over. Past the
// movie box, broken or missing boxes are left alone: the samples' offsets are checked instead.
OptionalError findMovieBox(const Mp4ByteSource& source, uint64_t& offset, uint64_t& size) {
  uint64_t position = 0;
  while (source.size - position >= 8) {
    std::array<uint8_t, kMp4MaxBoxHeaderSize> buffer{};
    const auto length =
        static_cast<size_t>(std::min<uint64_t>(buffer.size(), source.size - position));
    const std::span<uint8_t> bytes(buffer.data(), length);
    if (auto error = source.readAt(position, bytes)) return error;
    Mp4BoxHeader header;
    if (auto error = parseMp4BoxHeader(bytes, source.size - position, header)) {
      return Error::media("not an MP4 or QuickTime file: " + error->message + " at offset " +
                          std::to_string(position));
    }
    if (header.type == fourCc("moof")) {
      return Error::media("fragmented MP4 is not supported by the built-in reader");
    }
    if (header.type == fourCc("moov")) {
      offset = position + header.headerSize;
      size = header.size - header.headerSize;
      return std::nullopt;
    }
    position += header.size;
  }
  return Error::media("no moov box: not an MP4 or QuickTime file, or an incomplete one");
}

// ---- sample descriptions ----

// MPEG-4 descriptors (in esds) carry a tag and a length of up to four 7-bit groups.
bool readDescriptor(Mp4BoxReader& reader, uint8_t& tag, std::span<const uint8_t>& payload) {
  tag = reader.u8();
  uint32_t length = 0;
  for (int i = 0; i < 4; ++i) {
    const uint8_t byte = reader.u8();
    length = length << 7 | (byte & 0x7F);
    if (!(byte & 0x80)) break;
  }
  payload = reader.bytes(length);
  return reader.ok();
}

// The payload of the first descriptor tagged |wanted| among those in |reader|.
bool findDescriptor(Mp4BoxReader& reader, uint8_t wanted, std::span<const uint8_t>& payload) {
  uint8_t tag = 0;
  while (reader.remaining() > 0 && readDescriptor(reader, tag, payload)) {
    if (tag == wanted) return true;
  }
  return false;
}

constexpr uint8_t kEsDescriptorTag = 0x03;
constexpr uint8_t kDecoderConfigTag = 0x04;
constexpr uint8_t kDecoderInfoTag = 0x05;

// The first sample description of a track. Other descriptions are allowed to exist, but the
// sample-to-chunk table must not switch to them.
OptionalError firstSampleEntry(const TrackBoxes& track, Mp4BoxHeader& header,
                               std::span<const uint8_t>& entry) {
  if (!track.stsd.present) return Error::media("track without sample descriptions (no stsd box)");
  Mp4BoxReader reader(track.stsd.payload);
  reader.skip(4);
  const uint32_t count = reader.u32();
  if (!reader.ok()) return cutShort(fourCc("stsd"));
  if (count == 0) return broken(fourCc("stsd"), "no sample description");
  OptionalError error;
  if (!reader.nextBox(header, entry, error)) {
    return error ? broken(fourCc("stsd"), error->message) : cutShort(fourCc("stsd"));
  }
  return std::nullopt;
}

OptionalError parseVideoEntry(const TrackBoxes& track, Mp4VideoTrack& video) {
  Mp4BoxHeader header;
  std::span<const uint8_t> entry;
  if (auto error = firstSampleEntry(track, header, entry)) return error;
  if (header.type != fourCc("avc1") && header.type != fourCc("avc3")) {
    return Error::media("unsupported video codec " + fourCcText(header.type) +
                        " (only H.264 is sent as is)");
  }
  video.codec = header.type;
  Mp4BoxReader reader(entry);
  reader.skip(24);  // reserved, data reference index, pre-defined and reserved fields
  video.width = reader.u16();
  video.height = reader.u16();
  reader.skip(50);  // resolutions, frame count, compressor name, depth
  if (!reader.ok()) return cutShort(header.type);
  BoxSpan config;
  if (auto error = forEachChild(reader.rest(), [&](uint32_t type, std::span<const uint8_t> body) {
        return type == fourCc("avcC") && !config.present ? keep(config, type, body) : std::nullopt;
      })) {
    return error;
  }
  if (!config.present) return Error::media(fourCcText(header.type) + " track without avcC box");
  h264::AvcConfig avc;
  if (!h264::parseAvcDecoderConfig(config.payload, avc))
    return broken(fourCc("avcC"), "bad record");
  video.nalLengthSize = avc.lengthSize;
  if (!avc.sps.empty()) video.sps = avc.sps.front();
  if (!avc.pps.empty()) video.pps = avc.pps.front();
  return std::nullopt;
}

// The esds box of an mp4a entry: among its children, or inside QuickTime's 'wave' box.
OptionalError findEsds(std::span<const uint8_t> children, BoxSpan& esds) {
  BoxSpan wave;
  auto look = [&](uint32_t type, std::span<const uint8_t> body) -> OptionalError {
    if (type == fourCc("esds") && !esds.present) esds = {true, body};
    if (type == fourCc("wave") && !wave.present) wave = {true, body};
    return std::nullopt;
  };
  if (auto error = forEachChild(children, look)) return error;
  if (!esds.present && wave.present) return forEachChild(wave.payload, look);
  return std::nullopt;
}

// The object type and the decoder's configuration bytes from an esds box's ES descriptor;
// |decoderInfo| stays empty when there are none.
OptionalError parseEsds(std::span<const uint8_t> esds, uint8_t& objectTypeIndication,
                        std::span<const uint8_t>& decoderInfo) {
  Mp4BoxReader descriptors(esds);
  descriptors.skip(4);  // version, flags
  std::span<const uint8_t> es;
  uint8_t tag = 0;
  if (!readDescriptor(descriptors, tag, es) || tag != kEsDescriptorTag) {
    return broken(fourCc("esds"), "no ES descriptor");
  }
  Mp4BoxReader esReader(es);
  esReader.skip(2);  // ES_ID
  const uint8_t esFlags = esReader.u8();
  if (esFlags & 0x80) esReader.skip(2);              // depends on another stream
  if (esFlags & 0x40) esReader.skip(esReader.u8());  // URL
  if (esFlags & 0x20) esReader.skip(2);              // OCR stream
  std::span<const uint8_t> decoderConfig;
  if (!esReader.ok() || !findDescriptor(esReader, kDecoderConfigTag, decoderConfig)) {
    return broken(fourCc("esds"), "no decoder configuration");
  }
  Mp4BoxReader configReader(decoderConfig);
  objectTypeIndication = configReader.u8();
  configReader.skip(12);  // stream type, buffer size, bit rates
  if (!configReader.ok()) return broken(fourCc("esds"), "decoder configuration cut short");
  if (!findDescriptor(configReader, kDecoderInfoTag, decoderInfo)) decoderInfo = {};
  return std::nullopt;
}

OptionalError parseAudioEntry(const TrackBoxes& track, Mp4AudioTrack& audio) {
  Mp4BoxHeader header;
  std::span<const uint8_t> entry;
  if (auto error = firstSampleEntry(track, header, entry)) return error;
  if (header.type != fourCc("mp4a")) {
    return Error::media("unsupported audio codec " + fourCcText(header.type) +
                        " (only AAC is sent as is)");
  }
  Mp4BoxReader reader(entry);
  reader.skip(8);                         // reserved, data reference index
  const uint16_t version = reader.u16();  // QuickTime's sound description version; 0 in MP4
  reader.skip(6);
  int entryChannels = reader.u16();
  reader.skip(10);  // sample size, compression id, packet size, sample rate
  if (version == 1) {
    reader.skip(16);
  } else if (version == 2) {
    reader.skip(12);  // struct size, sample rate as a double
    entryChannels = static_cast<int>(reader.u32());
    reader.skip(20);
  }
  if (!reader.ok()) return cutShort(header.type);
  BoxSpan esds;
  if (auto error = findEsds(reader.rest(), esds)) return error;
  if (!esds.present) return Error::media("mp4a track without esds box");

  uint8_t objectTypeIndication = 0;
  std::span<const uint8_t> decoderInfo;
  if (auto error = parseEsds(esds.payload, objectTypeIndication, decoderInfo)) return error;
  // MPEG-4 audio, and the three MPEG-2 AAC profiles.
  if (objectTypeIndication != 0x40 &&
      (objectTypeIndication < 0x66 || objectTypeIndication > 0x68)) {
    static constexpr char kHex[] = "0123456789abcdef";
    return Error::media(std::string("unsupported audio codec mp4a with object type 0x") +
                        kHex[objectTypeIndication >> 4] + kHex[objectTypeIndication & 0x0F] +
                        " (only AAC is sent as is)");
  }
  if (decoderInfo.empty()) {
    return Error::media("no AAC configuration (AudioSpecificConfig) in the esds box");
  }
  AacAudioConfig config;
  if (decoderInfo.size() < 2 || !parseAudioSpecificConfig(decoderInfo, config)) {
    return broken(fourCc("esds"), "unreadable AudioSpecificConfig");
  }
  // Main, LC, SSR and LTP, with or without SBR/PS on top.
  if (config.objectType < 1 || config.objectType > 4) {
    return Error::media("unsupported audio codec mp4a with audio object type " +
                        std::to_string(config.objectType) + " (only AAC is sent as is)");
  }
  audio.asc = {decoderInfo[0], decoderInfo[1]};
  audio.sampleRate = config.sampleRate;
  audio.channels = aacChannelsOf(config.channelConfiguration);
  if (audio.channels == 0) audio.channels = entryChannels;
  if (config.parametricStereo && audio.channels == 1) audio.channels = 2;
  return std::nullopt;
}

// ---- sample tables ----

struct SampleSizes {
  uint32_t count = 0;
  uint32_t constant = 0;  // nonzero: every sample has this size
  std::span<const uint8_t> table;
  int fieldBits = 32;

  uint32_t at(size_t index) const {
    if (constant) return constant;
    switch (fieldBits) {
      case 4:
        return index % 2 ? table[index / 2] & 0x0F : table[index / 2] >> 4;
      case 8:
        return table[index];
      case 16:
        return uint32_t{table[2 * index]} << 8 | table[2 * index + 1];
      default:
        return uint32_t{table[4 * index]} << 24 | uint32_t{table[4 * index + 1]} << 16 |
               uint32_t{table[4 * index + 2]} << 8 | table[4 * index + 3];
    }
  }
};

OptionalError parseSampleSizes(const TrackBoxes& track, uint64_t fileSize, SampleSizes& sizes) {
  if (track.stsz.present) {
    Mp4BoxReader reader(track.stsz.payload);
    reader.skip(4);
    sizes.constant = reader.u32();
    sizes.count = reader.u32();
    if (!reader.ok()) return cutShort(fourCc("stsz"));
    if (sizes.constant == 0) {
      if (!reader.fits(sizes.count, 4)) {
        return broken(fourCc("stsz"), std::to_string(sizes.count) + " sizes do not fit in " +
                                          std::to_string(reader.remaining()) + " bytes");
      }
      sizes.table = reader.bytes(size_t{sizes.count} * 4);
    } else if (sizes.count > fileSize / sizes.constant) {
      return broken(fourCc("stsz"), std::to_string(sizes.count) + " samples of " +
                                        std::to_string(sizes.constant) +
                                        " bytes do not fit in the file");
    }
    return std::nullopt;
  }
  if (track.stz2.present) {
    Mp4BoxReader reader(track.stz2.payload);
    reader.skip(7);  // version, flags, reserved
    sizes.fieldBits = reader.u8();
    sizes.count = reader.u32();
    if (!reader.ok()) return cutShort(fourCc("stz2"));
    if (sizes.fieldBits != 4 && sizes.fieldBits != 8 && sizes.fieldBits != 16) {
      return broken(fourCc("stz2"), "field size " + std::to_string(sizes.fieldBits));
    }
    const uint64_t bytes = (uint64_t{sizes.count} * static_cast<uint64_t>(sizes.fieldBits) + 7) / 8;
    if (!reader.fits(bytes, 1)) {
      return broken(fourCc("stz2"), std::to_string(sizes.count) + " sizes do not fit");
    }
    sizes.table = reader.bytes(static_cast<size_t>(bytes));
    return std::nullopt;
  }
  return Error::media("track without sample sizes (no stsz or stz2 box)");
}

struct ChunkOffsets {
  uint32_t count = 0;
  std::span<const uint8_t> table;
  bool wide = false;

  uint64_t at(size_t index) const {
    uint64_t value = 0;
    const size_t width = wide ? 8 : 4;
    for (uint8_t byte : table.subspan(index * width, width)) value = value << 8 | byte;
    return value;
  }
};

OptionalError parseChunkOffsets(const TrackBoxes& track, ChunkOffsets& chunks) {
  const bool wide = !track.stco.present && track.co64.present;
  const BoxSpan& box = wide ? track.co64 : track.stco;
  const uint32_t type = wide ? fourCc("co64") : fourCc("stco");
  if (!box.present) return Error::media("track without chunk offsets (no stco or co64 box)");
  Mp4BoxReader reader(box.payload);
  reader.skip(4);
  chunks.count = reader.u32();
  chunks.wide = wide;
  const size_t width = wide ? 8 : 4;
  if (!reader.ok()) return cutShort(type);
  if (!reader.fits(chunks.count, width)) {
    return broken(type, std::to_string(chunks.count) + " offsets do not fit in " +
                            std::to_string(reader.remaining()) + " bytes");
  }
  chunks.table = reader.bytes(size_t{chunks.count} * width);
  return std::nullopt;
}

// One sample of one track, before the tracks are merged. Times are in the track's ticks.
struct TrackSample {
  uint64_t offset = 0;
  int64_t dts = 0;
  uint32_t size = 0;
  int32_t compositionOffset = 0;
  bool keyFrame = true;
};

// Places every sample: chunk offsets, the sample-to-chunk runs and the sizes together.
OptionalError layOutSamples(const TrackBoxes& track, uint64_t fileSize,
                            std::vector<TrackSample>& samples) {
  SampleSizes sizes;
  if (auto error = parseSampleSizes(track, fileSize, sizes)) return error;
  ChunkOffsets chunks;
  if (auto error = parseChunkOffsets(track, chunks)) return error;
  constexpr uint32_t kStsc = fourCc("stsc");
  if (!track.stsc.present) return Error::media("track without sample-to-chunk table (no stsc box)");
  Mp4BoxReader runs(track.stsc.payload);
  runs.skip(4);
  uint32_t runsLeft = runs.u32();
  if (!runs.ok()) return cutShort(kStsc);
  if (!runs.fits(runsLeft, 12)) {
    return broken(kStsc, std::to_string(runsLeft) + " entries do not fit in " +
                             std::to_string(runs.remaining()) + " bytes");
  }
  if (runsLeft == 0 && sizes.count > 0) return broken(kStsc, "no entries");

  samples.clear();
  samples.reserve(sizes.count);
  uint64_t samplesPerChunk = 0;
  // 1-based, as in the table; runs start at chunk 1 and go up.
  uint64_t nextFirstChunk = UINT64_MAX;
  if (runsLeft > 0) {
    nextFirstChunk = runs.u32();
    if (nextFirstChunk != 1) return broken(kStsc, "the first entry does not start at chunk 1");
  }
  auto nextRun = [&]() -> OptionalError {
    const uint64_t first = nextFirstChunk;
    samplesPerChunk = runs.u32();
    if (runs.u32() != 1) return unsupported("switching sample descriptions within a track");
    --runsLeft;
    nextFirstChunk = runsLeft > 0 ? runs.u32() : UINT64_MAX;
    if (nextFirstChunk <= first) return broken(kStsc, "first chunks not in increasing order");
    return std::nullopt;
  };
  for (uint64_t chunk = 1; chunk <= chunks.count; ++chunk) {
    while (chunk == nextFirstChunk) {
      if (auto error = nextRun()) return error;
    }
    uint64_t offset = chunks.at(chunk - 1);
    for (uint64_t n = 0; n < samplesPerChunk; ++n) {
      if (samples.size() == sizes.count) {
        return broken(kStsc, "the chunks hold more samples than the " +
                                 std::to_string(sizes.count) + " with sizes");
      }
      const uint32_t size = sizes.at(samples.size());
      if (offset > fileSize || size > fileSize - offset) {
        return Error::media("sample " + std::to_string(samples.size() + 1) + " (offset " +
                            std::to_string(offset) + ", " + std::to_string(size) +
                            " bytes) lies outside the file of " + std::to_string(fileSize) +
                            " bytes");
      }
      TrackSample sample;
      sample.offset = offset;
      sample.size = size;
      samples.push_back(sample);
      offset += size;
    }
  }
  if (samples.size() < sizes.count) {
    return broken(kStsc, "the chunks hold only " + std::to_string(samples.size()) + " of " +
                             std::to_string(sizes.count) + " samples");
  }
  return std::nullopt;
}

OptionalError assignDecodeTimes(const TrackBoxes& track, std::vector<TrackSample>& samples) {
  constexpr uint32_t kStts = fourCc("stts");
  if (!track.stts.present) return Error::media("track without decoding times (no stts box)");
  Mp4BoxReader reader(track.stts.payload);
  reader.skip(4);
  const uint32_t entries = reader.u32();
  if (!reader.ok()) return cutShort(kStts);
  if (!reader.fits(entries, 8)) {
    return broken(kStts, std::to_string(entries) + " entries do not fit in " +
                             std::to_string(reader.remaining()) + " bytes");
  }
  size_t next = 0;
  int64_t dts = 0;
  for (uint32_t e = 0; e < entries && next < samples.size(); ++e) {
    const uint32_t count = reader.u32();
    const uint32_t delta = reader.u32();
    for (uint32_t n = 0; n < count && next < samples.size(); ++n) {
      samples[next++].dts = dts;
      dts += delta;
      if (dts > kMaxTicks) return broken(kStts, "decoding times out of range");
    }
  }
  if (next < samples.size()) {
    return broken(kStts, "times for only " + std::to_string(next) + " of " +
                             std::to_string(samples.size()) + " samples");
  }
  return std::nullopt;
}

// Composition offsets, read as MediaSourceFile's FFmpeg reader reads them so that both place
// the edit the same way: signed values, entries with a count that is not positive skipped, the
// whole table dropped when an offset is absurd, and the decoding times shifted down by the
// largest negative offset (the last two entries excepted).
OptionalError assignCompositionOffsets(const TrackBoxes& track, std::vector<TrackSample>& samples,
                                       size_t& covered, int64_t& dtsShift) {
  covered = 0;
  dtsShift = 0;
  if (!track.ctts.present) return std::nullopt;
  constexpr uint32_t kCtts = fourCc("ctts");
  Mp4BoxReader reader(track.ctts.payload);
  reader.skip(4);
  const uint32_t entries = reader.u32();
  if (!reader.ok()) return cutShort(kCtts);
  if (!reader.fits(entries, 8)) {
    return broken(kCtts, std::to_string(entries) + " entries do not fit in " +
                             std::to_string(reader.remaining()) + " bytes");
  }
  const auto table = reader.bytes(size_t{entries} * 8);
  auto entryAt = [&](uint32_t index, int32_t& count, int32_t& offset) {
    Mp4BoxReader entry(table.subspan(size_t{index} * 8, 8));
    count = static_cast<int32_t>(entry.u32());
    offset = static_cast<int32_t>(entry.u32());
  };
  for (uint32_t e = 0; e < entries; ++e) {
    int32_t count = 0;
    int32_t offset = 0;
    entryAt(e, count, offset);
    if (count <= 0) continue;
    const bool last = uint64_t{e} + 2 >= entries;
    if (!last && (offset > (1 << 28) || offset < -(1 << 28))) return std::nullopt;
    if (!last && offset < 0) dtsShift = std::max<int64_t>(dtsShift, -int64_t{offset});
  }
  for (uint32_t e = 0; e < entries && covered < samples.size(); ++e) {
    int32_t count = 0;
    int32_t offset = 0;
    entryAt(e, count, offset);
    for (int32_t n = 0; n < count && covered < samples.size(); ++n) {
      samples[covered++].compositionOffset = offset;
    }
  }
  return std::nullopt;
}

// Without stss every sample is a sync sample; an empty one leaves only a video track's first
// sample (what MediaSourceFile's reader does).
OptionalError markKeyFrames(const TrackBoxes& track, bool video,
                            std::vector<TrackSample>& samples) {
  if (!track.stss.present) return std::nullopt;
  constexpr uint32_t kStss = fourCc("stss");
  Mp4BoxReader reader(track.stss.payload);
  reader.skip(4);
  const uint32_t entries = reader.u32();
  if (!reader.ok()) return cutShort(kStss);
  if (!reader.fits(entries, 4)) {
    return broken(kStss, std::to_string(entries) + " entries do not fit in " +
                             std::to_string(reader.remaining()) + " bytes");
  }
  if (entries == 0) {
    for (size_t i = 0; i < samples.size(); ++i) samples[i].keyFrame = !video || i == 0;
    return std::nullopt;
  }
  const auto table = reader.bytes(size_t{entries} * 4);
  auto entryAt = [&](uint32_t index) { return Mp4BoxReader(table.subspan(index * 4, 4)).u32(); };
  // Numbers count from 1; a table that starts at 0 counts from 0.
  const uint64_t base = entryAt(0) > 0 ? 1 : 0;
  uint32_t next = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i].keyFrame = i + base == entryAt(next);
    if (samples[i].keyFrame && next + 1 < entries) ++next;
  }
  return std::nullopt;
}

// An edit list of this shape only: empty edits that delay the track, then one media segment.
struct EditList {
  bool present = false;
  int64_t delay = 0;      // the empty edits, in the track's ticks
  int64_t mediaTime = 0;  // where the segment starts in the media
  int64_t duration = 0;   // the segment's length, in the track's ticks
};

OptionalError parseEditList(const TrackBoxes& track, uint32_t movieTimescale, EditList& edit) {
  if (!track.elst.present) return std::nullopt;
  constexpr uint32_t kElst = fourCc("elst");
  Mp4BoxReader reader(track.elst.payload);
  uint8_t version = 0;
  uint32_t flags = 0;
  reader.fullBoxHeader(version, flags);
  const uint32_t entries = reader.u32();
  if (!reader.ok()) return cutShort(kElst);
  const size_t entrySize = version == 1 ? 20 : 12;
  if (!reader.fits(entries, entrySize)) {
    return broken(kElst, std::to_string(entries) + " entries do not fit in " +
                             std::to_string(reader.remaining()) + " bytes");
  }
  if (entries == 0) return std::nullopt;
  if (movieTimescale == 0) return broken(fourCc("mvhd"), "time scale 0 with an edit list");
  auto ticks = [&](uint64_t movieTicks) {
    return rescale(static_cast<int64_t>(std::min<uint64_t>(movieTicks, kMaxTicks)), track.timescale,
                   movieTimescale);
  };
  for (uint32_t e = 0; e < entries; ++e) {
    const uint64_t duration = version == 1 ? reader.u64() : reader.u32();
    const int64_t mediaTime =
        version == 1 ? static_cast<int64_t>(reader.u64()) : static_cast<int32_t>(reader.u32());
    const uint32_t rate = reader.u32();
    if (edit.present) return unsupported("an edit list with more than one segment");
    if (mediaTime == -1) {
      edit.delay += ticks(duration);
      if (edit.delay > kMaxTicks) return broken(kElst, "empty edits out of range");
      continue;
    }
    if (mediaTime < 0 || mediaTime > kMaxTicks) return broken(kElst, "media time out of range");
    if (rate != 0x10000) return unsupported("an edit with a rate other than 1");
    if (duration == 0) return unsupported("an edit of no duration");
    edit.present = true;
    edit.mediaTime = mediaTime;
    edit.duration = ticks(duration);
  }
  if (!edit.present) return unsupported("an edit list without media");
  return std::nullopt;
}

// The sample an edit starts decoding from: the last key frame at or before |search| in decoding
// time and, where there are composition offsets, also in presentation time. -1 when none.
ptrdiff_t findEditStart(const std::vector<TrackSample>& samples, int64_t search, bool keyOnly,
                        size_t covered) {
  auto after = std::upper_bound(samples.begin(), samples.end(), search,
                                [](int64_t time, const TrackSample& s) { return time < s.dts; });
  ptrdiff_t index = (after - samples.begin()) - 1;
  while (keyOnly && index >= 0 && !samples[static_cast<size_t>(index)].keyFrame) --index;
  while (index >= 0 && static_cast<size_t>(index) < covered) {
    const TrackSample& sample = samples[static_cast<size_t>(index)];
    if (sample.dts + sample.compositionOffset <= search && sample.keyFrame) break;
    --index;
  }
  return index;
}

// Applies the edit the way MediaSourceFile's FFmpeg reader does, so that both readers agree on
// every timestamp: decoding starts at the key frame before the edit; samples before it are
// dropped; samples that only lead up to the edit keep decoding times that count back from the
// first one inside it; after the end of the edit, decoding goes on to the next key frame (the one
// after it with reordered frames, which may still belong to the edit). A video track is then
// shifted so that its first presented frame is at the edit's start.
void applyEditList(const EditList& edit, bool audio, int64_t timescale, size_t covered,
                   int64_t dtsShift, std::vector<TrackSample>& samples) {
  const int64_t search = audio ? std::max(edit.mediaTime - timescale, -dtsShift) : edit.mediaTime;
  ptrdiff_t start = findEditStart(samples, search, true, covered);
  if (start < 0) start = findEditStart(samples, search, false, covered);
  if (start < 0) start = 0;

  const int64_t editEnd = edit.mediaTime + edit.duration;
  int64_t next = edit.delay - dtsShift;
  bool inside = false;
  bool keyAfterEdit = false;
  bool haveFirstPts = false;
  int64_t firstPts = 0;
  std::vector<TrackSample> kept;
  kept.reserve(samples.size() - static_cast<size_t>(start));
  std::vector<int64_t> leadDurations;  // of the samples kept before the edit starts
  auto enterEdit = [&]() {
    inside = true;
    int64_t time = next;
    for (size_t k = leadDurations.size(); k-- > 0;) {
      time -= leadDurations[k];
      kept[k].dts = time;
    }
  };
  for (size_t i = static_cast<size_t>(start); i < samples.size(); ++i) {
    TrackSample sample = samples[i];
    const int64_t duration =
        i + 1 < samples.size() ? samples[i + 1].dts - sample.dts : edit.duration;
    const int64_t offset = i < covered ? sample.compositionOffset : 0;
    const int64_t pts = sample.dts + offset;
    if (pts < edit.mediaTime || pts >= editEnd) {
      if (audio && pts < edit.mediaTime && pts + duration > edit.mediaTime) {
        // A frame that straddles the edit's start: its decoding time puts the start at 0.
        next -= edit.mediaTime - pts;
        if (!inside) enterEdit();
      } else if (!inside) {
        leadDurations.push_back(duration);
      }
    } else {
      const int64_t presented = next + offset + dtsShift;
      firstPts = haveFirstPts ? std::min(firstPts, presented) : presented;
      haveFirstPts = true;
      if (!inside) enterEdit();
    }
    sample.dts = next;
    kept.push_back(sample);
    if (inside) next += duration;
    if (pts + duration >= editEnd && (sample.keyFrame || audio)) {
      if (covered > 0 && !audio && !keyAfterEdit) {
        keyAfterEdit = true;
        continue;
      }
      break;
    }
  }
  const int64_t shift = firstPts - edit.delay;
  if (!audio && haveFirstPts && shift > 0) {
    for (TrackSample& sample : kept) sample.dts -= shift;
  }
  samples = std::move(kept);
}

// What MediaSourceFile reports: the rate of the first stts entry when it describes the track (the
// last sample may differ), else the average.
double frameRateOf(const TrackBoxes& track) {
  Mp4BoxReader reader(track.stts.payload);
  reader.skip(4);
  const uint32_t entries = reader.u32();
  if (!reader.ok() || entries == 0 || track.timescale == 0 || !reader.fits(entries, 8)) return 0.0;
  uint64_t frames = 0;
  uint64_t ticks = 0;
  uint32_t firstDelta = 0;
  uint32_t secondCount = 0;
  for (uint32_t e = 0; e < entries; ++e) {
    const uint32_t count = reader.u32();
    const uint32_t delta = reader.u32();
    if (e == 0) firstDelta = delta;
    if (e == 1) secondCount = count;
    frames += count;
    ticks += uint64_t{count} * delta;
  }
  if (entries == 1 || (entries == 2 && secondCount == 1)) {
    return firstDelta > 0 ? static_cast<double>(track.timescale) / firstDelta : 0.0;
  }
  return ticks > 0 ? static_cast<double>(frames) * track.timescale / static_cast<double>(ticks)
                   : 0.0;
}

// One selected track, laid out and timed.
struct BuiltTrack {
  std::vector<TrackSample> samples;
  uint32_t timescale = 1;
  size_t order = 0;  // position among the movie's tracks
};

OptionalError buildTrack(const TrackBoxes& track, bool video, uint32_t movieTimescale,
                         uint64_t fileSize, BuiltTrack& built) {
  if (track.timescale == 0) return broken(fourCc("mdhd"), "time scale 0");
  if (!track.selfContained) return unsupported("media data in another file");
  built.timescale = track.timescale;
  EditList edit;
  if (auto error = parseEditList(track, movieTimescale, edit)) return error;
  std::vector<TrackSample>& samples = built.samples;
  if (auto error = layOutSamples(track, fileSize, samples)) return error;
  if (auto error = assignDecodeTimes(track, samples)) return error;
  size_t covered = 0;
  int64_t dtsShift = 0;
  if (auto error = assignCompositionOffsets(track, samples, covered, dtsShift)) return error;
  if (auto error = markKeyFrames(track, video, samples)) return error;
  if (edit.present) {
    applyEditList(edit, !video, track.timescale, covered, dtsShift, samples);
  } else {
    for (TrackSample& sample : samples) sample.dts -= dtsShift;
  }
  // Only contradictory tables (composition offsets that move an edit's start back and forth)
  // can send decoding times backwards; they are held level so that time only moves on.
  for (size_t i = 1; i < samples.size(); ++i) {
    samples[i].dts = std::max(samples[i].dts, samples[i - 1].dts);
  }
  return std::nullopt;
}

// The track a player would pick among those of |handler|: enabled first, then one with a few
// samples over one with hardly any, then the higher bit rate.
const TrackBoxes* chooseTrack(const std::vector<TrackBoxes>& tracks, uint32_t handler,
                              uint64_t fileSize, size_t& order) {
  std::vector<size_t> candidates;
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (tracks[i].handler == handler) candidates.push_back(i);
  }
  if (candidates.empty()) return nullptr;
  order = candidates.front();
  if (candidates.size() == 1) return &tracks[order];
  struct Rank {
    bool enabled = false;
    uint32_t samples = 0;  // up to 5
    double bitRate = 0.0;
    bool operator>(const Rank& other) const {
      if (enabled != other.enabled) return enabled;
      if (samples != other.samples) return samples > other.samples;
      return bitRate > other.bitRate;
    }
  };
  auto rankOf = [&](const TrackBoxes& track) {
    Rank rank;
    rank.enabled = track.enabled;
    SampleSizes sizes;
    if (parseSampleSizes(track, fileSize, sizes)) return rank;
    rank.samples = std::min<uint32_t>(sizes.count, 5);
    if (track.duration > 0 && track.timescale > 0) {
      double bytes = static_cast<double>(sizes.constant) * sizes.count;
      for (size_t n = 0; !sizes.constant && n < sizes.count; ++n) bytes += sizes.at(n);
      rank.bitRate = bytes * track.timescale / static_cast<double>(track.duration);
    }
    return rank;
  };
  Rank best = rankOf(tracks[order]);
  for (size_t i = 1; i < candidates.size(); ++i) {
    const Rank rank = rankOf(tracks[candidates[i]]);
    if (rank > best) {
      best = rank;
      order = candidates[i];
    }
  }
  return &tracks[order];
}

}  // namespace

Mp4ByteSource Mp4ByteSource::memory(std::span<const uint8_t> bytes) {
  // A copy: the source may outlive the caller's buffer (a media source keeps reading from it).
  auto owned = std::make_shared<const std::vector<uint8_t>>(bytes.begin(), bytes.end());
  Mp4ByteSource source;
  source.size = owned->size();
  source.readAt = [owned](uint64_t offset, std::span<uint8_t> out) -> OptionalError {
    if (offset > owned->size() || out.size() > owned->size() - offset) {
      return Error::media("read past the end of the data");
    }
    if (!out.empty()) std::memcpy(out.data(), owned->data() + offset, out.size());
    return std::nullopt;
  };
  return source;
}

std::unique_ptr<Mp4Demuxer> Mp4Demuxer::open(Mp4ByteSource source, OptionalError& error) {
  std::unique_ptr<Mp4Demuxer> demuxer(new Mp4Demuxer(std::move(source)));
  error = demuxer->load();
  if (error) demuxer.reset();
  return demuxer;
}

OptionalError Mp4Demuxer::readSample(const Mp4Sample& sample, std::span<const uint8_t>& bytes) {
  ++reads_;
  auto holds = [&](const Window& window) {
    return sample.offset >= window.offset && sample.offset - window.offset <= window.bytes.size() &&
           sample.size <= window.bytes.size() - (sample.offset - window.offset);
  };
  Window* window = holds(windows_[0]) ? &windows_[0] : holds(windows_[1]) ? &windows_[1] : nullptr;
  if (!window) {
    window = windows_[0].lastUse <= windows_[1].lastUse ? &windows_[0] : &windows_[1];
    // Sample offsets and sizes were checked against the source's size when it was opened.
    const uint64_t length =
        std::max<uint64_t>(sample.size, std::min(kReadAhead, source_.size - sample.offset));
    window->offset = sample.offset;
    window->bytes.resize(static_cast<size_t>(length));
    if (auto error = source_.readAt(window->offset, window->bytes)) {
      window->bytes.clear();
      return error;
    }
  }
  window->lastUse = reads_;
  bytes = std::span<const uint8_t>(window->bytes)
              .subspan(static_cast<size_t>(sample.offset - window->offset), sample.size);
  return std::nullopt;
}

OptionalError Mp4Demuxer::load() {
  uint64_t moovOffset = 0;
  uint64_t moovSize = 0;
  if (auto error = findMovieBox(source_, moovOffset, moovSize)) return error;
  // The header check bounded the box by the file, so this allocation is too.
  std::vector<uint8_t> moov(static_cast<size_t>(moovSize));
  if (auto error = source_.readAt(moovOffset, moov)) return error;
  MovieBoxes movie;
  if (auto error = parseMovie(moov, movie)) return error;

  size_t videoOrder = 0;
  size_t audioOrder = 0;
  const TrackBoxes* videoBoxes =
      chooseTrack(movie.tracks, fourCc("vide"), source_.size, videoOrder);
  const TrackBoxes* audioBoxes =
      chooseTrack(movie.tracks, fourCc("soun"), source_.size, audioOrder);
  if (!videoBoxes && !audioBoxes) return Error::media("neither a video nor an audio track");
  // Codecs first: a file in another codec is refused for that, whatever its tables hold.
  if (videoBoxes) {
    if (auto error = parseVideoEntry(*videoBoxes, video_.emplace())) return error;
    video_->frameRate = frameRateOf(*videoBoxes);
  }
  if (audioBoxes) {
    if (auto error = parseAudioEntry(*audioBoxes, audio_.emplace())) return error;
  }

  BuiltTrack videoTrack;
  BuiltTrack audioTrack;
  if (videoBoxes) {
    if (auto error = buildTrack(*videoBoxes, true, movie.timescale, source_.size, videoTrack)) {
      return error;
    }
    videoTrack.order = videoOrder;
    const auto& samples = videoTrack.samples;
    video_->reordered = std::any_of(samples.begin(), samples.end(), [&](const TrackSample& s) {
      return s.compositionOffset != samples.front().compositionOffset;
    });
  }
  if (audioBoxes) {
    if (auto error = buildTrack(*audioBoxes, false, movie.timescale, source_.size, audioTrack)) {
      return error;
    }
    audioTrack.order = audioOrder;
  }

  if (movie.timescale > 0 && movie.duration > 0) {
    duration_ = static_cast<double>(movie.duration) / movie.timescale;
  } else {
    for (const TrackBoxes& track : movie.tracks) {
      if (track.timescale > 0) {
        duration_ = std::max(duration_, static_cast<double>(track.duration) / track.timescale);
      }
    }
  }

  // MediaSourceFile's clock starts at the first packet at or after time 0 that its reader meets,
  // and that reader walks the tracks in file order unless one runs more than a second ahead of
  // another (compared in microseconds, tracks in movie order). Samples met before are sent at 0.
  std::vector<const BuiltTrack*> byOrder;
  if (videoBoxes) byOrder.push_back(&videoTrack);
  if (audioBoxes) byOrder.push_back(&audioTrack);
  std::sort(byOrder.begin(), byOrder.end(),
            [](const BuiltTrack* a, const BuiltTrack* b) { return a->order < b->order; });
  std::vector<size_t> cursors(byOrder.size(), 0);
  startTime_ = 0.0;
  bool started = false;
  for (;;) {
    size_t picked = byOrder.size();
    int64_t pickedMicros = 0;
    for (size_t t = 0; t < byOrder.size(); ++t) {
      const BuiltTrack& track = *byOrder[t];
      if (cursors[t] == track.samples.size()) continue;
      const TrackSample& head = track.samples[cursors[t]];
      const int64_t micros = rescale(head.dts, 1'000'000, track.timescale);
      const uint64_t gap = micros > pickedMicros ? static_cast<uint64_t>(micros - pickedMicros)
                                                 : static_cast<uint64_t>(pickedMicros - micros);
      if (picked == byOrder.size() ||
          (gap <= 1'000'000 && head.offset < byOrder[picked]->samples[cursors[picked]].offset) ||
          (gap > 1'000'000 && micros < pickedMicros)) {
        picked = t;
        pickedMicros = micros;
      }
    }
    if (picked == byOrder.size()) break;
    const BuiltTrack& track = *byOrder[picked];
    const TrackSample& head = track.samples[cursors[picked]++];
    const double time = static_cast<double>(head.dts) / track.timescale;
    if (head.dts >= 0) {
      startTime_ = time;
      break;
    }
    // With nothing at or after 0, everything is sent at 0.
    startTime_ = started ? std::max(startTime_, time) : time;
    started = true;
  }

  samples_.reserve(videoTrack.samples.size() + audioTrack.samples.size());
  auto append = [this](const TrackSample& sample, const BuiltTrack& track, bool video) {
    Mp4Sample& out = samples_.emplace_back();
    out.offset = sample.offset;
    out.size = sample.size;
    out.video = video;
    out.keyFrame = sample.keyFrame;
    out.time = static_cast<double>(sample.dts) / track.timescale;
  };
  const std::vector<TrackSample>& videoSamples = videoTrack.samples;
  const std::vector<TrackSample>& audioSamples = audioTrack.samples;
  size_t v = 0;
  size_t a = 0;
  while (v < videoSamples.size() && a < audioSamples.size()) {
    const double videoTime = static_cast<double>(videoSamples[v].dts) / videoTrack.timescale;
    const double audioTime = static_cast<double>(audioSamples[a].dts) / audioTrack.timescale;
    if (videoTime < audioTime ||
        (videoTime == audioTime && videoSamples[v].offset <= audioSamples[a].offset)) {
      append(videoSamples[v++], videoTrack, true);
    } else {
      append(audioSamples[a++], audioTrack, false);
    }
  }
  while (v < videoSamples.size()) append(videoSamples[v++], videoTrack, true);
  while (a < audioSamples.size()) append(audioSamples[a++], audioTrack, false);
  return std::nullopt;
}

}  // namespace nembra
