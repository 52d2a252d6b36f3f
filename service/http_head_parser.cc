#include "service/http_head_parser.h"

#include <algorithm>
#include <cctype>

#include "service/http_text.h"

namespace nembra {
namespace {

// Empty lines a client may send before a request line (left over from a previous body).
constexpr size_t kMaxLeadingEmptyLines = 4;
constexpr size_t kMaxMethodBytes = 20;
// 19 digits always fit 64 bits; longer lengths are no upload this server would take anyway.
constexpr size_t kMaxLengthDigits = 19;

bool isTokenChar(unsigned char c) {
  if (std::isalnum(c)) return true;
  switch (c) {
    case '!':
    case '#':
    case '$':
    case '%':
    case '&':
    case '\'':
    case '*':
    case '+':
    case '-':
    case '.':
    case '^':
    case '_':
    case '`':
    case '|':
    case '~':
      return true;
    default:
      return false;
  }
}

bool isToken(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return isTokenChar(c); });
}

// Visible ASCII, space, tab and obs-text; no control characters.
bool isFieldValue(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u == '\t' || (u >= 0x20 && u != 0x7f);
  });
}

// The comma-separated elements of every header named |name|, trimmed and lower case; empty
// elements are skipped as the list syntax allows.
std::vector<std::string> listElements(const HttpRequestHead& head, std::string_view name) {
  std::vector<std::string> elements;
  for (const auto& [key, value] : head.headers) {
    if (key != name) continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      size_t comma = rest.find(',');
      std::string_view element = trimHttpSpace(rest.substr(0, comma));
      if (!element.empty()) elements.push_back(asciiLower(element));
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return elements;
}

}  // namespace

const std::string& HttpRequestHead::header(std::string_view lowerName) const {
  static const std::string kNone;
  for (const auto& [name, value] : headers) {
    if (name == lowerName) return value;
  }
  return kNone;
}

bool HttpRequestHead::hasHeader(std::string_view lowerName) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& header) { return header.first == lowerName; });
}

HttpHeadParser::Status HttpHeadParser::fail(int status, std::string message) {
  errorStatus_ = status;
  error_ = std::move(message);
  return Status::Failed;
}

HttpHeadParser::Status HttpHeadParser::parse(std::string_view input, HttpRequestHead& head,
                                             size_t& consumed) {
  size_t start = 0;
  for (size_t lines = 0; input.substr(start, 2) == "\r\n"; ++lines) {
    if (lines == kMaxLeadingEmptyLines) return fail(400, "the request begins with empty lines");
    start += 2;
  }
  std::string_view text = input.substr(start);
  size_t end = text.find("\r\n\r\n");
  if (end == std::string_view::npos || end + 4 > kMaxHeadBytes) {
    // A broken request line is refused as soon as it is whole, not after 16 KiB of it.
    size_t lineEnd = text.find("\r\n");
    if (lineEnd != std::string_view::npos) {
      HttpRequestHead probe;
      if (!parseRequestLine(text.substr(0, lineEnd), probe)) return Status::Failed;
    } else if (text != "\r") {
      // Even a partial method tells a request from other protocols (a TLS hello, say).
      std::string_view method = text.substr(0, text.find(' '));
      if (method.size() > kMaxMethodBytes ||
          !std::all_of(method.begin(), method.end(), [](char c) { return isTokenChar(c); })) {
        return fail(400, "the request method is not a token");
      }
    }
    if (text.size() >= kMaxHeadBytes) {
      return fail(431,
                  "the request head is larger than " + std::to_string(kMaxHeadBytes) + " bytes");
    }
    return Status::NeedMore;
  }
  head = HttpRequestHead();
  std::string_view block = text.substr(0, end + 2);  // each line with its CRLF
  bool first = true;
  while (!block.empty()) {
    size_t lineEnd = block.find("\r\n");
    std::string_view line = block.substr(0, lineEnd);
    block.remove_prefix(lineEnd + 2);
    if (line.find_first_of("\r\n") != std::string_view::npos) {
      return fail(400, "a line of the request head has a bare CR or LF");
    }
    if (first) {
      if (!parseRequestLine(line, head)) return Status::Failed;
      first = false;
    } else if (!parseHeaderLine(line, head)) {
      return Status::Failed;
    }
  }
  if (!interpret(head)) return Status::Failed;
  consumed = start + end + 4;
  return Status::Done;
}

