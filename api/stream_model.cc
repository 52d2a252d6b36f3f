#include "nembra/stream_model.h"

#include "api/model_field_lists.h"

namespace nembra {

const ModelFields<StreamModel>& streamModelFields() {
  using M = StreamModel;
  static const ModelFields<M> list =
      ModelFields<M>()
          .boolean("volatile", &M::_volatile)
          .string("token", &M::token)
          .string("key", &M::key)
          .int32("creation_type", &M::creationType)
          .int32("state", &M::state)
          .int32("streamable", &M::streamable)
          .dictionary("video_analysis", &M::videoAnalysis)
          .dictionary("audio_transcription", &M::audioTranscription)
          .array("audio_keywords", &M::audioKeywords)
          .array("push_services_success", &M::pushServicesSuccess)
          .string("default_stream_id", &M::defaultStreamId)
          .string("effect_profile", &M::effectProfile)
          .string("effect_profile_id", &M::effectProfileId)
          .string("video_profile_transcoding", &M::videoProfileTranscoding)
          .string("video_type", &M::videoType)
          .string("video_sub_type", &M::videoSubType)
          .int32("image_size", &M::imageSize)
          .int32("audio_size", &M::audioSize)
          .int32("video_size", &M::videoSize)
          .int32("video_width", &M::videoWidth)
          .int32("video_height", &M::videoHeight)
          .real("duration", &M::duration)
          .boolean("has_video", &M::hasVideo)
          .boolean("has_image", &M::hasImage)
          .boolean("has_audio", &M::hasAudio)
          .boolean("video_has_audio", &M::videoHasAudio)
          .dictionary("nsfw", &M::nsfw)
          .int32("submission_date", &M::submissionDate)
          .array("subtitles", &M::subtitles)
          .string("type", &M::type)
          .int32("created", &M::created)
          .boolean("owned", &M::owned)
          .string("creation_type_string", &M::creationTypeString)
          .string("streamable_string", &M::streamableString)
          .string("state_string", &M::stateString)
          .string("video_token", &M::videoToken)
          .string("parent_stream", &M::parentStream);
  return list;
}

StreamModel StreamModel::initWithJson(const Json& json) {
  StreamModel model;
  model.setInfo(json);
  return model;
}

void StreamModel::setInfo(const Json& json) { streamModelFields().read(*this, json); }

void StreamModel::clear() { *this = StreamModel(); }

Json StreamModel::toDictionary() const { return streamModelFields().write(*this); }

}  // namespace nembra
