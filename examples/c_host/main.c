/* A host written in C: replays a campaign document, a device profile and an event stream (the
 * formats of examples/README.md) through the C interface and prints each display event as one JSON
 * line, {"time", "class", "info", "line"}, as `kltce run` prints them. The engine runs on a queue
 * this program drains after each line, over a clock it reads from the stream with virtual timers,
 * so that a 30-second idle condition fires without waiting.
 *
 * Usage: kltce_c_host DOCUMENT PROFILE EVENTS    (exit status 0, or 1 with a message on error)
 * The tests build it as build/<preset>/tests/kltce_c_host (it reads JSON with cJSON, libcjson-dev).
 */
#define _DEFAULT_SOURCE /* setenv, tzset, localtime_r and tm_gmtoff */
#include <cjson/cJSON.h>
#include <kltce/kltce.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

typedef struct host {
  int64_t now_ms; /* the present line's time */
  long line;      /* the present line's number */
} host;

static int64_t host_clock(void* context) { return ((host*)context)->now_ms; }

static void die(const char* what, kltce_status status) {
  fprintf(stderr, "kltce_c_host: %s: %s: %s\n", what, kltce_status_name(status), kltce_last_error());
  exit(1);
}

static void check(const char* what, kltce_status status) {
  if (status != KLTCE_OK) die(what, status);
}

static char* read_file(const char* path) {
  FILE* f = fopen(path, "rb");
  char* text;
  long size;
  if (!f) {
    fprintf(stderr, "kltce_c_host: cannot read %s\n", path);
    exit(1);
  }
  fseek(f, 0, SEEK_END);
  size = ftell(f);
  fseek(f, 0, SEEK_SET);
  text = malloc((size_t)size + 1);
  if (!text || fread(text, 1, (size_t)size, f) != (size_t)size) {
    fprintf(stderr, "kltce_c_host: cannot read %s\n", path);
    exit(1);
  }
  text[size] = '\0';
  fclose(f);
  return text;
}

/* Days since 1970-01-01 of a civil date (proleptic Gregorian). */
static int64_t days_from_civil(int64_t y, int m, int d) {
  int64_t era, yoe, doy, doe;
  y -= m <= 2;
  era = (y >= 0 ? y : y - 399) / 400;
  yoe = y - era * 400;
  doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

/* A line's "t": epoch milliseconds, or ISO 8601 text with an offset or Z. 0 when unreadable. */
static int read_instant(const cJSON* t, int64_t* out) {
  int y, mo, d, h, mi, s, consumed = 0, oh = 0, om = 0;
  const char* rest;
  int64_t millis = 0, seconds;
  if (cJSON_IsNumber(t)) {
    *out = (int64_t)t->valuedouble;
    return 1;
  }
  if (!cJSON_IsString(t) || sscanf(t->valuestring, "%d-%d-%dT%d:%d:%d%n", &y, &mo, &d, &h, &mi, &s, &consumed) != 6) {
    return 0;
  }
  rest = t->valuestring + consumed;
  if (*rest == '.') {
    int digits = 0;
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest, ++digits) {
      if (digits < 3) millis = millis * 10 + (*rest - '0');
    }
    for (; digits < 3; ++digits) millis *= 10;
  }
  seconds = days_from_civil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
  if (*rest == '+' || *rest == '-') {
    if (sscanf(rest + 1, "%d:%d", &oh, &om) != 2) return 0;
    seconds -= (*rest == '+' ? 1 : -1) * (oh * 3600 + om * 60);
  } else if (*rest != 'Z') {
    return 0;
  }
  *out = seconds * 1000 + millis;
  return 1;
}

