// A bitstream writer whose bytes go straight to the connection, for the handshake.
#pragma once

#include <cstddef>
#include <cstdint>

#include "streaming/bitstream_writer.h"
#include "streaming/network_connection.h"

namespace nembra {

// Every PutByte or completed bit field is one send; PutBytes sends its range at once. Position
// means nothing here and stays 0. |connection| must outlive the writer.
class NetworkBitstreamWriter : public BitstreamWriter {
 public:
  explicit NetworkBitstreamWriter(NetworkConnection& connection) : connection_(connection) {}

 protected:
  void PutByteInternal(uint8_t byte) override;
  void PutBytesInternal(const uint8_t* data, size_t size) override;

 private:
  NetworkConnection& connection_;
};

}  // namespace nembra
