// A bitstream reader whose bytes come straight from the connection, for the handshake.
#pragma once

#include <cstddef>
#include <cstdint>

#include "streaming/bitstream_reader.h"
#include "streaming/network_connection.h"

namespace nembra {

// Every byte is a blocking receive, so GetBits(32) waits for four bytes; use GetBytes for
// anything longer than a field. Receive failures throw "netowrk recv data failed". Position and
// remaining size mean nothing here and stay 0. |connection| must outlive the reader.
class NetworkBitstreamReader : public BitstreamReader {
 public:
  explicit NetworkBitstreamReader(NetworkConnection& connection) : connection_(connection) {}

 protected:
  uint8_t GetByteInternal() override;
  void GetBytesInternal(uint8_t* destination, size_t count) override;

 private:
  NetworkConnection& connection_;
};

}  // namespace nembra
