// Inside the media plug-in: the FFmpeg implementations behind MediaBackend. Nothing outside the
// plug-in (and the tests that exercise it directly) includes this.
#pragma once

#include <memory>
#include <string>

#include "nembra/error.h"
#include "platform/media/audio_pcm_decoder.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/image_codec.h"
#include "platform/media/media_converter.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_remuxer.h"
#include "platform/media/media_trimmer.h"

namespace nembra {

std::unique_ptr<MediaProbe> newFfmpegMediaProbe();
std::unique_ptr<FrameGrabber> newFfmpegFrameGrabber();
std::unique_ptr<MediaRemuxer> newFfmpegMediaRemuxer();
std::unique_ptr<MediaConverter> newFfmpegMediaConverter();
std::unique_ptr<MediaTrimmer> newFfmpegMediaTrimmer();
std::unique_ptr<ImageCodec> newFfmpegImageCodec();
std::unique_ptr<AudioPcmDecoder> newFfmpegAudioPcmDecoder();

// Small, real media made from a moving test pattern and a tone (see MediaSampleWriter).
OptionalError ffmpegWriteVideoSample(const std::string& path, double seconds, int width,
                                     int height);
OptionalError ffmpegWriteAudioSample(const std::string& path, double seconds);
OptionalError ffmpegWritePictureSample(const std::string& path, int width, int height);

}  // namespace nembra
