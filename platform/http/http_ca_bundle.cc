#include "platform/http/http_ca_bundle.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace nembra {

namespace {

bool readWhole(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream content;
  content << in.rdbuf();
  text = content.str();
  return !in.bad();
}

}  // namespace

std::shared_ptr<const HttpCaBundle> HttpCaBundle::withExtraRoots(
    const std::string& systemBundlePath, const std::string& extraPemPath, OptionalError& error) {
  std::string extra;
  if (!readWhole(extraPemPath, extra)) {
    int code = errno;
    error = Error::file(
        "cannot read the extra TLS roots in " + extraPemPath + ": " + std::strerror(code), code);
    return nullptr;
  }
  if (extra.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
    error = Error::file("the extra TLS roots file " + extraPemPath + " holds no PEM certificate");
    return nullptr;
  }
  std::string pem;
  if (!systemBundlePath.empty()) readWhole(systemBundlePath, pem);
  if (!pem.empty() && pem.back() != '\n') pem += '\n';
  pem += extra;
  return std::shared_ptr<const HttpCaBundle>(new HttpCaBundle(std::move(pem)));
}

}  // namespace nembra
