// Fuzz target: the C interface's entry points (include/kltce/kltce.h) with any bytes, as a host in
// another language would call them: invalid UTF-8, invalid JSON and JSON of any shape included.
//
// Input: the campaign document on the first line, then one call per line, its first byte naming
// it and the rest its argument: e<code><name>\t<attributes> deliver, s count a display, u/U user
// attributes/custom info, v/V session attributes/custom info, n new session, m fill placeholders,
// k check a document, p parse one, t<digits> move the clock (milliseconds), d drain, x close.
// What must hold: every call answers a known status, with a message when it fails; the queue
// drains (no input with a timer that never ends is run); once closed, every call answers
// KLTCE_ERROR_CLOSED; no callback is called after the close.
#include <kltce/kltce.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "platform/KLTValueReader.h"

namespace {

struct Host {
  int64_t now = 1'795'338'000'000;  // 2026-11-22T09:00:00Z
  bool closed = false;
};

int64_t clockOf(void* host) { return static_cast<Host*>(host)->now; }

void afterClose(void* host) {
  if (static_cast<Host*>(host)->closed) std::abort();  // a callback after the close
}
void onLog(void* host, kltce_log_level, const char* line, std::size_t length) {
  afterClose(host);
  if (std::strlen(line) != length) std::abort();
}
void onDispatch(void* host, const char*, const char* info, int64_t) {
  afterClose(host);
  if (!klt::readJsonText(info).ok()) std::abort();
}
void onDecision(void* host, const char* record) {
  afterClose(host);
  if (!klt::readJsonText(record).ok()) std::abort();
}

// Checks one call's answer; true when it succeeded.
bool answered(kltce_status status, bool closed) {
  if (status < KLTCE_OK || status > KLTCE_ERROR_INTERNAL) std::abort();
  if (status == KLTCE_ERROR_INTERNAL || status == KLTCE_ERROR_BLOCKED) std::abort();
  if (status != KLTCE_OK && kltce_last_error()[0] == '\0') std::abort();
  if (closed && status != KLTCE_ERROR_CLOSED) std::abort();
  return status == KLTCE_OK;
}

// Whether a text handed over as a document could hold a timer that never ends.
bool endless(const std::string& text) {
  const klt::KLTValueRead read = klt::readJsonText(text);
  return read.ok() && kltce_fuzz::hasEndlessTimer(read.value);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text = kltce_fuzz::asText(data, size);
  if (text.find('\0') != std::string_view::npos) return -1;  // C strings end at the first NUL
  std::vector<std::string> lines;
  for (std::string_view rest = text; !rest.empty();) {
    const auto [line, next] = kltce_fuzz::firstLineAndRest(rest);
    lines.emplace_back(line);
    if (next.empty() && line.size() == rest.size()) break;
    rest = next;
  }
  if (lines.empty() || endless(lines[0])) return -1;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (!lines[i].empty() && (lines[i][0] == 'p' || lines[i][0] == 'k') && endless(lines[i].substr(1))) return -1;
  }

  Host host;
  kltce_config config;
  kltce_config_init(&config);
  config.app_version = "2.4.1";
  config.time_zone = "Europe/Paris";
  config.clock = clockOf;
  config.clock_context = &host;
  config.virtual_timers = 1;
  config.log = onLog;
  config.log_context = &host;
  config.log_level = 0;
  config.dispatch = onDispatch;
  config.dispatch_context = &host;
  config.queue = KLTCE_QUEUE_DRAINED;
  kltce_engine* engine = nullptr;
  if (!answered(kltce_engine_create(&config, &engine), false)) std::abort();
  answered(kltce_engine_set_decision_callback(engine, onDecision, &host), false);
  answered(kltce_engine_parse(engine, lines[0].c_str()), false);
  answered(kltce_engine_drain(engine), false);

  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].empty()) continue;
    const char op = lines[i][0];
    const std::string arg = lines[i].substr(1);
    const bool closed = host.closed;
    char* out = nullptr;
    switch (op) {
      case 'e': {
        const unsigned long code = arg.empty() ? 0 : static_cast<unsigned char>(arg[0]) % 8;
        const std::string rest = arg.empty() ? "" : arg.substr(1);
        const auto tab = rest.find('\t');
        const std::string name = rest.substr(0, tab);
        const std::string attributes = tab == std::string::npos ? "" : rest.substr(tab + 1);
        answered(kltce_engine_deliver_event(engine, code, name.empty() ? nullptr : name.c_str(),
                                            attributes.empty() ? nullptr : attributes.c_str()),
                 closed);
        break;
      }
      case 's': answered(kltce_engine_count_display(engine, arg.c_str()), closed); break;
      case 'u': answered(kltce_engine_set_user_attributes(engine, arg.c_str()), closed); break;
      case 'U': answered(kltce_engine_set_user_custom_info(engine, arg.c_str()), closed); break;
      case 'v': answered(kltce_engine_set_session_attributes(engine, arg.c_str()), closed); break;
      case 'V': answered(kltce_engine_set_session_custom_info(engine, arg.c_str()), closed); break;
      case 'n': answered(kltce_engine_new_session(engine, arg.c_str(), nullptr, 0), closed); break;
      case 'm':
        answered(kltce_engine_replace_macros(engine, arg.c_str(), &out), closed);
        kltce_string_free(out);
        break;
      case 'k':
        if (answered(kltce_engine_check(engine, arg.c_str(), &out), closed) && !klt::readJsonText(out).ok()) std::abort();
        kltce_string_free(out);
        break;
      case 'p': answered(kltce_engine_parse(engine, arg.c_str()), closed); break;
      case 't': host.now += std::strtoll(arg.c_str(), nullptr, 10) % 100'000'000; break;
      case 'x':
        answered(kltce_engine_close(engine), closed);
        host.closed = true;
        break;
      default: break;
    }
    answered(kltce_engine_drain(engine), host.closed);
  }
  if (!host.closed) answered(kltce_engine_close(engine), false);
  host.closed = true;
  if (kltce_engine_destroy(engine) != KLTCE_OK) std::abort();
  return 0;
}
