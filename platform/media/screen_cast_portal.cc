#include "platform/media/screen_cast_portal.h"

#include <dbus/dbus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <variant>
#include <vector>

namespace nembra {
namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr const char* kRequest = "org.freedesktop.portal.Request";
constexpr const char* kSession = "org.freedesktop.portal.Session";
constexpr uint32_t kMonitor = 1;  // SelectSources' "types": monitors only

struct Option {
  const char* key;
  std::variant<std::string, uint32_t, bool> value;
};

struct MessageRef {
  DBusMessage* message = nullptr;
  explicit MessageRef(DBusMessage* m = nullptr) : message(m) {}
  MessageRef(MessageRef&& other) noexcept : message(other.message) { other.message = nullptr; }
  MessageRef& operator=(MessageRef&& other) noexcept {
    std::swap(message, other.message);
    return *this;
  }
  ~MessageRef() {
    if (message) dbus_message_unref(message);
  }
};

void appendOptions(DBusMessageIter* args, const std::vector<Option>& options) {
  DBusMessageIter dict;
  dbus_message_iter_open_container(args, DBUS_TYPE_ARRAY, "{sv}", &dict);
  for (const Option& option : options) {
    DBusMessageIter entry;
    DBusMessageIter variant;
    dbus_message_iter_open_container(&dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &option.key);
    if (const auto* text = std::get_if<std::string>(&option.value)) {
      const char* chars = text->c_str();
      dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "s", &variant);
      dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &chars);
    } else if (const auto* number = std::get_if<uint32_t>(&option.value)) {
      dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "u", &variant);
      dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT32, number);
    } else {
      const dbus_bool_t flag = std::get<bool>(option.value) ? TRUE : FALSE;
      dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "b", &variant);
      dbus_message_iter_append_basic(&variant, DBUS_TYPE_BOOLEAN, &flag);
    }
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(&dict, &entry);
  }
  dbus_message_iter_close_container(args, &dict);
}

// Calls |visit| with each key of the a{sv} at |dict| and an iterator inside its variant.
void forEachEntry(DBusMessageIter* dict,
                  const std::function<void(const std::string&, DBusMessageIter*)>& visit) {
  if (dbus_message_iter_get_arg_type(dict) != DBUS_TYPE_ARRAY) return;
  DBusMessageIter entries;
  dbus_message_iter_recurse(dict, &entries);
  while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
    DBusMessageIter entry;
    dbus_message_iter_recurse(&entries, &entry);
    const char* key = nullptr;
    if (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_STRING) {
      dbus_message_iter_get_basic(&entry, &key);
      dbus_message_iter_next(&entry);
      if (key && dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_VARIANT) {
        DBusMessageIter value;
        dbus_message_iter_recurse(&entry, &value);
        visit(key, &value);
      }
    }
    dbus_message_iter_next(&entries);
  }
}

std::string stringIn(DBusMessageIter* value) {
  const int type = dbus_message_iter_get_arg_type(value);
  if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH) return "";
  const char* text = nullptr;
  dbus_message_iter_get_basic(value, &text);
  return text ? text : "";
}

// The object a request will have: the portal names it after the caller and the token, so the
// signal can be listened for before the call (else a quick answer could come first).
std::string requestPath(DBusConnection* connection, const std::string& token) {
  std::string sender = dbus_bus_get_unique_name(connection);
  if (!sender.empty() && sender[0] == ':') sender.erase(0, 1);
  for (char& c : sender) {
    if (c == '.') c = '_';
  }
  return std::string(kPortalPath) + "/request/" + sender + "/" + token;
}

std::string responseMatch(const std::string& path) {
  return "type='signal',interface='" + std::string(kRequest) + "',member='Response',path='" + path +
         "'";
}

std::string newToken(const char* what) {
  static std::atomic<int> counter{0};
  return std::string("nembra_") + what + "_" + std::to_string(getpid()) + "_" +
         std::to_string(++counter);
}

// One portal step: a method whose reply names a Request, answered later by its Response.
class PortalStep {
 public:
  PortalStep(DBusConnection* connection, const ScreenCastPortal::Options& options)
      : connection_(connection), options_(options) {}

