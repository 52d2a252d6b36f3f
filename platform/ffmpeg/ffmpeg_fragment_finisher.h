// Finishes a fragmented MP4 where it lies: the index goes into room kept at the front of the file
// and the fragment headers become padding, so the media data is neither read nor copied.
#pragma once

#include <string>

namespace nembra {

enum class InPlaceFinish {
  Done,     // |partPath| is now an ordinary MP4 at |path|
  NoRoom,   // no kept room, or the index does not fit it: the part file is untouched
  NoMedia,  // no complete fragment: the part file is untouched
  Failed,   // reading failed (the part file is untouched) or writing did (it may not be)
};

// Writes the complete index of the fragments of |partPath| into the room kept after its initial
// index, turns every fragment header into a "free" box, drops a cut end, syncs and renames the
// file to |path|. |why| says what went wrong for anything but Done.
InPlaceFinish finishFragmentsInPlace(const std::string& partPath, const std::string& path,
                                     std::string& why);

}  // namespace nembra
