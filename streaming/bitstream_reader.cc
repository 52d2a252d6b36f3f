#include "streaming/bitstream_reader.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace nembra {

BitstreamReader::BitstreamReader(const std::vector<uint8_t>& data) : data_(&data) {}

uint8_t BitstreamReader::GetByte() {
  RequireAligned();
  return GetByteInternal();
}

uint64_t BitstreamReader::GetBits(unsigned count) {
  if (count > 64) {
    throw std::runtime_error("bitstream field wider than 64 bits");
  }
  uint64_t result = 0;
  while (count > 0) {
    if (pendingBits_ == 0) {
      pendingByte_ = GetByteInternal();
      pendingBits_ = 8;
    }
    const unsigned take = std::min(count, pendingBits_);
    const uint64_t available = pendingByte_ & ((1u << pendingBits_) - 1);
    result |= (available >> (pendingBits_ - take)) << (count - take);
    count -= take;
    pendingBits_ -= take;
  }
  return result;
}

void BitstreamReader::GetBytes(uint8_t* destination, size_t count) {
  RequireAligned();
  GetBytesInternal(destination, count);
}

size_t BitstreamReader::Position() const { return position_; }

void BitstreamReader::SetPosition(size_t position) {
  const size_t size = data_ ? data_->size() : 0;
  position_ = std::min(position, size);
}

void BitstreamReader::Skip(size_t count) {
  const size_t size = data_ ? data_->size() : 0;
  SetPosition(count > size ? size : position_ + count);
}

size_t BitstreamReader::RemainingDataSize() const { return data_ ? data_->size() - position_ : 0; }

uint8_t BitstreamReader::GetByteInternal() {
  if (!data_ || position_ >= data_->size()) {
    return 0;
  }
  return (*data_)[position_++];
}

void BitstreamReader::GetBytesInternal(uint8_t* destination, size_t count) {
  const size_t available = std::min(count, RemainingDataSize());
  if (available > 0) {
    std::memcpy(destination, data_->data() + position_, available);
    position_ += available;
  }
  std::fill(destination + available, destination + count, uint8_t{0});
}

void BitstreamReader::RequireAligned() const {
  if (pendingBits_ != 0) {
    throw std::runtime_error("bitstream reader is not aligned");
  }
}

}  // namespace nembra
