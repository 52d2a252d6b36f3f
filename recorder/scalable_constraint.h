// A layout constant that follows a scale: constant = scale × basicConstant, recomputed whenever
// either changes and handed to whatever applies it (a button's size, a margin).
//
// Threading: main queue only.
#pragma once

#include <functional>

namespace nembra {

class ScalableConstraint {
 public:
  using Apply = std::function<void(double constant)>;

  explicit ScalableConstraint(Apply apply = {}) : apply_(std::move(apply)) {}

  double scale() const { return scale_; }
  double basicConstant() const { return basicConstant_; }
  double constant() const { return constant_; }

  void setScale(double scale);
  void setBasicConstant(double basicConstant);
  // constant := scale × basicConstant, then applied.
  void updateConstant();

 private:
  Apply apply_;
  double scale_ = 1.0;
  double basicConstant_ = 0;
  double constant_ = 0;
};

}  // namespace nembra
