// The file selector off the phone: the media files of one directory that fit the request (kind
// by extension, duration within the limits) as a list to pick from. With a limit of one file a
// pick ends the selection at once; otherwise picks toggle rows and "done" ends it.
//
// View: list "files" (file names, sorted), label "selected" ("2 selected"), buttons "done"
// ("d"; hidden with a limit of one) and "cancel" (escape, q).
//
// Threading: main queue only; the result is handed over once the screen is gone.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "api/picker_screens.h"
#include "platform/ui/screen.h"

namespace nembra {

class MediaPickerScreen final : public Screen {
 public:
  // The picked paths, in the order picked; nothing when the user cancelled.
  using Picked = std::function<void(const std::vector<std::string>& paths, bool cancelled)>;

  MediaPickerScreen(std::string directory, MediaPickerRequest request, Picked picked);

  std::string name() const override { return "media-picker"; }

  // The files of the directory the request admits, sorted by name.
  const std::vector<std::string>& files() const { return files_; }
  // The media kind ("video", "audio", "image") a file's extension names; "" for none.
  static std::string kindOf(const std::string& path);

  void buttonPressed(const std::string& name) override;
  void rowPicked(const std::string& list, int row) override;

 protected:
  void viewDidLoad() override;

 private:
  bool admits(const std::string& path) const;
  void refresh();
  void end(bool cancelled);

  const std::string directory_;
  const MediaPickerRequest request_;
  Picked picked_;
  std::vector<std::string> files_;
  std::vector<int> chosen_;
};

}  // namespace nembra
