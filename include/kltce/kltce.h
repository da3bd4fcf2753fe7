/* kltce.h: the C interface of the KLT Context Evaluator, for hosts written in C or in any language
 * that calls C (the Java binding in bindings/java is built on it).
 *
 * An engine is an opaque handle over an environment of its own (counter store, clock, log, app
 * version, device facts, user and session); two engines share no mutable state. The host creates
 * one, hands it a campaign document, delivers its events and receives display events through a
 * callback, exactly as a C++ host does through KLTContextEvaluator::create().
 *
 * Errors. Every function returns a kltce_status. On an error, kltce_last_error() gives a message
 * for the calling thread's last failed call (kept until that thread's next failed call). Nothing
 * throws across this interface and bad input never crashes: null handles, invalid JSON, invalid
 * UTF-8, JSON of the wrong shape and calls on a closed engine each return their status.
 *
 * Strings. Every string passed in is NUL-terminated UTF-8, owned by the caller and only read
 * during the call. Strings passed to callbacks are NUL-terminated UTF-8 that live for the duration
 * of the callback only. Strings returned through a char** are the caller's: free them with
 * kltce_string_free().
 *
 * Threads and queues. An engine runs its rule work on a serial queue: by default a worker thread
 * of its own (KLTCE_QUEUE_THREAD), or a queue the host drains on a thread of its choice
 * (KLTCE_QUEUE_DRAINED, with kltce_engine_drain()), which suits a host that drives time itself.
 * - Every call may be made from any thread, including from within a callback, except
 *   kltce_engine_close() and kltce_engine_destroy(), which must not be called from a callback, and
 *   kltce_engine_wait_idle() and kltce_engine_drain(), which answer KLTCE_ERROR_INVALID_ARGUMENT
 *   there (a queue cannot wait for itself). With a drained queue, one thread drains at a time.
 * - The dispatch and decision callbacks are called on the engine's queue: its worker thread, or
 *   the thread running kltce_engine_drain() / kltce_engine_wait_idle(). The log and clock callbacks
 *   are called on whatever thread the engine works or is called on (the queue's, and the caller's
 *   during kltce_engine_check() and kltce_engine_replace_macros()): they must be thread-safe.
 *   Callbacks must return quickly and must not wait for the engine's queue.
 * - No callback is called once kltce_engine_close() has returned.
 *
 * Timers. A campaign's idle_time and activity_time conditions hold the engine's queue for their
 * interval. With the system clock, or a clock callback and virtual_timers = 0, they last that long
 * in real time. With a clock callback and virtual_timers = 1, the engine's time moves at once to
 * the timer's end and never goes back (a later, earlier reading of the callback is ignored), so
 * that a host replaying recorded time sees timers fire without waiting; a timer that can never end
 * then makes kltce_engine_drain() answer KLTCE_ERROR_BLOCKED rather than hang.
 */
#ifndef KLTCE_KLTCE_H
#define KLTCE_KLTCE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum kltce_status {
  KLTCE_OK = 0,
  KLTCE_ERROR_NULL_HANDLE = 1,      /* the engine handle (or an out pointer) is NULL */
  KLTCE_ERROR_INVALID_ARGUMENT = 2, /* a required text is NULL, a value is out of range, or the call is not allowed here */
  KLTCE_ERROR_INVALID_JSON = 3,     /* a JSON text does not parse (or nests deeper than 256 levels) */
  KLTCE_ERROR_INVALID_UTF8 = 4,     /* a text is not valid UTF-8 */
  KLTCE_ERROR_WRONG_SHAPE = 5,      /* valid JSON of the wrong kind: a document that is not an object
                                       with a "configs" list, attributes that are not an object */
  KLTCE_ERROR_CLOSED = 6,           /* the engine was closed */
  KLTCE_ERROR_OUT_OF_MEMORY = 7,
  KLTCE_ERROR_BLOCKED = 8,          /* the queue is held for good by a timer that never ends */
  KLTCE_ERROR_STORE = 9,            /* the counter store cannot be opened or used */
  KLTCE_ERROR_INTERNAL = 10         /* anything else the engine reported */
} kltce_status;

/* The status's name ("KLTCE_OK", ...); "KLTCE_UNKNOWN" for a number that is none. Never NULL. */
const char* kltce_status_name(kltce_status status);

/* The message of the calling thread's last failed call; "" when none failed yet. The text stays
 * valid until the thread's next failed call. */
const char* kltce_last_error(void);

typedef struct kltce_engine kltce_engine;

/* Log levels of the lines the log callback receives. */
typedef enum kltce_log_level { KLTCE_LOG_DEBUG = 0, KLTCE_LOG_INFO = 1, KLTCE_LOG_ERROR = 2 } kltce_log_level;

typedef enum kltce_queue_kind {
  KLTCE_QUEUE_THREAD = 0, /* a worker thread of the engine's own */
  KLTCE_QUEUE_DRAINED = 1 /* tasks wait until the host calls kltce_engine_drain() or kltce_engine_wait_idle() */
} kltce_queue_kind;

/* The present instant in milliseconds since the Unix epoch. */
typedef int64_t (*kltce_clock_fn)(void* context);
/* One formatted log line, "<KLT INFO> message -[Class method:] 123\n" (length bytes, ending in a
 * newline; also NUL-terminated). */
typedef void (*kltce_log_fn)(void* context, kltce_log_level level, const char* line, size_t length);
/* A display event the engine asks the host to show: its class ("KLTInAppEvent", "KLTSurveyEvent",
 * "KLTInlineEvent"), its info as compact JSON ({"id": ..., ...}) and the engine's time of dispatch
 * in epoch milliseconds. */
