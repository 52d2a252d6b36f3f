#include "platform/media/mp4/media_source_mp4.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "platform/media/media_source_adts.h"

namespace nembra {
namespace {

// "rtmp://host/app", "pipe:0": names FFmpeg opens and the file system does not.
bool looksLikeUrl(const std::string& path) {
  const size_t colon = path.find(':');
  if (colon == std::string::npos || colon < 2) return false;
  return std::all_of(path.begin(), path.begin() + static_cast<ptrdiff_t>(colon), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  });
}

// Whether an SEI NAL unit holds a recovery point message whose frame count a decoder accepts.
bool hasRecoveryPoint(h264::NalUnit sei, std::vector<uint8_t>& rbsp) {
  constexpr uint32_t kRecoveryPoint = 6;
  rbsp.clear();
  int zeros = 0;
  for (size_t i = 1; i < sei.size(); ++i) {
    if (zeros >= 2 && sei[i] == 3) {  // emulation prevention
      zeros = 0;
      continue;
    }
    zeros = sei[i] == 0 ? zeros + 1 : 0;
    rbsp.push_back(sei[i]);
  }
  size_t position = 0;
  auto readCoded = [&](uint32_t& value) {  // 0xFF bytes add up until a smaller one
    uint8_t byte = 0xFF;
    value = 0;
    while (byte == 0xFF) {
      if (position == rbsp.size()) return false;
      byte = rbsp[position++];
      value += byte;
    }
    return true;
  };
  while (rbsp.size() - position >= 2) {
    uint32_t type = 0;
    uint32_t size = 0;
    if (!readCoded(type) || !readCoded(size) || size > rbsp.size() - position) return false;
    if (type == kRecoveryPoint) {
      // recovery_frame_cnt, an unsigned Exp-Golomb code below 2^16.
      const size_t bits = size_t{size} * 8;
      size_t bit = 0;
      auto next = [&] {
        const int value = (rbsp[position + bit / 8] >> (7 - bit % 8)) & 1;
        ++bit;
        return value;
      };
      int leading = 0;
      bool terminated = false;
      while (bit < bits && !terminated) {
        if (next() == 1) {
          terminated = true;
        } else {
          ++leading;
        }
      }
      if (!terminated || leading > 16 || bits - bit < static_cast<size_t>(leading)) return false;
      uint32_t count = 1;
      for (int i = 0; i < leading; ++i) count = count << 1 | static_cast<uint32_t>(next());
      return count - 1 < (1u << 16);
    }
    position += size;
  }
  return false;
}

// Key frames as MediaSourceFile marks them, where FFmpeg's H.264 parser decides from the
// bitstream rather than from the sync-sample table: the access unit's first slice is an IDR
// slice, or an SEI before it holds a recovery point.
bool isRandomAccessPoint(const std::vector<h264::NalUnit>& units, std::vector<uint8_t>& scratch) {
  constexpr uint8_t kSlice = 1;
  constexpr uint8_t kIdrSlice = 5;
  constexpr uint8_t kSei = 6;
  bool recoveryPoint = false;
  for (h264::NalUnit unit : units) {
    const uint8_t type = h264::nalType(unit);
    if (type == kSlice || type == kIdrSlice) return type == kIdrSlice || recoveryPoint;
    if (type == kSei && !recoveryPoint) recoveryPoint = hasRecoveryPoint(unit, scratch);
  }
  return false;
}

Mp4ByteSource fileSource(int fd, uint64_t size) {
  Mp4ByteSource source;
  source.size = size;
  source.readAt = [fd](uint64_t offset, std::span<uint8_t> out) -> OptionalError {
    size_t done = 0;
    while (done < out.size()) {
      const ssize_t n =
          ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        const int code = errno;
        return Error::file(std::string("read failed: ") + std::strerror(code), code);
      }
      // The file got shorter since it was opened.
      if (n == 0) return Error::media("file ends before offset " + std::to_string(offset + done));
      done += static_cast<size_t>(n);
    }
    return std::nullopt;
  };
  return source;
}

}  // namespace

