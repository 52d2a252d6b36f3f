// `nembra demo`: runs every main job the SDK can do against the configured service, step by
// step, printing what it does and reading each result back.
#include <CLI/CLI.hpp>
#include <chrono>
#include <future>
#include <iostream>

#include "api/nembra.h"
#include "api/nembra_connect.h"
#include "cli/cli_context.h"

namespace nembra {

namespace {

using Clock = std::chrono::steady_clock;

struct JsonResult {
  std::optional<Json> json;
  HttpResponse response;
  OptionalError error;
};

// Runs a JSON request and waits for its answer (the connection calls back on its own queue).
template <typename Start>
JsonResult waitForJson(Start start) {
  auto done = std::make_shared<std::promise<JsonResult>>();
  start([done](const std::optional<Json>& json, const HttpResponse& response,
               const OptionalError& error) { done->set_value({json, response, error}); });
  return done->get_future().get();
}

std::string describeFailure(const JsonResult& result) {
  if (result.error) return result.error->message;
  return "HTTP " + std::to_string(result.response.status);
}

class DemoRun {
 public:
  explicit DemoRun(CliContext& context) : context_(context), nembra_(context.nembra()) {}

  int run() {
    const auto started = Clock::now();
    std::cout << "Nembra demo against " << nembra_.config().server_api_url << " as application \""
              << nembra_.token() << "\"\n";
    step("This machine", [this] { return showDevice(); });
    step("Open a session", [this] { return openSession(); });
    step("List the application's videos", [this] { return listVideos(); });
    step("Report an error event and read it back", [this] { return reportError(); });
    auto seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::cout << "\n" << passed_ << " of " << total_ << " steps passed in " << seconds << " s\n";
    return passed_ == total_ ? 0 : 1;
  }

 private:
  template <typename F>
  void step(const std::string& title, F body) {
    ++total_;
    std::cout << "\n[" << total_ << "] " << title << "\n" << std::flush;
    const auto started = Clock::now();
    bool ok = body();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    std::cout << (ok ? "    ok" : "    FAILED") << " (" << ms << " ms)\n" << std::flush;
    if (ok) ++passed_;
  }

  bool showDevice() {
    printDeviceReport(collectDeviceReport(context_), std::cout);
    return true;
  }

  bool openSession() {
    auto done = std::make_shared<std::promise<std::pair<std::string, std::string>>>();
    nembra_.connect().getSession([done](const std::optional<std::string>& key,
                                        const std::optional<std::string>& value) {
      done->set_value({key.value_or(""), value.value_or("")});
      return NembraConnect::TaskHandle();
    });
    auto [key, value] = done->get_future().get();
    if (value.empty()) {
      std::cout << "    the service gave no session token\n";
      return false;
    }
    std::cout << "    session parameter " << key << " = " << value << "\n";
    return true;
  }

  std::string videosUrl() const {
    return nembra_.config().server_api_url + "/v1/applications/" + nembra_.token() + "/videos";
  }

  bool listVideos() {
    auto result = waitForJson([this](NembraConnect::JsonCallback callback) {
      nembra_.connect().getJsonArrayWithPath(videosUrl(), Json{{"limit", 10}}, callback);
    });
    if (result.response.status != 200 || !result.json || !result.json->is_array()) {
      std::cout << "    " << describeFailure(result) << "\n";
      return false;
    }
    std::cout << "    " << result.json->size() << " video(s)\n";
    for (const auto& video : *result.json) {
      std::cout << "    - " << video.value("token", "") << "  " << video.value("title", "")
                << "\n";
    }
    return true;
  }

  bool reportError() {
    const std::string marker =
        "demo event " + std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
    bool logs = nembra_.enableDebugLogs;
    nembra_.enableDebugLogs = false;  // the event is the point here, not the console line
    nembra_.logError(marker);
    nembra_.enableDebugLogs = logs;
    // The report is fire-and-forget; poll the service's event list until it shows up.
    for (int attempt = 0; attempt < 50; ++attempt) {
      auto result = waitForJson([this](NembraConnect::JsonCallback callback) {
        nembra_.connect().getJsonArrayWithPath(nembra_.config().server_api_url + "/debugger",
                                               Json::object(), callback);
      });
      if (result.response.status != 200 || !result.json) {
        std::cout << "    cannot list events: " << describeFailure(result) << "\n";
        return false;
      }
      for (const auto& event : *result.json) {
        if (event.dump().find(marker) != std::string::npos) {
          std::cout << "    the service recorded: " << event.dump() << "\n";
          return true;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::cout << "    the event did not arrive\n";
    return false;
  }

  CliContext& context_;
  Nembra& nembra_;
  int total_ = 0;
  int passed_ = 0;
};

}  // namespace

void registerDemoCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto* command = app.add_subcommand(
      "demo",
      "Run every main job of the SDK against the configured service (see `nembra serve`),\n"
      "printing each step and reading its result back. Exit code 0 when every step passed.");
  command->callback([&context, &exitCode] {
    if (context.options.server.empty() && context.options.apiUrl.empty()) {
      std::cerr << "nembra demo: give the service with --server URL (e.g. from `nembra serve`)\n";
      exitCode = 2;
      return;
    }
    exitCode = DemoRun(context).run();
  });
}

}  // namespace nembra