typedef void (*kltce_dispatch_fn)(void* context, const char* class_name, const char* info_json, int64_t time_ms);
/* One decision record as compact JSON: {"seq", "kind", "campaign", "condition" (when the record is
 * about one condition), "values", "time" (the engine's epoch milliseconds)}. kind and values are
 * those of KLTContextEvaluator/KLTCEDecision.h ("admitted", "rejected", "event_counted", ...). */
typedef void (*kltce_decision_fn)(void* context, const char* record_json);

/* What an engine is made with. Fill it with kltce_config_init(), then set what differs. */
typedef struct kltce_config {
  const char* store_path;   /* file of the persisted counters; NULL or "": counters in memory only */
  const char* device_model; /* hardware model audience rules compare with; NULL: the machine's name */
  int first_session;        /* non-zero: the app's first session */
  const char* app_version;  /* the app's version ("2.4.1"); NULL: none (version rules then fail) */
  const char* time_zone;    /* IANA zone of the daily windows ("Europe/Paris"); NULL: the process's */
  kltce_clock_fn clock;     /* NULL: the system clock */
  void* clock_context;
  int virtual_timers;       /* with a clock callback: timers end at once (see Timers above) */
  kltce_log_fn log;         /* NULL: the lines go to standard error */
  void* log_context;
  int log_level;            /* 0 or 1: DEBUG, INFO and ERROR lines; 2 (default) and 3: INFO and ERROR; more: INFO */
  kltce_dispatch_fn dispatch; /* NULL: display events are dropped */
  void* dispatch_context;
  kltce_queue_kind queue;
} kltce_config;

/* Sets every field to its default: memory-only counters, system clock, standard error at level 2,
 * no dispatch callback, a worker thread. */
kltce_status kltce_config_init(kltce_config* config);

/* Makes an engine; *out receives the handle (NULL on failure). The config is only read. */
kltce_status kltce_engine_create(const kltce_config* config, kltce_engine** out);

/* Stops the engine: waits for the tasks already queued (draining a drained queue on the calling
 * thread), frees its rule objects and saves its counters. Afterwards no callback is called and
 * every call on the handle answers KLTCE_ERROR_CLOSED (this one too). Not from a callback. */
kltce_status kltce_engine_close(kltce_engine* engine);
/* Closes the engine if still open and frees the handle, which must not be used again. NULL:
 * KLTCE_ERROR_NULL_HANDLE. Not from a callback. */
kltce_status kltce_engine_destroy(kltce_engine* engine);

/* Queues the parse of a campaign document: a JSON object whose "configs" (absent, or a list)
 * holds the campaigns. Campaigns of an earlier parse stay in force beside the new ones. The
 * campaigns listen for events once the parse has run: events delivered before that (wait with
 * kltce_engine_wait_idle() or kltce_engine_drain()) do not reach them. */
kltce_status kltce_engine_parse(kltce_engine* engine, const char* document_json);

/* Delivers one host event: its code (1 screen, 3 presence, 4 app event, 5 client event), its name
 * (NULL: none, as for presence) and its attributes (a JSON object; NULL: none). */
kltce_status kltce_engine_deliver_event(kltce_engine* engine, unsigned long code, const char* name,
                                        const char* attributes_json);

/* Tells the engine the host showed the campaign with this id: its display counters move. */
kltce_status kltce_engine_count_display(kltce_engine* engine, const char* campaign_id);

/* Merge the keys of a JSON object into the user's or session's attributes or custom info. Audience
 * rules read attributes at the next parse; placeholders read custom info at once. */
kltce_status kltce_engine_set_user_attributes(kltce_engine* engine, const char* attributes_json);
kltce_status kltce_engine_set_session_attributes(kltce_engine* engine, const char* attributes_json);
kltce_status kltce_engine_set_user_custom_info(kltce_engine* engine, const char* custom_info_json);
kltce_status kltce_engine_set_session_custom_info(kltce_engine* engine, const char* custom_info_json);

/* Starts a new session with these attributes and custom info (JSON objects; NULL: empty). */
kltce_status kltce_engine_new_session(kltce_engine* engine, const char* attributes_json, const char* custom_info_json,
                                      int first_session);

/* The text with its [user_x(default)] and [session_x(default)] placeholders filled. *out receives
 * a new string (free it with kltce_string_free()); an empty text gives NULL. */
kltce_status kltce_engine_replace_macros(kltce_engine* engine, const char* text, char** out);

/* Installs the decision callback (NULL: none). It takes effect between two tasks of the queue:
 * after every task queued before this call, before every task queued after it. */
kltce_status kltce_engine_set_decision_callback(kltce_engine* engine, kltce_decision_fn callback, void* context);

/* Checks a document against this engine's device, app version, user, session and date, without
 * parsing it: *findings_json receives {"campaigns": [{"id", "admitted", "reason" (when rejected:
 * the failing step, its message and the values compared)}, ...]} in document order (free it with
 * kltce_string_free()). Runs on the calling thread; logs each rejection as a parse would. */
kltce_status kltce_engine_check(kltce_engine* engine, const char* document_json, char** findings_json);

/* Waits until the engine's queue has run every task queued so far (a drained queue is drained on
 * the calling thread). KLTCE_ERROR_BLOCKED when a timer that never ends holds it. */
kltce_status kltce_engine_wait_idle(kltce_engine* engine);
/* Runs every task of a drained queue, and those they queue, on the calling thread.
 * KLTCE_ERROR_INVALID_ARGUMENT for an engine on its own thread; KLTCE_ERROR_BLOCKED as above. */
kltce_status kltce_engine_drain(kltce_engine* engine);

/* Frees a string this interface returned. NULL is allowed. */
void kltce_string_free(char* text);

#ifdef __cplusplus
}
#endif

#endif /* KLTCE_KLTCE_H */
