// Receives a multipart/form-data upload straight to a temporary file under the data directory:
// the body is read from the socket block by block, the form fields before the file part are
// kept (small), and the file part's bytes go to disk as they arrive. Nothing is buffered beyond
// one block, whatever the file's size.
//
// Threading: one spool per request, on the thread serving it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/data_directory.h"
#include "service/fault_injection.h"
#include "service/multipart_stream_parser.h"
#include "service/rest_request.h"

namespace nembra {

class UploadSpool {
 public:
  enum class Outcome {
    Stored,       // the file part is on disk (filePath())
    Malformed,    // not multipart, or broken (message())
    NoFile,       // no part named as the file field
    TooLarge,     // the file passed its limit
    Refused,      // the gate refused the file
    Cut,          // fault injection: the connection must be cut now
    ReadFailed,   // the client stopped sending
    WriteFailed,  // the disk refused the bytes
  };

  // Called when the file part begins, with the fields read before it. Returns the most bytes the
  // file may have, or nothing to refuse it.
  using FileGate = std::function<std::optional<uint64_t>(
      const std::vector<std::pair<std::string, std::string>>& fields)>;

  // Hands the body to |receiver| block by block until it ends (true) or the receiver or the
  // connection stops it (false).
  using BodyReceiver = std::function<bool(const char* data, size_t size)>;
  using BodyReader = std::function<bool(const BodyReceiver& receiver)>;

  UploadSpool(const DataDirectory& directory, const FaultInjection& faults);
  // Removes the temporary file unless it was taken.
  ~UploadSpool();
  UploadSpool(const UploadSpool&) = delete;
  UploadSpool& operator=(const UploadSpool&) = delete;

  // Reads the whole body of |request|, a multipart body with |boundary|, keeping the file part
  // named |fileField|. Fields are limited to 64 KiB in all.
  Outcome receive(const RestRequest& request, const std::string& boundary,
                  const std::string& fileField, const FileGate& gate);
  // The same for a body that |read| delivers; the caller knows there is one.
  Outcome receive(const BodyReader& read, const std::string& boundary, const std::string& fileField,
                  const FileGate& gate);

  const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }
  const std::string& filePath() const { return filePath_; }
  uint64_t fileBytes() const { return fileBytes_; }
  const std::string& message() const { return message_; }
  // The file is the caller's now; the spool no longer removes it.
  std::string takeFile();

  static constexpr uint64_t kMaxFieldBytes = 64 * 1024;

 private:
  const DataDirectory& directory_;
  const FaultInjection& faults_;
  std::vector<std::pair<std::string, std::string>> fields_;
  std::string filePath_;
  uint64_t fileBytes_ = 0;
  std::string message_;
};

}  // namespace nembra
