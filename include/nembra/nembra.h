// The SDK for host applications: include this one header.
#pragma once

#include "api/nembra.h"
#include "api/nembra_config.h"
#include "api/nembra_connect.h"
#include "api/nembra_delegates.h"
#include "nembra/error.h"
#include "nembra/json.h"
#include "platform/dispatch/main_queue.h"
