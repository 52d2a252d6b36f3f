// The JSON value type of the SDK. Objects keep their keys in insertion order: a model written
// back with toDictionary lists its keys in field order, the signed form fields of a storage
// upload go out in the order the service gave them, and raw dictionaries kept from a reply
// (streams, data) are handed on as the service wrote them.
#pragma once

#include <nlohmann/json.hpp>

namespace nembra {

using Json = nlohmann::ordered_json;

}  // namespace nembra