  // Calls ScreenCast.|method| with |leading| arguments then the options (with a handle token
  // added), and waits |timeoutMs| for the answer. Returns the Response's code (or -1 with
  // |error| set) and keeps the Response in |response|.
  int call(const char* method, const std::function<void(DBusMessageIter*)>& leading,
           std::vector<Option> optionList, int timeoutMs, MessageRef& response,
           std::string& error) {
    const std::string token = newToken(method);
    std::string path = requestPath(connection_, token);
    std::string match = responseMatch(path);
    dbus_bus_add_match(connection_, match.c_str(), nullptr);
    optionList.push_back({"handle_token", token});

    MessageRef call(dbus_message_new_method_call(kPortalName, kPortalPath, kScreenCast, method));
    DBusMessageIter args;
    dbus_message_iter_init_append(call.message, &args);
    if (leading) leading(&args);
    appendOptions(&args, optionList);

    DBusError dbusError;
    dbus_error_init(&dbusError);
    MessageRef reply(dbus_connection_send_with_reply_and_block(connection_, call.message,
                                                               options_.stepTimeoutMs, &dbusError));
    if (!reply.message) {
      error = std::string(dbusError.name ? dbusError.name : "") + ": " +
              (dbusError.message ? dbusError.message : "no answer");
      unavailable_ = dbusError.name != nullptr;
      dbus_error_free(&dbusError);
      dbus_bus_remove_match(connection_, match.c_str(), nullptr);
      return -1;
    }
    const char* handle = nullptr;
    if (dbus_message_get_args(reply.message, nullptr, DBUS_TYPE_OBJECT_PATH, &handle,
                              DBUS_TYPE_INVALID) &&
        handle && path != handle) {
      // An older portal names its requests its own way: listen there instead.
      dbus_bus_remove_match(connection_, match.c_str(), nullptr);
      path = handle;
      match = responseMatch(path);
      dbus_bus_add_match(connection_, match.c_str(), nullptr);
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int code = -1;
    while (code < 0) {
      MessageRef message(dbus_connection_pop_message(connection_));
      if (!message.message) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
          error = std::string("no answer to ") + method + " within " +
                  std::to_string(timeoutMs / 1000) + " s";
          break;
        }
        if (!dbus_connection_read_write(
                connection_, static_cast<int>(std::min<int64_t>(left, options_.stepTimeoutMs)))) {
          error = "the session bus closed";
          break;
        }
        continue;
      }
      if (!dbus_message_is_signal(message.message, kRequest, "Response") ||
          path != dbus_message_get_path(message.message)) {
        continue;
      }
      DBusMessageIter results;
      dbus_uint32_t answer = 2;
      if (dbus_message_iter_init(message.message, &results) &&
          dbus_message_iter_get_arg_type(&results) == DBUS_TYPE_UINT32) {
        dbus_message_iter_get_basic(&results, &answer);
      }
      code = static_cast<int>(answer);
      response = std::move(message);
    }
    dbus_bus_remove_match(connection_, match.c_str(), nullptr);
    return code;
  }

  // Whether the last call itself failed on the bus: nobody offers it (no portal, or a portal
  // without screen casts) or nobody answered in time.
  bool unavailable() const { return unavailable_; }

 private:
  DBusConnection* connection_;
  const ScreenCastPortal::Options& options_;
  bool unavailable_ = false;
};

// The results dictionary of a Response (its second argument).
bool resultsOf(const MessageRef& response, DBusMessageIter* results) {
  if (!dbus_message_iter_init(response.message, results)) return false;
  dbus_message_iter_next(results);
  return dbus_message_iter_get_arg_type(results) == DBUS_TYPE_ARRAY;
}

}  // namespace

