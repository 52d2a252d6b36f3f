// Builds one resource model from arbitrary JSON text, the model chosen by the first byte. A
// model never fails to build (an exception escaping is a crash here), what it writes must dump,
// and it must build again from what it wrote. Not the same model: a boolean it writes as JSON
// true reads back false, as only the text "true" is true.
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "nembra/audio.h"
#include "nembra/image.h"
#include "nembra/media_fields.h"
#include "nembra/stream_model.h"
#include "nembra/video.h"

namespace {

template <typename Model>
void roundTrip(const nembra::Json& json) {
  const nembra::Json written = Model::initWithJson(json).toDictionary();
  const nembra::Json again = Model::initWithJson(written).toDictionary();
  // Stored text may hold any bytes: dumped as a host would log it.
  for (const nembra::Json* value : {&written, &again}) {
    if (value->dump(-1, ' ', false, nembra::Json::error_handler_t::replace).empty()) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 64 * 1024) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  nembra::Json json = nembra::Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return 0;
  switch (data[0] % 5) {
    case 0:
      roundTrip<nembra::Video>(json);
      break;
    case 1:
      roundTrip<nembra::Audio>(json);
      break;
    case 2:
      roundTrip<nembra::Image>(json);
      break;
    case 3:
      roundTrip<nembra::StreamModel>(json);
      break;
    default:
      roundTrip<nembra::MediaFields>(json);
      break;
  }
  return 0;
}
