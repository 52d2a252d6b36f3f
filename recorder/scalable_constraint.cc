#include "recorder/scalable_constraint.h"

namespace nembra {

void ScalableConstraint::setScale(double scale) {
  scale_ = scale;
  updateConstant();
}

void ScalableConstraint::setBasicConstant(double basicConstant) {
  basicConstant_ = basicConstant;
  updateConstant();
}

void ScalableConstraint::updateConstant() {
  constant_ = scale_ * basicConstant_;
  if (apply_) apply_(constant_);
}

}  // namespace nembra
