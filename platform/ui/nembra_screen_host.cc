#include "nembra/main_queue.h"
#include "nembra/screen_host.h"
#include "platform/ui/screen_presenter.h"
#include "platform/ui/ui_adapter.h"

namespace nembra {

class NembraScreenHost::Adapter {
 public:
  std::unique_ptr<UiAdapter> ui;
};

NembraScreenHost::NembraScreenHost(UiKind kind, MainQueue& mainQueue)
    : kind_(kind), mainQueue_(mainQueue), adapter_(std::make_unique<Adapter>()) {}

std::unique_ptr<NembraScreenHost> NembraScreenHost::start(UiKind kind, MainQueue& mainQueue,
                                                          OptionalError& error) {
  std::unique_ptr<NembraScreenHost> host(new NembraScreenHost(kind, mainQueue));
  host->adapter_->ui = makeUiAdapter(kind, mainQueue, error);
  if (!host->adapter_->ui) {
    if (!error)
      error = Error::internal(std::string("cannot start the ") + uiKindName(kind) + " UI");
    return nullptr;
  }
  host->presenter_ = std::make_shared<ScreenPresenter>(*host->adapter_->ui, mainQueue);
  std::weak_ptr<ScreenPresenter> presenter = host->presenter_;
  host->adapter_->ui->setQuitHandler([presenter] {
    if (auto strong = presenter.lock()) strong->dismissAll();
  });
  return host;
}

NembraScreenHost::~NembraScreenHost() {
  // The screens' views come from the adapter: they go first.
  presenter_.reset();
  adapter_.reset();
}

size_t NembraScreenHost::screensShown() const { return presenter_->depth(); }

void NembraScreenHost::closeAll() { presenter_->dismissAll(); }

bool NembraScreenHost::runUntilClosed(std::chrono::milliseconds limit) {
  return mainQueue_.runUntil([this] { return presenter_->depth() == 0; }, limit);
}

}  // namespace nembra
