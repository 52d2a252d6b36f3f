// The texts of the question the recorder asks before it stops a recording.
//
// Threading: a plain value; read and replace it from the main queue.
#pragma once

#include <string>

namespace nembra {

class StopRecordingConfirmationDialogConfig {
 public:
  const std::string& getTitleText() const { return titleText_; }
  void setTitleText(std::string text) { titleText_ = std::move(text); }

  const std::string& getMesText() const { return mesText_; }
  void setMesText(std::string text) { mesText_ = std::move(text); }

  // The answer that stops the recording.
  const std::string& getPosBtnText() const { return posBtnText_; }
  void setPosBtnText(std::string text) { posBtnText_ = std::move(text); }

  // The answer that goes on recording.
  const std::string& getNegBtnText() const { return negBtnText_; }
  void setNegBtnText(std::string text) { negBtnText_ = std::move(text); }

  // The texts are printed unquoted.
  std::string stringValueConfig() const;

 private:
  std::string titleText_ = "Nembra";
  std::string mesText_ = "Do you want to stop video recording?";
  std::string posBtnText_ = "Yes";
  std::string negBtnText_ = "No";
};

}  // namespace nembra
