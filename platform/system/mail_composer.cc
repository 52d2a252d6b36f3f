#include "platform/system/mail_composer.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/http/base64.h"

namespace nembra {

namespace {

constexpr const char* kBoundary = "nembra-mail-boundary-7f3a";

std::string base64Lines(const std::string& bytes) {
  std::string out;
  constexpr size_t kChunk = 57;  // 57 input bytes → one 76-character line
  for (size_t i = 0; i < bytes.size(); i += kChunk) {
    out += base64Encode(std::string_view(bytes).substr(i, kChunk));
    out += "\r\n";
  }
  return out;
}

}  // namespace

MailComposer::MailComposer(std::string outboxDirectory)
    : outbox_(std::move(outboxDirectory)),
      handler_([](const MailMessage&, const std::string& path) {
        std::fprintf(stderr, "mail to support saved as %s\n", path.c_str());
      }) {}

std::optional<std::string> MailComposer::render(const MailMessage& message, OptionalError& error) {
  std::ostringstream out;
  out << "To: " << message.to << "\r\n";
  out << "Subject: " << message.subject << "\r\n";
  out << "MIME-Version: 1.0\r\n";
  out << "Content-Type: multipart/mixed; boundary=\"" << kBoundary << "\"\r\n\r\n";
  out << "--" << kBoundary << "\r\n";
  out << "Content-Type: text/plain; charset=utf-8\r\n\r\n" << message.body << "\r\n";
  for (const auto& attachment : message.attachments) {
    std::ifstream in(attachment.path, std::ios::binary);
    if (!in) {
      error = Error::file("cannot read attachment " + attachment.path);
      return std::nullopt;
    }
    std::stringstream bytes;
    bytes << in.rdbuf();
    out << "--" << kBoundary << "\r\n";
    out << "Content-Type: " << attachment.mimeType << "; name=\"" << attachment.name << "\"\r\n";
    out << "Content-Disposition: attachment; filename=\"" << attachment.name << "\"\r\n";
    out << "Content-Transfer-Encoding: base64\r\n\r\n";
    out << base64Lines(bytes.str());
  }
  out << "--" << kBoundary << "--\r\n";
  return out.str();
}

std::string MailComposer::compose(const MailMessage& message, OptionalError& error) {
  auto text = render(message, error);
  if (!text) return {};
  std::error_code ec;
  std::filesystem::create_directories(outbox_, ec);
  auto stamp = std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
  std::string path = outbox_ + "/mail_" + std::to_string(stamp) + ".eml";
  std::ofstream out(path, std::ios::binary);
  out << *text;
  out.close();
  if (!out) {
    error = Error::file("cannot write " + path);
    return {};
  }
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
  }
  if (handler) handler(message, path);
  return path;
}

void MailComposer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

}  // namespace nembra
