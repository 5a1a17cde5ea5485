/* qelmaps-c-demo: the passenger demo application in plain C, on the C API.
 *
 * It configures where the cabin server is, creates a client whose callbacks
 * run on this program's main thread (through the dispatch hook and a small
 * task queue), chooses a resolution, starts, and prints one line per
 * notification: the time since start, the notification, and what it means.
 * Each new map picture is saved to --out as a PAM file (RGBA, no library
 * needed to write it). This is the code a C application starts from.
 *
 *   qelmaps-c-demo --host HOST --port PORT [--ca-file FILE] [--resolution WxH]
 *                  [--out DIR] [--duration SECONDS] [--log-level N]
 */
#define _POSIX_C_SOURCE 200809L

#include <QELMaps/qelmaps.h>

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* Deliveries handed over by the library's thread, run by main(). */
typedef struct task_queue {
  pthread_mutex_t mutex;
  pthread_cond_t ready;
  qelmaps_task **tasks;
  size_t count, capacity;
} task_queue;

typedef struct demo {
  task_queue queue;
  const char *out;
  struct timespec started;
  int saved;
  int pictures;
} demo;

static double seconds_since(const struct timespec *start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) + (double)(now.tv_nsec - start->tv_nsec) / 1e9;
}

/* Library thread: queue the task; never run it here. */
static void dispatch(qelmaps_task *task, void *user_data) {
  task_queue *queue = user_data;
  pthread_mutex_lock(&queue->mutex);
  if (queue->count == queue->capacity) {
    size_t capacity = queue->capacity ? queue->capacity * 2 : 16;
    qelmaps_task **grown = realloc(queue->tasks, capacity * sizeof *grown);
    if (!grown) {
      pthread_mutex_unlock(&queue->mutex);
      qelmaps_task_discard(task);
      return;
    }
    queue->tasks = grown;
    queue->capacity = capacity;
  }
  queue->tasks[queue->count++] = task;
  pthread_cond_signal(&queue->ready);
  pthread_mutex_unlock(&queue->mutex);
}

/* Main thread: the next task, or NULL once `deadline` passes. */
static qelmaps_task *next_task(task_queue *queue, const struct timespec *deadline) {
  qelmaps_task *task = NULL;
  pthread_mutex_lock(&queue->mutex);
  while (queue->count == 0) {
    if (pthread_cond_timedwait(&queue->ready, &queue->mutex, deadline) == ETIMEDOUT) break;
  }
  if (queue->count > 0) {
    task = queue->tasks[0];
    memmove(queue->tasks, queue->tasks + 1, --queue->count * sizeof *queue->tasks);
  }
  pthread_mutex_unlock(&queue->mutex);
  return task;
}

static void save_picture(demo *d, const qelmaps_picture *picture, char *detail, size_t size) {
  char path[4096];
  size_t width = qelmaps_picture_width(picture), height = qelmaps_picture_height(picture);
  size_t stride = qelmaps_picture_stride(picture), row;
  const uint8_t *pixels = qelmaps_picture_pixels(picture);
  FILE *file;
  snprintf(path, sizeof path, "%s/map-%04d.pam", d->out, ++d->saved);
  file = fopen(path, "wb");
  if (!file) {
    snprintf(detail, size, "%zux%zu (cannot write %s)", width, height, path);
    return;
  }
  fprintf(file, "P7\nWIDTH %zu\nHEIGHT %zu\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n", width, height);
  for (row = 0; row < height; ++row) fwrite(pixels + row * stride, 4, width, file);
  fclose(file);
  snprintf(detail, size, "%zux%zu %s", width, height, path);
}

