// Reads arbitrary text as the upload-URL request's answer for the media type named by the first
// byte. An accepted answer must hold safe tokens and an http(s) storage URL; the form's policy
// expiration must read (or not) without failing, whatever the fields hold.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "api/media_token.h"
#include "api/upload_url_reply.h"
#include "nembra/media_type.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 64 * 1024) return 0;
  static constexpr int kTypes[] = {nembra::VIDEO, nembra::AUDIO, nembra::IMAGE, 0};
  const int type = kTypes[data[0] % 4];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  nembra::Json json = nembra::Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return 0;
  nembra::UploadUrlReply reply;
  const nembra::OptionalError error = nembra::UploadUrlReply::parse(type, json, reply);
  (void)nembra::UploadUrlReply::formExpiration(json);
  if (error) return 0;
  if (!nembra::MediaToken::isSafe(reply.mediaToken)) std::abort();
  if (type == nembra::VIDEO && !nembra::MediaToken::isSafe(reply.streamToken)) std::abort();
  if (reply.url.rfind("http://", 0) != 0 && reply.url.rfind("https://", 0) != 0) std::abort();
  if (!reply.fields.is_object()) std::abort();
  (void)nembra::UploadUrlReply::formExpiration(reply.fields);
  return 0;
}
