#pragma once

#include "streaming/amf_object.h"

namespace nembra {

// An AMF0 ECMA array: an object preceded by a property count. The count read from the wire is
// ignored; the properties up to the end marker are what counts.
class AMFArray : public AMFObject {
 protected:
  void ReadImpl(BitstreamReader& reader) override;
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::EcmaArray; }
  std::string ToStringImpl() const override { return DumpWithTitle("ARRAY"); }
};

}  // namespace nembra
