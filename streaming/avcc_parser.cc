#include "streaming/avcc_parser.h"

#include <stdexcept>

#include "streaming/bitstream_reader.h"
#include "streaming/bitstream_writer.h"

namespace nembra {

namespace {

constexpr uint8_t kNalTypeSps = 7;
constexpr uint8_t kNalTypePps = 8;

}  // namespace

void AVCCParser::ExtractSpsPps(const Bytes& data) {
  BitstreamReader reader(data);
  while (reader.RemainingDataSize() >= 4) {
    const auto length = static_cast<size_t>(reader.GetBits(32));
    if (length == 0) continue;
    if (length > reader.RemainingDataSize()) break;
    const size_t start = reader.Position();
    const uint8_t type = data[start] & 0x1F;
    if (type == kNalTypeSps || type == kNalTypePps) {
      Bytes unit(data.begin() + static_cast<ptrdiff_t>(start),
                 data.begin() + static_cast<ptrdiff_t>(start + length));
      (type == kNalTypeSps ? sps_ : pps_).push_back(std::move(unit));
    }
    reader.Skip(length);
  }
}

AVCCParser::Bytes AVCCParser::GetDecoderConfigurationRecord() const {
  if (sps_.empty()) throw std::runtime_error("no sps defined");
  Bytes record;
  BitstreamWriter writer(record);
  BitstreamReader first(sps_.front());
  first.Skip(1);                       // the NAL header
  writer.PutBits(1, 8);                // configuration version
  writer.PutBits(first.GetByte(), 8);  // profile
  writer.PutBits(first.GetByte(), 8);  // profile compatibility
  writer.PutBits(first.GetByte(), 8);  // level
  writer.PutBits(0x3F, 6);             // reserved
  writer.PutBits(3, 2);                // NAL length size minus one
  writer.PutBits(0x7, 3);              // reserved
  writer.PutBits(sps_.size(), 5);      // number of SPS
  for (const Bytes& sps : sps_) {
    writer.PutBits(sps.size(), 16);
    writer.PutBytes(sps);
  }
  writer.PutBits(pps_.size() & 0xFF, 8);  // number of PPS
  for (const Bytes& pps : pps_) {
    writer.PutBits(pps.size(), 16);
    writer.PutBytes(pps);
  }
  return record;
}

}  // namespace nembra
