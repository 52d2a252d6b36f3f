#include "platform/system/mpris_now_playing_publisher.h"

#include <dbus/dbus.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/dispatch/thread_name.h"

namespace nembra {
namespace {

constexpr const char* kRootInterface = "org.mpris.MediaPlayer2";
constexpr const char* kPlayerInterface = "org.mpris.MediaPlayer2.Player";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";

constexpr const char* kIntrospection = R"(<!DOCTYPE node PUBLIC
"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect"><arg name="xml" type="s" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get"><arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="v" direction="out"/></method>
    <method name="GetAll"><arg type="s" direction="in"/><arg type="a{sv}" direction="out"/></method>
    <method name="Set"><arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="v" direction="in"/></method>
    <signal name="PropertiesChanged"><arg type="s"/><arg type="a{sv}"/><arg type="as"/></signal>
  </interface>
  <interface name="org.mpris.MediaPlayer2">
    <method name="Raise"/><method name="Quit"/>
    <property name="CanQuit" type="b" access="read"/>
    <property name="CanRaise" type="b" access="read"/>
    <property name="HasTrackList" type="b" access="read"/>
    <property name="Identity" type="s" access="read"/>
    <property name="SupportedUriSchemes" type="as" access="read"/>
    <property name="SupportedMimeTypes" type="as" access="read"/>
  </interface>
  <interface name="org.mpris.MediaPlayer2.Player">
    <method name="Next"/><method name="Previous"/><method name="Pause"/>
    <method name="PlayPause"/><method name="Stop"/><method name="Play"/>
    <method name="Seek"><arg name="Offset" type="x" direction="in"/></method>
    <method name="SetPosition"><arg name="TrackId" type="o" direction="in"/><arg name="Position" type="x" direction="in"/></method>
    <method name="OpenUri"><arg name="Uri" type="s" direction="in"/></method>
    <signal name="Seeked"><arg name="Position" type="x"/></signal>
    <property name="PlaybackStatus" type="s" access="read"/>
    <property name="Rate" type="d" access="read"/>
    <property name="Metadata" type="a{sv}" access="read"/>
    <property name="Volume" type="d" access="read"/>
    <property name="Position" type="x" access="read"/>
    <property name="MinimumRate" type="d" access="read"/>
    <property name="MaximumRate" type="d" access="read"/>
    <property name="CanGoNext" type="b" access="read"/>
    <property name="CanGoPrevious" type="b" access="read"/>
    <property name="CanPlay" type="b" access="read"/>
    <property name="CanPause" type="b" access="read"/>
    <property name="CanSeek" type="b" access="read"/>
    <property name="CanControl" type="b" access="read"/>
  </interface>
</node>
)";

class NullPublisher final : public NowPlayingPublisher {
 public:
  void publish(const NowPlayingInfo&) override {}
  void setPlaying(bool) override {}
  void setPosition(double) override {}
  void clear() override {}
  void setCommandHandler(std::function<void(NowPlayingCommand)>) override {}
};

// Appends one variant of |signature| written by |write|.
void appendVariant(DBusMessageIter* iter, const char* signature,
                   const std::function<void(DBusMessageIter*)>& write) {
  DBusMessageIter variant;
  dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, signature, &variant);
  write(&variant);
  dbus_message_iter_close_container(iter, &variant);
}

void appendString(DBusMessageIter* iter, const std::string& value) {
  const char* text = value.c_str();
  dbus_message_iter_append_basic(iter, DBUS_TYPE_STRING, &text);
}

void appendStringArray(DBusMessageIter* iter, const std::vector<std::string>& values) {
  DBusMessageIter array;
  dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "s", &array);
  for (const auto& value : values) appendString(&array, value);
  dbus_message_iter_close_container(iter, &array);
}

