#include "streaming/network_bitstream_reader.h"

namespace nembra {

uint8_t NetworkBitstreamReader::GetByteInternal() {
  uint8_t byte = 0;
  connection_.Receive(&byte, 1);
  return byte;
}

void NetworkBitstreamReader::GetBytesInternal(uint8_t* destination, size_t count) {
  connection_.Receive(destination, count);
}

}  // namespace nembra
