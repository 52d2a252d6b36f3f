// `nembra serve`: runs the local media service in the foreground until SIGINT or SIGTERM.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "cli/cli_context.h"
#include "platform/media/media_log.h"
#include "service/local_service.h"
#include "service/service_options.h"

namespace nembra {
namespace {

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void onStopSignal(int signalNumber) { stopSignal = signalNumber; }

// Written whole under a temporary name and renamed, so a script polling for the file never reads
// half a number.
bool writePortFile(const std::string& path, int port) {
  std::string partial = path + ".partial";
  {
    std::ofstream out(partial, std::ios::trunc);
    out << port << "\n";
    if (!out) return false;
  }
  std::error_code ec;
  std::filesystem::rename(partial, path, ec);
  return !ec;
}

struct ServeArguments {
  ServiceOptions options;
  std::string portFile;
};

int runServe(const ServeArguments& arguments) {
  // Remuxing and cover grabs would otherwise print FFmpeg's progress notes among the service's.
  setMediaLogLevel(MediaLogLevel::Errors);
  LocalService service(arguments.options);
  if (auto error = service.start()) {
    std::cerr << "nembra serve: " << error->message << "\n";
    return 1;
  }
  const PublicUrls& urls = service.urls();
  std::cout << "nembra serve: data in " << service.dataDirectory() << "\n"
            << "  --server    " << urls.base << "\n"
            << "  api         " << urls.base << "\n"
            << "  dev api     " << urls.devApi << "\n"
            << "  cdn         " << urls.cdn << "\n"
            << "  files       " << urls.files << "\n"
            << "  storage     " << urls.storage << "\n";
  if (!urls.rtmp.empty()) {
    std::cout << "  rtmp        " << urls.rtmp << "   (pass as --rtmp-url)\n";
  } else {
    std::cout << "  rtmp        none\n";
  }
  if (!arguments.portFile.empty() && !writePortFile(arguments.portFile, service.port())) {
    std::cerr << "nembra serve: cannot write the port file " << arguments.portFile << "\n";
    return 1;
  }
  std::cout << "nembra serve: ready on " << urls.base << std::endl;

  std::signal(SIGINT, onStopSignal);
  std::signal(SIGTERM, onStopSignal);
  while (stopSignal == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::cout << "nembra serve: stopping (signal " << stopSignal << ")" << std::endl;
  service.stop();
  std::cout << "nembra serve: stopped" << std::endl;
  return 0;
}

}  // namespace

void registerServeCommand(CLI::App& app, CliContext& /*context*/, int& exitCode) {
  auto arguments = std::make_shared<ServeArguments>();
  ServiceOptions& options = arguments->options;
  CLI::App* serve = app.add_subcommand(
      "serve",
      "Run a local media service: REST API, storage, CDN and RTMP ingest, kept under --data");
  serve->add_option("--host", options.host, "Address to listen on")->capture_default_str();
  serve->add_option("--port", options.port, "HTTP port; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  serve
      ->add_option("--storage-port", options.storagePort,
                   "Port of the storage endpoint (signed uploads); 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  serve->add_option("--port-file", arguments->portFile,
                    "Write the HTTP port to this file once serving");
  serve->add_option("--data", options.dataDir,
                    "Data directory (default $XDG_DATA_HOME/nembra/service, else "
                    "~/.local/share/nembra/service)");
  serve->add_option("--rtmp-port", options.rtmpPort, "RTMP ingest port; 0 runs none")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  serve
      ->add_option("--token", options.tokens,
                   "Serve only these application tokens (repeatable); default: any")
      ->take_all();
  serve->add_option("--secret", options.secret,
                    "Secret that signs storage upload forms (default: one kept in --data)");
  serve->add_option("--latency-ms", options.faults.latencyMs, "Delay every answer")
      ->check(CLI::NonNegativeNumber);
  serve
      ->add_option("--fail-rate", options.faults.failRate,
                   "Share of requests answered 503, from 0 to 1")
      ->check(CLI::Range(0.0, 1.0));
  serve->add_option("--cut-upload-after", options.faults.cutUploadAfter,
                    "Cut upload connections after this many body bytes");
  serve->add_option("--throttle", options.faults.throttleBps,
                    "Hold storage and CDN transfers to this many bytes per second");
  serve->add_option("--max-body", options.maxBodyBytes, "Largest REST body in bytes")
      ->capture_default_str();
  serve->add_option("--max-upload", options.maxUploadBytes, "Largest uploaded file in bytes")
      ->capture_default_str();
  serve->callback([arguments, &exitCode] { exitCode = runServe(*arguments); });
}

}  // namespace nembra
