// Reads arbitrary bytes both ways an avcC record is met: as a decoder configuration record, and
// as a length-prefixed key frame whose parameter sets make one. A record that reads must write
// and read back to the same parameter sets; one made from a key frame must read.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <vector>

#include "platform/media/media_encoder_h264_units.h"
#include "streaming/avcc_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  nembra::h264::AvcConfig config;
  if (nembra::h264::parseAvcDecoderConfig(bytes, config) && !config.sps.empty() &&
      config.sps.size() < 32 && config.pps.size() < 256) {
    nembra::h264::AvcConfig again;
    if (!nembra::h264::parseAvcDecoderConfig(nembra::h264::writeAvcDecoderConfig(config), again) ||
        again.sps != config.sps || again.pps != config.pps) {
      std::abort();
    }
  }

  nembra::AVCCParser parser;
  parser.ExtractSpsPps(std::vector<uint8_t>(data, data + size));
  for (const auto& unit : parser.SPS()) {
    if (unit.empty() || (unit[0] & 0x1F) != 7) std::abort();
  }
  std::vector<uint8_t> record;
  try {
    record = parser.GetDecoderConfigurationRecord();
  } catch (const std::runtime_error&) {
    if (!parser.SPS().empty()) std::abort();
    return 0;
  }
  if (record.empty() || record[0] != 1) std::abort();
  return 0;
}
