#include "streaming/amf_object.h"

#include <stdexcept>

#include "streaming/amf_string.h"

namespace nembra {

namespace {
constexpr uint8_t kObjectEndMarker = 0x09;
}  // namespace

void AMFObject::AddValue(const std::string& name, std::shared_ptr<AMFValue> value) {
  properties_[name] = std::move(value);
}

std::shared_ptr<AMFValue> AMFObject::GetValue(const std::string& name) const {
  auto it = properties_.find(name);
  return it == properties_.end() ? nullptr : it->second;
}

std::string AMFObject::ReadFieldName(BitstreamReader& reader) {
  std::string name = ReadAMFShortString(reader);
  if (name.empty() && reader.GetByte() != kObjectEndMarker) {
    throw std::runtime_error("empty name found without end object marker");
  }
  return name;
}

void AMFObject::WriteFieldName(BitstreamWriter& writer, const std::string& name) {
  WriteAMFShortString(writer, name);
}

void AMFObject::ReadImpl(BitstreamReader& reader) { ReadProperties(reader); }

void AMFObject::WriteImpl(BitstreamWriter& writer) const {
  writer.PutByte(static_cast<uint8_t>(AMFType::Object));
  WriteProperties(writer);
}

void AMFObject::ReadProperties(BitstreamReader& reader) {
  for (;;) {
    std::string name = ReadFieldName(reader);
    if (name.empty()) {
      return;
    }
    AddValue(name, ReadValue(reader));
  }
}

void AMFObject::WriteProperties(BitstreamWriter& writer) const {
  for (const auto& [name, value] : properties_) {
    WriteFieldName(writer, name);
    WriteAMFValueOrNull(writer, value);
  }
  writer.PutBits(0, 16);  // empty name
  writer.PutByte(kObjectEndMarker);
}

std::string AMFObject::DumpWithTitle(const char* title) const {
  std::string text = std::string(title) + ": {\n";
  for (const auto& [name, value] : properties_) {
    text += name;
    text += ' ';
    text += value ? value->ToString() : "NULL";
    text += '\n';
  }
  text += '}';
  return text;
}

}  // namespace nembra
