// The field list of each model of the service: the keys, their types and their order. The
// models read and write their JSON through these, and so does the local service when it writes
// a model's JSON.
//
// Threading: each list is built on first use and only read afterwards; any thread.
#pragma once

#include "api/audio.h"
#include "api/device_info.h"
#include "api/image.h"
#include "api/media_fields.h"
#include "api/model_fields.h"
#include "api/stream_model.h"
#include "api/video.h"

namespace nembra {

const ModelFields<Video>& videoFields();
const ModelFields<Audio>& audioFields();
const ModelFields<Image>& imageFields();
const ModelFields<StreamModel>& streamModelFields();
const ModelFields<DeviceInfo>& deviceInfoFields();
const ModelFields<MediaFields>& mediaFieldsFields();

}  // namespace nembra
