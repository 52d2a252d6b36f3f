#include "nembra/error.h"

namespace nembra {

const char* errorKindName(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::Transport: return "transport";
    case ErrorKind::Timeout: return "timeout";
    case ErrorKind::Http: return "http";
    case ErrorKind::Parse: return "parse";
    case ErrorKind::File: return "file";
    case ErrorKind::Cancelled: return "cancelled";
    case ErrorKind::InvalidArgument: return "invalid argument";
    case ErrorKind::Media: return "media";
    case ErrorKind::Internal: return "internal";
  }
  return "unknown";
}

}  // namespace nembra
