#pragma once

#include "streaming/amf_value.h"

namespace nembra {

// Also what an AMF0 undefined reads as; it is written back as null.
class AMFNull : public AMFValue {
 protected:
  void ReadImpl(BitstreamReader&) override {}
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::Null; }
  std::string ToStringImpl() const override { return "NULL"; }
};

}  // namespace nembra
