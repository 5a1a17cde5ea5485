// The C API's functions that need no client: error and event names, the
// versions, and the tasks a dispatch hook hands to the application.

#include "CApiHandles.h"

#ifndef QELMAPS_VERSION
#error "QELMAPS_VERSION is defined by the build"
#endif

extern "C" {

const char* qelmaps_error_string(qelmaps_error error) {
  switch (static_cast<int>(error)) {
    case QELMAPS_OK: return "QELMAPS_OK";
    case QELMAPS_ERROR_NULL_ARGUMENT: return "QELMAPS_ERROR_NULL_ARGUMENT";
    case QELMAPS_ERROR_INVALID_ARGUMENT: return "QELMAPS_ERROR_INVALID_ARGUMENT";
    case QELMAPS_ERROR_NO_PICTURE: return "QELMAPS_ERROR_NO_PICTURE";
    case QELMAPS_ERROR_NO_RESOLUTION: return "QELMAPS_ERROR_NO_RESOLUTION";
    case QELMAPS_ERROR_BUFFER_TOO_SMALL: return "QELMAPS_ERROR_BUFFER_TOO_SMALL";
    case QELMAPS_ERROR_BUSY: return "QELMAPS_ERROR_BUSY";
    case QELMAPS_ERROR_UNAVAILABLE: return "QELMAPS_ERROR_UNAVAILABLE";
    case QELMAPS_ERROR_WRONG_THREAD: return "QELMAPS_ERROR_WRONG_THREAD";
    case QELMAPS_ERROR_OUT_OF_MEMORY: return "QELMAPS_ERROR_OUT_OF_MEMORY";
  }
  return "QELMAPS_ERROR_UNKNOWN";
}

const char* qelmaps_version(void) { return QELMAPS_VERSION; }

const char* qelmaps_service_version(void) { return "03.19.02.00"; }

const char* qelmaps_event_name(qelmaps_event event) {
  switch (static_cast<int>(event)) {
    case QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE: return QELMAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_CHANGE: return QELMAPS_IMAGE_DID_CHANGE_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE: return QELMAPS_IMAGE_DID_STOP_RECEIVING_IMAGE_NOTIFICATION;
    case QELMAPS_EVENT_ERROR: return QELMAPS_ERROR_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE: return QELMAPS_IMAGE_DID_START_RECEIVING_IMAGE_NOTIFICATION;
    case QELMAPS_EVENT_STATE_DID_CHANGE:
    case QELMAPS_EVENT_STATUS_DID_CHANGE: return "";
  }
  return nullptr;
}

void qelmaps_task_run(qelmaps_task* task) {
  if (!task) return;
  // Moved out first, so the task is freed even if the callback destroys the
  // client (and with it whatever the closure refers to).
  auto run = std::move(task->task);
  delete task;
  if (run) run();
}

void qelmaps_task_discard(qelmaps_task* task) { delete task; }

}  // extern "C"
