#include "service/service_reply.h"

#include "service/token_rules.h"

namespace nembra {

void ServiceReply::json(httplib::Response& response, int status,
                        const nlohmann::ordered_json& body) {
  response.status = status;
  // Replace: invalid UTF-8 in stored text must not turn an answer into an exception.
  response.set_content(body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                       "application/json; charset=utf-8");
}

namespace {

nlohmann::ordered_json errorJson(int status, const std::string& message) {
  nlohmann::ordered_json body;
  body["status"] = status;
  body["error"] = ServiceReply::reasonPhrase(status);
  body["message"] = message;
  return body;
}

}  // namespace

void ServiceReply::error(httplib::Response& response, int status, const std::string& message) {
  json(response, status, errorJson(status, message));
}

std::string ServiceReply::errorBody(int status, const std::string& message) {
  return errorJson(status, message).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int ServiceReply::statusFor(const Error& error) {
  switch (error.kind) {
    case ErrorKind::Http:
      return error.code >= 400 && error.code <= 599 ? error.code : 500;
    case ErrorKind::InvalidArgument:
    case ErrorKind::Parse:
      return 400;
    case ErrorKind::Media:
      return 422;
    case ErrorKind::Timeout:
      return 504;
    default:
      return 500;
  }
}

void ServiceReply::error(httplib::Response& response, const Error& error) {
  ServiceReply::error(response, statusFor(error), error.message);
}

void ServiceReply::storageError(httplib::Response& response, const StorageError& error) {
  response.status = error.status;
  response.set_content(storageErrorBody(error), "application/xml");
}

std::string ServiceReply::storageErrorBody(const StorageError& error) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + xmlEscape(error.code) +
         "</Code><Message>" + xmlEscape(error.message) + "</Message><RequestId>" + randomHex(8) +
         "</RequestId><HostId>nembra-local</HostId></Error>";
}

std::string ServiceReply::xmlEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

const char* ServiceReply::reasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 414:
      return "URI Too Long";
    case 415:
      return "Unsupported Media Type";
    case 416:
      return "Range Not Satisfiable";
    case 417:
      return "Expectation Failed";
    case 422:
      return "Unprocessable Entity";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Error";
  }
}

}  // namespace nembra
