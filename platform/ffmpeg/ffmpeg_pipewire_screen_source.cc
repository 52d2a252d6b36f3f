#include "platform/ffmpeg/ffmpeg_pipewire_screen_source.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "platform/dispatch/thread_name.h"
#include "platform/ffmpeg/ffmpeg_av_support.h"

// PipeWire's headers are C: their inline helpers use extensions C++ only warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#pragma GCC diagnostic pop

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
}

namespace nembra {
namespace {

constexpr auto kFirstPictureTimeout = std::chrono::seconds(10);
constexpr const char* kThreadName = "com.nembra.screenRecorder.pipewire";

// The packed RGB layouts screen casts offer, best first, and FFmpeg's names for them.
struct FormatPair {
  spa_video_format spa;
  AVPixelFormat av;
};
constexpr FormatPair kFormats[] = {
    {SPA_VIDEO_FORMAT_BGRx, AV_PIX_FMT_BGR0}, {SPA_VIDEO_FORMAT_BGRA, AV_PIX_FMT_BGRA},
    {SPA_VIDEO_FORMAT_RGBx, AV_PIX_FMT_RGB0}, {SPA_VIDEO_FORMAT_RGBA, AV_PIX_FMT_RGBA},
    {SPA_VIDEO_FORMAT_xRGB, AV_PIX_FMT_0RGB}, {SPA_VIDEO_FORMAT_ARGB, AV_PIX_FMT_ARGB},
    {SPA_VIDEO_FORMAT_xBGR, AV_PIX_FMT_0BGR}, {SPA_VIDEO_FORMAT_ABGR, AV_PIX_FMT_ABGR},
    {SPA_VIDEO_FORMAT_RGB, AV_PIX_FMT_RGB24}, {SPA_VIDEO_FORMAT_BGR, AV_PIX_FMT_BGR24},
};

void initPipeWire() {
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

// What the stream will take: raw video in one of kFormats, any size, up to |fps|.
const spa_pod* formatOffer(spa_pod_builder* builder, int fps) {
  spa_pod_frame object;
  spa_pod_frame choice;
  spa_pod_builder_push_object(builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
  spa_pod_builder_prop(builder, SPA_FORMAT_mediaType, 0);
  spa_pod_builder_id(builder, SPA_MEDIA_TYPE_video);
  spa_pod_builder_prop(builder, SPA_FORMAT_mediaSubtype, 0);
  spa_pod_builder_id(builder, SPA_MEDIA_SUBTYPE_raw);

  spa_pod_builder_prop(builder, SPA_FORMAT_VIDEO_format, 0);
  spa_pod_builder_push_choice(builder, &choice, SPA_CHOICE_Enum, 0);
  spa_pod_builder_id(builder, kFormats[0].spa);  // the default
  for (const FormatPair& format : kFormats) spa_pod_builder_id(builder, format.spa);
  spa_pod_builder_pop(builder, &choice);

  spa_pod_builder_prop(builder, SPA_FORMAT_VIDEO_size, 0);
  spa_pod_builder_push_choice(builder, &choice, SPA_CHOICE_Range, 0);
  spa_pod_builder_rectangle(builder, 1920, 1080);
  spa_pod_builder_rectangle(builder, 1, 1);
  spa_pod_builder_rectangle(builder, 16384, 16384);
  spa_pod_builder_pop(builder, &choice);

  spa_pod_builder_prop(builder, SPA_FORMAT_VIDEO_framerate, 0);
  spa_pod_builder_push_choice(builder, &choice, SPA_CHOICE_Range, 0);
  spa_pod_builder_fraction(builder, static_cast<uint32_t>(fps), 1);
  spa_pod_builder_fraction(builder, 0, 1);
  spa_pod_builder_fraction(builder, 1000, 1);
  spa_pod_builder_pop(builder, &choice);
  return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &object));
}

// Buffers this side can read: shared memory, mapped by PipeWire.
const spa_pod* bufferOffer(spa_pod_builder* builder) {
  spa_pod_frame object;
  spa_pod_builder_push_object(builder, &object, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
  spa_pod_builder_prop(builder, SPA_PARAM_BUFFERS_dataType, 0);
  spa_pod_builder_int(builder, (1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr));
  return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &object));
}

}  // namespace

struct MediaSourcePipeWireScreen::Listeners {
  spa_hook core{};
  spa_hook stream{};
  pw_core_events coreEvents{};
  pw_stream_events streamEvents{};
};

MediaSourcePipeWireScreen::MediaSourcePipeWireScreen()
    : listeners_(std::make_unique<Listeners>()), opened_(std::chrono::steady_clock::now()) {}

