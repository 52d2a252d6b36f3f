#include "streaming/metadata_formatter.h"

#include "streaming/amf.h"

namespace nembra {

MetadataFormatter::MetadataFormatter(std::shared_ptr<IReceiver<FLVFrame>> next, bool hasVideo,
                                     bool hasAudio)
    : FLVTagFormatter(std::move(next), MediaType::Data, MediaCodec::None, FLVTagType::ScriptData),
      hasVideo_(hasVideo),
      hasAudio_(hasAudio) {}

TransformResult MetadataFormatter::FillDataSection(MediaFrame&, BitstreamWriter& writer) {
  auto array = std::make_shared<AMFArray>();
  array->AddValue("duration", AMFValue::Number(0));
  if (hasVideo_) {
    array->AddValue("width", AMFValue::Number(1920));
    array->AddValue("height", AMFValue::Number(1080));
    array->AddValue("videodatarate", AMFValue::Number(3000));
    array->AddValue("framerate", AMFValue::Number(30));
    array->AddValue("videocodecid", AMFValue::Number(7));
  }
  if (hasAudio_) {
    array->AddValue("audiodatarate", AMFValue::Number(64));
    array->AddValue("audiosamplerate", AMFValue::Number(44100));
    array->AddValue("audiosamplesize", AMFValue::Number(16));
    array->AddValue("stereo", AMFValue::Bool(true));
    array->AddValue("audiocodecid", AMFValue::Number(10));
  }
  array->AddValue("encoder", AMFValue::String("nembra"));
  array->AddValue("filesize", AMFValue::Number(0));
  AMFValue::String("onMetaData")->Write(writer);
  array->Write(writer);
  return TransformResult::Complete;
}

}  // namespace nembra
