// Load on the local service's REST API: one video's JSON fetched over many concurrent keep-alive
// connections (libcurl multi, one thread), for a fixed time after a warm-up. Prints requests per
// second, p50 / p99 / max latency and the failed requests, beside the targets (>= 5,000 req/s,
// p99 <= 20 ms on two cores). A latency runs from the request handed to libcurl to its answer
// read back, as the client sees it; the window counts the answers that arrive within it.
//
// By default it starts `nembra serve` (the tool built beside this binary) on a free port with a
// fresh data directory and stops it at the end; --server points it at a running service instead.
//   service_load_bench [--server URL] [--nembra PATH] [--connections N] [--seconds S]
//                      [--warmup S]
// Google Benchmark flags (scripts/run-benchmarks.sh passes them to every bench) are ignored.
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/testing/local_service.h"
#include "nembra/nembra_connect.h"

namespace nembra {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

constexpr const char* kApplication = "bench";
constexpr double kTargetRequestsPerSecond = 5000;
constexpr double kTargetP99Ms = 20;

struct Options {
  std::string server;  // empty: start one
  std::string nembra = testing::LocalService::defaultTool();
  int connections = 64;
  double seconds = 10;
  double warmupSeconds = 1;
};

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (flag.rfind("--benchmark_", 0) == 0) continue;
    if (i + 1 >= argc) {
      std::cerr << "service_load_bench: " << flag << " needs a value, or is unknown\n";
      return false;
    }
    std::string value = argv[++i];
    try {
      if (flag == "--server") {
        options.server = value;
      } else if (flag == "--nembra") {
        options.nembra = value;
      } else if (flag == "--connections") {
        options.connections = std::stoi(value);
      } else if (flag == "--seconds") {
        options.seconds = std::stod(value);
      } else if (flag == "--warmup") {
        options.warmupSeconds = std::stod(value);
      } else {
        std::cerr << "service_load_bench: unknown option " << flag << "\n";
        return false;
      }
    } catch (const std::exception&) {
      std::cerr << "service_load_bench: " << flag << " takes a number\n";
      return false;
    }
  }
  return options.connections > 0 && options.seconds > 0 && options.warmupSeconds >= 0;
}

size_t appendBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// One blocking exchange for the setup; the body of a 200 answer, or nothing (said on stderr).
std::optional<std::string> fetch(const std::string& url, const std::string* postBody) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), curl_easy_cleanup);
  std::string body;
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, 30L);
  if (postBody) {
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, postBody->c_str());
  }
  CURLcode result = curl_easy_perform(easy.get());
  long status = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  if (result != CURLE_OK || status != 200) {
    std::cerr << "service_load_bench: " << url << ": "
              << (result != CURLE_OK ? curl_easy_strerror(result)
                                     : "HTTP " + std::to_string(status))
              << " " << body << "\n";
    return std::nullopt;
  }
  return body;
}

// User + system CPU seconds of a process ("self" or a pid).
double cpuSeconds(const std::string& process) {
  std::ifstream stat("/proc/" + process + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // utime and stime are fields 14 and 15, counted after the command name, which may hold spaces.
  size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 1));
  std::string skip;
  for (int field = 3; field < 14; ++field) fields >> skip;
  double utime = 0, stime = 0;
  fields >> utime >> stime;
  return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Connection {
  CURL* easy = nullptr;
  Clock::time_point sent;
  size_t bytes = 0;
};

size_t countBody(char*, size_t size, size_t count, void* connection) {
  static_cast<Connection*>(connection)->bytes += size * count;
  return size * count;
}

struct Figures {
  std::vector<double> latenciesMs;  // requests answered within the measured window
  long errors = 0;
  std::string firstError;
  long connectionsOpened = 0;   // over the whole run: keep-alive keeps it at the connection count
  double slowestConnectMs = 0;  // a full listen backlog shows here as SYN retransmits (1 s, 3 s...)
  double serverCpu = 0;         // CPU seconds within the measured window
  double clientCpu = 0;
};