std::unique_ptr<MediaSourcePipeWireScreen> MediaSourcePipeWireScreen::open(int fd, uint32_t node,
                                                                           int fps,
                                                                           OptionalError& error) {
  initPipeWire();
  std::unique_ptr<MediaSourcePipeWireScreen> source(new MediaSourcePipeWireScreen());
  if (fps <= 0) fps = 30;
  source->period_ = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(1.0 / fps));
  source->loop_ = pw_thread_loop_new(kThreadName, nullptr);
  if (!source->loop_) {
    if (fd >= 0) ::close(fd);
    error = Error::internal("can't start PipeWire's loop");
    return nullptr;
  }
  MediaSourcePipeWireScreen* self = source.get();
  Listeners& listeners = *source->listeners_;
  listeners.coreEvents.version = PW_VERSION_CORE_EVENTS;
  listeners.coreEvents.error = [](void* data, uint32_t id, int, int res, const char* message) {
    // Only the connection's own object failing ends the stream (PipeWire closed it).
    if (id == PW_ID_CORE) {
      static_cast<MediaSourcePipeWireScreen*>(data)->onEnded(
          std::string("PipeWire: ") + (message ? message : std::strerror(-res)));
    }
  };
  listeners.streamEvents.version = PW_VERSION_STREAM_EVENTS;
  listeners.streamEvents.state_changed = [](void* data, pw_stream_state, pw_stream_state state,
                                            const char* message) {
    auto* owner = static_cast<MediaSourcePipeWireScreen*>(data);
    if (state == PW_STREAM_STATE_ERROR) {
      owner->onEnded(std::string("the screen cast failed: ") + (message ? message : "error"));
    } else if (state == PW_STREAM_STATE_UNCONNECTED) {
      owner->onEnded("the screen cast ended");
    }
  };
  listeners.streamEvents.param_changed = [](void* data, uint32_t id, const spa_pod* param) {
    if (id == SPA_PARAM_Format && param)
      static_cast<MediaSourcePipeWireScreen*>(data)->onFormat(param);
  };
  listeners.streamEvents.process = [](void* data) {
    static_cast<MediaSourcePipeWireScreen*>(data)->onProcess();
  };

  pw_thread_loop_lock(source->loop_);
  source->context_ = pw_context_new(pw_thread_loop_get_loop(source->loop_), nullptr, 0);
  if (source->context_)
    source->core_ = pw_context_connect_fd(source->context_, fd, nullptr, 0);
  else if (fd >= 0)
    ::close(fd);
  if (!source->core_) {
    pw_thread_loop_unlock(source->loop_);
    error = Error::media("can't connect to PipeWire for the screen cast: " +
                         std::string(strerror(errno)));
    return nullptr;
  }
  pw_core_add_listener(source->core_, &listeners.core, &listeners.coreEvents, self);
  // Only the cast's own node will do: without "dont-reconnect" the session manager links a
  // missing or vanished node's reader to whatever video source it likes (a camera, say).
  source->stream_ = pw_stream_new(
      source->core_, "nembra screen",
      pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                        PW_KEY_MEDIA_ROLE, "Screen", PW_KEY_NODE_DONT_RECONNECT, "true", nullptr));
  int rc = -1;
  if (source->stream_) {
    pw_stream_add_listener(source->stream_, &listeners.stream, &listeners.streamEvents, self);
    uint8_t podBuffer[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, podBuffer, sizeof(podBuffer));
    const spa_pod* params[] = {formatOffer(&builder, fps)};
    rc = pw_stream_connect(
        source->stream_, PW_DIRECTION_INPUT, node,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
        params, 1);
  }
  if (rc < 0 || pw_thread_loop_start(source->loop_) < 0) {
    pw_thread_loop_unlock(source->loop_);
    error = Error::media("can't read the screen cast's stream " + std::to_string(node));
    return nullptr;
  }
  pw_loop_invoke(
      pw_thread_loop_get_loop(source->loop_),
      [](spa_loop*, bool, uint32_t, const void*, size_t, void*) {
        setCurrentThreadName(kThreadName);
        return 0;
      },
      0, nullptr, 0, false, nullptr);
  pw_thread_loop_unlock(source->loop_);

  std::unique_lock lock(source->mutex_);
  source->changed_.wait_for(lock, kFirstPictureTimeout,
                            [&] { return source->latest_ || !source->ended_.empty(); });
  if (!source->latest_) {
    const std::string why = source->ended_.empty() ? "no picture within 10 s" : source->ended_;
    lock.unlock();
    error = Error::media("the screen cast delivered nothing: " + why);
    return nullptr;
  }
  source->info_.description = "screen cast (PipeWire node " + std::to_string(node) + ")";
  source->info_.hasVideo = true;
  source->info_.width = source->width_;
  source->info_.height = source->height_;
  source->info_.frameRate = fps;
  source->nextPicture_ = std::chrono::steady_clock::now();
  return source;
}