std::unique_ptr<ScreenCastPortal> ScreenCastPortal::open(const Options& options, Outcome& outcome,
                                                         OptionalError& error) {
  outcome = Outcome::Unavailable;
  std::string address = options.busAddress;
  if (address.empty()) {
    const char* fromEnvironment = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    address = fromEnvironment ? fromEnvironment : "";
  }
  if (address.empty()) {
    error = Error::media("no screen-cast portal: no session bus (DBUS_SESSION_BUS_ADDRESS)");
    return nullptr;
  }
  std::unique_ptr<ScreenCastPortal> portal(new ScreenCastPortal());
  DBusError dbusError;
  dbus_error_init(&dbusError);
  portal->connection_ = dbus_connection_open_private(address.c_str(), &dbusError);
  if (portal->connection_ && !dbus_bus_register(portal->connection_, &dbusError)) {
    dbus_connection_close(portal->connection_);
    dbus_connection_unref(portal->connection_);
    portal->connection_ = nullptr;
  }
  if (!portal->connection_) {
    error = Error::media(std::string("no screen-cast portal: can't reach the session bus: ") +
                         (dbusError.message ? dbusError.message : address));
    dbus_error_free(&dbusError);
    return nullptr;
  }
  // This object closes the connection; the process must not end because the bus did.
  dbus_connection_set_exit_on_disconnect(portal->connection_, FALSE);

  PortalStep step(portal->connection_, options);
  MessageRef response;
  std::string failure;
  auto refused = [&](const char* what, int code) {
    if (code == 1) {
      outcome = Outcome::Cancelled;
      error = Error::cancelled("the screen cast was cancelled by the user");
    } else {
      outcome = Outcome::Refused;
      error =
          Error::media("the screen-cast portal refused " + std::string(what) +
                       (code < 0 ? ": " + failure : " (response " + std::to_string(code) + ")"));
    }
    return nullptr;
  };

  // CreateSession: the session's handle comes back in the results.
  const std::string sessionToken = newToken("session");
  int code = step.call("CreateSession", nullptr, {{"session_handle_token", sessionToken}},
                       options.stepTimeoutMs, response, failure);
  if (code < 0 && step.unavailable()) {
    error = Error::media("no screen-cast portal on the session bus: " + failure);
    return nullptr;
  }
  if (code != 0) return refused("to open a session", code);
  DBusMessageIter results;
  if (resultsOf(response, &results)) {
    forEachEntry(&results, [&](const std::string& key, DBusMessageIter* value) {
      if (key == "session_handle") portal->sessionHandle_ = stringIn(value);
    });
  }
  outcome = Outcome::Refused;
  if (portal->sessionHandle_.empty()) {
    error = Error::media("the screen-cast portal opened no session");
    return nullptr;
  }
  const std::string session = portal->sessionHandle_;
  auto withSession = [&session](DBusMessageIter* args) {
    const char* handle = session.c_str();
    dbus_message_iter_append_basic(args, DBUS_TYPE_OBJECT_PATH, &handle);
  };

  code = step.call("SelectSources", withSession, {{"types", kMonitor}, {"multiple", false}},
                   options.stepTimeoutMs, response, failure);
  if (code != 0) return refused("to select a monitor", code);

  // Start: the user may be asked which monitor, hence the longer wait.
  code = step.call(
      "Start",
      [&](DBusMessageIter* args) {
        withSession(args);
        const char* parentWindow = "";
        dbus_message_iter_append_basic(args, DBUS_TYPE_STRING, &parentWindow);
      },
      {}, options.startTimeoutMs, response, failure);
  if (code != 0) return refused("to start the screen cast", code);
  bool haveStream = false;
  if (resultsOf(response, &results)) {
    forEachEntry(&results, [&](const std::string& key, DBusMessageIter* value) {
      if (key != "streams" || haveStream ||
          dbus_message_iter_get_arg_type(value) != DBUS_TYPE_ARRAY)
        return;
      DBusMessageIter streams;
      dbus_message_iter_recurse(value, &streams);
      if (dbus_message_iter_get_arg_type(&streams) != DBUS_TYPE_STRUCT) return;
      DBusMessageIter stream;
      dbus_message_iter_recurse(&streams, &stream);
      if (dbus_message_iter_get_arg_type(&stream) != DBUS_TYPE_UINT32) return;
      dbus_uint32_t node = 0;
      dbus_message_iter_get_basic(&stream, &node);
      portal->nodeId_ = node;
      haveStream = true;
      dbus_message_iter_next(&stream);
      forEachEntry(&stream, [&](const std::string& property, DBusMessageIter* size) {
        if (property != "size" || dbus_message_iter_get_arg_type(size) != DBUS_TYPE_STRUCT) return;
        DBusMessageIter pair;
        dbus_message_iter_recurse(size, &pair);
        dbus_int32_t width = 0;
        dbus_int32_t height = 0;
        if (dbus_message_iter_get_arg_type(&pair) != DBUS_TYPE_INT32) return;
        dbus_message_iter_get_basic(&pair, &width);
        dbus_message_iter_next(&pair);
        if (dbus_message_iter_get_arg_type(&pair) != DBUS_TYPE_INT32) return;
        dbus_message_iter_get_basic(&pair, &height);
        portal->width_ = width;
        portal->height_ = height;
      });
    });
  }
  if (!haveStream) {
    error = Error::media("the screen-cast portal started no stream");
    return nullptr;
  }

  MessageRef call(
      dbus_message_new_method_call(kPortalName, kPortalPath, kScreenCast, "OpenPipeWireRemote"));
  DBusMessageIter args;
  dbus_message_iter_init_append(call.message, &args);
  withSession(&args);
  appendOptions(&args, {});
  MessageRef reply(dbus_connection_send_with_reply_and_block(portal->connection_, call.message,
                                                             options.stepTimeoutMs, &dbusError));
  int fd = -1;
  if (!reply.message || !dbus_message_get_args(reply.message, &dbusError, DBUS_TYPE_UNIX_FD, &fd,
                                               DBUS_TYPE_INVALID)) {
    error = Error::media(std::string("the screen-cast portal gave no PipeWire connection: ") +
                         (dbusError.message ? dbusError.message : "no answer"));
    dbus_error_free(&dbusError);
    return nullptr;
  }
  portal->pipeWireFd_ = fd;
  outcome = Outcome::Started;
  return portal;
}

ScreenCastPortal::~ScreenCastPortal() {
  if (pipeWireFd_ >= 0) ::close(pipeWireFd_);
  if (!connection_) return;
  if (!sessionHandle_.empty()) {
    MessageRef close(
        dbus_message_new_method_call(kPortalName, sessionHandle_.c_str(), kSession, "Close"));
    dbus_message_set_no_reply(close.message, TRUE);
    dbus_connection_send(connection_, close.message, nullptr);
    dbus_connection_flush(connection_);
  }
  dbus_connection_close(connection_);
  dbus_connection_unref(connection_);
}

int ScreenCastPortal::takePipeWireFd() {
  const int fd = pipeWireFd_;
  pipeWireFd_ = -1;
  return fd;
}

}  // namespace nembra
