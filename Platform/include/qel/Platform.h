#pragma once

// The platform layer: objects, the run loop, notifications, key-value
// observation, timers, JSON descriptions, URLs and images.

#include "qel/Data.h"
#include "qel/Format.h"
#include "qel/Geometry.h"
#include "qel/Image.h"
#include "qel/KeyValueObserving.h"
#include "qel/Log.h"
#include "qel/Notification.h"
#include "qel/NotificationCenter.h"
#include "qel/NotificationQueue.h"
#include "qel/Object.h"
#include "qel/RunLoop.h"
#include "qel/Timer.h"
#include "qel/URL.h"
