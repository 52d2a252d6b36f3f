// Reads AMF0 values one after another from arbitrary bytes. Every value read must dump, write
// and read back to the same dump.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "streaming/amf_value.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> bytes(data, data + size);
  nembra::BitstreamReader reader(bytes);
  while (reader.RemainingDataSize() > 0) {
    std::shared_ptr<nembra::AMFValue> value;
    try {
      value = nembra::AMFValue::ReadValue(reader);
    } catch (const std::runtime_error&) {
      return 0;
    }
    const std::string dump = value->ToString();
    std::vector<uint8_t> written;
    nembra::BitstreamWriter writer(written);
    value->Write(writer);
    nembra::BitstreamReader again(written);
    if (nembra::AMFValue::ReadValue(again)->ToString() != dump || again.RemainingDataSize() != 0) {
      std::abort();
    }
  }
  return 0;
}
