// Hands an e-mail to the user for sending. Linux desktops have no composer an SDK can drive, so
// the message is written as a complete MIME file (.eml, openable by any mail client) into an
// outbox directory and handed to a handler the host may replace.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nembra/error.h"

namespace nembra {

struct MailAttachment {
  std::string path;      // file to attach
  std::string mimeType;  // e.g. "text/plain"
  std::string name;      // file name shown to the recipient
};

struct MailMessage {
  std::string to;
  std::string subject;
  std::string body;
  std::vector<MailAttachment> attachments;
};

class MailComposer {
 public:
  // Called with the message and the .eml file written for it.
  using Handler = std::function<void(const MailMessage&, const std::string& emlPath)>;

  explicit MailComposer(std::string outboxDirectory);

  // Writes the message and calls the handler. Returns the .eml path, or the error that
  // prevented writing it (an unreadable attachment, an unwritable outbox).
  std::string compose(const MailMessage& message, OptionalError& error);
  void setHandler(Handler handler);

  // RFC 5322 + MIME text of |message| (attachments base64, lines of 76).
  static std::optional<std::string> render(const MailMessage& message, OptionalError& error);

 private:
  std::string outbox_;
  std::mutex mutex_;
  Handler handler_;  // guarded by mutex_
};

}  // namespace nembra