/* ISO 8601 local time in the process's zone (TZ), with its offset; milliseconds only when any. */
static void format_instant(int64_t ms, char* out, size_t size) {
  time_t seconds = (time_t)(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
  int millis = (int)(ms - (int64_t)seconds * 1000);
  struct tm local;
  char date[32], fraction[8] = "", offset[16] = "Z";
  localtime_r(&seconds, &local);
  strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
  if (millis) snprintf(fraction, sizeof fraction, ".%03d", millis % 1000);
  if (local.tm_gmtoff) {
    int east = (int)(local.tm_gmtoff / 60); /* a zone's offset is less than a day */
    snprintf(offset, sizeof offset, "%c%02d:%02d", east < 0 ? '-' : '+', abs(east) / 60 % 100, abs(east) % 60);
  }
  snprintf(out, size, "%s%s%s", date, fraction, offset);
}

static void on_display(void* context, const char* class_name, const char* info_json, int64_t time_ms) {
  const host* h = context;
  char when[48];
  format_instant(time_ms, when, sizeof when);
  printf("{\"time\":\"%s\",\"class\":\"%s\",\"info\":%s,\"line\":%ld}\n", when, class_name, info_json, h->line);
}

/* The JSON text of a member, NULL when absent; free with cJSON_free(). */
static char* member_json(const cJSON* object, const char* key) {
  const cJSON* member = cJSON_GetObjectItemCaseSensitive(object, key);
  return member ? cJSON_PrintUnformatted(member) : NULL;
}

static unsigned long event_code(const char* type) {
  if (strcmp(type, "activity") == 0) return 1;
  if (strcmp(type, "presence") == 0) return 3;
  if (strcmp(type, "app") == 0) return 4;
  if (strcmp(type, "client") == 0) return 5;
  return 0;
}

/* Merges profile[holder][key] through set(). */
static void apply_holder(kltce_engine* engine, const cJSON* profile, const char* holder, const char* key,
                         kltce_status (*set)(kltce_engine*, const char*)) {
  char* json = member_json(cJSON_GetObjectItemCaseSensitive(profile, holder), key);
  if (json) check(key, set(engine, json));
  cJSON_free(json);
}

static void handle_line(kltce_engine* engine, host* h, const cJSON* line) {
  const cJSON* type = cJSON_GetObjectItemCaseSensitive(line, "type");
  const cJSON* action = cJSON_GetObjectItemCaseSensitive(line, "action");
  int64_t t;
  if (read_instant(cJSON_GetObjectItemCaseSensitive(line, "t"), &t)) h->now_ms = t;
  if (cJSON_IsString(type)) {
    const cJSON* name = cJSON_GetObjectItemCaseSensitive(line, "name");
    char* attributes = member_json(line, "attributes");
    check("deliver", kltce_engine_deliver_event(engine, event_code(type->valuestring),
                                                cJSON_IsString(name) ? name->valuestring : NULL, attributes));
    cJSON_free(attributes);
  } else if (cJSON_IsString(action)) {
    const char* a = action->valuestring;
    char* attributes = member_json(line, "attributes");
    char* custom_info = member_json(line, "custom_info");
    if (strcmp(a, "shown") == 0) {
      const cJSON* id = cJSON_GetObjectItemCaseSensitive(line, "id");
      check("shown", kltce_engine_count_display(engine, cJSON_IsString(id) ? id->valuestring : NULL));
    } else if (strcmp(a, "set_user_attributes") == 0) {
      check(a, kltce_engine_set_user_attributes(engine, attributes));
    } else if (strcmp(a, "set_session_attributes") == 0) {
      check(a, kltce_engine_set_session_attributes(engine, attributes));
    } else if (strcmp(a, "set_user_custom_info") == 0) {
      check(a, kltce_engine_set_user_custom_info(engine, custom_info));
    } else if (strcmp(a, "set_session_custom_info") == 0) {
      check(a, kltce_engine_set_session_custom_info(engine, custom_info));
    } else if (strcmp(a, "new_session") == 0) {
      check(a, kltce_engine_new_session(engine, attributes, custom_info,
                                        cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(line, "first_session"))));
    }
    cJSON_free(attributes);
    cJSON_free(custom_info);
  }
  check("drain", kltce_engine_drain(engine));
}

int main(int argc, char** argv) {
  host h = {0, 0};
  kltce_config config;
  kltce_engine* engine = NULL;
  char *document, *profile_text, *events, *cursor;
  cJSON *profile, *model, *version, *zone;
  int started = 0;
  if (argc != 4) {
    fprintf(stderr, "usage: kltce_c_host DOCUMENT PROFILE EVENTS\n");
    return 1;
  }
  document = read_file(argv[1]);
  profile_text = read_file(argv[2]);
  events = read_file(argv[3]);
  profile = cJSON_Parse(profile_text);
  if (!profile) {
    fprintf(stderr, "kltce_c_host: the profile is not JSON\n");
    return 1;
  }

  check("config", kltce_config_init(&config));
  model = cJSON_GetObjectItemCaseSensitive(profile, "device_model");
  version = cJSON_GetObjectItemCaseSensitive(profile, "app_version");
  zone = cJSON_GetObjectItemCaseSensitive(profile, "time_zone");
  config.device_model = cJSON_IsString(model) ? model->valuestring : NULL;
  config.app_version = cJSON_IsString(version) ? version->valuestring : NULL;
  config.time_zone = cJSON_IsString(zone) ? zone->valuestring : NULL;
  config.first_session = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(profile, "first_session"));
  config.clock = host_clock;
  config.clock_context = &h;
  config.virtual_timers = 1;
  config.dispatch = on_display;
  config.dispatch_context = &h;
  config.queue = KLTCE_QUEUE_DRAINED;
  if (config.time_zone) setenv("TZ", config.time_zone, 1);
  tzset();

  /* The clock starts at the first line's time. */
  for (cursor = events; *cursor && !started;) {
    char* end = strchr(cursor, '\n');
    cJSON* line;
    if (end) *end = '\0';
    line = cJSON_Parse(cursor);
    if (line) started = read_instant(cJSON_GetObjectItemCaseSensitive(line, "t"), &h.now_ms);
    cJSON_Delete(line);
    if (end) *end = '\n';
    cursor = end ? end + 1 : cursor + strlen(cursor);
  }

  check("create", kltce_engine_create(&config, &engine));
  apply_holder(engine, profile, "user", "attributes", kltce_engine_set_user_attributes);
  apply_holder(engine, profile, "user", "custom_info", kltce_engine_set_user_custom_info);
  apply_holder(engine, profile, "session", "attributes", kltce_engine_set_session_attributes);
  apply_holder(engine, profile, "session", "custom_info", kltce_engine_set_session_custom_info);
  check("parse", kltce_engine_parse(engine, document));
  check("drain", kltce_engine_drain(engine));

  for (cursor = events; *cursor;) {
    char* end = strchr(cursor, '\n');
    cJSON* line;
    if (end) *end = '\0';
    ++h.line;
    line = cJSON_Parse(cursor);
    if (line) handle_line(engine, &h, line);
    cJSON_Delete(line);
    cursor = end ? end + 1 : cursor + strlen(cursor);
  }
  fflush(stdout);

  check("destroy", kltce_engine_destroy(engine));
  cJSON_Delete(profile);
  free(document);
  free(profile_text);
  free(events);
  return 0;
}
