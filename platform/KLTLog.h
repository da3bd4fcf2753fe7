// KLTLog: the log sink every log line of the system goes to, and the level gating of log lines.
//
// Lines are written in one of three formats, "<KLT DEBUG> %@ %s:%d\n", "<KLT INFO> %@ %s:%d\n" and
// "<KLT ERROR> %@ %s:%d\n": the message, the emitting method as "-[Class selector:]" and the source
// line. The gate is the host's global LOG_LEVEL, read at every call and compared as an unsigned
// number: DEBUG lines pass at 0 or 1, ERROR lines at 3 or less, INFO lines always.
//
// The sink is standard error unless the embedding code (or a test) installs another one. Sink and
// level are seams (platform/KLTSeam.h): an engine instance binds its own on the thread that runs
// its tasks, in place of the process-wide sink and LOG_LEVEL.
// Thread-safety: every function may be called from any thread; a sink's write() may be called
// from several threads at once and must cope (the standard-error sink writes each line whole).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "platform/KLTSeam.h"

// The host's global log level (default 2: INFO and ERROR lines, no DEBUG lines).
extern std::atomic<long> LOG_LEVEL;

enum class KLTLogLevel { Debug, Info, Error };

class KLTLogSink {
 public:
  KLTLogSink() = default;
  KLTLogSink(const KLTLogSink&) = delete;
  KLTLogSink& operator=(const KLTLogSink&) = delete;
  virtual ~KLTLogSink() = default;
  // Receives one formatted line, ending in "\n".
  virtual void write(std::string_view line) = 0;
  // Receives one line in its parts. The default formats it (KLTLog::format) and calls write(); a
  // sink that places the parts itself, or drops lines, overrides it and spares that copy.
  virtual void writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line);
  // Writes out whatever a buffering sink still holds (nothing to do for the others).
  virtual void flush() {}
};

class KLTLog {
 public:
  // Installs the process-wide sink; nullptr restores standard error. Returns the previous sink.
  static std::shared_ptr<KLTLogSink> setSink(std::shared_ptr<KLTLogSink> sink);
  // The sink in effect on the calling thread.
  static std::shared_ptr<KLTLogSink> sink();
  // The seams themselves, to bind a sink or a level (a gate read as LOG_LEVEL is) on a thread.
  static KLTSeam<KLTLogSink>& sinkSeam();
  static KLTSeam<std::atomic<long>>& levelSeam();
  // Flushes the present sink: call it before writing to the same place by another way, so that a
  // buffering sink's lines come first.
  static void flush() { sink()->flush(); }

  // Whether a line of this level passes the level in effect (LOG_LEVEL unless one is bound).
  static bool enabled(KLTLogLevel level);
  // The formatted line, "<KLT LEVEL> message method:line\n".
  static std::string format(KLTLogLevel level, std::string_view message, std::string_view method, int line);
  // The same line appended to out.
  static void appendLine(std::string& out, KLTLogLevel level, std::string_view message, std::string_view method,
                         int line);
  // Formats and writes one line if its level passes the gate.
  static void emit(KLTLogLevel level, std::string_view message, std::string_view method, int line);
  // Writes one line already formatted (format()) to the present sink; the caller gates it.
  static void emitFormatted(std::string_view line);
};

// Log statements: the message expression is evaluated only when the level passes.
#define KLT_LOG(level, method, message)                                  \
  do {                                                                   \
    if (::KLTLog::enabled(level)) ::KLTLog::emit(level, (message), (method), __LINE__); \
  } while (0)
// A log statement whose level, method and line number are given by a KLTLogSite: for lines whose
// method and number are part of a component's log contract, wherever the statement itself stands.
struct KLTLogSite {
  KLTLogLevel level;
  const char* method;
  int line;
};
#define KLT_LOG_SITE(site, message)                                                        \
  do {                                                                                     \
    if (::KLTLog::enabled((site).level)) ::KLTLog::emit((site).level, (message), (site).method, (site).line); \
  } while (0)
// A log statement whose line number is given (a contract's), with the method named by the caller.
#define KLT_LOG_AT(level, method, line, message)                                 \
  do {                                                                           \
    if (::KLTLog::enabled(level)) ::KLTLog::emit(level, (message), (method), (line)); \
  } while (0)
// The same for a message that never changes (a string literal): the whole line is formatted once,
// at the statement's first pass, and handed to the sink as it stands (KLTLogSink::write()).
#define KLT_LOG_SITE_FIXED(site, message)                                                             \
  do {                                                                                                \
    if (::KLTLog::enabled((site).level)) {                                                            \
      static const std::string kKLTLogLine = ::KLTLog::format((site).level, message, (site).method, (site).line); \
      ::KLTLog::emitFormatted(kKLTLogLine);                                                           \
    }                                                                                                 \
  } while (0)
#define KLT_LOG_DEBUG(method, message) KLT_LOG(::KLTLogLevel::Debug, method, message)
#define KLT_LOG_INFO(method, message) KLT_LOG(::KLTLogLevel::Info, method, message)
#define KLT_LOG_ERROR(method, message) KLT_LOG(::KLTLogLevel::Error, method, message)
