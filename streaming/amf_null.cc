#include "streaming/amf_null.h"

namespace nembra {

void AMFNull::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::Null));
}

}  // namespace nembra
