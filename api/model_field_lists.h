// The field list of each model of the service: the keys, their types and their order. The
// models read and write their JSON through these, and so does the local service when it writes
// a model's JSON.
//
// Threading: each list is built on first use and only read afterwards; any thread.
#pragma once

#include "api/model_fields.h"
#include "nembra/audio.h"
#include "nembra/device_info.h"
#include "nembra/image.h"
#include "nembra/media_fields.h"
#include "nembra/stream_model.h"
#include "nembra/video.h"

namespace nembra {

const ModelFields<Video>& videoFields();
const ModelFields<Audio>& audioFields();
const ModelFields<Image>& imageFields();
const ModelFields<StreamModel>& streamModelFields();
const ModelFields<DeviceInfo>& deviceInfoFields();
const ModelFields<MediaFields>& mediaFieldsFields();

}  // namespace nembra
