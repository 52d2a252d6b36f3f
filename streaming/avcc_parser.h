// Pulls the parameter sets out of a length-prefixed H.264 key frame and builds the AVC decoder
// configuration record (ISO/IEC 14496-15) that opens an FLV video stream.
#pragma once

#include <cstdint>
#include <vector>

namespace nembra {

// Used by one thread at a time.
class AVCCParser {
 public:
  using Bytes = std::vector<uint8_t>;

  // Appends every SPS (type 7) and PPS (type 8) unit of |data|, header byte included, to the
  // lists; other units are skipped. |data| is a run of 4-byte big-endian lengths and units; a
  // length that runs past the end ends the scan.
  void ExtractSpsPps(const Bytes& data);

  // Throws std::runtime_error("no sps defined") while no SPS has been found.
  Bytes GetDecoderConfigurationRecord() const;

  const std::vector<Bytes>& SPS() const { return sps_; }
  const std::vector<Bytes>& PPS() const { return pps_; }

 private:
  std::vector<Bytes> sps_;
  std::vector<Bytes> pps_;
};

}  // namespace nembra
