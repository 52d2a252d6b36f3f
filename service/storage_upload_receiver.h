// What the storage endpoint does with POST /storage/BUCKET and a browser-style multipart form
// (the signed fields, then the file): the form is verified when the file part begins, before a
// byte of it is stored; the file then streams to disk and becomes the file of the stream its key
// names. The verdict is the endpoint's answer: stored (204), refused with an S3-style error, or
// the connection to be cut (fault injection). It knows nothing of sockets: the server carrying
// the request reads the body for it.
//
// Threading: any connection thread, several at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "service/fault_injection.h"
#include "service/media_library.h"
#include "service/storage_policy_verifier.h"
#include "service/upload_spool.h"

namespace nembra {

// One storage POST as the receiver sees it.
struct StoragePost {
  std::string bucket;                      // the URL's
  std::string contentType;                 // as the client sent it
  std::optional<uint64_t> declaredLength;  // nothing when chunked or absent
  bool hasBody = false;                    // a Content-Length above 0 or a chunked body
  UploadSpool::BodyReader read;            // reads the body; called at most once
};

struct StorageVerdict {
  enum class Kind {
    Stored,   // 204
    Refused,  // error holds the answer; the body may be unread
    Cut,      // end the connection midway through the answer
  };
  Kind kind = Kind::Stored;
  StorageError error;
};

class StorageUploadReceiver {
 public:
  StorageUploadReceiver(MediaLibrary& library, const StoragePolicyVerifier& verifier,
                        std::string bucket, const FaultInjection& faults,
                        const ServiceOptions& options);

  StorageVerdict receive(const StoragePost& post);

 private:
  MediaLibrary& library_;
  const StoragePolicyVerifier& verifier_;
  const std::string bucket_;
  const FaultInjection& faults_;
  const ServiceOptions& options_;
};

}  // namespace nembra
