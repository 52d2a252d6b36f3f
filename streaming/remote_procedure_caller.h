// Sends AMF0 commands with transaction ids and routes the server's replies.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "streaming/amf_value.h"
#include "streaming/receiver.h"
#include "streaming/rtmp_packet.h"

namespace nembra {

// Replies ("_result" by transaction id, "_error", "onStatus") arrive through PutFrame, on the
// packet stream's receiving thread; the callbacks run there. A reply whose information object has
// "level" "error" is treated as "_error" whatever its name. A transaction is removed once its
// "_result" has been delivered; a server that never answers leaves it open (there are no
// timeouts).
//
// Call may be used from any thread, also from inside a reply callback; it sends through the
// packet sender, so it throws what that throws ("network send data failed"). Reading a reply
// throws the AMF0 errors ("unknown AMF type", ...), which end the receiving thread.
class RemoteProcedureCaller : public IReceiver<RTMPPacket> {
 public:
  using Handler =
      std::function<void(std::shared_ptr<AMFValue> command, std::shared_ptr<AMFValue> info)>;
  using Arguments = std::vector<std::shared_ptr<AMFValue>>;

  RemoteProcedureCaller(std::shared_ptr<IReceiver<RTMPPacket>> packetSender, Handler errorHandler,
                        Handler statusHandler);

  // Sends |name| with the next transaction id (1 for the first call) and returns that id. Empty
  // |commandObject| or arguments are written as null. |callback| (may be empty) receives the
  // "_result" of this transaction.
  uint32_t Call(RTMPChannel channel, const std::string& name,
                std::shared_ptr<AMFValue> commandObject, const Arguments& arguments,
                Handler callback, uint32_t streamId);
  uint32_t Call(RTMPChannel channel, const std::string& name,
                std::shared_ptr<AMFValue> commandObject, std::shared_ptr<AMFValue> argument,
                Handler callback, uint32_t streamId);
  uint32_t Call(RTMPChannel channel, const std::string& name,
                std::shared_ptr<AMFValue> commandObject, std::shared_ptr<AMFValue> first,
                std::shared_ptr<AMFValue> second, Handler callback, uint32_t streamId);

  // The transactions still waiting for their "_result".
  size_t OpenTransactionCount() const;

 protected:
  void PutFrameImpl(RTMPPacket packet) override;
  void CloseImpl() override {}

 private:
  struct Transaction {
    uint32_t id = 0;
    Handler callback;
  };

  std::shared_ptr<IReceiver<RTMPPacket>> packetSender_;
  Handler errorHandler_;
  Handler statusHandler_;

  mutable std::mutex mutex_;
  uint32_t lastTransactionId_ = 0;                // guarded by mutex_
  std::map<uint32_t, Transaction> transactions_;  // guarded by mutex_
};

// The dump of |value| for log lines, "NULL" for an empty pointer.
std::string DumpAMF(const std::shared_ptr<AMFValue>& value);

}  // namespace nembra