/* Main thread, through qelmaps_task_run(). */
static void on_event(qelmaps_client *client, qelmaps_event event, void *user_data) {
  demo *d = user_data;
  char detail[4200] = "";
  if (event == QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE) {
    qelmaps_size sizes[16];
    size_t count = 0, i, used = 0;
    qelmaps_client_resolutions(client, sizes, 16, &count);
    for (i = 0; i < count && i < 16 && used < sizeof detail; ++i) {
      used += (size_t)snprintf(detail + used, sizeof detail - used, "%s%gx%g", i ? " " : "", sizes[i].width,
                               sizes[i].height);
    }
    if (count == 0) snprintf(detail, sizeof detail, "none");
  } else if (event == QELMAPS_EVENT_IMAGE_DID_CHANGE) {
    qelmaps_picture *picture;
    if (qelmaps_client_picture(client, &picture) != QELMAPS_OK) {
      snprintf(detail, sizeof detail, "cleared");
    } else {
      ++d->pictures;
      if (d->out) save_picture(d, picture, detail, sizeof detail);
      else snprintf(detail, sizeof detail, "%zux%zu", qelmaps_picture_width(picture), qelmaps_picture_height(picture));
      qelmaps_picture_release(picture);
    }
  } else if (event == QELMAPS_EVENT_ERROR) {
    /* The map stays on screen meanwhile, with its age. */
    qelmaps_picture *last = NULL;
    if (qelmaps_client_last_picture(client, &last) == QELMAPS_OK) {
      struct timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      const int64_t age_ms = (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000 - qelmaps_picture_received_at_ms(last);
      snprintf(detail, sizeof detail, "no map data; showing the last picture, received %lld s ago",
               (long long)(age_ms / 1000));
      qelmaps_picture_release(last);
    } else {
      snprintf(detail, sizeof detail, "no map data");
    }
  } else if (event == QELMAPS_EVENT_STATUS_DID_CHANGE) {
    /* Why the map is or is not live, in words for people (cut to fit). */
    size_t length = 0;
    qelmaps_client_status_text(client, detail, sizeof detail, &length);
    printf("%8.3f status %s\n", seconds_since(&d->started), detail);
    fflush(stdout);
    return;
  }
  printf("%8.3f %s %s\n", seconds_since(&d->started), qelmaps_event_name(event), detail);
  fflush(stdout);
}

static void on_log(int level, const char *domain, const char *message, void *user_data) {
  (void)user_data;
  fprintf(stderr, "%d %s %s\n", level, domain, message);
}

static int usage(void) {
  fprintf(stderr, "usage: qelmaps-c-demo --host HOST --port PORT [--ca-file FILE] [--resolution WxH]\n"
                  "                      [--out DIR] [--duration SECONDS] [--log-level N]\n");
  return 2;
}

static int check(qelmaps_error error, const char *what) {
  if (error == QELMAPS_OK) return 0;
  fprintf(stderr, "qelmaps-c-demo: %s: %s\n", what, qelmaps_error_string(error));
  return 1;
}

int main(int argc, char **argv) {
  const char *host = NULL, *ca_file = NULL;
  int port = 443, log_level = 2, i, failed = 0;
  double duration = 20, width = 0, height = 0;
  demo d;
  qelmaps_config *config;
  qelmaps_client *client = NULL;
  qelmaps_task *task;
  struct timespec deadline;

  memset(&d, 0, sizeof d);
  for (i = 1; i + 1 < argc; i += 2) {
    const char *flag = argv[i], *value = argv[i + 1];
    if (!strcmp(flag, "--host")) host = value;
    else if (!strcmp(flag, "--port")) port = atoi(value);
    else if (!strcmp(flag, "--ca-file")) ca_file = value;
    else if (!strcmp(flag, "--out")) d.out = value;
    else if (!strcmp(flag, "--duration")) duration = atof(value);
    else if (!strcmp(flag, "--log-level")) log_level = atoi(value);
    else if (!strcmp(flag, "--resolution")) {
      if (sscanf(value, "%lfx%lf", &width, &height) != 2) return usage();
    } else return usage();
  }
  if (i != argc || !host) return usage();

  pthread_mutex_init(&d.queue.mutex, NULL);
  pthread_cond_init(&d.queue.ready, NULL);
  clock_gettime(CLOCK_MONOTONIC, &d.started);

  config = qelmaps_config_create();
  if (!config) return 1;
  failed |= check(qelmaps_config_set_host(config, host), "host");
  failed |= check(qelmaps_config_set_port(config, port), "port");
  if (ca_file) failed |= check(qelmaps_config_set_ca_file(config, ca_file), "CA file");
  failed |= check(qelmaps_config_set_log_threshold(config, log_level), "log level");
  failed |= check(qelmaps_config_set_log_callback(config, on_log, NULL), "log callback");
  failed |= check(qelmaps_config_set_dispatch(config, dispatch, &d.queue), "dispatch");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE, on_event, &d), "callback");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_IMAGE_DID_CHANGE, on_event, &d), "callback");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE, on_event, &d), "callback");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_ERROR, on_event, &d), "callback");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE, on_event, &d), "callback");
  failed |= check(qelmaps_config_set_callback(config, QELMAPS_EVENT_STATUS_DID_CHANGE, on_event, &d), "callback");
  if (!failed) failed |= check(qelmaps_client_create(config, &client), "the maps service is not available");
  qelmaps_config_destroy(config);
  if (failed) return 1;

  printf("qelmaps %s, service %s\n", qelmaps_version(), qelmaps_service_version());
  if (width > 0 && check(qelmaps_client_choose_resolution(client, width, height), "resolution")) {
    qelmaps_client_destroy(client);
    return 1;
  }
  qelmaps_client_start(client);

  /* This program's loop: run deliveries until the duration has passed. */
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += (time_t)duration;
  deadline.tv_nsec += (long)((duration - (double)(time_t)duration) * 1e9);
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  while ((task = next_task(&d.queue, &deadline)) != NULL) qelmaps_task_run(task);

  qelmaps_client_stop(client);
  qelmaps_client_destroy(client);
  /* Deliveries queued after the loop ended only free themselves now. */
  while (d.queue.count > 0) qelmaps_task_run(d.queue.tasks[--d.queue.count]);
  free(d.queue.tasks);
  pthread_cond_destroy(&d.queue.ready);
  pthread_mutex_destroy(&d.queue.mutex);
  printf("%d map pictures\n", d.pictures);
  return d.pictures > 0 ? 0 : 3;
}