std::unique_ptr<MediaSourceMp4> MediaSourceMp4::open(const std::string& path,
                                                     OptionalError& error) {
  std::unique_ptr<MediaSourceMp4> source(new MediaSourceMp4());
  source->path_ = path;
  source->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (source->fd_ < 0) {
    const int code = errno;
    error = looksLikeUrl(path)
                ? Error::media(path + " is not a local file")
                : Error::file("can't open " + path + ": " + std::strerror(code), code);
    return nullptr;
  }
  struct stat status {};
  if (::fstat(source->fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    // Pipes and devices cannot be read out of order.
    error = Error::media(path + " is not a regular file");
    return nullptr;
  }
  error = source->start(fileSource(source->fd_, static_cast<uint64_t>(status.st_size)));
  if (error) source.reset();
  return source;
}

std::unique_ptr<MediaSourceMp4> MediaSourceMp4::open(Mp4ByteSource bytes, const std::string& name,
                                                     OptionalError& error) {
  std::unique_ptr<MediaSourceMp4> source(new MediaSourceMp4());
  source->path_ = name;
  error = source->start(std::move(bytes));
  if (error) source.reset();
  return source;
}

MediaSourceMp4::~MediaSourceMp4() {
  if (fd_ >= 0) ::close(fd_);
}

OptionalError MediaSourceMp4::start(Mp4ByteSource source) {
  OptionalError error;
  demuxer_ = Mp4Demuxer::open(std::move(source), error);
  if (error) {
    error->message = path_ + ": " + error->message;
    return error;
  }
  info_.description = "file " + path_;
  if (const auto& video = demuxer_->video()) {
    info_.hasVideo = true;
    info_.videoEncoded = true;
    info_.width = video->width;
    info_.height = video->height;
    info_.frameRate = video->frameRate;
    info_.videoReordered = video->reordered;
    nalLengthSize_ = video->nalLengthSize;
    sps_ = video->sps;
    pps_ = video->pps;
  }
  if (const auto& audio = demuxer_->audio()) {
    info_.hasAudio = true;
    info_.audioEncoded = true;
    info_.sampleRate = audio->sampleRate;
    info_.channels = audio->channels;
    asc_ = audio->asc;
  }
  info_.duration = demuxer_->duration();
  return std::nullopt;
}

bool MediaSourceMp4::convertVideo(std::span<const uint8_t> bytes, EncodedVideoSample& sample,
                                  OptionalError& error) {
  units_.clear();
  if (!h264::splitLengthPrefixed(bytes, nalLengthSize_, units_)) {
    error = Error::media("broken H.264 access unit in " + path_);
    return false;
  }
  sample.data.reserve(bytes.size() + units_.size() * static_cast<size_t>(4 - nalLengthSize_));
  // Parameter sets sent in band replace those of the avcC record from then on.
  h264::repackAccessUnit(units_, sample.data, sps_, pps_);
  if (sample.data.empty()) return false;
  sample.sps = sps_;
  sample.pps = pps_;
  sample.keyFrame = isRandomAccessPoint(units_, scratch_);
  return true;
}

bool MediaSourceMp4::convertAudio(std::span<const uint8_t> bytes, EncodedAudioSample& sample,
                                  OptionalError& error) {
  // Some writers leave the ADTS headers in; their configuration then wins, as with
  // MediaSourceFile.
  AdtsFrame adts;
  if (parseAdtsHeader(bytes, adts)) {
    if (adts.frameLength != bytes.size()) {
      error = Error::media("AAC sample in " + path_ + " holds more than one ADTS frame");
      return false;
    }
    asc_ = adts.asc;
    bytes = bytes.subspan(adts.headerLength);
  }
  if (bytes.empty()) return false;
  sample.data.assign(bytes.begin(), bytes.end());
  sample.asc = asc_;
  return true;
}

bool MediaSourceMp4::read(MediaSourceItem& item, OptionalError& error) {
  const std::vector<Mp4Sample>& samples = demuxer_->samples();
  while (!finished_) {
    if (interrupted_.load()) {
      error = Error::cancelled("reading " + path_ + " interrupted");
      finished_ = true;
      break;
    }
    if (next_ == samples.size()) {
      finished_ = true;
      break;
    }
    const Mp4Sample& mp4 = samples[next_++];
    std::span<const uint8_t> bytes;
    if (auto failed = demuxer_->readSample(mp4, bytes)) {
      error = std::move(failed);
      error->message = path_ + ": " + error->message;
      finished_ = true;
      break;
    }
    const double pts = std::max(0.0, mp4.time - demuxer_->startTime());
    const SampleStep step =
        mp4.video ? deliverSample<EncodedVideoSample>(
                        pts, error, item,
                        [&](auto& sample) { return convertVideo(bytes, sample, error); })
                  : deliverSample<EncodedAudioSample>(pts, error, item, [&](auto& sample) {
                      return convertAudio(bytes, sample, error);
                    });
    if (step == SampleStep::Delivered) return true;
    if (step == SampleStep::Failed) finished_ = true;
  }
  return false;
}

}  // namespace nembra
