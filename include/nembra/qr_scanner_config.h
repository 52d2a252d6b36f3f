// How the QR scanner behaves.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <string>

namespace nembra {

class QrScannerConfig {
 public:
  bool getShouldCloseAfterSuccessfulScan() const { return shouldCloseAfterSuccessfulScan_; }
  bool shouldCloseAfterSuccessfulScan() const { return shouldCloseAfterSuccessfulScan_; }
  // When true the scanner closes after the first code it reads.
  void setShouldCloseAfterSuccessfulScan(bool value) { shouldCloseAfterSuccessfulScan_ = value; }

  std::string stringValueConfig() const;

 private:
  bool shouldCloseAfterSuccessfulScan_ = true;
};

}  // namespace nembra
