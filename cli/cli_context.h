// What every subcommand of the `nembra` tool shares: the global options and the SDK objects
// built from them.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include "nembra/json.h"
#include "nembra/screen_host.h"

namespace CLI {
class App;
}

namespace nembra {

class Nembra;

struct GlobalOptions {
  std::string token;
  std::string server;
  std::string apiUrl;
  std::string cdnUrl;
  std::string devApiUrl;
  std::string fileUrl;
  std::string rtmpUrl;
  bool debug = false;
  bool json = false;
  // "window", "terminal" or "none"; empty picks from the environment.
  std::string ui;
};

class CliContext {
 public:
  GlobalOptions options;

  // The application object configured from the global options, created on first use.
  Nembra& nembra();

  CliContext();
  ~CliContext();

 private:
  std::unique_ptr<Nembra> nembra_;
};

// An option check refusing a token that could not stand as one segment of a URL path (it
// would name another resource): "" when |value| is fine, else why, naming |what|.
std::function<std::string(const std::string&)> tokenValidator(const std::string& what);

// The screens' adapter: --ui when given, else the machine's default. A value it does not know
// gives false, and |error| says so.
bool chosenUiKind(const CliContext& context, UiKind& kind, std::string& error);

// Reads NAME=VALUE arguments into an object of strings. A malformed one gives null, and
// |error| says which ("\"x\" is not name=value").
Json parseNameValues(const std::vector<std::string>& pairs, std::string& error);

// The device facts shown by device-info and the demo, and their plain-text form.
Json collectDeviceReport(CliContext& context);
void printDeviceReport(const Json& report, std::ostream& out);

// Each subcommand file registers itself on the tool; the callback runs the command and sets
// |exitCode|.
void registerRequestCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerDeviceInfoCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerDemoCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerServeCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerStreamCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerUploadCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerMediaCommands(CLI::App& app, CliContext& context, int& exitCode);
void registerCacheCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerRecordAudioCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerRecordScreenCommands(CLI::App& app, CliContext& context, int& exitCode);
void registerRecordCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerPlayCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerPickCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerTrimCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerSnapCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerQrScanCommand(CLI::App& app, CliContext& context, int& exitCode);
void registerCamerasCommand(CLI::App& app, CliContext& context, int& exitCode);
// After registerMediaCommands: adds `images show` to its images command.
void registerShowCommands(CLI::App& app, CliContext& context, int& exitCode);

}  // namespace nembra
