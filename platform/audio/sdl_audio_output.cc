#include "platform/audio/sdl_audio_output.h"

#include <algorithm>
#include <cmath>

namespace nembra {

SdlAudioOutput::~SdlAudioOutput() { stop(); }

OptionalError SdlAudioOutput::start(const AudioSpec& wanted, Fill fill) {
  stop();
  if (!initialised_) {
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
      return Error::media(std::string("no audio device: ") + SDL_GetError());
    }
    initialised_ = true;
  }
  fill_ = std::move(fill);
  SDL_AudioSpec want{};
  want.freq = wanted.sampleRate;
  want.format = AUDIO_S16SYS;
  want.channels = static_cast<Uint8>(wanted.channels);
  want.samples = 1024;
  want.callback = &SdlAudioOutput::callback;
  want.userdata = this;
  SDL_AudioSpec got{};
  device_ = SDL_OpenAudioDevice(nullptr, 0, &want, &got,
                                SDL_AUDIO_ALLOW_FREQUENCY_CHANGE | SDL_AUDIO_ALLOW_CHANNELS_CHANGE);
  if (device_ == 0) return Error::media(std::string("no audio device: ") + SDL_GetError());
  // The device thread may be running already: it reads these under the lock.
  std::lock_guard lock(mutex_);
  spec_ = AudioSpec{got.freq, got.channels};
  deviceBufferSeconds_ = double(got.samples) / got.freq;
  paused_ = true;
  return std::nullopt;
}

void SdlAudioOutput::pause(bool paused) {
  if (device_ == 0) return;
  paused_ = paused;
  SDL_PauseAudioDevice(device_, paused ? 1 : 0);
}

void SdlAudioOutput::stop() {
  if (device_ != 0) {
    // Returns once the callback has finished: |fill_| is not called afterwards.
    SDL_CloseAudioDevice(device_);
    device_ = 0;
  }
  if (initialised_) {
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    initialised_ = false;
  }
  std::lock_guard lock(mutex_);
  lastFillSeconds_ = 0;
}

double SdlAudioOutput::bufferedSeconds() const {
  std::lock_guard lock(mutex_);
  if (lastFillSeconds_ <= 0) return 0;
  // What the last fill handed over, plus the device buffer ahead of it, less what has played.
  const double since = std::chrono::duration<double>(Clock::now() - lastFill_).count();
  return std::max(0.0, lastFillSeconds_ + deviceBufferSeconds_ - since);
}

void SdlAudioOutput::callback(void* opaque, Uint8* stream, int length) {
  auto* self = static_cast<SdlAudioOutput*>(opaque);
  auto* samples = reinterpret_cast<int16_t*>(stream);
  const size_t count = static_cast<size_t>(length) / sizeof(int16_t);
  std::fill(samples, samples + count, 0);
  AudioSpec spec;
  {
    std::lock_guard lock(self->mutex_);
    spec = self->spec_;
  }
  const size_t frames = count / static_cast<size_t>(std::max(1, spec.channels));
  self->fill_(samples, frames);
  const float volume = self->volume_.load();
  if (volume < 1.0f) {
    for (size_t i = 0; i < count; ++i) {
      samples[i] = static_cast<int16_t>(std::lround(samples[i] * std::max(0.0f, volume)));
    }
  }
  std::lock_guard lock(self->mutex_);
  self->lastFill_ = Clock::now();
  self->lastFillSeconds_ = double(frames) / spec.sampleRate;
}

std::unique_ptr<AudioOutput> makeSdlAudioOutput() { return std::make_unique<SdlAudioOutput>(); }

}  // namespace nembra
