#include "platform/media/media_encoder_h264_units.h"

namespace nembra::h264 {

std::vector<NalUnit> splitAnnexB(std::span<const uint8_t> bytes) {
  std::vector<NalUnit> units;
  const size_t size = bytes.size();
  size_t unitStart = size;  // none yet
  size_t i = 0;
  while (i + 2 < size) {
    if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) {
      if (unitStart < size) {
        size_t end = i;
        // A zero before the start code belongs to the 4-byte form, not to the unit.
        while (end > unitStart && bytes[end - 1] == 0) --end;
        if (end > unitStart) units.push_back(bytes.subspan(unitStart, end - unitStart));
      }
      i += 3;
      unitStart = i;
    } else {
      ++i;
    }
  }
  if (unitStart < size) units.push_back(bytes.subspan(unitStart));
  return units;
}

bool splitLengthPrefixed(std::span<const uint8_t> bytes, int lengthSize,
                         std::vector<NalUnit>& units) {
  if (lengthSize < 1 || lengthSize > 4) return false;
  const auto prefix = static_cast<size_t>(lengthSize);
  size_t position = 0;
  while (position < bytes.size()) {
    if (bytes.size() - position < prefix) return false;
    size_t length = 0;
    for (size_t k = 0; k < prefix; ++k) length = length << 8 | bytes[position + k];
    position += prefix;
    if (length > bytes.size() - position) return false;
    if (length > 0) units.push_back(bytes.subspan(position, length));
    position += length;
  }
  return true;
}

void appendLengthPrefixed(std::vector<uint8_t>& out, NalUnit unit) {
  const auto length = static_cast<uint32_t>(unit.size());
  out.push_back(static_cast<uint8_t>(length >> 24));
  out.push_back(static_cast<uint8_t>(length >> 16));
  out.push_back(static_cast<uint8_t>(length >> 8));
  out.push_back(static_cast<uint8_t>(length));
  out.insert(out.end(), unit.begin(), unit.end());
}

bool parseAvcDecoderConfig(std::span<const uint8_t> record, AvcConfig& config) {
  // version, profile, compatibility, level, 6 bits reserved + length size minus one
  if (record.size() < 6 || record[0] != 1) return false;
  config = AvcConfig{};
  config.lengthSize = (record[4] & 0x03) + 1;
  size_t position = 5;
  auto readSets = [&](size_t count, std::vector<std::vector<uint8_t>>& sets) {
    for (size_t n = 0; n < count; ++n) {
      if (record.size() - position < 2) return false;
      const size_t length = size_t{record[position]} << 8 | record[position + 1];
      position += 2;
      if (record.size() - position < length) return false;
      sets.emplace_back(record.begin() + static_cast<ptrdiff_t>(position),
                        record.begin() + static_cast<ptrdiff_t>(position + length));
      position += length;
    }
    return true;
  };
  const size_t spsCount = record[position++] & 0x1F;
  if (!readSets(spsCount, config.sps)) return false;
  if (position >= record.size()) return false;
  const size_t ppsCount = record[position++];
  return readSets(ppsCount, config.pps);
}

std::vector<uint8_t> writeAvcDecoderConfig(const AvcConfig& config) {
  const std::vector<uint8_t>& first = config.sps.front();
  auto profileByte = [&](size_t i) { return i < first.size() ? first[i] : uint8_t{0}; };
  std::vector<uint8_t> record;
  auto put16 = [&](size_t value) {
    record.push_back(static_cast<uint8_t>(value >> 8));
    record.push_back(static_cast<uint8_t>(value));
  };
  record.push_back(1);               // configuration version
  record.push_back(profileByte(1));  // profile
  record.push_back(profileByte(2));  // profile compatibility
  record.push_back(profileByte(3));  // level
  // 6 reserved bits, then the NAL length size minus one
  record.push_back(static_cast<uint8_t>(0xFC | ((config.lengthSize - 1) & 0x03)));
  // 3 reserved bits, then the number of SPS
  record.push_back(static_cast<uint8_t>(0xE0 | (config.sps.size() & 0x1F)));
  for (const auto& sps : config.sps) {
    put16(sps.size());
    record.insert(record.end(), sps.begin(), sps.end());
  }
  record.push_back(static_cast<uint8_t>(config.pps.size() & 0xFF));  // number of PPS
  for (const auto& pps : config.pps) {
    put16(pps.size());
    record.insert(record.end(), pps.begin(), pps.end());
  }
  return record;
}

void repackAccessUnit(const std::vector<NalUnit>& units, std::vector<uint8_t>& out,
                      std::vector<uint8_t>& sps, std::vector<uint8_t>& pps) {
  for (NalUnit unit : units) {
    switch (nalType(unit)) {
      case kNalSps:
        sps.assign(unit.begin(), unit.end());
        break;
      case kNalPps:
        pps.assign(unit.begin(), unit.end());
        break;
      case kNalAccessUnitDelimiter:
        break;
      default:
        appendLengthPrefixed(out, unit);
    }
  }
}

}  // namespace nembra::h264
