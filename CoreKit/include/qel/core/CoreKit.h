#pragma once

// The core kit: logging, the internal notification centre, the service base
// class, requests and their queue, the event manager and the configuration.

#include "qel/core/QELEventManager.h"
#include "qel/core/QELHostname.h"
#include "qel/core/QELLogging.h"
#include "qel/core/QELNotifications.h"
#include "qel/core/QELRequest.h"
#include "qel/core/QELRequestQueue.h"
#include "qel/core/RequestTransport.h"
#include "qel/core/SkelionService.h"
