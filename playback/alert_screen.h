// A screen that is nothing but a modal alert with one button: the façade's refusals ("Nembra can
// trim only local video.") shown over whatever the host shows. Answering the alert dismisses it.
//
// Threading: main queue only.
#pragma once

#include <functional>
#include <string>

#include "platform/ui/screen.h"

namespace nembra {

class AlertScreen final : public Screen {
 public:
  AlertScreen(std::string title, std::string button, std::function<void()> answered = {})
      : title_(std::move(title)), button_(std::move(button)), answered_(std::move(answered)) {}

  std::string name() const override { return "alert"; }

 protected:
  void viewDidLoad() override;

 private:
  const std::string title_;
  const std::string button_;
  std::function<void()> answered_;
};

}  // namespace nembra