bool HttpHeadParser::parseRequestLine(std::string_view line, HttpRequestHead& head) {
  size_t firstSpace = line.find(' ');
  size_t lastSpace = line.rfind(' ');
  if (firstSpace == std::string_view::npos || firstSpace == lastSpace) {
    fail(400, "the request line is not METHOD TARGET VERSION");
    return false;
  }
  std::string_view method = line.substr(0, firstSpace);
  std::string_view target = line.substr(firstSpace + 1, lastSpace - firstSpace - 1);
  std::string_view version = line.substr(lastSpace + 1);
  if (!isToken(method) || method.size() > kMaxMethodBytes) {
    fail(400, "the request method is not a token");
    return false;
  }
  bool visible = std::all_of(target.begin(), target.end(), [](char c) {
    auto u = static_cast<unsigned char>(c);
    return u > 0x20 && u < 0x7f;
  });
  if (target.empty() || target.front() != '/' || !visible) {
    fail(400, "the request target is not an absolute path");
    return false;
  }
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  if (version.size() != 8 || version.substr(0, 5) != "HTTP/" || !digit(version[5]) ||
      version[6] != '.' || !digit(version[7])) {
    fail(400, "the request line does not end in an HTTP version");
    return false;
  }
  if (version[5] != '1' || (version[7] != '0' && version[7] != '1')) {
    fail(505, "only HTTP/1.0 and HTTP/1.1 are served");
    return false;
  }
  head.method = method;
  head.target = target;
  head.path = target.substr(0, target.find('?'));
  head.minorVersion = version[7] - '0';
  return true;
}

bool HttpHeadParser::parseHeaderLine(std::string_view line, HttpRequestHead& head) {
  if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
    fail(400, "folded header lines are not accepted");
    return false;
  }
  size_t colon = line.find(':');
  if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) {
    fail(400, "a header line is not NAME: VALUE");
    return false;
  }
  std::string_view value = trimHttpSpace(line.substr(colon + 1));
  if (!isFieldValue(value)) {
    fail(400, "a header value holds control characters");
    return false;
  }
  if (head.headers.size() == kMaxHeaderCount) {
    fail(431, "the request has more than " + std::to_string(kMaxHeaderCount) + " headers");
    return false;
  }
  head.headers.emplace_back(asciiLower(line.substr(0, colon)), std::string(value));
  return true;
}

bool HttpHeadParser::interpret(HttpRequestHead& head) {
  size_t hosts = std::count_if(head.headers.begin(), head.headers.end(),
                               [](const auto& header) { return header.first == "host"; });
  if (hosts > 1 || (hosts == 0 && head.minorVersion == 1)) {
    fail(400, "an HTTP/1.1 request names exactly one Host");
    return false;
  }

  auto codings = listElements(head, "transfer-encoding");
  bool hasLength = head.hasHeader("content-length");
  if (head.hasHeader("transfer-encoding")) {
    if (hasLength) {
      fail(400, "a request cannot have both Content-Length and Transfer-Encoding");
      return false;
    }
    if (head.minorVersion == 0) {
      fail(400, "HTTP/1.0 has no transfer codings");
      return false;
    }
    if (codings.empty() || codings.back() != "chunked") {
      fail(400, "a request body's transfer coding must end in chunked");
      return false;
    }
    if (codings.size() > 1) {
      fail(501, "no transfer coding but chunked is accepted");
      return false;
    }
    head.body = HttpRequestHead::Body::Chunked;
  } else if (hasLength) {
    // Repeats are allowed only when they agree (RFC 9110 section 8.6).
    std::string length;
    for (const auto& element : listElements(head, "content-length")) {
      if (!length.empty() && element != length) {
        fail(400, "the request has differing Content-Lengths");
        return false;
      }
      length = element;
    }
    if (length.empty() || length.size() > kMaxLengthDigits ||
        !std::all_of(length.begin(), length.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      fail(400, "the Content-Length is not a number of bytes");
      return false;
    }
    uint64_t value = 0;
    for (char c : length) value = value * 10 + static_cast<uint64_t>(c - '0');
    head.contentLength = value;
    head.body = value > 0 ? HttpRequestHead::Body::Length : HttpRequestHead::Body::None;
  }

  if (head.hasHeader("expect")) {
    auto expectations = listElements(head, "expect");
    if (expectations.size() != 1 || expectations.front() != "100-continue") {
      fail(417, "the only expectation met is 100-continue");
      return false;
    }
    // An HTTP/1.0 client cannot read an interim answer (RFC 9110 section 10.1.1).
    head.expectContinue = head.minorVersion == 1;
  }

  head.keepAlive = head.minorVersion == 1;
  for (const auto& option : listElements(head, "connection")) {
    if (option == "close") {
      head.keepAlive = false;
      break;
    }
    if (option == "keep-alive") head.keepAlive = true;
  }
  return true;
}

}  // namespace nembra
