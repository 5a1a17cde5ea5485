/* Compiled as C11 with -Wall -Wextra -Wpedantic -Werror: the header must
 * stay plain C. Also checks what only C can pass: enum values outside the
 * enums. */
#include <QELMaps/qelmaps.h>

#include <string.h>

int qelmaps_test_c_out_of_range(void) {
  qelmaps_config *config = qelmaps_config_create();
  int failures = 0;
  if (!config) return 1;
  failures += strcmp(qelmaps_error_string((qelmaps_error)42), "QELMAPS_ERROR_UNKNOWN") != 0;
  failures += strcmp(qelmaps_error_string((qelmaps_error)-1), "QELMAPS_ERROR_UNKNOWN") != 0;
  failures += qelmaps_event_name((qelmaps_event)42) != NULL;
  failures += qelmaps_config_set_callback(config, (qelmaps_event)-1, NULL, NULL) != QELMAPS_ERROR_INVALID_ARGUMENT;
  failures += qelmaps_config_set_callback(config, (qelmaps_event)7, NULL, NULL) != QELMAPS_ERROR_INVALID_ARGUMENT;
  qelmaps_config_destroy(config);
  return failures;
}
