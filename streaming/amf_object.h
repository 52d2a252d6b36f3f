#pragma once

#include <map>
#include <memory>
#include <string>

#include "streaming/amf_value.h"

namespace nembra {

// Properties are kept sorted by byte-wise name comparison and always written in that order;
// insertion order is not recorded. Servers accept it, and the connect command relies on it.
class AMFObject : public AMFValue {
 public:
  using Properties = std::map<std::string, std::shared_ptr<AMFValue>>;

  // Replaces an existing property of that name. An empty |value| is written as null.
  void AddValue(const std::string& name, std::shared_ptr<AMFValue> value);
  // Empty when absent.
  std::shared_ptr<AMFValue> GetValue(const std::string& name) const;
  const Properties& Values() const { return properties_; }

  // Returns the name, or the empty name at the object end (an empty name followed by 0x09).
  // An empty name followed by anything else throws
  // std::runtime_error("empty name found without end object marker").
  static std::string ReadFieldName(BitstreamReader& reader);
  static void WriteFieldName(BitstreamWriter& writer, const std::string& name);

 protected:
  void ReadImpl(BitstreamReader& reader) override;
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::Object; }
  std::string ToStringImpl() const override { return DumpWithTitle("OBJECT"); }

  void ReadProperties(BitstreamReader& reader);
  void WriteProperties(BitstreamWriter& writer) const;
  std::string DumpWithTitle(const char* title) const;

 private:
  Properties properties_;
};

}  // namespace nembra
