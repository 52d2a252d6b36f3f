#pragma once

#include "streaming/amf_value.h"

namespace nembra {

class AMFNumber : public AMFValue {
 public:
  explicit AMFNumber(double value = 0.0) : value_(value) {}

  double Value() const { return value_; }
  void SetValue(double value) { value_ = value; }

 protected:
  void ReadImpl(BitstreamReader& reader) override;
  void WriteImpl(BitstreamWriter& writer) const override;
  AMFType GetTypeImpl() const override { return AMFType::Number; }
  std::string ToStringImpl() const override;

 private:
  double value_;
};

}  // namespace nembra