MediaSourcePipeWireScreen::~MediaSourcePipeWireScreen() {
  if (loop_) pw_thread_loop_stop(loop_);
  if (stream_) pw_stream_destroy(stream_);
  if (core_) pw_core_disconnect(core_);
  if (context_) pw_context_destroy(context_);
  if (loop_) pw_thread_loop_destroy(loop_);
  av_frame_free(&latest_);
}

void MediaSourcePipeWireScreen::onFormat(const spa_pod* param) {
  uint32_t mediaType = 0;
  uint32_t mediaSubtype = 0;
  if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
      mediaSubtype != SPA_MEDIA_SUBTYPE_raw) {
    return;
  }
  spa_video_info_raw raw{};
  if (spa_format_video_raw_parse(param, &raw) < 0) return;
  const auto* match =
      std::find_if(std::begin(kFormats), std::end(kFormats),
                   [&raw](const FormatPair& pair) { return pair.spa == raw.format; });
  {
    std::lock_guard lock(mutex_);
    pixelFormat_ = match == std::end(kFormats) ? -1 : match->av;
    width_ = static_cast<int>(raw.size.width);
    height_ = static_cast<int>(raw.size.height);
  }
  uint8_t podBuffer[256];
  spa_pod_builder builder;
  spa_pod_builder_init(&builder, podBuffer, sizeof(podBuffer));
  const spa_pod* params[] = {bufferOffer(&builder)};
  pw_stream_update_params(stream_, params, 1);
}

void MediaSourcePipeWireScreen::onProcess() {
  pw_buffer* buffer = nullptr;
  // Only the newest picture matters: older queued ones go straight back.
  while (pw_buffer* next = pw_stream_dequeue_buffer(stream_)) {
    if (buffer) pw_stream_queue_buffer(stream_, buffer);
    buffer = next;
  }
  if (!buffer) return;
  const spa_buffer* spa = buffer->buffer;
  const spa_data& data = spa->datas[0];
  int format;
  int width;
  int height;
  {
    std::lock_guard lock(mutex_);
    format = pixelFormat_;
    width = width_;
    height = height_;
  }
  AVFrame* frame = nullptr;
  if (data.data && data.chunk && data.chunk->size > 0 &&
      !(data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) && format >= 0 && width > 0 && height > 0) {
    const int rowBytes = av_image_get_linesize(static_cast<AVPixelFormat>(format), width, 0);
    const int stride = data.chunk->stride > 0 ? data.chunk->stride : rowBytes;
    const uint32_t offset = data.chunk->offset % data.maxsize;
    if (rowBytes > 0 && stride >= rowBytes &&
        static_cast<uint64_t>(offset) + static_cast<uint64_t>(stride) * height <= data.maxsize) {
      frame = av_frame_alloc();
      if (frame) {
        frame->format = format;
        frame->width = width;
        frame->height = height;
        if (av_frame_get_buffer(frame, 0) < 0) av_frame_free(&frame);
      }
      if (frame) {
        const auto* source = static_cast<const uint8_t*>(data.data) + offset;
        for (int y = 0; y < height; ++y) {
          std::memcpy(frame->data[0] + static_cast<ptrdiff_t>(y) * frame->linesize[0],
                      source + static_cast<ptrdiff_t>(y) * stride, rowBytes);
        }
      }
    }
  }
  pw_stream_queue_buffer(stream_, buffer);
  if (!frame) return;
  {
    std::lock_guard lock(mutex_);
    av_frame_free(&latest_);
    latest_ = frame;
  }
  changed_.notify_all();
}

void MediaSourcePipeWireScreen::onEnded(const std::string& why) {
  {
    std::lock_guard lock(mutex_);
    if (!ended_.empty()) return;
    ended_ = why;
  }
  changed_.notify_all();
}

void MediaSourcePipeWireScreen::interrupt() {
  interrupted_ = true;
  std::lock_guard lock(mutex_);
  changed_.notify_all();
}

bool MediaSourcePipeWireScreen::read(MediaSourceItem& item, OptionalError& error) {
  if (failed_) return false;
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, nextPicture_,
                      [this] { return interrupted_.load() || !ended_.empty(); });
  if (interrupted_.load() || !ended_.empty()) {
    error = interrupted_.load() ? Error::cancelled("capture interrupted") : Error::media(ended_);
    failed_ = true;
    return false;
  }
  AVFrame* picture = av_frame_clone(latest_);
  lock.unlock();
  if (!picture) {
    error = Error::internal("out of memory copying a screen picture");
    failed_ = true;
    return false;
  }
  const auto now = std::chrono::steady_clock::now();
  // A late reader skips the pictures it missed rather than catching up in a burst.
  nextPicture_ += period_;
  if (now - nextPicture_ > period_) nextPicture_ = now;
  const double pts = std::chrono::duration<double>(now - opened_).count();
  item = wrapAvFrame(RawMediaFrame::Kind::Video, picture, pts);
  return true;
}

}  // namespace nembra
