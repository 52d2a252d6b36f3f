#include "platform/http/http_header_line.h"

namespace nembra {

void HttpHeaderLine::apply(std::string_view line, HttpHeaders& headers) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    headers.clear();
    return;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  const size_t valueStart = line.find_first_not_of(" \t", colon + 1);
  headers.emplace_back(
      std::string(line.substr(0, colon)),
      valueStart == std::string_view::npos ? std::string() : std::string(line.substr(valueStart)));
}

}  // namespace nembra
