#include "service/multipart_stream_parser.h"

#include <string.h>  // memmem

#include <algorithm>
#include <cctype>

#include "service/form_params.h"
#include "service/http_text.h"

namespace nembra {
namespace {

// Splits "a; b=\"x;y\"; c" at the semicolons outside quotes.
std::vector<std::string_view> splitParameters(std::string_view value) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  bool quoted = false;
  for (size_t i = 0; i < value.size(); ++i) {
    char c = value[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == ';' && !quoted) {
      pieces.push_back(value.substr(start, i - start));
      start = i + 1;
    }
  }
  pieces.push_back(value.substr(start));
  return pieces;
}

std::string unquote(std::string_view value) {
  value = trimHttpSpace(value);
  if (value.size() < 2 || value.front() != '"' || value.back() != '"') return std::string(value);
  std::string out;
  for (size_t i = 1; i + 1 < value.size(); ++i) {
    if (value[i] == '\\' && i + 2 < value.size()) ++i;
    out.push_back(value[i]);
  }
  return out;
}

constexpr size_t kMaxBoundary = 200;
// Transport padding allowed after a delimiter before its CRLF.
constexpr size_t kMaxPadding = 256;

}  // namespace

MultipartStreamParser::MultipartStreamParser(std::string boundary, Callbacks callbacks)
    : bodyDelimiter_("\r\n--" + boundary),
      callbacks_(std::move(callbacks)),
      // A delimiter at the very start of the body has no CRLF before it; lending it one lets the
      // preamble search look for CRLF "--" boundary alone.
      pending_("\r\n") {}

std::optional<std::string> MultipartStreamParser::boundaryFromContentType(
    std::string_view contentType) {
  auto pieces = splitParameters(contentType);
  if (asciiLower(trimHttpSpace(pieces.front())) != "multipart/form-data") return std::nullopt;
  for (size_t i = 1; i < pieces.size(); ++i) {
    std::string_view piece = trimHttpSpace(pieces[i]);
    size_t equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    if (asciiLower(trimHttpSpace(piece.substr(0, equals))) != "boundary") continue;
    std::string boundary = unquote(piece.substr(equals + 1));
    if (boundary.empty() || boundary.size() > kMaxBoundary) return std::nullopt;
    return boundary;
  }
  return std::nullopt;
}

bool MultipartStreamParser::parseContentDisposition(std::string_view value, MultipartPart& part) {
  auto pieces = splitParameters(value);
  if (asciiLower(trimHttpSpace(pieces.front())) != "form-data") return false;
  bool named = false;
  std::optional<std::string> extendedFilename;
  for (size_t i = 1; i < pieces.size(); ++i) {
    std::string_view piece = trimHttpSpace(pieces[i]);
    if (piece.empty()) continue;  // the SDK's trailing ';'
    size_t equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    std::string key = asciiLower(trimHttpSpace(piece.substr(0, equals)));
    std::string_view raw = piece.substr(equals + 1);
    if (key == "name") {
      part.name = unquote(raw);
      named = true;
    } else if (key == "filename") {
      part.filename = unquote(raw);
    } else if (key == "filename*") {
      // RFC 5987: charset'language'percent-encoded-text
      std::string text = unquote(raw);
      size_t quote = text.find('\'', text.find('\'') + 1);
      if (quote != std::string::npos) {
        extendedFilename = percentDecode(std::string_view(text).substr(quote + 1));
      }
    }
  }
  if (!part.filename && extendedFilename) part.filename = extendedFilename;
  return named;
}

bool MultipartStreamParser::parseHeaders(std::string_view block, MultipartPart& part) {
  bool disposed = false;
  while (!block.empty()) {
    size_t end = block.find("\r\n");
    std::string_view line = block.substr(0, end);
    block = end == std::string_view::npos ? std::string_view() : block.substr(end + 2);
    if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
      // A folded line continues the previous header.
      if (part.headers.empty()) return false;
      part.headers.back().second += " " + std::string(trimHttpSpace(line));
      continue;
    }
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    part.headers.emplace_back(asciiLower(trimHttpSpace(line.substr(0, colon))),
                              std::string(trimHttpSpace(line.substr(colon + 1))));
  }
  for (const auto& [name, value] : part.headers) {
    if (name == "content-disposition") {
      disposed = parseContentDisposition(value, part);
    } else if (name == "content-type") {
      part.contentType = value;
    }
  }
  return disposed;
}

MultipartStreamParser::Status MultipartStreamParser::fail(std::string message) {
  error_ = std::move(message);
  status_ = Status::Malformed;
  return status_;
}

