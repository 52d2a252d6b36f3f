// Watches reachability while transfers run and says which network a transfer may use: none
// while the network is unreachable, and only Wi-Fi when the uploading configuration asks for
// it. The uploader decides what to do with its transfers on each change.
//
// Threading: call from the main queue; the change handler runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/system/notification_center.h"

namespace nembra {

class Nembra;
class Reachability;

class UploadNetworkHold {
 public:
  using ChangeHandler = std::function<void(int status)>;

  // Reachability of the shared manager, changes from the default center. The owner must
  // outlive this object.
  UploadNetworkHold(Nembra& application, ChangeHandler onChange);
  ~UploadNetworkHold();

  UploadNetworkHold(const UploadNetworkHold&) = delete;
  UploadNetworkHold& operator=(const UploadNetworkHold&) = delete;

  // Tests inject their own.
  void setReachability(std::shared_ptr<Reachability> reachability, NotificationCenter& center);

  // Registers for changes (once) and starts the notifier.
  void watch();
  // Stops both, when watching.
  void unwatch();

  int status() const;
  // Whether a transfer not yet started waits: reachable, but not over Wi-Fi, with Wi-Fi only set.
  bool waitsForWifi(int status) const;
  // Whether a running transfer is suspended: unreachable, or not Wi-Fi with Wi-Fi only set.
  bool suspends(int status) const;

 private:
  Nembra& application_;
  ChangeHandler onChange_;
  std::shared_ptr<Reachability> reachability_;
  NotificationCenter* center_;
  std::optional<NotificationCenter::Token> observer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace nembra
