// Decodes arbitrary bytes as a chunked body, once whole and once a byte at a time: the verdict,
// the data and where the body ends must not depend on how the bytes arrived.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "service/chunked_body_decoder.h"

using nembra::ChunkedBodyDecoder;

namespace {

struct Outcome {
  ChunkedBodyDecoder::Status status = ChunkedBodyDecoder::Status::NeedMore;
  std::string data;
  size_t used = 0;
};

Outcome decode(const char* input, size_t size, size_t step) {
  ChunkedBodyDecoder decoder;
  Outcome outcome;
  auto sink = [&](const char* bytes, size_t count) {
    outcome.data.append(bytes, count);
    return true;
  };
  for (size_t at = 0; at < size;) {
    size_t feed = std::min(step, size - at);
    size_t consumed = 0;
    outcome.status = decoder.decode(input + at, feed, consumed, sink);
    if (consumed > feed) std::abort();
    at += consumed;
    outcome.used = at;
    if (outcome.status != ChunkedBodyDecoder::Status::NeedMore) break;
    if (consumed != feed) std::abort();  // NeedMore takes everything
  }
  if (decoder.dataBytes() != outcome.data.size()) std::abort();
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* input = reinterpret_cast<const char*>(data);
  Outcome whole = decode(input, size, size == 0 ? 1 : size);
  Outcome bytewise = decode(input, size, 1);
  if (whole.status != bytewise.status) std::abort();
  if (whole.status == ChunkedBodyDecoder::Status::Done &&
      (whole.data != bytewise.data || whole.used != bytewise.used)) {
    std::abort();
  }
  return 0;
}
