// The SDK for host applications: include this one header (or the nembra/ headers it lists).
// Everything here is the public API; it includes nothing but these headers, the standard
// library and nlohmann-json (the Json type).
//
// Link nembra::nembra (CMake: find_package(nembra CONFIG REQUIRED)) or `pkg-config nembra`.
#pragma once

#include "nembra/application.h"
#include "nembra/aspect_ratio.h"
#include "nembra/audio.h"
#include "nembra/cache_config.h"
#include "nembra/content_model.h"
#include "nembra/device_info.h"
#include "nembra/error.h"
#include "nembra/file_info_data.h"
#include "nembra/http_message.h"
#include "nembra/http_task.h"
#include "nembra/image.h"
#include "nembra/json.h"
#include "nembra/live_file_publisher.h"
#include "nembra/main_queue.h"
#include "nembra/media_fields.h"
#include "nembra/media_type.h"
#include "nembra/nembra_audios.h"
#include "nembra/nembra_cache_manager.h"
#include "nembra/nembra_config.h"
#include "nembra/nembra_connect.h"
#include "nembra/nembra_delegates.h"
#include "nembra/nembra_images.h"
#include "nembra/nembra_uploading_handler.h"
#include "nembra/nembra_videos.h"
#include "nembra/reply_status.h"
#include "nembra/still_image.h"
#include "nembra/stream_model.h"
#include "nembra/task_queue.h"
#include "nembra/thumbnail_cache.h"
#include "nembra/uploading_config.h"
#include "nembra/video.h"
#include "nembra/video_size.h"
