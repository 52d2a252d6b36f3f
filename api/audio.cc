#include "nembra/audio.h"

#include "api/model_field_lists.h"

namespace nembra {

const ModelFields<Audio>& audioFields() {
  using M = Audio;
  static const ModelFields<M> list =
      ModelFields<M>()
          .string("_id", &M::_id)
          .string("created", &M::created)
          .string("updated", &M::updated)
          .string("application_id", &M::applicationId)
          .int32("state", &M::state)
          .real("min_duration", &M::minDuration)
          .string("max_duration", &M::maxDuration)
          .boolean("enforce_duration", &M::enforceDuration)
          .string("original_stream_id", &M::originalStreamId)
          .string("default_stream_id", &M::defaultStreamId)
          .array("tags", &M::tags)
          .string("data", &M::data)
          .nested("device_info", &M::deviceInfo, deviceInfoFields)
          .int64("submission_date", &M::submissionDate)
          .string("expiration_days", &M::expirationDays)
          .string("resubmission_date", &M::resubmissionDate)
          .int64("stream_submission_date", &M::streamSubmissionDate)
          .boolean("user_language", &M::userLanguage)
          .boolean("delete_old_streams", &M::deleteOldStreams)
          .boolean("auto_crop", &M::autoCrop)
          .string("creation_auth_session_id", &M::creationAuthSessionId)
          .int32("average_rating", &M::averageRating)
          .string("ratings", &M::ratings)
          .array("comments", &M::comments)
          .boolean("submitted", &M::submitted)
          .string("approved", &M::approved)
          .string("moderation_reason", &M::moderationReason)
          .string("audio_profile_id", &M::audioProfileId)
          .string("meta_profile_id", &M::metaProfileId)
          .boolean("volatile", &M::_volatile)
          .dictionary("default_stream", &M::defaultStream)
          .nested("original_stream", &M::originalStream, streamModelFields)
          .string("token", &M::token)
          .string("key", &M::key)
          .string("title", &M::title)
          .string("description", &M::_description)
          .real("duration", &M::duration)
          .string("state_string", &M::stateString);
  return list;
}

Audio Audio::initWithJson(const Json& json) {
  Audio audio;
  audio.setInfo(json);
  return audio;
}

void Audio::setInfo(const Json& json) { audioFields().read(*this, json); }

void Audio::clear() { *this = Audio(); }

Json Audio::toDictionary() const { return audioFields().write(*this); }

}  // namespace nembra
