// The `nembra` command-line tool: the SDK's operations for a user at a terminal or a script.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "api/sdk_version.h"
#include "cli/cli_context.h"

int main(int argc, char** argv) {
  nembra::CliContext context;
  auto& options = context.options;

  CLI::App app{
      "nembra: record, upload, stream and play media against a Nembra media service.\n"
      "Point it at a service with --server (or NEMBRA_SERVER) and an application\n"
      "token with --token (or NEMBRA_TOKEN); `nembra serve` runs one locally."};
  app.set_help_all_flag("--help-all", "Show help for every subcommand");
  // The version device-info reports as the SDK's.
  app.set_version_flag("--version", std::string("nembra ") + nembra::kNembraSdkVersion,
                       "Print the SDK version and exit");
  app.require_subcommand(1);
  // Subcommands inherit it: the options above may also come after a subcommand
  // (`nembra videos list --json`).
  app.fallthrough();

  app.add_option("--token", options.token, "Application token")
      ->envname("NEMBRA_TOKEN")
      ->check(nembra::tokenValidator("application token"));
  app.add_option("--server", options.server,
                 "Base URL of one server for everything: API at URL, dev API at URL/embed, CDN "
                 "at URL/cdn, files at URL/files, RTMP at rtmp://HOST:1935/record/_definst_")
      ->envname("NEMBRA_SERVER");
  app.add_option("--api-url", options.apiUrl, "API server URL (overrides --server)");
  app.add_option("--cdn-url", options.cdnUrl, "CDN server URL (overrides --server)");
  app.add_option("--dev-api-url", options.devApiUrl, "Dev API server URL (overrides --server)");
  app.add_option("--file-url", options.fileUrl, "File server URL (overrides --server)");
  app.add_option("--rtmp-url", options.rtmpUrl, "RTMP ingest URL (overrides --server)");
  app.add_flag("--debug", options.debug, "Print the SDK's logs on standard error");
  app.add_flag("--json", options.json, "Machine-readable output");
  app.add_option("--ui", options.ui,
                 "Screens in: window, terminal or none (default: window when a display is set, "
                 "terminal when standard input is one, else none)")
      ->check(CLI::IsMember({"window", "terminal", "none"}));

  int exitCode = 0;
  nembra::registerRequestCommand(app, context, exitCode);
  nembra::registerDeviceInfoCommand(app, context, exitCode);
  nembra::registerDemoCommand(app, context, exitCode);
  nembra::registerStreamCommand(app, context, exitCode);
  nembra::registerUploadCommand(app, context, exitCode);
  nembra::registerMediaCommands(app, context, exitCode);
  nembra::registerCacheCommand(app, context, exitCode);
  nembra::registerPlayCommand(app, context, exitCode);
  nembra::registerPickCommand(app, context, exitCode);
  nembra::registerTrimCommand(app, context, exitCode);
  nembra::registerShowCommands(app, context, exitCode);
  nembra::registerRecordAudioCommand(app, context, exitCode);
  nembra::registerRecordScreenCommands(app, context, exitCode);
  nembra::registerRecordCommand(app, context, exitCode);
  nembra::registerSnapCommand(app, context, exitCode);
  nembra::registerQrScanCommand(app, context, exitCode);
  nembra::registerCamerasCommand(app, context, exitCode);
#ifdef NEMBRA_HAVE_SERVICE
  nembra::registerServeCommand(app, context, exitCode);
#endif

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  std::fflush(stdout);
  return exitCode;
}
