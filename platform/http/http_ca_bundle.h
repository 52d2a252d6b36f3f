// Trusted roots for TLS when the deployment adds its own: the system bundle followed by the
// extra PEM certificates. A file of roots can only replace the system ones, never add to them,
// so the two are joined in memory and handed over as one bundle.
//
// Threading: built once by the client, immutable after, read by the network thread.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"

namespace nembra {

class HttpCaBundle {
 public:
  // Joins the PEM text of |systemBundlePath| (skipped when empty or unreadable: the system
  // directory of roots still applies) and |extraPemPath|. Returns null and sets |error| when
  // the extra file cannot be read or holds no certificate.
  static std::shared_ptr<const HttpCaBundle> withExtraRoots(const std::string& systemBundlePath,
                                                            const std::string& extraPemPath,
                                                            OptionalError& error);

  const std::string& pem() const { return pem_; }

 private:
  explicit HttpCaBundle(std::string pem) : pem_(std::move(pem)) {}
  std::string pem_;
};

}  // namespace nembra
