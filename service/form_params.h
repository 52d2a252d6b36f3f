// Request parameters as the SDK sends them: "name=value&" pairs in a query or an
// application/x-www-form-urlencoded body, values percent-encoded with a set that leaves '+' as it
// is. A '+' therefore stays a plus here, unlike the HTML form rule that reads it as a space: the
// SDK encodes spaces as %20, and reading '+' as a space would change the values it sends.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/result.h"

namespace nembra {

class FormParams {
 public:
  // Empty pieces (the SDK's trailing "&") are skipped; a piece without '=' is a name with an
  // empty value. A malformed escape ("%4", "%zz") or a NUL anywhere is an InvalidArgument error.
  static Result<FormParams> parse(std::string_view text);

  // Adds the pairs of |other| after these.
  void append(const FormParams& other);
  void add(std::string name, std::string value);

  // The first value under |name|.
  std::optional<std::string> get(std::string_view name) const;
  bool has(std::string_view name) const { return get(name).has_value(); }
  const std::vector<std::pair<std::string, std::string>>& pairs() const { return pairs_; }

 private:
  std::vector<std::pair<std::string, std::string>> pairs_;
};

// %XX decoding only; '+' is kept. Nothing on a malformed escape.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace nembra
