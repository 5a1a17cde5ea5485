/*
 * qelmaps.h: the broadcast moving map of the cabin network, for applications
 * written in C or in any language that can call C (Swift, Kotlin and Java
 * through JNI or the foreign-function API, Python through ctypes).
 *
 * A client runs the map service on a thread of its own (the library's
 * thread). The application configures where the cabin server is, registers
 * callbacks, creates the client, chooses a resolution and starts; each time
 * the map changes a callback runs, and the application reads the available
 * resolutions and the latest picture (RGBA pixels) from the client.
 *
 * Conventions, for every function below unless its documentation says more:
 *
 *  - Errors. A function that can fail returns a qelmaps_error; QELMAPS_OK
 *    (zero) means success. On failure nothing is changed and no output
 *    argument is written, except where documented. qelmaps_error_string()
 *    names each code. No function aborts the process on a bad argument: a
 *    NULL handle or pointer yields QELMAPS_ERROR_NULL_ARGUMENT, a value out
 *    of range QELMAPS_ERROR_INVALID_ARGUMENT. (Passing a pointer that is not
 *    NULL but also not a live handle of the right kind is undefined, as
 *    with any C library.)
 *  - Ownership. Strings passed in are copied before the function returns.
 *    Strings returned are static and never freed. Objects returned with a
 *    reference (qelmaps_picture) are released by the caller with their own
 *    release function; memory the caller passes in stays the caller's.
 *  - Threading. Every client function may be called from any thread, also
 *    from inside a callback, except qelmaps_client_destroy() as documented
 *    there. A configuration object is not thread-safe: fill it on one
 *    thread, then hand it to qelmaps_client_create().
 *  - One client per process: the service shares process-wide state (the map
 *    record, the event channel, the log sink) with every other map service
 *    of the process.
 *
 * Example (error checks left out):
 *
 *   static void on_image(qelmaps_client *client, qelmaps_event event, void *ud) {
 *     qelmaps_picture *picture;
 *     if (qelmaps_client_picture(client, &picture) == QELMAPS_OK) {
 *       show(qelmaps_picture_pixels(picture), qelmaps_picture_width(picture),
 *            qelmaps_picture_height(picture), qelmaps_picture_stride(picture));
 *       qelmaps_picture_release(picture);
 *     }
 *   }
 *
 *   qelmaps_config *config = qelmaps_config_create();
 *   qelmaps_config_set_host(config, "cabin.local");
 *   qelmaps_config_set_callback(config, QELMAPS_EVENT_IMAGE_DID_CHANGE, on_image, NULL);
 *   qelmaps_client *client;
 *   qelmaps_client_create(config, &client);
 *   qelmaps_config_destroy(config);
 *   qelmaps_client_choose_resolution(client, 1024, 768);
 *   qelmaps_client_start(client);
 *   ...
 *   qelmaps_client_destroy(client);
 *
 * Link with pkg-config's "qelmaps" package (only -lqelmaps: no C++
 * library's headers are needed).
 */
#ifndef QELMAPS_QELMAPS_H
#define QELMAPS_QELMAPS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Marks the functions the shared library exports. */
#if defined(__GNUC__) || defined(__clang__)
#define QELMAPS_C_API __attribute__((visibility("default")))
#else
#define QELMAPS_C_API
#endif

/* ------------------------------------------------------------------------ */
/* Errors                                                                   */
/* ------------------------------------------------------------------------ */