// One a{sv} entry.
void appendEntry(DBusMessageIter* dict, const std::string& key, const char* signature,
                 const std::function<void(DBusMessageIter*)>& write) {
  DBusMessageIter entry;
  dbus_message_iter_open_container(dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
  appendString(&entry, key);
  appendVariant(&entry, signature, write);
  dbus_message_iter_close_container(dict, &entry);
}

std::function<void(DBusMessageIter*)> stringValue(std::string value) {
  return [value = std::move(value)](DBusMessageIter* iter) { appendString(iter, value); };
}
std::function<void(DBusMessageIter*)> boolValue(bool value) {
  return [value](DBusMessageIter* iter) {
    dbus_bool_t flag = value ? TRUE : FALSE;
    dbus_message_iter_append_basic(iter, DBUS_TYPE_BOOLEAN, &flag);
  };
}
std::function<void(DBusMessageIter*)> doubleValue(double value) {
  return [value](DBusMessageIter* iter) {
    dbus_message_iter_append_basic(iter, DBUS_TYPE_DOUBLE, &value);
  };
}
std::function<void(DBusMessageIter*)> int64Value(int64_t value) {
  return [value](DBusMessageIter* iter) {
    dbus_int64_t number = value;
    dbus_message_iter_append_basic(iter, DBUS_TYPE_INT64, &number);
  };
}
std::function<void(DBusMessageIter*)> stringArrayValue(std::vector<std::string> values) {
  return [values = std::move(values)](DBusMessageIter* iter) { appendStringArray(iter, values); };
}

struct Property {
  const char* name;
  const char* signature;
  std::function<void(DBusMessageIter*)> write;
};

class DbusPublisher final : public NowPlayingPublisher {
 public:
  DbusPublisher(TaskQueue& commandQueue, DBusConnection* connection, std::string busName)
      : commandQueue_(commandQueue), connection_(connection), busName_(std::move(busName)) {
    static const DBusObjectPathVTable vtable = {
        nullptr, &DbusPublisher::onMessage, nullptr, nullptr, nullptr, nullptr};
    dbus_connection_register_object_path(connection_, MprisNowPlayingPublisher::kObjectPath,
                                         &vtable, this);
    thread_ = std::thread([this] {
      setCurrentThreadName("com.nembra.mpris");
      while (!stopping_ && dbus_connection_read_write_dispatch(connection_, 100)) {
      }
    });
  }

  ~DbusPublisher() override {
    stopping_ = true;
    thread_.join();
    dbus_connection_unregister_object_path(connection_, MprisNowPlayingPublisher::kObjectPath);
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
  }

  void publish(const NowPlayingInfo& info) override {
    {
      std::lock_guard lock(mutex_);
      info_ = info;
      ++track_;
      positionSeconds_ = 0;
    }
    signalChanged({"Metadata", "PlaybackStatus"});
  }

  void setPlaying(bool playing) override {
    {
      std::lock_guard lock(mutex_);
      if (info_ && playing_ == playing) return;
      playing_ = playing;
    }
    signalChanged({"PlaybackStatus"});
  }

  void setPosition(double seconds) override {
    std::lock_guard lock(mutex_);
    positionSeconds_ = seconds;
  }

  void clear() override {
    {
      std::lock_guard lock(mutex_);
      info_.reset();
      playing_ = false;
      positionSeconds_ = 0;
    }
    signalChanged({"Metadata", "PlaybackStatus"});
  }

  void setCommandHandler(std::function<void(NowPlayingCommand)> handler) override {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }

 private:
  static DBusHandlerResult onMessage(DBusConnection*, DBusMessage* message, void* self) {
    return static_cast<DbusPublisher*>(self)->handle(message);
  }

  // Runs on the bus thread.
  DBusHandlerResult handle(DBusMessage* message) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char* interface = dbus_message_get_interface(message);
    const char* member = dbus_message_get_member(message);
    if (!member) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const std::string iface = interface ? interface : "";

    if (iface == kIntrospectable && std::strcmp(member, "Introspect") == 0) {
      DBusMessage* reply = dbus_message_new_method_return(message);
      dbus_message_append_args(reply, DBUS_TYPE_STRING, &kIntrospection, DBUS_TYPE_INVALID);
      return send(reply);
    }
    if (iface == kPropertiesInterface) return handleProperties(message, member);
    if (iface == kRootInterface || (iface.empty() && (std::strcmp(member, "Raise") == 0 ||
                                                      std::strcmp(member, "Quit") == 0))) {
      // Neither raising nor quitting is offered (CanRaise and CanQuit are false).
      return send(dbus_message_new_method_return(message));
    }
    if (iface == kPlayerInterface || iface.empty()) {
      static const std::pair<const char*, NowPlayingCommand> kCommands[] = {
          {"Play", NowPlayingCommand::Play},           {"Pause", NowPlayingCommand::Pause},
          {"PlayPause", NowPlayingCommand::PlayPause}, {"Next", NowPlayingCommand::Next},
          {"Previous", NowPlayingCommand::Previous},   {"Stop", NowPlayingCommand::Stop},
      };
      for (const auto& [name, command] : kCommands) {
        if (std::strcmp(member, name) == 0) {
          post(command);
          return send(dbus_message_new_method_return(message));
        }
      }
      for (const char* ignored : {"Seek", "SetPosition", "OpenUri"}) {
        // CanSeek is false and no URI opens here; callers are answered all the same.
        if (std::strcmp(member, ignored) == 0) return send(dbus_message_new_method_return(message));
      }
    }
    return send(dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, member));
  }

  DBusHandlerResult handleProperties(DBusMessage* message, const char* member) {
    DBusError error;
    dbus_error_init(&error);
    const char* interface = nullptr;
    const char* name = nullptr;
    if (std::strcmp(member, "Get") == 0) {
      if (!dbus_message_get_args(message, &error, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &name, DBUS_TYPE_INVALID)) {
        return replyError(message, error);
      }
      for (const auto& property : properties(interface)) {
        if (std::strcmp(property.name, name) != 0) continue;
        DBusMessage* reply = dbus_message_new_method_return(message);
        DBusMessageIter iter;
        dbus_message_iter_init_append(reply, &iter);
        appendVariant(&iter, property.signature, property.write);
        return send(reply);
      }
      return send(dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_PROPERTY, name));
    }
    if (std::strcmp(member, "GetAll") == 0) {
      if (!dbus_message_get_args(message, &error, DBUS_TYPE_STRING, &interface,
                                 DBUS_TYPE_INVALID)) {
        return replyError(message, error);
      }
      DBusMessage* reply = dbus_message_new_method_return(message);
      DBusMessageIter iter;
      dbus_message_iter_init_append(reply, &iter);
      appendProperties(&iter, properties(interface), {});
      return send(reply);
    }
    if (std::strcmp(member, "Set") == 0) {
      return send(dbus_message_new_error(message, DBUS_ERROR_PROPERTY_READ_ONLY,
                                         "every property here is read-only"));
    }
    return send(dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, member));
  }

  DBusHandlerResult replyError(DBusMessage* message, DBusError& error) {
    DBusMessage* reply = dbus_message_new_error(message, error.name, error.message);
    dbus_error_free(&error);
    return send(reply);
  }

  DBusHandlerResult send(DBusMessage* reply) {
    if (reply) {
      dbus_connection_send(connection_, reply, nullptr);
      dbus_message_unref(reply);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  // The properties of |interface| as they are now.
  std::vector<Property> properties(const std::string& interface) {
    std::lock_guard lock(mutex_);
    if (interface == kRootInterface) {
      return {{"CanQuit", "b", boolValue(false)},
              {"CanRaise", "b", boolValue(false)},
              {"HasTrackList", "b", boolValue(false)},
              {"Identity", "s", stringValue("Nembra")},
              {"SupportedUriSchemes", "as", stringArrayValue({})},
              {"SupportedMimeTypes", "as", stringArrayValue({})}};
    }
    if (interface != kPlayerInterface) return {};
    return {{"PlaybackStatus", "s", stringValue(status())},
            {"Rate", "d", doubleValue(1.0)},
            {"Metadata", "a{sv}", metadata()},
            {"Volume", "d", doubleValue(1.0)},
            {"Position", "x", int64Value(std::llround(positionSeconds_ * 1e6))},
            {"MinimumRate", "d", doubleValue(1.0)},
            {"MaximumRate", "d", doubleValue(1.0)},
            {"CanGoNext", "b", boolValue(info_.has_value())},
            {"CanGoPrevious", "b", boolValue(info_.has_value())},
            {"CanPlay", "b", boolValue(info_.has_value())},
            {"CanPause", "b", boolValue(info_.has_value())},
            {"CanSeek", "b", boolValue(false)},
            {"CanControl", "b", boolValue(true)}};
  }

  // REQUIRES: mutex_ held.
  std::string status() const {
    if (!info_) return "Stopped";
    return playing_ ? "Playing" : "Paused";
  }

  // REQUIRES: mutex_ held. The item as MPRIS metadata; empty when nothing plays.
  std::function<void(DBusMessageIter*)> metadata() const {
    std::vector<Property> entries;
    if (info_) {
      std::string track = "/org/nembra/track/" + std::to_string(track_);
      entries.push_back({"mpris:trackid", "o", [track](DBusMessageIter* iter) {
                           const char* path = track.c_str();
                           dbus_message_iter_append_basic(iter, DBUS_TYPE_OBJECT_PATH, &path);
                         }});
      if (info_->durationSeconds > 0) {
        entries.push_back(
            {"mpris:length", "x", int64Value(std::llround(info_->durationSeconds * 1e6))});
      }
      entries.push_back({"xesam:title", "s", stringValue(info_->title)});
      entries.push_back({"xesam:album", "s", stringValue(info_->listTitle)});
      if (!info_->artist.empty()) {
        entries.push_back({"xesam:artist", "as", stringArrayValue({info_->artist})});
      }
      if (!info_->iconPath.empty()) {
        entries.push_back({"mpris:artUrl", "s", stringValue("file://" + info_->iconPath)});
      }
      if (!info_->url.empty()) entries.push_back({"xesam:url", "s", stringValue(info_->url)});
    }
    return [entries](DBusMessageIter* iter) {
      DBusMessageIter dict;
      dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "{sv}", &dict);
      for (const auto& entry : entries)
        appendEntry(&dict, entry.name, entry.signature, entry.write);
      dbus_message_iter_close_container(iter, &dict);
    };
  }

  // Writes the a{sv} of |all|, only those named in |only| when it is not empty.
  static void appendProperties(DBusMessageIter* iter, const std::vector<Property>& all,
                               const std::vector<std::string>& only) {
    DBusMessageIter dict;
    dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "{sv}", &dict);
    for (const auto& property : all) {
      bool wanted = only.empty();
      for (const auto& name : only) wanted = wanted || name == property.name;
      if (wanted) appendEntry(&dict, property.name, property.signature, property.write);
    }
    dbus_message_iter_close_container(iter, &dict);
  }

  void signalChanged(const std::vector<std::string>& names) {
    DBusMessage* signal = dbus_message_new_signal(MprisNowPlayingPublisher::kObjectPath,
                                                  kPropertiesInterface, "PropertiesChanged");
    if (!signal) return;
    DBusMessageIter iter;
    dbus_message_iter_init_append(signal, &iter);
    appendString(&iter, kPlayerInterface);
    appendProperties(&iter, properties(kPlayerInterface), names);
    appendStringArray(&iter, {});
    dbus_connection_send(connection_, signal, nullptr);
    dbus_message_unref(signal);
  }

  void post(NowPlayingCommand command) {
    std::function<void(NowPlayingCommand)> handler;
    {
      std::lock_guard lock(mutex_);
      handler = handler_;
    }
    if (handler) commandQueue_.async([handler, command] { handler(command); });
  }

  TaskQueue& commandQueue_;
  DBusConnection* const connection_;
  const std::string busName_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;

  std::mutex mutex_;
  std::optional<NowPlayingInfo> info_;              // guarded by mutex_
  bool playing_ = false;                            // guarded by mutex_
  double positionSeconds_ = 0;                      // guarded by mutex_
  uint64_t track_ = 0;                              // guarded by mutex_
  std::function<void(NowPlayingCommand)> handler_;  // guarded by mutex_
};

