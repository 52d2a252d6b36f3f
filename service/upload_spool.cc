#include "service/upload_spool.h"

#include <chrono>
#include <cstdio>

#include "service/upload_file_writer.h"

namespace nembra {

UploadSpool::UploadSpool(const DataDirectory& directory, const FaultInjection& faults)
    : directory_(directory), faults_(faults) {}

UploadSpool::~UploadSpool() {
  if (!filePath_.empty()) std::remove(filePath_.c_str());
}

std::string UploadSpool::takeFile() {
  std::string path = std::move(filePath_);
  filePath_.clear();
  return path;
}

UploadSpool::Outcome UploadSpool::receive(const RestRequest& request, const std::string& boundary,
                                          const std::string& fileField, const FileGate& gate) {
  if (!request.hasBody()) {
    message_ = "the request has no body";
    return Outcome::Malformed;
  }
  return receive([&](const BodyReceiver& receiver) { return (*request.reader)(receiver); },
                 boundary, fileField, gate);
}

UploadSpool::Outcome UploadSpool::receive(const BodyReader& read, const std::string& boundary,
                                          const std::string& fileField, const FileGate& gate) {
  UploadFileWriter file;
  bool inFile = false;
  bool sawFile = false;
  uint64_t fileLimit = 0;
  uint64_t fieldBytes = 0;
  std::string fieldName;
  std::string fieldValue;
  bool inField = false;
  std::optional<Outcome> stop;

  MultipartStreamParser::Callbacks callbacks;
  callbacks.onPartBegin = [&](const MultipartPart& part) {
    // Taking one of two files would store what the client may not have meant to send.
    if (part.name == fileField && part.filename && sawFile) {
      message_ = "the form has more than one file part";
      stop = Outcome::Malformed;
      return false;
    }
    if (part.name == fileField && part.filename) {
      sawFile = true;
      auto limit = gate ? gate(fields_) : std::optional<uint64_t>(UINT64_MAX);
      if (!limit) {
        stop = Outcome::Refused;
        return false;
      }
      fileLimit = *limit;
      filePath_ = directory_.newTemporaryPath(".part");
      if (!file.open(filePath_)) {
        message_ = file.error();
        stop = Outcome::WriteFailed;
        return false;
      }
      inFile = true;
      return true;
    }
    // Fields after the file part are not part of the form (as with S3).
    inField = !sawFile;
    fieldName = part.name;
    fieldValue.clear();
    return true;
  };
  callbacks.onPartData = [&](const char* data, size_t size) {
    if (inFile) {
      fileBytes_ += size;
      if (fileBytes_ > fileLimit) {
        stop = Outcome::TooLarge;
        return false;
      }
      if (!file.write(data, size)) {
        message_ = file.error();
        stop = Outcome::WriteFailed;
        return false;
      }
      return true;
    }
    if (inField) {
      fieldBytes += size;
      if (fieldBytes > kMaxFieldBytes) {
        message_ = "the form fields are larger than 64 KiB";
        stop = Outcome::Malformed;
        return false;
      }
      fieldValue.append(data, size);
    }
    return true;
  };
  callbacks.onPartEnd = [&] {
    if (inFile) {
      inFile = false;
      if (!file.close()) {
        message_ = file.error();
        stop = Outcome::WriteFailed;
        return false;
      }
    } else if (inField) {
      fields_.emplace_back(fieldName, fieldValue);
      inField = false;
    }
    return true;
  };

  MultipartStreamParser parser(boundary, std::move(callbacks));
  auto start = std::chrono::steady_clock::now();
  uint64_t bodyBytes = 0;
  bool completed = read([&](const char* data, size_t size) {
    bodyBytes += size;
    if (faults_.cutsUploadAt(bodyBytes)) {
      stop = Outcome::Cut;
      return false;
    }
    auto status = parser.feed(data, size);
    if (status == MultipartStreamParser::Status::Malformed) {
      message_ = parser.error();
      stop = Outcome::Malformed;
      return false;
    }
    if (status == MultipartStreamParser::Status::Stopped) return false;
    return faults_.pace(start, bodyBytes);
  });
  // An upload cut short leaves its file open: closed here, before it is removed.
  file.close();
  auto failed = [&](Outcome outcome) {
    if (!filePath_.empty()) std::remove(filePath_.c_str());
    filePath_.clear();
    return outcome;
  };
  if (stop) return failed(*stop);
  if (!completed) {
    message_ = "the body ended before its declared length";
    return failed(Outcome::ReadFailed);
  }
  if (parser.finish() != MultipartStreamParser::Status::Done) {
    message_ = parser.error();
    return failed(Outcome::Malformed);
  }
  if (!sawFile) return failed(Outcome::NoFile);
  return Outcome::Stored;
}

}  // namespace nembra
