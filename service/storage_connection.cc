#include "service/storage_connection.h"

#include <algorithm>

#include "platform/http/http_time.h"
#include "service/http_body_reader.h"
#include "service/rest_request.h"
#include "service/service_reply.h"

namespace nembra {
namespace {

constexpr std::string_view kStoragePrefix = "/storage/";

// The S3-style code of a head the parser refused.
const char* headErrorCode(int status) {
  switch (status) {
    case 408:
      return "RequestTimeout";
    case 417:
      return "ExpectationFailed";
    case 431:
      return "RequestHeaderSectionTooLarge";
    case 501:
      return "NotImplemented";
    case 505:
      return "HttpVersionNotSupported";
    default:
      return "BadRequest";
  }
}

// Throttled uploads read in smaller blocks, so their pace holds over short spans too.
size_t blockBytesFor(const FaultOptions& faults) {
  if (faults.throttleBps == 0) return SocketStream::kBufferBytes;
  return static_cast<size_t>(
      std::clamp<uint64_t>(faults.throttleBps / 10, 4096, SocketStream::kBufferBytes));
}

}  // namespace

StorageConnection::StorageConnection(SocketStream& stream, StorageUploadReceiver& receiver,
                                     FaultInjection& faults, const HttpConnectionLimits& limits)
    : stream_(stream), receiver_(receiver), faults_(faults), limits_(limits) {}

HttpRequestHandler::After StorageConnection::serve(const HttpRequestHead& head) {
  switch (handle(head)) {
    case Next::KeepOpen:
      return HttpRequestHandler::After::KeepOpen;
    case Next::Close:
      break;
    case Next::CloseAfterBody:
      stream_.lingeringClose(RestRequest::kMaxDrainBytes, limits_.idleTimeout);
      break;
    case Next::Cut:
      // Closing with the body unread resets the connection: the client sees the transfer
      // break, not an answer it could read as a verdict.
      stream_.shutdown();
      break;
  }
  return HttpRequestHandler::After::Close;
}

void StorageConnection::refuseHead(int status, const std::string& message) {
  StorageError error{status, headErrorCode(status), "The request cannot be read: " + message};
  sendAnswer(error.status, "Content-Type: application/xml\r\n",
             ServiceReply::storageErrorBody(error), true, nullptr);
}

StorageConnection::Next StorageConnection::handle(const HttpRequestHead& head) {
  // A client waiting to be told to continue sends no body when answered at once.
  bool bodyComing = head.body != HttpRequestHead::Body::None && !head.expectContinue;
  faults_.delay();
  if (faults_.shouldFail()) {
    return refuse(head, {503, "SlowDown", "Please reduce your request rate."}, bodyComing);
  }
  if (head.path.rfind(kStoragePrefix, 0) != 0) {
    return refuse(head, {404, "NoSuchKey", "Only /storage/BUCKET is served here."}, bodyComing);
  }
  std::string bucket = head.path.substr(kStoragePrefix.size());
  if (bucket.empty() || bucket.find('/') != std::string::npos) {
    return refuse(head, {404, "NoSuchKey", "Only /storage/BUCKET is served here."}, bodyComing);
  }
  if (head.method != "POST") {
    return refuse(head,
                  {405, "MethodNotAllowed",
                   "The specified method is not allowed against this "
                   "resource."},
                  bodyComing, "Allow: POST\r\n");
  }
  return post(head, bucket);
}

StorageConnection::Next StorageConnection::post(const HttpRequestHead& head,
                                                const std::string& bucket) {
  HttpBodyReader body(stream_, head, limits_.body, limits_.write, blockBytesFor(faults_.options()));
  StoragePost request;
  request.bucket = bucket;
  request.contentType = head.header("content-type");
  if (head.body == HttpRequestHead::Body::Length) {
    request.declaredLength = head.contentLength;
  } else if (head.body == HttpRequestHead::Body::None && head.hasHeader("content-length")) {
    request.declaredLength = 0;
  }
  request.hasBody = head.body != HttpRequestHead::Body::None;
  request.read = [&body](const UploadSpool::BodyReceiver& receiver) { return body.read(receiver); };

  StorageVerdict verdict = receiver_.receive(request);
  switch (verdict.kind) {
    case StorageVerdict::Kind::Stored: {
      bool keepOpen = head.keepAlive && body.finished();
      if (!sendAnswer(204, "", "", !keepOpen, &head)) return Next::Close;
      return keepOpen ? Next::KeepOpen : Next::Close;
    }
    case StorageVerdict::Kind::Refused: {
      if (body.timedOut()) {
        return refuse(head,
                      {408, "RequestTimeout",
                       "Your socket connection to the server was not read from or written to "
                       "within the timeout period."},
                      false);
      }
      bool bodyComing = !body.finished() && (!head.expectContinue || body.continueSent());
      return refuse(head, verdict.error, bodyComing);
    }
    case StorageVerdict::Kind::Cut:
      // The head goes out promising a body that never comes.
      sendAnswer(500, "Content-Length: 1\r\n", "", true, nullptr);
      return Next::Cut;
  }
  return Next::Close;
}

StorageConnection::Next StorageConnection::refuse(const HttpRequestHead& head,
                                                  const StorageError& error, bool bodyComing,
                                                  const std::string& extraHeaders) {
  if (!sendAnswer(error.status, "Content-Type: application/xml\r\n" + extraHeaders,
                  ServiceReply::storageErrorBody(error), true, &head)) {
    return Next::Close;
  }
  return bodyComing ? Next::CloseAfterBody : Next::Close;
}

bool StorageConnection::sendAnswer(int status, const std::string& headers, const std::string& body,
                                   bool close, const HttpRequestHead* head) {
  std::string answer =
      "HTTP/1.1 " + std::to_string(status) + " " + ServiceReply::reasonPhrase(status) +
      "\r\nDate: " + formatHttpDate(unixNow()) + "\r\nServer: nembra\r\n" + headers;
  // 204 has no body and says nothing of its length; the cut's head brings its own.
  if (status != 204 && headers.find("Content-Length:") == std::string::npos) {
    answer += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  if (close) {
    answer += "Connection: close\r\n";
  } else if (head && head->minorVersion == 0) {
    answer += "Connection: keep-alive\r\n";
  }
  answer += "\r\n";
  answer += body;
  return stream_.send(answer, limits_.write);
}

}  // namespace nembra