Figures runLoad(const Options& options, const std::string& url, pid_t servicePid) {
  Figures figures;
  const std::string serviceProcess = std::to_string(servicePid);
  CURLM* multi = curl_multi_init();
  // One connection per handle, each kept open for the handle's next request.
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(options.connections));
  std::vector<Connection> connections(options.connections);
  auto send = [&](Connection& connection) {
    connection.bytes = 0;
    connection.sent = Clock::now();
    curl_multi_add_handle(multi, connection.easy);
  };
  for (auto& connection : connections) {
    connection.easy = curl_easy_init();
    curl_easy_setopt(connection.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(connection.easy, CURLOPT_WRITEFUNCTION, countBody);
    curl_easy_setopt(connection.easy, CURLOPT_WRITEDATA, &connection);
    curl_easy_setopt(connection.easy, CURLOPT_PRIVATE, &connection);
    curl_easy_setopt(connection.easy, CURLOPT_TIMEOUT, 30L);
  }

  auto toDuration = [](double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  };
  const auto measureFrom = Clock::now() + toDuration(options.warmupSeconds);
  const auto measureTo = measureFrom + toDuration(options.seconds);
  bool measuring = false;
  bool measured = false;
  for (auto& connection : connections) send(connection);
  size_t inFlight = connections.size();

  while (inFlight > 0) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto now = Clock::now();
      Connection* connection = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &connection);
      long status = 0, opened = 0;
      curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
      curl_easy_getinfo(message->easy_handle, CURLINFO_NUM_CONNECTS, &opened);
      figures.connectionsOpened += opened;
      if (opened > 0) {
        curl_off_t connectUs = 0;
        curl_easy_getinfo(message->easy_handle, CURLINFO_CONNECT_TIME_T, &connectUs);
        figures.slowestConnectMs =
            std::max(figures.slowestConnectMs, static_cast<double>(connectUs) / 1000);
      }
      CURLcode result = message->data.result;
      curl_multi_remove_handle(multi, message->easy_handle);
      --inFlight;
      if (now >= measureFrom && now < measureTo) {
        if (result != CURLE_OK || status != 200 || connection->bytes == 0) {
          if (figures.errors++ == 0) {
            figures.firstError =
                result != CURLE_OK ? curl_easy_strerror(result) : "HTTP " + std::to_string(status);
          }
        } else {
          figures.latenciesMs.push_back(
              std::chrono::duration<double, std::milli>(now - connection->sent).count());
        }
      }
      if (now < measureTo) {
        send(*connection);
        ++inFlight;
      }
    }
    const auto now = Clock::now();
    if (!measuring && now >= measureFrom) {
      measuring = true;
      figures.serverCpu = -cpuSeconds(serviceProcess);
      figures.clientCpu = -cpuSeconds("self");
    }
    if (measuring && !measured && now >= measureTo) {
      measured = true;
      figures.serverCpu += cpuSeconds(serviceProcess);
      figures.clientCpu += cpuSeconds("self");
    }
    if (inFlight > 0) curl_multi_poll(multi, nullptr, 0, 10, nullptr);
  }
  for (auto& connection : connections) curl_easy_cleanup(connection.easy);
  curl_multi_cleanup(multi);
  return figures;
}

// Nearest-rank percentile of sorted values.
double percentile(const std::vector<double>& sorted, double share) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

int run(const Options& options) {
  testing::LocalService service;
  std::string base = options.server;
  if (base.empty()) {
    if (!service.start(options.nembra, "service_load_bench")) return 1;
    base = service.url();
  }
  const std::string noBody;
  auto session = fetch(base + "/session", &noBody);
  if (!session) return 1;
  const std::string query = std::string(NembraConnect::kSessionKeyPrefix) + kApplication + "=" +
                            Json::parse(*session).value("token", "") + "&";
  const std::string videos = base + "/v1/applications/" + kApplication + "/videos";
  const std::string form = query + "title=load&";
  auto created = fetch(videos + "?create_stream=true", &form);
  if (!created) return 1;
  const std::string video = Json::parse(*created)["video"].value("token", "");
  const std::string url = videos + "/" + video + "?" + query;
  // The answer under load must be the video itself, not an error page of the right size.
  auto sample = fetch(url, nullptr);
  if (!sample || Json::parse(*sample, nullptr, false).value("token", "") != video) {
    std::cerr << "service_load_bench: GET " << url << " does not answer the video\n";
    return 1;
  }

  Figures figures = runLoad(options, url, service.pid());
  std::sort(figures.latenciesMs.begin(), figures.latenciesMs.end());
  const double answered = static_cast<double>(figures.latenciesMs.size());
  const double rate = answered / options.seconds;
  const double p99 = percentile(figures.latenciesMs, 0.99);
  auto verdict = [](bool met) { return met ? "met" : "MISSED"; };

  std::printf(
      "GET one video's JSON (%zu bytes) over %d keep-alive connections, %.0f s after %.0f s "
      "of warm-up\n",
      sample->size(), options.connections, options.seconds, options.warmupSeconds);
  std::printf("  requests     %10.0f answered 200\n", answered);
  std::printf("  throughput   %10.0f req/s   (target >= %.0f: %s)\n", rate,
              kTargetRequestsPerSecond, verdict(rate >= kTargetRequestsPerSecond));
  std::printf("  latency p50  %10.2f ms\n", percentile(figures.latenciesMs, 0.50));
  std::printf("  latency p99  %10.2f ms      (target <= %.0f: %s)\n", p99, kTargetP99Ms,
              verdict(p99 <= kTargetP99Ms));
  std::printf("  latency max  %10.2f ms\n",
              figures.latenciesMs.empty() ? 0.0 : figures.latenciesMs.back());
  std::printf("  errors       %10ld%s%s\n", figures.errors, figures.errors ? "   first: " : "",
              figures.firstError.c_str());
  std::printf("  connections  %10ld opened in all, the slowest in %.2f ms\n",
              figures.connectionsOpened, figures.slowestConnectMs);
  if (answered > 0) {
    // Both share the machine's cores: where the CPU goes says which side limits the rate.
    std::printf("  CPU/request  %10.1f us load generator", figures.clientCpu / answered * 1e6);
    if (service.pid()) std::printf(", %.1f us service", figures.serverCpu / answered * 1e6);
    std::printf("\n");
  }
  return figures.errors == 0 && answered > 0 ? 0 : 1;
}

}  // namespace
}  // namespace nembra

int main(int argc, char** argv) {
  nembra::Options options;
  if (!nembra::parseOptions(argc, argv, options)) return 2;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  int status = 1;
  try {
    status = nembra::run(options);
  } catch (const std::exception& e) {  // an answer of the setup that is not the expected JSON
    std::cerr << "service_load_bench: " << e.what() << "\n";
  }
  curl_global_cleanup();
  return status;
}
