#pragma once

#include "streaming/amf_value.h"

namespace nembra {

class AMFBoolean : public AMFValue {
 public:
  explicit AMFBoolean(bool value = false) : value_(value) {}

  bool Value() const { return value_; }
  void SetValue(bool value) { value_ = value; }

 protected:
  void ReadImpl(BitstreamReader& reader) override;
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::Boolean; }
  std::string ToStringImpl() const override;

 private:
  bool value_;
};

}  // namespace nembra
