/* A tiny C host built against the installed library through pkg-config (kltce.pc), as an
 * integrator without CMake builds one: an engine, a campaign, a screen event, the display event. */
#include <kltce/kltce.h>
#include <stdio.h>
#include <string.h>

static const char* document =
    "{\"configs\":[{\"_id\":\"hello\",\"enabled\":true,\"audience\":{\"attributes\":{\"user\":[],\"session\":[]}},"
    "\"validity\":{\"start_date\":\"2026-01-01T00:00:00Z\",\"end_date\":\"2027-12-31T23:59:59Z\"},"
    "\"frequency\":{\"validity\":\"OVERALL\",\"count\":1},"
    "\"conditions\":[{\"event_type\":\"activity_event\",\"activity\":\"Home\",\"details\":{\"additional_info\":{}},"
    "\"time_bounds\":{\"lower\":1767225600000,\"upper\":1830297599000},"
    "\"count_config\":{\"count\":1,\"operator\":\"GTE\"},\"combine_operator\":\"AND\","
    "\"trigger\":{\"event_type\":\"app_start\",\"details\":{\"additional_info\":{}}}}],\"meta\":{\"type\":\"IN_APP\"}}]}";

static int64_t fixed_clock(void* context) {
  (void)context;
  return 1795338000000; /* 2026-11-22T09:00:00Z */
}

static void on_display(void* context, const char* class_name, const char* info_json, int64_t time_ms) {
  (void)time_ms;
  if (strcmp(class_name, "KLTInAppEvent") == 0 && strstr(info_json, "\"hello\"")) ++*(int*)context;
}

int main(void) {
  kltce_config config;
  kltce_engine* engine = NULL;
  int shown = 0;
  kltce_config_init(&config);
  config.clock = fixed_clock;
  config.dispatch = on_display;
  config.dispatch_context = &shown;
  config.queue = KLTCE_QUEUE_DRAINED;
  if (kltce_engine_create(&config, &engine) != KLTCE_OK || kltce_engine_parse(engine, document) != KLTCE_OK ||
      kltce_engine_drain(engine) != KLTCE_OK || kltce_engine_deliver_event(engine, 1, "Home", NULL) != KLTCE_OK ||
      kltce_engine_drain(engine) != KLTCE_OK) {
    fprintf(stderr, "consumer: %s\n", kltce_last_error());
    return 1;
  }
  if (kltce_engine_destroy(engine) != KLTCE_OK || shown != 1) {
    fprintf(stderr, "consumer: %d display events (1 wanted)\n", shown);
    return 1;
  }
  puts("consumer: ok");
  return 0;
}
