#include "service/storage_upload_receiver.h"

#include <algorithm>

#include "platform/http/http_time.h"
#include "service/multipart_stream_parser.h"
#include "service/service_reply.h"
#include "service/upload_spool.h"

namespace nembra {

StorageUploadReceiver::StorageUploadReceiver(MediaLibrary& library,
                                             const StoragePolicyVerifier& verifier,
                                             std::string bucket, const FaultInjection& faults,
                                             const ServiceOptions& options)
    : library_(library),
      verifier_(verifier),
      bucket_(std::move(bucket)),
      faults_(faults),
      options_(options) {}

StorageVerdict StorageUploadReceiver::receive(const StoragePost& post) {
  auto refuse = [](StorageError error) {
    return StorageVerdict{StorageVerdict::Kind::Refused, std::move(error)};
  };
  if (post.bucket != bucket_) {
    return refuse({404, "NoSuchBucket", "The specified bucket does not exist"});
  }
  auto boundary = MultipartStreamParser::boundaryFromContentType(post.contentType);
  if (!boundary || !post.hasBody) {
    return refuse({400, "MalformedPOSTRequest",
                   "The body of your POST request is not well-formed multipart/form-data."});
  }
  // The form's own fields add a few kilobytes to the largest file a policy can allow.
  uint64_t ceiling = options_.maxUploadBytes + UploadSpool::kMaxFieldBytes + 64 * 1024;
  if (post.declaredLength && *post.declaredLength > ceiling) {
    return refuse({400, "EntityTooLarge", "Your proposed upload exceeds the maximum allowed size"});
  }
  std::optional<StorageError> refusal;
  std::optional<UploadTicket> ticket;
  StoragePolicyGrant grant;
  auto gate = [&](const std::vector<std::pair<std::string, std::string>>& fields)
      -> std::optional<uint64_t> {
    refusal = verifier_.verify(fields, bucket_, unixNow(), grant);
    if (refusal) return std::nullopt;
    auto found = library_.ticket(grant.key);
    if (!found) {
      refusal = StorageError{403, "AccessDenied", found.error().message};
      return std::nullopt;
    }
    ticket = std::move(*found);
    return static_cast<uint64_t>(
        std::clamp<int64_t>(std::min(grant.maxBytes, ticket->maxBytes), 0, INT64_MAX));
  };

  UploadSpool spool(library_.directory(), faults_);
  switch (spool.receive(post.read, *boundary, "file", gate)) {
    case UploadSpool::Outcome::Stored:
      break;
    case UploadSpool::Outcome::Cut:
      return StorageVerdict{StorageVerdict::Kind::Cut, {}};
    case UploadSpool::Outcome::Refused:
      return refuse(*refusal);
    case UploadSpool::Outcome::TooLarge:
      return refuse(
          {400, "EntityTooLarge", "Your proposed upload exceeds the maximum allowed size"});
    case UploadSpool::Outcome::NoFile: {
      // The form's own faults come first, as they would had a file followed.
      StoragePolicyGrant unused;
      if (auto error = verifier_.verify(spool.fields(), bucket_, unixNow(), unused)) {
        return refuse(*error);
      }
      return refuse({400, "InvalidArgument", "POST requires exactly one file upload per request."});
    }
    case UploadSpool::Outcome::ReadFailed:
      return refuse({400, "IncompleteBody",
                     "You did not provide the number of bytes specified by the Content-Length "
                     "HTTP header"});
    case UploadSpool::Outcome::WriteFailed:
      return refuse({500, "InternalError", spool.message()});
    case UploadSpool::Outcome::Malformed:
      return refuse({400, "MalformedPOSTRequest",
                     "The body of your POST request is not well-formed multipart/form-data: " +
                         spool.message()});
  }
  if (static_cast<int64_t>(spool.fileBytes()) < grant.minBytes) {
    return refuse(
        {400, "EntityTooSmall", "Your proposed upload is smaller than the minimum allowed size"});
  }
  auto stored =
      library_.attachFile(ticket->application, ticket->kind, ticket->media, ticket->stream,
                          spool.takeFile(), MediaLibrary::Unplayable::Keep);
  if (!stored) {
    int status = ServiceReply::statusFor(stored.error());
    return refuse(
        {status, status == 409 ? "OperationAborted" : "InvalidRequest", stored.error().message});
  }
  return StorageVerdict{};
}

}  // namespace nembra