size_t MultipartStreamParser::findDelimiter(std::string_view text) const {
  // memmem skips ahead by the delimiter's length on most bytes, where a search for its first
  // byte (CR) stops every few hundred bytes of binary data.
  const void* found =
      ::memmem(text.data(), text.size(), bodyDelimiter_.data(), bodyDelimiter_.size());
  return found ? static_cast<size_t>(static_cast<const char*>(found) - text.data())
               : std::string_view::npos;
}

MultipartStreamParser::Status MultipartStreamParser::feed(const char* data, size_t size) {
  if (status_ != Status::Ok) return status_;
  std::string_view input(data, size);
  const size_t delimiter = bodyDelimiter_.size();
  // Within a part's body only the few bytes held back can join the new ones into a delimiter.
  // When they do not, the new bytes are parsed where they lie instead of being copied behind
  // the held ones first: for a large file that copy would be one more pass over every byte.
  if (state_ == State::Body && pending_.size() < delimiter && size >= 2 * delimiter) {
    std::string seam = pending_;
    seam.append(input.substr(0, delimiter));
    if (findDelimiter(seam) == std::string_view::npos) {
      std::string held = std::move(pending_);
      pending_.clear();
      if (!held.empty() && callbacks_.onPartData &&
          !callbacks_.onPartData(held.data(), held.size())) {
        status_ = Status::Stopped;
        return status_;
      }
      size_t consumed = process(input);
      if (status_ == Status::Ok) pending_.assign(input.substr(consumed));
      return status_;
    }
  }
  pending_.append(input);
  size_t consumed = process(pending_);
  if (status_ == Status::Ok) {
    pending_.erase(0, consumed);
  } else {
    pending_.clear();
  }
  return status_;
}

MultipartStreamParser::Status MultipartStreamParser::finish() {
  if (status_ == Status::Ok) return fail("the body ended before the closing boundary");
  return status_;
}

size_t MultipartStreamParser::process(std::string_view input) {
  size_t consumed = 0;
  auto done = [&](Status status) {
    status_ = status;
    return consumed;
  };
  auto malformed = [&](std::string message) {
    fail(std::move(message));
    return consumed;
  };
  for (;;) {
    std::string_view rest = input.substr(consumed);
    switch (state_) {
      case State::Preamble: {
        size_t found = findDelimiter(rest);
        if (found == std::string_view::npos) {
          // Only the tail can still be the start of a delimiter.
          if (rest.size() >= bodyDelimiter_.size())
            consumed += rest.size() - bodyDelimiter_.size() + 1;
          return done(Status::Ok);
        }
        consumed += found + bodyDelimiter_.size();
        state_ = State::AfterDelimiter;
        break;
      }
      case State::AfterDelimiter: {
        if (rest.size() < 2) return done(Status::Ok);
        if (rest.substr(0, 2) == "--") {
          consumed += 2;
          state_ = State::Epilogue;
          break;
        }
        size_t padding = 0;
        while (padding < rest.size() && (rest[padding] == ' ' || rest[padding] == '\t')) ++padding;
        if (padding > kMaxPadding) return malformed("too much padding after a boundary");
        if (rest.size() - padding < 2) return done(Status::Ok);
        if (rest.substr(padding, 2) != "\r\n")
          return malformed("a boundary is not followed by CRLF");
        consumed += padding + 2;
        state_ = State::Headers;
        break;
      }
      case State::Headers: {
        size_t end = rest.find("\r\n\r\n");
        bool empty = rest.substr(0, 2) == "\r\n";
        if (empty) return malformed("a part has no headers");
        if (end == std::string_view::npos) {
          if (rest.size() > kMaxHeaderBytes) return malformed("part headers are too large");
          return done(Status::Ok);
        }
        if (end > kMaxHeaderBytes) return malformed("part headers are too large");
        MultipartPart part;
        if (!parseHeaders(rest.substr(0, end), part)) {
          return malformed("a part has no form-data Content-Disposition with a name");
        }
        consumed += end + 4;
        state_ = State::Body;
        if (callbacks_.onPartBegin && !callbacks_.onPartBegin(part)) return done(Status::Stopped);
        break;
      }
      case State::Body: {
        size_t found = findDelimiter(rest);
        size_t emit = found;
        if (found == std::string_view::npos) {
          size_t keep = std::min(rest.size(), bodyDelimiter_.size() - 1);
          emit = rest.size() - keep;
        }
        if (emit > 0 && callbacks_.onPartData && !callbacks_.onPartData(rest.data(), emit)) {
          consumed += emit;
          return done(Status::Stopped);
        }
        consumed += emit;
        if (found == std::string_view::npos) return done(Status::Ok);
        consumed += bodyDelimiter_.size();
        state_ = State::AfterDelimiter;
        if (callbacks_.onPartEnd && !callbacks_.onPartEnd()) return done(Status::Stopped);
        break;
      }
      case State::Epilogue:
        consumed = input.size();
        return done(Status::Done);
    }
  }
}

}  // namespace nembra
