#include "streaming/avcc_parser.h"

#include <stdexcept>

#include "platform/media/media_encoder_h264_units.h"

namespace nembra {

void AVCCParser::ExtractSpsPps(const Bytes& data) {
  // A length that runs past the end only ends the scan: the units before it still count.
  std::vector<h264::NalUnit> units;
  h264::splitLengthPrefixed(data, 4, units);
  for (h264::NalUnit unit : units) {
    const uint8_t type = h264::nalType(unit);
    if (type == h264::kNalSps) sps_.emplace_back(unit.begin(), unit.end());
    if (type == h264::kNalPps) pps_.emplace_back(unit.begin(), unit.end());
  }
}

AVCCParser::Bytes AVCCParser::GetDecoderConfigurationRecord() const {
  if (sps_.empty()) throw std::runtime_error("no sps defined");
  return h264::writeAvcDecoderConfig(h264::AvcConfig{sps_, pps_, 4});
}

}  // namespace nembra
