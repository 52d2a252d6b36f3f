// The extra request arguments that configuration objects carry: a JSON object whose entries
// other components add to the requests they send.
//
// Threading: pure functions; any thread.
#pragma once

#include "nembra/json.h"

namespace nembra {

// A copy of |args|; anything other than an object gives an empty object.
Json extraArgsCopy(const Json& args);
// |current| with the entries of |args| merged over it, a key given again taking the new value;
// |current| unchanged when |args| is not an object.
Json mergedExtraArgs(const Json& current, const Json& args);

}  // namespace nembra
