#include "streaming/amf_value.h"

#include <stdexcept>

#include "streaming/amf_array.h"
#include "streaming/amf_boolean.h"
#include "streaming/amf_null.h"
#include "streaming/amf_number.h"
#include "streaming/amf_object.h"
#include "streaming/amf_string.h"

namespace nembra {

namespace {

thread_local int readDepth = 0;

class NestingGuard {
 public:
  NestingGuard() {
    if (++readDepth > AMFValue::kMaxNesting) {
      --readDepth;
      throw std::runtime_error("AMF values nested too deeply");
    }
  }
  ~NestingGuard() { --readDepth; }
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;
};

std::shared_ptr<AMFValue> CreateForMarker(uint8_t marker) {
  switch (static_cast<AMFType>(marker)) {
    case AMFType::Number:
      return std::make_shared<AMFNumber>();
    case AMFType::Boolean:
      return std::make_shared<AMFBoolean>();
    case AMFType::String:
      return std::make_shared<AMFString>();
    case AMFType::Object:
      return std::make_shared<AMFObject>();
    case AMFType::Null:
    case AMFType::Undefined:
      return std::make_shared<AMFNull>();
    case AMFType::EcmaArray:
      return std::make_shared<AMFArray>();
  }
  throw std::runtime_error("unknown AMF type");
}

}  // namespace

std::shared_ptr<AMFValue> AMFValue::ReadValue(BitstreamReader& reader) {
  NestingGuard guard;
  std::shared_ptr<AMFValue> value = CreateForMarker(reader.GetByte());
  value->Read(reader);
  return value;
}

std::shared_ptr<AMFValue> AMFValue::Number(double value) {
  return std::make_shared<AMFNumber>(value);
}
std::shared_ptr<AMFValue> AMFValue::Bool(bool value) { return std::make_shared<AMFBoolean>(value); }
std::shared_ptr<AMFValue> AMFValue::String(std::string value) {
  return std::make_shared<AMFString>(std::move(value));
}
std::shared_ptr<AMFValue> AMFValue::Object() { return std::make_shared<AMFObject>(); }
std::shared_ptr<AMFValue> AMFValue::Array() { return std::make_shared<AMFArray>(); }
std::shared_ptr<AMFValue> AMFValue::Null() { return std::make_shared<AMFNull>(); }

void WriteAMFValueOrNull(BitstreamWriter& writer, const std::shared_ptr<AMFValue>& value) {
  if (value) {
    value->Write(writer);
  } else {
    writer.PutByte(static_cast<uint8_t>(AMFType::Null));
  }
}

}  // namespace nembra
