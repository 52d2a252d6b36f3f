// The fields a client may set on a media or a stream, with the type each must have. Updates
// arrive as form text (the SDK posts a model's whole dictionary), so each value is read from its
// text: booleans from "true"/"false"/"1"/"0", numbers from decimal text, tags from a JSON array
// or a comma-separated list, objects from JSON. Keys the client may not set (token, state,
// streams…) are ignored, so posting a model back unchanged succeeds; so is a value of "<null>",
// the SDK's text for a null.
//
// Threading: stateless; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "service/form_params.h"
#include "service/media_records.h"
#include "service/result.h"

namespace nembra {

class MediaAttributes {
 public:
  enum class Type { Text, Bool, Number, Tags, Object, Loose };

  // The type of |name| when a client may set it on a media of |kind|.
  static std::optional<Type> mediaField(MediaKind kind, const std::string& name);
  static std::optional<Type> streamField(const std::string& name);

  // |current| with every settable field of |params| applied; a value that does not read as its
  // type is an InvalidArgument error naming the field, and nothing is applied.
  static Result<nlohmann::json> applyToMedia(MediaKind kind, const nlohmann::json& current,
                                             const FormParams& params);
  static Result<nlohmann::json> applyToStream(const nlohmann::json& current,
                                              const FormParams& params);

  // One value read as |type|.
  static Result<nlohmann::json> read(Type type, const std::string& name, const std::string& text);
};

}  // namespace nembra
