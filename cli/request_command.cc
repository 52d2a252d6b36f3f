// `nembra request METHOD PATH_OR_URL [name=value ...]`: one authenticated request through the
// SDK's connection, for scripts and for looking at what the service answers.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <future>
#include <iostream>

#include "cli/cli_context.h"
#include "nembra/application.h"
#include "nembra/nembra_connect.h"

namespace nembra {

namespace {

struct RequestArgs {
  std::string method;
  std::string target;
  std::vector<std::string> parameters;
};

struct RequestResult {
  NembraConnect::Bytes body;
  HttpResponse response;
  OptionalError error;
};

int runRequest(CliContext& context, const RequestArgs& args) {
  std::string method = args.method;
  for (auto& c : method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (method != "GET" && method != "POST" && method != "DELETE") {
    std::cerr << "nembra request: METHOD must be GET, POST or DELETE, not \"" << args.method
              << "\"\n";
    return 2;
  }
  Json parameters = Json::object();
  for (const auto& pair : args.parameters) {
    auto equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      std::cerr << "nembra request: parameter \"" << pair << "\" is not name=value\n";
      return 2;
    }
    parameters[pair.substr(0, equals)] = pair.substr(equals + 1);
  }

  Nembra& nembra = context.nembra();
  // A path goes to the API server; a full URL is used as it is.
  std::string url = args.target;
  if (url.find("://") == std::string::npos) url = nembra.config().server_api_url + url;

  std::promise<RequestResult> done;
  nembra.connect().requestWithMethod(
      method, url, parameters,
      [&done](const NembraConnect::Bytes& body, const HttpResponse& response,
              const OptionalError& error) {
        done.set_value({body, response, error});
      });
  RequestResult result = done.get_future().get();

  if (result.error && result.response.status == 0) {
    std::cerr << "nembra request: " << result.error->message << "\n";
    return 2;
  }
  const std::string body(result.body.begin(), result.body.end());
  if (context.options.json) {
    Json out = {{"status", result.response.status}, {"url", result.response.url}};
    Json headers = Json::object();
    for (const auto& [name, value] : result.response.headers) headers[name] = value;
    out["headers"] = headers;
    Json parsed = Json::parse(body, nullptr, false);
    out["body"] = parsed.is_discarded() ? Json(body) : parsed;
    std::cout << out.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  } else {
    std::cerr << "HTTP " << result.response.status << "\n";
    std::cout << body;
    if (!body.empty() && body.back() != '\n' && isatty(fileno(stdout))) std::cout << "\n";
  }
  return result.response.status >= 200 && result.response.status < 300 ? 0 : 1;
}

}  // namespace

void registerRequestCommand(CLI::App& app, CliContext& context, int& exitCode) {
  auto args = std::make_shared<RequestArgs>();
  auto* command = app.add_subcommand(
      "request",
      "Send one request with the session and auth parameters added, as the SDK sends it.\n"
      "Prints the HTTP status on standard error and the body on standard output.\n"
      "Exit code: 0 on a 2xx answer, 1 on any other status, 2 on a transport error.");
  command->add_option("METHOD", args->method, "GET, POST or DELETE")->required();
  command
      ->add_option("PATH_OR_URL", args->target,
                   "A path (sent to the API server, e.g. /v1/applications/TOKEN/videos) or a URL")
      ->required();
  command->add_option(
      "PARAMS", args->parameters,
      "name=value parameters: the query for GET and DELETE, the form body for POST");
  command->callback([&context, &exitCode, args] { exitCode = runRequest(context, *args); });
}

}  // namespace nembra
