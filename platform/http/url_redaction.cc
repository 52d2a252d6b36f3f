#include "platform/http/url_redaction.h"

namespace nembra {

std::string redactUrl(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return std::string(url);
  const size_t authority = scheme + 3;
  const size_t pathStart = std::min(url.find('/', authority), url.size());
  std::string_view host = url.substr(authority, pathStart - authority);
  // User info ends at the last '@' of the authority.
  if (size_t at = host.rfind('@'); at != std::string_view::npos) host.remove_prefix(at + 1);
  std::string out(url.substr(0, authority));
  out += host;
  out += url.substr(pathStart);
  return out;
}

}  // namespace nembra
