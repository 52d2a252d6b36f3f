#include "nembra/video.h"

#include "api/model_field_lists.h"

namespace nembra {

const ModelFields<Video>& videoFields() {
  using M = Video;
  static const ModelFields<M> list =
      ModelFields<M>()
          .boolean("volatile", &M::_volatile)
          .string("token", &M::token)
          .string("key", &M::key)
          .int32("state", &M::state)
          .boolean("only_audio", &M::onlyAudio)
          .string("title", &M::title)
          .string("description", &M::_description)
          .real("max_duration", &M::maxDuration)
          .boolean("enforce_duration", &M::enforceDuration)
          .string("video_source", &M::videoSource)
          .real("duration", &M::duration)
          .array("tags", &M::tags)
          .object("data", &M::data)
          .nested("device_info", &M::deviceInfo, deviceInfoFields)
          .int64("submission_date", &M::submissionDate)
          .object("expiration_days", &M::expirationDays)
          .int32("resubmission_date", &M::resubmissionDate)
          .int32("stream_submission_date", &M::streamSubmissionDate)
          .boolean("user_language", &M::userLanguage)
          .boolean("delete_old_streams", &M::deleteOldStreams)
          .boolean("auto_crop", &M::autoCrop)
          .boolean("auto_pad", &M::autoPad)
          .boolean("hd", &M::hd)
          .object("average_rating", &M::averageRating)
          .boolean("submitted", &M::submitted)
          .boolean("approved", &M::approved)
          .string("moderation_reason", &M::moderationReason)
          .object("effect_profile", &M::effectProfile)
          .real("default_image_selector", &M::defaultImageSelector)
          .string("video_file_name", &M::videoFileName)
          .string("type", &M::type)
          .int32("created", &M::created)
          .boolean("owned", &M::owned)
          .string("video_profile", &M::videoProfile)
          .string("meta_profile", &M::metaProfile)
          .string("meta_profile_id", &M::metaProfileId)
          .string("state_string", &M::stateString)
          .array("streams", &M::streams)
          .nested("original_stream", &M::originalStream, streamModelFields)
          .nested("default_stream", &M::defaultStream, streamModelFields)
          .string("embed_image_url", &M::embedImageUrl)
          .string("embed_video_url", &M::embedVideoUrl);
  return list;
}

Video Video::initWithJson(const Json& json) {
  Video video;
  video.setInfo(json);
  return video;
}

void Video::setInfo(const Json& json) { videoFields().read(*this, json); }

void Video::clear() { *this = Video(); }

Json Video::toDictionary() const { return videoFields().write(*this); }

}  // namespace nembra
