#include "service/chunked_body_decoder.h"

#include <algorithm>
#include <cstring>

#include "api/percent_encoding.h"

namespace nembra {
ChunkedBodyDecoder::Status ChunkedBodyDecoder::fail(std::string message) {
  state_ = State::Failed;
  error_ = std::move(message);
  return Status::Failed;
}

bool ChunkedBodyDecoder::readLine(const char* data, size_t size, size_t& position) {
  const char* start = data + position;
  size_t available = size - position;
  const void* found = std::memchr(start, '\n', available);
  size_t take = found ? static_cast<size_t>(static_cast<const char*>(found) - start) : available;
  if (line_.size() + take > kMaxLineBytes) {
    lineTooLong_ = true;
    return false;
  }
  line_.append(start, take);
  position += found ? take + 1 : take;
  if (!found) return false;
  return true;
}

bool ChunkedBodyDecoder::parseSizeLine() {
  size_t digits = 0;
  uint64_t value = 0;
  while (digits < line_.size() && hexDigitValue(line_[digits]) >= 0) {
    if (digits == kMaxSizeDigits) return false;
    value = value * 16 + static_cast<uint64_t>(hexDigitValue(line_[digits]));
    ++digits;
  }
  if (digits == 0) return false;
  // What may follow the size: whitespace, then chunk extensions, which are ignored.
  size_t rest = digits;
  while (rest < line_.size() && (line_[rest] == ' ' || line_[rest] == '\t')) ++rest;
  if (rest < line_.size() && line_[rest] != ';') return false;
  bool clean =
      std::all_of(line_.begin() + static_cast<std::ptrdiff_t>(rest), line_.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return u == '\t' || (u >= 0x20 && u != 0x7f);
      });
  if (!clean) return false;
  remaining_ = value;
  return true;
}

ChunkedBodyDecoder::Status ChunkedBodyDecoder::decode(const char* data, size_t size,
                                                      size_t& consumed, const Sink& sink) {
  size_t position = 0;
  consumed = 0;
  while (position < size || state_ == State::Done || state_ == State::Failed) {
    switch (state_) {
      case State::Failed:
        return Status::Failed;
      case State::Done:
        consumed = position;
        return Status::Done;
      case State::Size: {
        if (!readLine(data, size, position)) {
          if (lineTooLong_) return fail("a chunk-size line is longer than 4 KiB");
          break;
        }
        if (line_.empty() || line_.back() != '\r') {
          return fail("a chunk-size line does not end in CRLF");
        }
        line_.pop_back();
        if (!parseSizeLine()) return fail("a chunk size is not 1 to 15 hex digits");
        line_.clear();
        state_ = remaining_ == 0 ? State::Trailer : State::Data;
        break;
      }
      case State::Data: {
        size_t take = static_cast<size_t>(std::min<uint64_t>(remaining_, size - position));
        remaining_ -= take;
        dataBytes_ += take;
        position += take;
        if (!sink(data + position - take, take)) {
          consumed = position;
          return Status::Stopped;
        }
        if (remaining_ == 0) state_ = State::DataEnd;
        break;
      }
      case State::DataEnd: {
        if (!readLine(data, size, position)) {
          if (lineTooLong_ || !line_.empty()) {
            if (line_ != "\r" || lineTooLong_) return fail("chunk data is not followed by CRLF");
          }
          break;
        }
        if (line_ != "\r") return fail("chunk data is not followed by CRLF");
        line_.clear();
        state_ = State::Size;
        break;
      }
      case State::Trailer: {
        size_t before = position;
        bool whole = readLine(data, size, position);
        trailerBytes_ += position - before;
        if (lineTooLong_ || trailerBytes_ > kMaxTrailerBytes) {
          return fail("the trailer section is larger than 16 KiB");
        }
        if (!whole) break;
        if (line_.empty() || line_.back() != '\r')
          return fail("a trailer line does not end in CRLF");
        line_.pop_back();
        if (line_.empty()) {
          state_ = State::Done;
        } else if (line_.front() == ' ' || line_.front() == '\t' ||
                   line_.find(':') == std::string::npos) {
          return fail("a trailer line is not NAME: VALUE");
        }
        line_.clear();
        break;
      }
    }
  }
  consumed = position;
  return Status::NeedMore;
}

}  // namespace nembra