std::unique_ptr<NowPlayingPublisher> connectTo(TaskQueue& commandQueue, const std::string& address,
                                               std::string* busName) {
  if (busName) busName->clear();
  if (address.empty()) return std::make_unique<NullPublisher>();
  static std::once_flag threads;
  std::call_once(threads, [] { dbus_threads_init_default(); });
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* connection = dbus_connection_open_private(address.c_str(), &error);
  if (!connection) {
    dbus_error_free(&error);
    return std::make_unique<NullPublisher>();
  }
  dbus_connection_set_exit_on_disconnect(connection, FALSE);
  const std::string name = "org.mpris.MediaPlayer2.nembra.instance" + std::to_string(::getpid());
  bool registered = dbus_bus_register(connection, &error) &&
                    dbus_bus_request_name(connection, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE,
                                          &error) == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
  if (!registered) {
    // A second publisher in this process keeps quiet: one name per process.
    dbus_error_free(&error);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    return std::make_unique<NullPublisher>();
  }
  if (busName) *busName = name;
  return std::make_unique<DbusPublisher>(commandQueue, connection, name);
}

}  // namespace

std::unique_ptr<NowPlayingPublisher> MprisNowPlayingPublisher::make(TaskQueue& commandQueue) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return connectTo(commandQueue, address, nullptr);
  // A systemd user session keeps its bus here without always exporting the address.
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::string socket = runtime && *runtime ? std::string(runtime) + "/bus" : "";
  if (socket.empty() || ::access(socket.c_str(), F_OK) != 0) {
    return connectTo(commandQueue, "", nullptr);
  }
  return connectTo(commandQueue, "unix:path=" + socket, nullptr);
}

std::unique_ptr<NowPlayingPublisher> MprisNowPlayingPublisher::makeOnBus(TaskQueue& commandQueue,
                                                                         const std::string& address,
                                                                         std::string* busName) {
  return connectTo(commandQueue, address, busName);
}

}  // namespace nembra
