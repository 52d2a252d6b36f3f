#include "streaming/amf_number.h"

#include <bit>
#include <cstdint>

namespace nembra {

void AMFNumber::ReadImpl(BitstreamReader& reader) {
  value_ = std::bit_cast<double>(reader.GetBits(64));
}

void AMFNumber::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::Number));
  writer.PutBits(std::bit_cast<uint64_t>(value_), 64);
}

std::string AMFNumber::ToStringImpl() const { return "NUMBER: " + std::to_string(value_); }

}  // namespace nembra
