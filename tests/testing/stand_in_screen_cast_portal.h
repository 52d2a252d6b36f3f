// A ScreenCast portal of the test's own on a private session bus: it owns
// org.freedesktop.portal.Desktop and answers CreateSession, SelectSources, Start and
// OpenPipeWireRemote as the desktop portal does (a Request object per call, named after the
// caller and its handle token, whose Response signal carries the answer), casting one PipeWire
// node reached through a connection the test supplies.
//
// It exists because the desktop portal installed here casts only from a compositor rendering on
// a GPU: without a DRM render node its wlroots backend refuses Start, so the recording path past
// Start could not otherwise run on a machine without one.
//
// Threading: the portal answers on its own thread, "com.nembra.test.portal"; the accessors may
// be called from any thread. Stopped (bus included) at destruction. Header-only test helper.
#pragma once

#include <dbus/dbus.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/thread_name.h"
#include "platform/system/child_process.h"

namespace nembra::testing {

class StandInScreenCastPortal {
 public:
  // What Start answers: the stream, or the Response codes of a user who closed the chooser (1)
  // and of a cast that failed (2).
  enum class StartAnswer { Cast, Cancel, Fail };

  struct Stream {
    uint32_t node = 0;
    int width = 0;
    int height = 0;
    // A new connection to the PipeWire daemon that has |node|, or -1.
    std::function<int()> connect;
  };

  StandInScreenCastPortal(StartAnswer answer, Stream stream)
      : answer_(answer), stream_(std::move(stream)) {
    char pattern[] = "/tmp/nembra-portal-XXXXXX";
    failure_ = "can't start a session bus";
    if (!::mkdtemp(pattern)) return;
    runtime_ = pattern;
    busAddress_ = "unix:path=" + runtime_ + "/bus";
    if (ChildProcess::start({{"dbus-daemon", "--session", "--nofork", "--address=" + busAddress_},
                             "/dev/null",
                             runtime_ + "/bus.err"},
                            bus_)) {
      return;
    }
    // The socket appears before the daemon listens on it: retry until it answers.
    DBusError error;
    dbus_error_init(&error);
    for (int i = 0; i < 100 && !connection_; ++i) {
      if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      dbus_error_free(&error);
      connection_ = dbus_connection_open_private(busAddress_.c_str(), &error);
    }
    if (!connection_ || !dbus_bus_register(connection_, &error) ||
        dbus_bus_request_name(connection_, kPortalName, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
      failure_ = error.message ? error.message : "the portal's name is taken";
      dbus_error_free(&error);
      return;
    }
    failure_.clear();
    dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    dbus_connection_add_filter(connection_, &StandInScreenCastPortal::filter, this, nullptr);
    ready_ = true;
    thread_ = std::thread([this] {
      setCurrentThreadName("com.nembra.test.portal");
      while (!stopping_.load() && dbus_connection_read_write_dispatch(connection_, 50)) {
      }
    });
  }

  ~StandInScreenCastPortal() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (connection_) {
      dbus_connection_close(connection_);
      dbus_connection_unref(connection_);
    }
    bus_.reset();
    if (!runtime_.empty()) std::filesystem::remove_all(runtime_);
  }

  StandInScreenCastPortal(const StandInScreenCastPortal&) = delete;
  StandInScreenCastPortal& operator=(const StandInScreenCastPortal&) = delete;

  bool ready() const { return ready_; }
  // Why it is not ready.
  const std::string& whyNot() const { return failure_; }
  // "NAME=value" entries that put a program on this portal's session bus.
  std::vector<std::string> environment() const {
    return {"DBUS_SESSION_BUS_ADDRESS=" + busAddress_};
  }
  // The methods called so far, in order ("ScreenCast.Start", "Session.Close", ...).
  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  // Sessions opened and not yet closed by their caller.
  int openSessions() const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(sessions_.size());
  }

 private:
  static constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
  static constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
  static constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
  static constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
  static constexpr uint32_t kMonitor = 1;
  static constexpr uint32_t kWindow = 2;

  struct Session {
    bool sourcesSelected = false;
    bool started = false;
  };

