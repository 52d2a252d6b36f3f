#include "platform/audio/fallback_audio_output.h"

namespace nembra {

OptionalError FallbackAudioOutput::start(const AudioSpec& wanted, Fill fill) {
  stop();
  active_ = makeSdlAudioOutput();
  usesDevice_ = !active_->start(wanted, fill).has_value();
  if (!usesDevice_) {
    active_ = makeNullAudioOutput();
    if (auto error = active_->start(wanted, std::move(fill))) return error;
  }
  active_->setVolume(volume_);
  return std::nullopt;
}

void FallbackAudioOutput::pause(bool paused) {
  if (active_) active_->pause(paused);
}

void FallbackAudioOutput::stop() {
  if (active_) active_->stop();
  active_.reset();
}

void FallbackAudioOutput::setVolume(float volume) {
  volume_ = volume;
  if (active_) active_->setVolume(volume);
}

std::unique_ptr<AudioOutput> makeAudioOutput() { return std::make_unique<FallbackAudioOutput>(); }

}  // namespace nembra
