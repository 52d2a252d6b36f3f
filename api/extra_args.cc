#include "api/extra_args.h"

namespace nembra {

Json extraArgsCopy(const Json& args) { return args.is_object() ? args : Json::object(); }

Json mergedExtraArgs(const Json& current, const Json& args) {
  Json merged = current;
  if (!args.is_object()) return merged;
  for (const auto& entry : args.items()) merged[entry.key()] = entry.value();
  return merged;
}

}  // namespace nembra