  // The a{sv} options of a call, strings and numbers only (all these methods take).
  struct Options {
    std::map<std::string, std::string> strings;
    std::map<std::string, uint32_t> numbers;
  };

  static DBusHandlerResult filter(DBusConnection*, DBusMessage* message, void* data) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL)
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    static_cast<StandInScreenCastPortal*>(data)->handle(message);
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  void handle(DBusMessage* call) {
    const std::string interface = text(dbus_message_get_interface(call));
    const std::string member = text(dbus_message_get_member(call));
    const std::string path = text(dbus_message_get_path(call));
    {
      std::lock_guard lock(mutex_);
      calls_.push_back(interface.substr(interface.rfind('.') + 1) + "." + member);
    }
    if (interface == kProperties && path == kPortalPath) return properties(call, member);
    if (interface == "org.freedesktop.portal.Session" && member == "Close") {
      std::lock_guard lock(mutex_);
      sessions_.erase(path);
      return reply(call, [](DBusMessageIter*) {});
    }
    if (interface != kScreenCast || path != kPortalPath) {
      return fail(call, DBUS_ERROR_UNKNOWN_METHOD, "no such method: " + interface + "." + member);
    }

    DBusMessageIter args;
    dbus_message_iter_init(call, &args);
    std::string session;
    if (member != "CreateSession") {
      if (dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_OBJECT_PATH)
        return fail(call, DBUS_ERROR_INVALID_ARGS, "a session handle comes first");
      session = basic<const char*>(&args);
      dbus_message_iter_next(&args);
      std::lock_guard lock(mutex_);
      if (!sessions_.count(session))
        return fail(call, DBUS_ERROR_INVALID_ARGS, "no such session: " + session);
    }
    if (member == "Start") {
      if (dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_STRING)
        return fail(call, DBUS_ERROR_INVALID_ARGS, "Start takes a parent window");
      dbus_message_iter_next(&args);
    }
    if (dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_ARRAY)
      return fail(call, DBUS_ERROR_INVALID_ARGS, member + " takes an options dictionary");
    const Options options = readOptions(&args);

    if (member == "OpenPipeWireRemote") {
      {
        std::lock_guard lock(mutex_);
        if (!sessions_[session].started)
          return fail(call, "org.freedesktop.portal.Error.NotAllowed", "the cast has not started");
      }
      const int fd = stream_.connect ? stream_.connect() : -1;
      if (fd < 0) return fail(call, DBUS_ERROR_FAILED, "can't reach PipeWire");
      reply(call, [fd](DBusMessageIter* out) {
        dbus_message_iter_append_basic(out, DBUS_TYPE_UNIX_FD, &fd);
      });
      ::close(fd);  // libdbus sent a duplicate
      return;
    }

    const auto token = options.strings.find("handle_token");
    const std::string request = objectPath(
        "request", call,
        token == options.strings.end() ? "t" + std::to_string(++serial_) : token->second);
    if (member == "CreateSession") {
      const auto sessionToken = options.strings.find("session_handle_token");
      if (sessionToken == options.strings.end())
        return fail(call, DBUS_ERROR_INVALID_ARGS, "no session_handle_token");
      const std::string handle = objectPath("session", call, sessionToken->second);
      {
        std::lock_guard lock(mutex_);
        sessions_[handle] = {};
      }
      replyWithRequest(call, request);
      return respond(request, 0, [&handle](DBusMessageIter* results) {
        appendEntry(results, "session_handle", DBUS_TYPE_STRING, handle.c_str());
      });
    }
    if (member == "SelectSources") {
      const auto types = options.numbers.find("types");
      if (types != options.numbers.end() && (types->second & ~(kMonitor | kWindow)) != 0)
        return fail(call, DBUS_ERROR_INVALID_ARGS, "unknown source types");
      {
        std::lock_guard lock(mutex_);
        sessions_[session].sourcesSelected = true;
      }
      replyWithRequest(call, request);
      return respond(request, 0, [](DBusMessageIter*) {});
    }
    if (member == "Start") {
      {
        std::lock_guard lock(mutex_);
        if (!sessions_[session].sourcesSelected) {
          return fail(call, "org.freedesktop.portal.Error.Failed", "Start before SelectSources");
        }
        sessions_[session].started = answer_ == StartAnswer::Cast;
      }
      replyWithRequest(call, request);
      if (answer_ != StartAnswer::Cast)
        return respond(request, answer_ == StartAnswer::Cancel ? 1 : 2, [](DBusMessageIter*) {});
      return respond(request, 0, [this](DBusMessageIter* results) { appendStreams(results); });
    }
    fail(call, DBUS_ERROR_UNKNOWN_METHOD, "no such method: " + member);
  }

  void properties(DBusMessage* call, const std::string& member) {
    const char* interface = nullptr;
    const char* name = nullptr;
    if (member == "Get" && dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &interface,
                                                 DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
      const auto value = property(interface, name);
      if (value < 0) return fail(call, DBUS_ERROR_UNKNOWN_PROPERTY, std::string("no ") + name);
      return reply(call, [value](DBusMessageIter* out) {
        const uint32_t number = static_cast<uint32_t>(value);
        DBusMessageIter variant;
        dbus_message_iter_open_container(out, DBUS_TYPE_VARIANT, "u", &variant);
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, &number);
        dbus_message_iter_close_container(out, &variant);
      });
    }
    if (member == "GetAll" &&
        dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &interface, DBUS_TYPE_INVALID)) {
      const std::string which = interface;
      return reply(call, [this, which](DBusMessageIter* out) {
        DBusMessageIter dict;
        dbus_message_iter_open_container(out, DBUS_TYPE_ARRAY, "{sv}", &dict);
        for (const char* key : {"version", "AvailableSourceTypes", "AvailableCursorModes"}) {
          const auto value = property(which, key);
          if (value >= 0) appendEntry(&dict, key, DBUS_TYPE_UINT32, static_cast<uint32_t>(value));
        }
        dbus_message_iter_close_container(out, &dict);
      });
    }
    fail(call, DBUS_ERROR_INVALID_ARGS, "Properties." + member);
  }

  static int64_t property(const std::string& interface, const std::string& name) {
    if (interface != kScreenCast) return -1;
    if (name == "version") return 4;
    if (name == "AvailableSourceTypes") return kMonitor | kWindow;
    if (name == "AvailableCursorModes") return 1 | 2;  // hidden, embedded
    return -1;
  }

  // [(node, {"size": (w, h), "source_type": monitor})]
  void appendStreams(DBusMessageIter* results) {
    DBusMessageIter entry, variant, streams, stream, properties;
    const char* key = "streams";
    dbus_message_iter_open_container(results, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "a(ua{sv})", &variant);
    dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "(ua{sv})", &streams);
    dbus_message_iter_open_container(&streams, DBUS_TYPE_STRUCT, nullptr, &stream);
    dbus_message_iter_append_basic(&stream, DBUS_TYPE_UINT32, &stream_.node);
    dbus_message_iter_open_container(&stream, DBUS_TYPE_ARRAY, "{sv}", &properties);
    {
      DBusMessageIter sizeEntry, sizeVariant, pair;
      const char* sizeKey = "size";
      const dbus_int32_t width = stream_.width;
      const dbus_int32_t height = stream_.height;
      dbus_message_iter_open_container(&properties, DBUS_TYPE_DICT_ENTRY, nullptr, &sizeEntry);
      dbus_message_iter_append_basic(&sizeEntry, DBUS_TYPE_STRING, &sizeKey);
      dbus_message_iter_open_container(&sizeEntry, DBUS_TYPE_VARIANT, "(ii)", &sizeVariant);
      dbus_message_iter_open_container(&sizeVariant, DBUS_TYPE_STRUCT, nullptr, &pair);
      dbus_message_iter_append_basic(&pair, DBUS_TYPE_INT32, &width);
      dbus_message_iter_append_basic(&pair, DBUS_TYPE_INT32, &height);
      dbus_message_iter_close_container(&sizeVariant, &pair);
      dbus_message_iter_close_container(&sizeEntry, &sizeVariant);
      dbus_message_iter_close_container(&properties, &sizeEntry);
    }
    appendEntry(&properties, "source_type", DBUS_TYPE_UINT32, kMonitor);
    dbus_message_iter_close_container(&stream, &properties);
    dbus_message_iter_close_container(&streams, &stream);
    dbus_message_iter_close_container(&variant, &streams);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(results, &entry);
  }

  template <typename T>
  static void appendEntry(DBusMessageIter* dict, const char* key, int type, T value) {
    DBusMessageIter entry, variant;
    const char signature[2] = {static_cast<char>(type), '\0'};
    dbus_message_iter_open_container(dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant);
    dbus_message_iter_append_basic(&variant, type, &value);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(dict, &entry);
  }

  static std::string text(const char* chars) { return chars ? chars : ""; }

  template <typename T>
  static T basic(DBusMessageIter* iter) {
    T value{};
    dbus_message_iter_get_basic(iter, &value);
    return value;
  }

  static Options readOptions(DBusMessageIter* args) {
    Options options;
    DBusMessageIter entries;
    dbus_message_iter_recurse(args, &entries);
    while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
      DBusMessageIter entry, value;
      dbus_message_iter_recurse(&entries, &entry);
      const std::string key = basic<const char*>(&entry);
      dbus_message_iter_next(&entry);
      dbus_message_iter_recurse(&entry, &value);
      const int type = dbus_message_iter_get_arg_type(&value);
      if (type == DBUS_TYPE_STRING) options.strings[key] = basic<const char*>(&value);
      if (type == DBUS_TYPE_UINT32) options.numbers[key] = basic<dbus_uint32_t>(&value);
      dbus_message_iter_next(&entries);
    }
    return options;
  }

  // /org/freedesktop/portal/desktop/KIND/SENDER/TOKEN, SENDER being the caller's unique name
  // without its ':' and with '_' for '.'.
  static std::string objectPath(const char* kind, DBusMessage* call, const std::string& token) {
    std::string sender = dbus_message_get_sender(call);
    if (!sender.empty() && sender[0] == ':') sender.erase(0, 1);
    for (char& c : sender) {
      if (c == '.') c = '_';
    }
    return std::string(kPortalPath) + "/" + kind + "/" + sender + "/" + token;
  }

  void reply(DBusMessage* call, const std::function<void(DBusMessageIter*)>& fill) {
    DBusMessage* answer = dbus_message_new_method_return(call);
    DBusMessageIter out;
    dbus_message_iter_init_append(answer, &out);
    fill(&out);
    dbus_connection_send(connection_, answer, nullptr);
    dbus_message_unref(answer);
  }

  void replyWithRequest(DBusMessage* call, const std::string& request) {
    reply(call, [&request](DBusMessageIter* out) {
      const char* path = request.c_str();
      dbus_message_iter_append_basic(out, DBUS_TYPE_OBJECT_PATH, &path);
    });
  }

  // The Request's Response, sent to whoever listens as the portal's signals are.
  void respond(const std::string& request, uint32_t code,
               const std::function<void(DBusMessageIter*)>& results) {
    DBusMessage* signal =
        dbus_message_new_signal(request.c_str(), "org.freedesktop.portal.Request", "Response");
    DBusMessageIter out, dict;
    dbus_message_iter_init_append(signal, &out);
    dbus_message_iter_append_basic(&out, DBUS_TYPE_UINT32, &code);
    dbus_message_iter_open_container(&out, DBUS_TYPE_ARRAY, "{sv}", &dict);
    results(&dict);
    dbus_message_iter_close_container(&out, &dict);
    dbus_connection_send(connection_, signal, nullptr);
    dbus_message_unref(signal);
  }

  void fail(DBusMessage* call, const char* name, const std::string& message) {
    DBusMessage* answer = dbus_message_new_error(call, name, message.c_str());
    dbus_connection_send(connection_, answer, nullptr);
    dbus_message_unref(answer);
  }

  const StartAnswer answer_;
  Stream stream_;
  std::string runtime_;
  std::string busAddress_;
  std::unique_ptr<ChildProcess> bus_;
  DBusConnection* connection_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  bool ready_ = false;
  std::string failure_;
  int serial_ = 0;  // on the portal's thread

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;           // guarded by mutex_
  std::map<std::string, Session> sessions_;  // guarded by mutex_; by handle
};

}  // namespace nembra::testing
