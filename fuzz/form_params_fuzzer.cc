// Reads arbitrary text as a form body and as one percent-encoded value.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "service/form_params.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto form = nembra::FormParams::parse(text);
  if (form.ok()) {
    size_t bytes = 0;
    for (const auto& [name, value] : form->pairs()) {
      bytes += name.size() + value.size();
      if (form->get(name) == std::nullopt) std::abort();  // every name it lists can be got
    }
    if (bytes > size) std::abort();  // decoding never grows text
  }
  auto decoded = nembra::percentDecode(text);
  if (decoded && decoded->size() > size) std::abort();
  return 0;
}
