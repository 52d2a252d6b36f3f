// What videos, audios and images of the service have in common. Each kind reads its own keys
// (setInfo) and writes them back (toDictionary); this base holds the shared fields.
//
// Threading: a plain value; any thread, one at a time.
#pragma once

#include <cstdint>
#include <string>

#include "nembra/json.h"

namespace nembra {

class ContentModel {
 public:
  virtual ~ContentModel() = default;

  // Reads every key of the kind; a missing or null key sets that field's default.
  virtual void setInfo(const Json& json) = 0;
  // Every field back to its default.
  virtual void clear();
  // Every keyed field under its key, in field order; absent raw values are left out.
  virtual Json toDictionary() const = 0;

  const std::string& getDescription() const { return _description; }
  void setDescription(std::string description) { _description = std::move(description); }
  int64_t getDate() const { return date; }
  // The identifier of a resource is its token.
  const std::string& getId() const { return token; }
  void setId(std::string id) { token = std::move(id); }

  std::string key;
  std::string title;
  std::string _description;
  std::string stateString;
  std::string token;
  // streamToken and date are the SDK's own: no service key carries them, so setInfo leaves
  // them alone and toDictionary does not write them.
  std::string streamToken;
  int64_t date = 0;
  double duration = 0.0;

 protected:
  ContentModel() = default;
  ContentModel(const ContentModel&) = default;
  ContentModel& operator=(const ContentModel&) = default;
};

}  // namespace nembra
