// VAST ad documents: the standard error codes and the values read from a document (versions 2,
// 3 and 4). Plain values; VastParser fills them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace nembra {

// The codes a VAST error URL's [ERRORCODE] macro takes.
enum class VastErrorCode : int {
  XmlParse = 100,          // not XML, or not VAST
  SchemaValidation = 101,  // VAST missing what it must hold
  UnsupportedVersion = 102,
  GeneralWrapper = 300,
  WrapperTimeout = 301,     // a tag URI did not answer in time
  WrapperLimit = 302,       // too many wrappers, or a wrapper loop
  NoAdsAfterWrapper = 303,  // the chain ended in a document with no ad
  GeneralLinear = 400,
  MediaFileNotFound = 401,
  MediaFileTimeout = 402,
  NoSupportedMediaFile = 403,  // no MP4 that this player can show
  MediaFileDisplay = 405,
  Undefined = 900,
};

// The events a linear ad's tracking URLs are fired for, each at most once per ad.
enum class VastEvent { Impression, Start, FirstQuartile, Midpoint, ThirdQuartile, Complete, Skip };

// The name of |event| in <Tracking event="...">; "impression" for Impression.
const char* vastEventName(VastEvent event);

struct VastMediaFile {
  std::string url;
  std::string delivery;  // "progressive" or "streaming"
  std::string type;      // MIME type, e.g. "video/mp4"
  int width = 0;
  int height = 0;
  int bitrate = 0;  // kbit/s; 0 when not given
};

struct VastAd {
  std::string id;
  bool wrapper = false;
  std::string adTagUri;  // a wrapper's next document
  std::vector<std::string> impressions;
  std::vector<std::string> errors;  // error URLs, with [ERRORCODE] still in them
  std::map<VastEvent, std::vector<std::string>> tracking;
  // The first linear creative's: its files, duration and skip offset (inline ads only).
  bool hasLinear = false;
  std::vector<VastMediaFile> mediaFiles;
  double durationSeconds = 0;
  std::optional<double> skipOffsetSeconds;
  std::string clickThrough;
};

struct VastDocument {
  std::string version;
  std::vector<VastAd> ads;
  // Error URLs of a document with no ad (a root-level <Error>).
  std::vector<std::string> errors;
};

}  // namespace nembra