typedef enum qelmaps_error {
  QELMAPS_OK = 0,
  /* A required handle or pointer argument is NULL. */
  QELMAPS_ERROR_NULL_ARGUMENT = 1,
  /* A value is out of range: a port of 0 or above 65535, a width or height
   * that is not a positive finite number, an unknown event. */
  QELMAPS_ERROR_INVALID_ARGUMENT = 2,
  /* There is no map picture (not received yet, or no map data). */
  QELMAPS_ERROR_NO_PICTURE = 3,
  /* No resolution is chosen. */
  QELMAPS_ERROR_NO_RESOLUTION = 4,
  /* The caller's buffer is too small; the needed size was written. */
  QELMAPS_ERROR_BUFFER_TOO_SMALL = 5,
  /* Another client of this process is alive. */
  QELMAPS_ERROR_BUSY = 6,
  /* The map service could not be made. */
  QELMAPS_ERROR_UNAVAILABLE = 7,
  /* The call is not allowed on this thread (destroy from a callback running
   * on the library's thread). */
  QELMAPS_ERROR_WRONG_THREAD = 8,
  /* Memory ran out. */
  QELMAPS_ERROR_OUT_OF_MEMORY = 9,
  /* Not a code: makes the enum span every int, so that any value a caller
   * passes is one the library can answer (with "QELMAPS_ERROR_UNKNOWN"). */
  QELMAPS_ERROR_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_error;

/* The name of an error code, such as "QELMAPS_ERROR_NULL_ARGUMENT", or
 * "QELMAPS_ERROR_UNKNOWN" for a value outside the enum. Static; never NULL.
 * Thread-safe. */
QELMAPS_C_API const char *qelmaps_error_string(qelmaps_error error);

/* ------------------------------------------------------------------------ */
/* Versions                                                                 */
/* ------------------------------------------------------------------------ */

/* The library's version, "MAJOR.MINOR.PATCH". Static; thread-safe. */
QELMAPS_C_API const char *qelmaps_version(void);

/* The map service's version, "03.19.02.00". Static; thread-safe. */
QELMAPS_C_API const char *qelmaps_service_version(void);

/* "@(#)PROGRAM:QELMaps  PROJECT:Maps-1" and a line feed, for tools that look
 * for the "@(#)" marker in binaries, and the framework's version number. */
extern QELMAPS_C_API const unsigned char QELMapsVersionString[];
extern QELMAPS_C_API const double QELMapsVersionNumber;

/* ------------------------------------------------------------------------ */
/* Notifications                                                            */
/* ------------------------------------------------------------------------ */

/* The names of the service's notifications, as other language bindings and
 * logs spell them. */
#define QELMAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE_NOTIFICATION "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE"
#define QELMAPS_IMAGE_DID_CHANGE_NOTIFICATION "BROADCAST_MAPS_IMAGE_DID_CHANGE"
#define QELMAPS_IMAGE_DID_STOP_RECEIVING_IMAGE_NOTIFICATION "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE"
#define QELMAPS_ERROR_NOTIFICATION "BROADCAST_MAPS_ERROR"
#define QELMAPS_IMAGE_DID_START_RECEIVING_IMAGE_NOTIFICATION "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE"

/* What a callback announces. */
typedef enum qelmaps_event {
  /* Another set of resolutions: read qelmaps_client_resolutions(). */
  QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE = 0,
  /* Another picture, or none any more: read qelmaps_client_picture(). */
  QELMAPS_EVENT_IMAGE_DID_CHANGE = 1,
  /* Reception stopped because another party announced it stopped. */
  QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE = 2,
  /* There is no map data: the cabin server is out of reach or failed. */
  QELMAPS_EVENT_ERROR = 3,
  /* Reception started. Delivered, but not worth relying on. */
  QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE = 4,
  /* A call of the application (start, stop, a resolution choice) changed
   * the client's state without the service announcing anything. */
  QELMAPS_EVENT_STATE_DID_CHANGE = 5,
  /* The connection status changed: read qelmaps_client_status(). */
  QELMAPS_EVENT_STATUS_DID_CHANGE = 6,
  /* Not an event: makes the enum span every int (see qelmaps_error). */
  QELMAPS_EVENT_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_event;

/* The notification name of `event` (one of the macros above), "" for
 * QELMAPS_EVENT_STATE_DID_CHANGE and QELMAPS_EVENT_STATUS_DID_CHANGE, NULL for a value outside the enum. Static;
 * thread-safe. */
QELMAPS_C_API const char *qelmaps_event_name(qelmaps_event event);

/* ------------------------------------------------------------------------ */
/* Handles                                                                  */
/* ------------------------------------------------------------------------ */

typedef struct qelmaps_config qelmaps_config;
typedef struct qelmaps_client qelmaps_client;
typedef struct qelmaps_picture qelmaps_picture;
typedef struct qelmaps_task qelmaps_task;

/* One picture size offered by the cabin server, in pixels. */
typedef struct qelmaps_size {
  double width;
  double height;
} qelmaps_size;

/* Runs for each notification whose event it was registered for. `client` is
 * the client that announced it; inside the callback, the client's read
 * functions (resolutions, picture, state) return what the client held when
 * the notification was made, even if the map has moved on since.
 *
 * Thread: the library's own thread, unless a dispatch hook is set
 * (qelmaps_config_set_dispatch), in which case the thread that runs the
 * task. A callback running on the library's thread must return promptly and
 * must not destroy the client. */
typedef void (*qelmaps_callback)(qelmaps_client *client, qelmaps_event event, void *user_data);

/* Hands one delivery to the application's loop: the application must later
 * call qelmaps_task_run(task) exactly once, on the thread where callbacks
 * should run, or qelmaps_task_discard(task) if its loop is going away.
 * Called on the library's thread; must not block and must not run the task
 * itself. */
typedef void (*qelmaps_dispatch)(qelmaps_task *task, void *user_data);

/* Receives one log line: `level` 1 is the most severe, higher is more
 * detailed; `domain` names where the line comes from. Both strings are valid
 * only during the call. Called on the library's thread. */
typedef void (*qelmaps_log_callback)(int level, const char *domain, const char *message, void *user_data);

/* ------------------------------------------------------------------------ */
/* Configuration                                                            */
/* ------------------------------------------------------------------------ */

/* A new, empty configuration, or NULL when memory runs out. Every setting
 * left unset falls back to an environment variable, then to a default:
 *   host          QEL_SKELION_HOSTNAME   (none: the client has no map data)
 *   port          QEL_SKELION_PORT       443
 *   CA file       QEL_CA_FILE            the system's trust store
 *   event path    QEL_EVENT_PATH         "/skelion/events"
 *   log threshold QEL_LOG_LEVEL          2
 *   name servers  QEL_DNS_SERVERS        the system's
 *   max pixels    QEL_MAX_PIXELS         16777216
 *   max entries   QEL_MAX_MAP_ENTRIES    256
 *   cache dir     QEL_CACHE_DIR          (none: nothing is written)
 * Free it with qelmaps_config_destroy(); a client keeps its own copy. */
QELMAPS_C_API qelmaps_config *qelmaps_config_create(void);

/* Frees a configuration. NULL is ignored. */
QELMAPS_C_API void qelmaps_config_destroy(qelmaps_config *config);

/* The cabin server's host name or address. NULL_ARGUMENT for a NULL config
 * or host. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_host(qelmaps_config *config, const char *host);

/* The cabin server's HTTPS port. INVALID_ARGUMENT outside 1..65535. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_port(qelmaps_config *config, int port);

/* A PEM file of the certificates to trust instead of the system's store. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_ca_file(qelmaps_config *config, const char *path);

/* The certificates to trust instead of the system's store, as PEM text held
 * in memory (an application carries its cabin authority in its bundle).
 * `length` bytes are copied; they need no terminating NUL. Takes precedence
 * over the CA file. Errors: NULL_ARGUMENT, INVALID_ARGUMENT (length 0). An
 * authority that cannot be read fails each connection with a log line, as a
 * CA file that cannot be read does. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_ca_pem(qelmaps_config *config, const char *pem, size_t length);

/* The path of the server's event WebSocket. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_event_path(qelmaps_config *config, const char *path);

/* Name servers to ask instead of the system's: "ADDR[:PORT][,...]" (bracket
 * an IPv6 address that has a port). */
QELMAPS_C_API qelmaps_error qelmaps_config_set_dns_servers(qelmaps_config *config, const char *servers);

/* Adds a fixed host table entry "HOST:PORT:ADDR[,ADDR...]": that host and
 * port are reached at these addresses, in this order, without a name lookup
 * (for cabins without working DNS). Entries add up. */
QELMAPS_C_API qelmaps_error qelmaps_config_add_resolve(qelmaps_config *config, const char *entry);

/* Limits against a careless or hostile server: a picture whose header
 * declares more than `pixels` pixels is not decoded (default 16777216), and
 * map data that would make the record hold more than `entries` pictures is
 * refused whole (default 256). INVALID_ARGUMENT for 0. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_max_pixels(qelmaps_config *config, uint64_t pixels);
QELMAPS_C_API qelmaps_error qelmaps_config_set_max_map_entries(qelmaps_config *config, size_t entries);

/* How long the library waits before trying again. Wait number n (from 0)
 * has the bound initial_ms * multiplier^n, capped at maximum_ms, and is drawn
 * uniformly between (1 - jitter) of the bound and the bound: jitter 1 draws
 * from zero up, which keeps a cabin's devices that lost the server together
 * from coming back as one wave; jitter 0 waits the bound exactly. */
typedef enum qelmaps_backoff_kind {
  QELMAPS_BACKOFF_EVENTS = 0,  /* the event channel, after losing or failing to make its connection
                                  (default 3000 ms, x2, 8000 ms, jitter 1) */
  QELMAPS_BACKOFF_REQUESTS = 1, /* a failed map data request's next attempts (default 2000 ms, x5,
                                   30000 ms, jitter 0.25); a picture is retried every 5 s regardless */
  QELMAPS_BACKOFF_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_backoff_kind;

typedef struct qelmaps_backoff {
  uint32_t initial_ms; /* more than 0 */
  double multiplier;   /* at least 1 */
  uint32_t maximum_ms; /* not below initial_ms */
  double jitter;       /* within [0, 1] */
} qelmaps_backoff;

/* Writes the default of `kind` into *backoff. Any thread.
 * Errors: NULL_ARGUMENT, INVALID_ARGUMENT (kind). */
QELMAPS_C_API qelmaps_error qelmaps_backoff_default(qelmaps_backoff_kind kind, qelmaps_backoff *backoff);

/* Sets the backoff of `kind` (the other keeps its value), copied now.
 * Errors: NULL_ARGUMENT, INVALID_ARGUMENT (kind, or a value outside its
 * range; the configuration is then unchanged). */
QELMAPS_C_API qelmaps_error qelmaps_config_set_backoff(qelmaps_config *config, qelmaps_backoff_kind kind,
                                                       const qelmaps_backoff *backoff);

/* A directory where the last picture of each resolution is kept across runs
 * (made if missing; QEL_CACHE_DIR when unset; without either nothing is
 * written anywhere). A client made with one shows the kept picture at once,
 * stale and with its true age (qelmaps_client_last_picture()), and asks the
 * server whether it changed instead of downloading it again. Whatever is
 * wrong with the directory or an entry costs a log line and that entry.
 * Errors: NULL_ARGUMENT, INVALID_ARGUMENT (an empty path). */
QELMAPS_C_API qelmaps_error qelmaps_config_set_cache_dir(qelmaps_config *config, const char *path);

/* Non-zero: the client follows the device's links, addresses and routes
 * (Linux) and calls qelmaps_client_network_changed() on itself at every
 * change; where that cannot be done it logs so and works without. Off by
 * default: an application that hears of changes from its platform calls
 * qelmaps_client_network_changed() itself.
 * Errors: NULL_ARGUMENT. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_watch_network(qelmaps_config *config, int watch);

/* Log lines above `threshold` are dropped (1 only the most severe; 5 all).
 * INVALID_ARGUMENT below 0. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_log_threshold(qelmaps_config *config, int threshold);

/* Routes the library's log lines to `callback` instead of standard error,
 * from qelmaps_client_create() until qelmaps_client_destroy() returns; once
 * it has returned the callback is never called again. A NULL callback
 * restores standard error. Messages carry no control characters: those of
 * the server's text come escaped ("\n", "\x1b"), as on standard error. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_log_callback(qelmaps_config *config,
                                                            qelmaps_log_callback callback,
                                                            void *user_data);

/* Registers `callback` (NULL: none) for `event`, replacing an earlier one.
 * INVALID_ARGUMENT for an unknown event. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_callback(qelmaps_config *config, qelmaps_event event,
                                                        qelmaps_callback callback, void *user_data);

/* Makes callbacks run on the application's loop: each delivery is handed to
 * `dispatch` as a task (see qelmaps_dispatch). A NULL `dispatch` (the
 * default) runs callbacks on the library's thread. */
QELMAPS_C_API qelmaps_error qelmaps_config_set_dispatch(qelmaps_config *config, qelmaps_dispatch dispatch,
                                                        void *user_data);

/* ------------------------------------------------------------------------ */
/* Dispatched tasks                                                         */
/* ------------------------------------------------------------------------ */

/* Runs the task's callback on the calling thread, then frees the task. If
 * its client has been destroyed in the meantime, only frees it. NULL is
 * ignored. */
QELMAPS_C_API void qelmaps_task_run(qelmaps_task *task);

/* Frees the task without running it. NULL is ignored. */
QELMAPS_C_API void qelmaps_task_discard(qelmaps_task *task);

/* ------------------------------------------------------------------------ */
/* Client                                                                   */
/* ------------------------------------------------------------------------ */

/* Starts the library's thread, makes the map service there and writes the
 * new client to *out; returns once it is ready. The configuration is copied
 * and may be destroyed right after. Nothing is received until
 * qelmaps_client_start().
 * Errors: NULL_ARGUMENT (config or out), BUSY (another client is alive),
 * UNAVAILABLE, OUT_OF_MEMORY. */
QELMAPS_C_API qelmaps_error qelmaps_client_create(const qelmaps_config *config, qelmaps_client **out);

/* Stops the service, ends the library's thread and frees the client. From
 * the moment it is called no callback runs any more, also not for tasks
 * still queued by a dispatch hook (run or discard them as usual: they only
 * free themselves); a callback already running on another thread completes
 * before this returns. Pictures obtained from the client stay valid until
 * released. NULL is ignored (QELMAPS_OK).
 * Threading: any thread, including a callback delivered through a dispatch
 * hook; but not a callback running on the library's thread, which yields
 * WRONG_THREAD and leaves the client alive. */
QELMAPS_C_API qelmaps_error qelmaps_client_destroy(qelmaps_client *client);

/* Starts receiving the map: the service fetches the map record, follows the
 * server's events and downloads the picture of the chosen resolution.
 * Asynchronous: returns at once. */
QELMAPS_C_API qelmaps_error qelmaps_client_start(qelmaps_client *client);

/* Stops receiving. Asynchronous; the last picture stays readable. */
QELMAPS_C_API qelmaps_error qelmaps_client_stop(qelmaps_client *client);

/* Chooses the picture size to download from the next download on. A size
 * the server does not list is kept (and used when the server lists it); in
 * the meantime the first listed size is downloaded. Asynchronous.
 * Errors: NULL_ARGUMENT, INVALID_ARGUMENT (not positive and finite). */
QELMAPS_C_API qelmaps_error qelmaps_client_choose_resolution(qelmaps_client *client, double width,
                                                             double height);

/* Tells the client that the device's network changed; call it from the
 * platform's network callback (another access point, a new address, a link
 * back up). A channel waiting to reconnect does so at once, its backoff
 * reset; a connected one is checked with a ping. Asynchronous. */
QELMAPS_C_API qelmaps_error qelmaps_client_network_changed(qelmaps_client *client);

/* Forgets the choice: the first listed size is downloaded. Asynchronous. */
QELMAPS_C_API qelmaps_error qelmaps_client_clear_resolution(qelmaps_client *client);

/* Copies the sizes the server offers, in its listing order, into
 * `sizes[0..capacity)` and writes their number to *count. With `sizes` NULL
 * and `capacity` 0 only the number is written. When `capacity` is smaller
 * than the number, the first `capacity` sizes are copied, *count holds the
 * full number and BUFFER_TOO_SMALL is returned. No map data: *count is 0.
 * Errors: NULL_ARGUMENT (client or count, or sizes with capacity > 0),
 * BUFFER_TOO_SMALL. */
QELMAPS_C_API qelmaps_error qelmaps_client_resolutions(qelmaps_client *client, qelmaps_size *sizes,
                                                       size_t capacity, size_t *count);

/* Writes the chosen size to *size. Errors: NULL_ARGUMENT, NO_RESOLUTION. */
QELMAPS_C_API qelmaps_error qelmaps_client_current_resolution(qelmaps_client *client, qelmaps_size *size);

/* Writes 1 to *receiving between start and stop, else 0; writes 1 to
 * *has_map_data while the server answers with a map record that lists a
 * picture, else 0 (qelmaps_client_map_data() tells the two cases of 0
 * apart). Either pointer may be NULL (not both). */
QELMAPS_C_API qelmaps_error qelmaps_client_state(qelmaps_client *client, int *receiving, int *has_map_data);

/* What the client holds of the cabin server's map data. */
typedef enum qelmaps_map_data {
  /* No map record: none loaded yet, the last load failed, or the event
   * channel went down. QELMAPS_EVENT_ERROR announces this state. */
  QELMAPS_MAP_DATA_NONE = 0,
  /* The server answered with a map record that lists no picture: nothing
   * to show, and not an error. */
  QELMAPS_MAP_DATA_EMPTY = 1,
  /* The map record lists at least one picture (has_map_data is 1). */
  QELMAPS_MAP_DATA_LISTED = 2,
  /* Not a value: makes the enum span every int (see qelmaps_error). */
  QELMAPS_MAP_DATA_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_map_data;

/* Writes to *map_data which of the states above the client is in, from the
 * same moment as the other read functions (inside a callback: the one the
 * callback announces). Any thread, also inside a callback; nothing to free.
 * Errors: NULL_ARGUMENT (client or map_data). */
QELMAPS_C_API qelmaps_error qelmaps_client_map_data(qelmaps_client *client, qelmaps_map_data *map_data);

/* Writes a new reference to the latest map picture to *picture; release it
 * with qelmaps_picture_release(). The pixels are shared, not copied, and
 * never change. Errors: NULL_ARGUMENT, NO_PICTURE, OUT_OF_MEMORY. */
QELMAPS_C_API qelmaps_error qelmaps_client_picture(qelmaps_client *client, qelmaps_picture **picture);

/* Writes a new reference to the last picture the application was shown:
 * the current one, or, when there is none (the map data went, the server is
 * out of reach), the one before, kept; with a cache directory also one from
 * an earlier run. Release it with qelmaps_picture_release().
 * qelmaps_picture_received_at_ms() says when it was received.
 * Errors: NULL_ARGUMENT, NO_PICTURE (there never was one), OUT_OF_MEMORY. */
QELMAPS_C_API qelmaps_error qelmaps_client_last_picture(qelmaps_client *client, qelmaps_picture **picture);

/* Writes 1 to *stale when the last picture is not that of the current live
 * map (the channel is down, there is no map data, or the map names another
 * picture that has not arrived yet), else 0; show its age then.
 * Errors: NULL_ARGUMENT. */
QELMAPS_C_API qelmaps_error qelmaps_client_picture_is_stale(qelmaps_client *client, int *stale);

/* ------------------------------------------------------------------------ */
/* Status: why the map is or is not live                                    */
/* ------------------------------------------------------------------------ */

typedef enum qelmaps_phase {
  QELMAPS_PHASE_STOPPED = 0,          /* not started, or stopped */
  QELMAPS_PHASE_CONNECTING = 1,       /* an attempt to reach the server runs */
  QELMAPS_PHASE_LIVE = 2,             /* connected, with pictures listed */
  QELMAPS_PHASE_WAITING_TO_RETRY = 3, /* the event channel failed; see next_attempt_ms */
  QELMAPS_PHASE_NO_MAP_DATA = 4,      /* connected; the server has no map, or its map data failed */
  QELMAPS_PHASE_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_phase;

/* The three ways to the cabin server, which fail independently. */
typedef enum qelmaps_channel {
  QELMAPS_CHANNEL_EVENTS = 0,   /* the event channel (WebSocket) */
  QELMAPS_CHANNEL_MAP_DATA = 1, /* the map data request */
  QELMAPS_CHANNEL_PICTURE = 2,  /* the picture download */
  QELMAPS_CHANNEL_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_channel;

/* Why a channel failed. Lookup and unreachable are faults of the network
 * (the Wi-Fi); refused, an HTTP status and a close are the server's; a
 * certificate problem is the configuration's (the wrong authority). */
typedef enum qelmaps_failure {
  QELMAPS_FAILURE_NONE = 0,               /* the channel never failed */
  QELMAPS_FAILURE_NAME_LOOKUP = 1,        /* the server's name did not resolve */
  QELMAPS_FAILURE_CONNECTION_REFUSED = 2, /* nothing listens on the port */
  QELMAPS_FAILURE_UNREACHABLE = 3,        /* no route, or no answer to the connect */
  QELMAPS_FAILURE_TLS_HANDSHAKE = 4,      /* TLS could not be agreed on */
  QELMAPS_FAILURE_CERTIFICATE = 5,        /* certificate not trusted or for another name */
  QELMAPS_FAILURE_HTTP_STATUS = 6,        /* an error status; code holds it */
  QELMAPS_FAILURE_MAP_DATA_REFUSED = 7,   /* too large, not JSON, wrong shape, too many entries */
  QELMAPS_FAILURE_PICTURE_REFUSED = 8,    /* too many pixels, not decodable, another origin */
  QELMAPS_FAILURE_CLOSED_BY_SERVER = 9,   /* the server closed the channel; code is the close code */
  QELMAPS_FAILURE_TIMEOUT = 10,           /* nothing arrived within the inactivity timeout */
  QELMAPS_FAILURE_CONNECTION_LOST = 11,   /* an established connection broke */
  QELMAPS_FAILURE_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_failure;

/* The last failure of one channel. Times are Unix times in milliseconds. */
typedef struct qelmaps_channel_status {
  qelmaps_failure failure;       /* NONE when the channel never failed */
  int code;                      /* the HTTP status or close code, else 0 */
  int64_t failed_at_ms;          /* when it failed; 0 for NONE */
  uint32_t consecutive_failures; /* in a row; 0 once the channel worked again */
} qelmaps_channel_status;

typedef struct qelmaps_status {
  qelmaps_phase phase;
  int64_t since_ms;        /* when the phase began */
  int64_t next_attempt_ms; /* when the next attempt starts; 0 when none is scheduled */
  qelmaps_channel_status channels[3]; /* indexed by qelmaps_channel */
} qelmaps_status;

/* Fills *status, from the same moment as the other read functions (inside a
 * callback: the one the callback announces). Any thread.
 * Errors: NULL_ARGUMENT. */
QELMAPS_C_API qelmaps_error qelmaps_client_status(qelmaps_client *client, qelmaps_status *status);

/* Copies the message of `channel`'s last failure ("unable to get local
 * issuer certificate", "the server answered with status 500"), NUL-
 * terminated, into buffer[0..capacity) and writes its length without the
 * NUL to *length ("" and 0 when the channel never failed). With `buffer`
 * NULL and `capacity` 0 only the length is written; when `capacity` is not
 * more than the length, capacity - 1 bytes and a NUL are copied and
 * BUFFER_TOO_SMALL is returned. Any thread.
 * Errors: NULL_ARGUMENT, INVALID_ARGUMENT (channel), BUFFER_TOO_SMALL. */
QELMAPS_C_API qelmaps_error qelmaps_client_failure_message(qelmaps_client *client, qelmaps_channel channel,
                                                           char *buffer, size_t capacity, size_t *length);

/* The status as one line for people, as qelmaps_client_failure_message()
 * copies: "Live", "Cabin server unreachable, next try in 4 s", "Cannot
 * verify the cabin server's certificate: unable to get local issuer
 * certificate", "Connected; the server has no map yet". */
QELMAPS_C_API qelmaps_error qelmaps_client_status_text(qelmaps_client *client, char *buffer, size_t capacity,
                                                       size_t *length);

/* "name lookup failed", "connection refused", ..., "none" for NONE, NULL
 * outside the enum. Static; thread-safe. */
QELMAPS_C_API const char *qelmaps_failure_string(qelmaps_failure failure);

/* "stopped", "connecting", "live", "waiting to retry", "no map data"; NULL
 * outside the enum. Static; thread-safe. */
QELMAPS_C_API const char *qelmaps_phase_string(qelmaps_phase phase);

/* ------------------------------------------------------------------------ */
/* Monitoring: a trace of every picture, and the stats document             */
/* ------------------------------------------------------------------------ */

typedef enum qelmaps_trace_result {
  QELMAPS_TRACE_SHOWN = 0,        /* a new picture, shown */
  QELMAPS_TRACE_SAME_PICTURE = 1, /* the bytes were the picture already shown */
  QELMAPS_TRACE_FAILED = 2,       /* see failure and failure_message */
  QELMAPS_TRACE_RESULT_ENUM_WIDTH_ = -0x7fffffff - 1
} qelmaps_trace_result;

/* Where one picture download's time went. Times are CLOCK_MONOTONIC in
 * microseconds, 0 for a phase not reached (a kept connection has no connect
 * of its own; a failure ends early). The transfer's phases are libcurl's own
 * timers. Strings are valid only during the callback. */
typedef struct qelmaps_trace {
  const char *source;
  int64_t update_received_us; /* the event or map data answer that named it */
  int64_t queued_us;
  int64_t name_lookup_done_us;
  int64_t connected_us;
  int64_t tls_done_us;
  int64_t first_byte_us;
  int64_t body_done_us;
  int64_t decoded_us;
  int64_t shown_us; /* the snapshot that shows it was published */
  uint64_t bytes_received;
  const char *http_version; /* "1.1", "2", or "" */
  int connection_reused;
  int revalidated; /* answered "304 Not Modified" from the cache */
  qelmaps_trace_result result;
  qelmaps_failure failure; /* NONE unless FAILED */
  const char *failure_message;
} qelmaps_trace;

/* Receives each picture's trace, on the thread callbacks run on (see
 * qelmaps_callback and qelmaps_config_set_dispatch). */
typedef void (*qelmaps_trace_callback)(qelmaps_client *client, const qelmaps_trace *trace, void *user_data);

/* Registers `callback` (NULL: none) for every picture's trace.
 * Errors: NULL_ARGUMENT (config). */
QELMAPS_C_API qelmaps_error qelmaps_config_set_trace_callback(qelmaps_config *config, qelmaps_trace_callback callback,
                                                              void *user_data);

/* Copies the stats document, a JSON object of the counters since the client
 * was made (the README's "Monitoring" lists the keys), as
 * qelmaps_client_failure_message() copies text. Any thread. The document is
 * live: the length a first call reports may be short by the time of the
 * next, so on BUFFER_TOO_SMALL call again with the newly written length.
 * Errors: NULL_ARGUMENT, BUFFER_TOO_SMALL, OUT_OF_MEMORY. */
QELMAPS_C_API qelmaps_error qelmaps_client_stats(qelmaps_client *client, char *buffer, size_t capacity,
                                                 size_t *length);

/* ------------------------------------------------------------------------ */
/* Pictures: immutable, reference-counted, usable from any thread           */
/* ------------------------------------------------------------------------ */

/* Another reference to the same picture (returns `picture`). NULL gives
 * NULL. */
QELMAPS_C_API qelmaps_picture *qelmaps_picture_retain(qelmaps_picture *picture);

/* Drops a reference; the last one frees the picture. NULL is ignored. */
QELMAPS_C_API void qelmaps_picture_release(qelmaps_picture *picture);

/* Size in pixels; 0 for NULL. */
QELMAPS_C_API size_t qelmaps_picture_width(const qelmaps_picture *picture);
QELMAPS_C_API size_t qelmaps_picture_height(const qelmaps_picture *picture);

/* Bytes from one row to the next (at least width * 4); 0 for NULL. */
QELMAPS_C_API size_t qelmaps_picture_stride(const qelmaps_picture *picture);

/* When the picture was received, as a Unix time in milliseconds (from an
 * earlier run: when that run received it); 0 for NULL. */
QELMAPS_C_API int64_t qelmaps_picture_received_at_ms(const qelmaps_picture *picture);

/* The pixels: `height` rows of `stride` bytes, each pixel 4 bytes R, G, B, A
 * (straight alpha). Valid while the caller holds a reference. NULL for
 * NULL. */
QELMAPS_C_API const uint8_t *qelmaps_picture_pixels(const qelmaps_picture *picture);

#ifdef __cplusplus
}
#endif

#endif /* QELMAPS_QELMAPS_H */
