#include "streaming/amf_string.h"

#include <cstdint>

namespace nembra {

std::string ReadAMFShortString(BitstreamReader& reader) {
  const size_t length = reader.GetBits(16);
  std::string text(length, '\0');
  reader.GetBytes(reinterpret_cast<uint8_t*>(text.data()), length);
  return text;
}

void WriteAMFShortString(BitstreamWriter& writer, const std::string& text) {
  writer.PutBits(text.size() & 0xFFFF, 16);
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  writer.PutBytes(bytes, bytes + text.size());
}

void AMFString::ReadImpl(BitstreamReader& reader) { value_ = ReadAMFShortString(reader); }

void AMFString::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::String));
  WriteAMFShortString(writer, value_);
}

}  // namespace nembra
