#include "streaming/amf_array.h"

namespace nembra {

void AMFArray::ReadImpl(BitstreamReader& reader) {
  reader.GetBits(32);  // the announced count
  ReadProperties(reader);
}

void AMFArray::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::EcmaArray));
  writer.PutBits(Values().size(), 32);
  WriteProperties(writer);
}

}  // namespace nembra
