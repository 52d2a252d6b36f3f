#include "streaming/network_bitstream_writer.h"

namespace nembra {

void NetworkBitstreamWriter::PutByteInternal(uint8_t byte) { connection_.Send(&byte, 1); }

void NetworkBitstreamWriter::PutBytesInternal(const uint8_t* data, size_t size) {
  connection_.Send(data, size);
}

}  // namespace nembra
