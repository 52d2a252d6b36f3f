#include "streaming/amf_boolean.h"

namespace nembra {

void AMFBoolean::ReadImpl(BitstreamReader& reader) { value_ = reader.GetByte() != 0; }

void AMFBoolean::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::Boolean));
  writer.PutByte(value_ ? 1 : 0);
}

std::string AMFBoolean::ToStringImpl() const {
  return std::string("BOOL: ") + (value_ ? "true" : "false");
}

}  // namespace nembra
