#include "platform/http/http_client.h"

#include <strings.h>

namespace nembra {

std::optional<std::string> HttpResponse::header(std::string_view name) const {
  for (const auto& [headerName, value] : headers) {
    if (headerName.size() == name.size() &&
        strncasecmp(headerName.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace nembra
