// Error values handed to callbacks and delegates. Nothing on the service side throws: a failure
// reaches its callback as an Error, and an absent error means success.
#pragma once

#include <optional>
#include <string>

namespace nembra {

// One list of error kinds. A caller tells "retry may help" (Transport, Timeout, Http 5xx)
// from "will fail again" (Parse, File, InvalidArgument) by the kind.
enum class ErrorKind {
  Transport,        // connection refused, reset, DNS failure, TLS failure
  Timeout,          // no progress within the allowed time
  Http,             // the server answered with a status the operation cannot use
  Parse,            // a reply that is not the JSON (or format) the operation expects
  File,             // a local file is missing, unreadable or unwritable
  Cancelled,        // the caller cancelled the operation
  InvalidArgument,  // the caller passed something unusable
  Media,            // a media file cannot be demuxed, decoded or encoded
  Internal,         // a broken invariant of the SDK itself
};

struct Error {
  ErrorKind kind = ErrorKind::Internal;
  std::string message;
  int code = 0;  // kind-specific: an HTTP status, an errno, a curl code

  static Error transport(std::string message, int code = 0) {
    return {ErrorKind::Transport, std::move(message), code};
  }
  static Error timeout(std::string message) { return {ErrorKind::Timeout, std::move(message), 0}; }
  static Error http(int status, std::string message) {
    return {ErrorKind::Http, std::move(message), status};
  }
  static Error parse(std::string message) { return {ErrorKind::Parse, std::move(message), 0}; }
  static Error file(std::string message, int code = 0) {
    return {ErrorKind::File, std::move(message), code};
  }
  static Error cancelled(std::string message = "cancelled") {
    return {ErrorKind::Cancelled, std::move(message), 0};
  }
  static Error invalidArgument(std::string message) {
    return {ErrorKind::InvalidArgument, std::move(message), 0};
  }
  static Error media(std::string message) { return {ErrorKind::Media, std::move(message), 0}; }
  static Error internal(std::string message) {
    return {ErrorKind::Internal, std::move(message), 0};
  }
};

using OptionalError = std::optional<Error>;

inline const char* errorKindName(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::Transport:
      return "transport";
    case ErrorKind::Timeout:
      return "timeout";
    case ErrorKind::Http:
      return "http";
    case ErrorKind::Parse:
      return "parse";
    case ErrorKind::File:
      return "file";
    case ErrorKind::Cancelled:
      return "cancelled";
    case ErrorKind::InvalidArgument:
      return "invalid argument";
    case ErrorKind::Media:
      return "media";
    case ErrorKind::Internal:
      return "internal";
  }
  return "unknown";
}

}  // namespace nembra
