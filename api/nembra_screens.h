// The screens the Nembra object presents come from screen modules, which install themselves
// here; the api module itself never depends on a UI. A host that wants screens installs the
// modules it links (the image viewer: installViewerScreens()) and gives the Nembra object a
// ScreenPresenter over its UI adapter.
//
// Threading: install() once at start-up; the rest on the main queue.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace nembra {

class Nembra;
class ScreenPresenter;

class NembraScreens {
 public:
  virtual ~NembraScreens() = default;

  // Presents the image viewer over |presenter|'s topmost screen.
  virtual void showImageFromUris(Nembra& application, ScreenPresenter& presenter,
                                 const std::vector<std::string>& uris) = 0;

  static void install(std::shared_ptr<NembraScreens> screens);
  // Null until a module installs itself.
  static std::shared_ptr<NembraScreens> installed();
};

}  // namespace nembra
