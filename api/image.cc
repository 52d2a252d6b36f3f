#include "nembra/image.h"

#include "api/model_field_lists.h"

namespace nembra {

const ModelFields<Image>& imageFields() {
  using M = Image;
  static const ModelFields<M> list =
      ModelFields<M>()
          .string("_id", &M::_id)
          .string("created", &M::created)
          .string("updated", &M::updated)
          .string("application_id", &M::applicationId)
          .int32("state", &M::state)
          .real("image_source", &M::imageSource)
          .string("original_stream_id", &M::originalStreamId)
          .string("default_stream_id", &M::defaultStreamId)
          .array("tags", &M::tags)
          .string("data", &M::data)
          .nested("device_info", &M::deviceInfo, deviceInfoFields)
          .int64("submission_date", &M::submissionDate)
          .string("expiration_days", &M::expirationDays)
          .string("resubmission_date", &M::resubmissionDate)
          .string("stream_submission_date", &M::streamSubmissionDate)
          .string("user_language", &M::userLanguage)
          .string("delete_old_streams", &M::deleteOldStreams)
          .string("auto_crop", &M::autoCrop)
          .boolean("auto_pad", &M::autoPad)
          .boolean("hd", &M::hd)
          .string("creation_auth_session_id", &M::creationAuthSessionId)
          .int32("average_rating", &M::averageRating)
          .string("ratings", &M::ratings)
          .array("comments", &M::comments)
          .string("submitted", &M::submitted)
          .string("approved", &M::approved)
          .string("moderation_reason", &M::moderationReason)
          .int32("facebook_likes", &M::facebookLikes)
          .int32("facebook_shares", &M::facebookShares)
          .string("image_file_name", &M::imageFileName)
          .string("token", &M::token)
          .string("key", &M::key)
          .string("title", &M::title)
          .string("description", &M::_description)
          .real("duration", &M::duration)
          .string("state_string", &M::stateString);
  return list;
}

Image Image::initWithJson(const Json& json) {
  Image image;
  image.setInfo(json);
  return image;
}

void Image::setInfo(const Json& json) { imageFields().read(*this, json); }

void Image::clear() { *this = Image(); }

Json Image::toDictionary() const { return imageFields().write(*this); }

}  // namespace nembra
