// The storage endpoint behind "url_data"'s URL: POST /storage/BUCKET with a browser-style
// multipart form (the signed fields, then the file). The form is verified when the file part
// begins, before a byte of it is stored; the file then streams to disk and becomes the file of
// the stream its key names. Answers 204 on success and S3-style XML errors otherwise.
//
// Threading: any HTTP worker thread, several at once.
#pragma once

#include <string>

#include "service/fault_injection.h"
#include "service/media_library.h"
#include "service/route_table.h"
#include "service/storage_policy_verifier.h"

namespace nembra {

class StorageUploadReceiver {
 public:
  StorageUploadReceiver(MediaLibrary& library, const StoragePolicyVerifier& verifier,
                        std::string bucket, const FaultInjection& faults,
                        const ServiceOptions& options);

  void registerRoutes(RouteTable& routes);

 private:
  void receive(RestRequest& request);

  MediaLibrary& library_;
  const StoragePolicyVerifier& verifier_;
  const std::string bucket_;
  const FaultInjection& faults_;
  const ServiceOptions& options_;
};

}  // namespace nembra
