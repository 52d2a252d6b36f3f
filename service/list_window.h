// The page of an index request: "limit" (1 to 1000, default 100) and "offset" (0 or more).
#pragma once

#include <cstdint>

#include "service/form_params.h"
#include "service/result.h"

namespace nembra {

struct ListWindow {
  int64_t limit = 100;
  int64_t offset = 0;

  static constexpr int64_t kMaxLimit = 1000;

  // An InvalidArgument error for values that are not whole numbers in range.
  static Result<ListWindow> from(const FormParams& params);
};

}  // namespace nembra
