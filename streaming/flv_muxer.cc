#include "streaming/flv_muxer.h"

#include <stdexcept>

#include "streaming/aac_data_formatter.h"
#include "streaming/avc_data_formatter.h"
#include "streaming/metadata_formatter.h"

namespace nembra {

FLVMuxer::FLVMuxer(std::shared_ptr<IReceiver<FLVFrame>> next) : next_(std::move(next)) {}

uint32_t FLVMuxer::AddTrackImpl(MediaDescriptor descriptor) {
  switch (descriptor.type) {
    case MediaType::Video:
      if (descriptor.codec != MediaCodec::H264) throw std::runtime_error("unsupported video codec");
      tracks_.push_back(std::make_unique<AVCDataFormatter>(next_));
      hasVideo_ = true;
      break;
    case MediaType::Audio:
      if (descriptor.codec != MediaCodec::AAC) throw std::runtime_error("unsupported audio codec");
      tracks_.push_back(std::make_unique<AACDataFormatter>(next_));
      hasAudio_ = true;
      break;
    default:
      throw std::runtime_error("unknown media type");
  }
  return static_cast<uint32_t>(tracks_.size() - 1);
}

void FLVMuxer::SendHeader() {
  if (headerSent_) return;
  SendMetadata();
  headerSent_ = true;  // only once it is out: a refused send is retried with the next frame
}

void FLVMuxer::SendMetadata() {
  MetadataFormatter formatter(next_, hasVideo_, hasAudio_);
  formatter.PutFrame(MediaFrame(MediaType::Data, MediaCodec::None));
}

void FLVMuxer::PutFrameImpl(MediaFrame frame, uint32_t trackId) {
  if (trackId >= tracks_.size()) throw std::runtime_error("unknown track ID");
  SendHeader();
  tracks_[trackId]->PutFrame(frame);
}

void FLVMuxer::CloseImpl() {
  if (next_) next_->Close();
}

}  // namespace nembra
