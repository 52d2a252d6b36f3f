#include "streaming/remote_procedure_caller.h"

#include <utility>

#include "streaming/amf.h"
#include "streaming/stream_log.h"

namespace nembra {

std::string DumpAMF(const std::shared_ptr<AMFValue>& value) {
  return value ? value->ToString() : "NULL";
}

RemoteProcedureCaller::RemoteProcedureCaller(std::shared_ptr<IReceiver<RTMPPacket>> packetSender,
                                             Handler errorHandler, Handler statusHandler)
    : packetSender_(std::move(packetSender)),
      errorHandler_(std::move(errorHandler)),
      statusHandler_(std::move(statusHandler)) {}

uint32_t RemoteProcedureCaller::Call(RTMPChannel channel, const std::string& name,
                                     std::shared_ptr<AMFValue> commandObject,
                                     std::shared_ptr<AMFValue> argument, Handler callback,
                                     uint32_t streamId) {
  return Call(channel, name, std::move(commandObject), Arguments{std::move(argument)},
              std::move(callback), streamId);
}

uint32_t RemoteProcedureCaller::Call(RTMPChannel channel, const std::string& name,
                                     std::shared_ptr<AMFValue> commandObject,
                                     std::shared_ptr<AMFValue> first,
                                     std::shared_ptr<AMFValue> second, Handler callback,
                                     uint32_t streamId) {
  return Call(channel, name, std::move(commandObject),
              Arguments{std::move(first), std::move(second)}, std::move(callback), streamId);
}

uint32_t RemoteProcedureCaller::Call(RTMPChannel channel, const std::string& name,
                                     std::shared_ptr<AMFValue> commandObject,
                                     const Arguments& arguments, Handler callback,
                                     uint32_t streamId) {
  uint32_t id = 0;
  {
    // Stored before the command leaves, so that a quick reply finds it.
    std::lock_guard lock(mutex_);
    id = ++lastTransactionId_;
    transactions_[id] = Transaction{id, std::move(callback)};
  }

  RTMPPacket packet(MediaType::Data, MediaCodec::None, channel, RTMPPacketType::Command, streamId);
  BitstreamWriter writer = packet.GetDataWriter();
  AMFValue::String(name)->Write(writer);
  AMFValue::Number(id)->Write(writer);
  WriteAMFValueOrNull(writer, commandObject);
  std::string listed;
  for (const auto& argument : arguments) {
    WriteAMFValueOrNull(writer, argument);
    listed += (listed.empty() ? "" : ", ") + DumpAMF(argument);
  }
  StreamLog::Write("command [" + name + "](" + listed + "), transactionID = " + std::to_string(id));
  if (packetSender_) packetSender_->PutFrame(packet);
  return id;
}

size_t RemoteProcedureCaller::OpenTransactionCount() const {
  std::lock_guard lock(mutex_);
  return transactions_.size();
}

void RemoteProcedureCaller::PutFrameImpl(RTMPPacket packet) {
  BitstreamReader reader = packet.GetDataReader();
  auto next = [&reader]() -> std::shared_ptr<AMFValue> {
    // A reply may stop after any value; what is missing counts as absent, not as zeros.
    return reader.RemainingDataSize() > 0 ? AMFValue::ReadValue(reader) : nullptr;
  };
  const auto nameValue = next();
  const auto transactionValue = next();
  const auto command = next();
  const auto info = next();

  std::string name;
  if (auto text = std::dynamic_pointer_cast<AMFString>(nameValue)) name = text->Value();
  if (auto object = std::dynamic_pointer_cast<AMFObject>(info)) {
    auto level = std::dynamic_pointer_cast<AMFString>(object->GetValue("level"));
    if (level && level->Value() == "error") name = "_error";
  }

  if (name == "_result") {
    StreamLog::Write("result received: " + DumpAMF(command) + ", " + DumpAMF(info));
    StreamLog::Write("transaction ID raw = " + DumpAMF(transactionValue));
    auto number = std::dynamic_pointer_cast<AMFNumber>(transactionValue);
    const auto id = number ? static_cast<uint32_t>(number->Value()) : 0;
    StreamLog::Write("result received, transaction = " + std::to_string(id));
    Handler callback;
    {
      std::lock_guard lock(mutex_);
      auto found = transactions_.find(id);
      if (found == transactions_.end()) return;
      callback = std::move(found->second.callback);
      transactions_.erase(found);
    }
    if (callback) {
      callback(command, info);
      StreamLog::Write("result sent to callback");
    }
  } else if (name == "_error") {
    if (errorHandler_) errorHandler_(command, info);
  } else if (name == "onStatus") {
    if (statusHandler_) statusHandler_(command, info);
  }
}

}  // namespace nembra
