// All AMF0 value kinds, for code that builds or inspects command payloads.
#pragma once

#include "streaming/amf_array.h"
#include "streaming/amf_boolean.h"
#include "streaming/amf_null.h"
#include "streaming/amf_number.h"
#include "streaming/amf_object.h"
#include "streaming/amf_string.h"
#include "streaming/amf_value.h"
