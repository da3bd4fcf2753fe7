// The Java binding's native side: com.kelto.kltce.Engine's native methods over the C interface.
//
// Callbacks reach the Java engine through a weak reference (so that an engine never closed can
// still be collected, and closed by its cleaner) and call its private fromNative* methods, which
// catch whatever the host's listeners throw. A Java exception left pending all the same (an
// Error) is cleared here: the engine's thread never returns into C with one pending. Threads the
// engine calls back on that Java does not know (its worker thread) are attached as daemons and
// detached when they end. A refused call throws com.kelto.kltce.KltceException.
#include <jni.h>
#include <kltce/kltce.h>

#include <atomic>
#include <new>
#include <string>
#include <vector>

namespace {

struct JavaHost {
  JavaVM* vm = nullptr;
  jweak engine = nullptr;
  jmethodID dispatch = nullptr, log = nullptr, decision = nullptr, clock = nullptr;
  std::atomic<int64_t> settableNow{0};  // the time of a clock the host sets (Engine.setTimeMillis)
};

// Detaches, when the thread ends, a thread this file attached.
struct Attachment {
  JavaVM* vm = nullptr;
  ~Attachment() {
    if (vm) vm->DetachCurrentThread();
  }
};
thread_local Attachment attachment;

JNIEnv* envFor(JavaVM* vm) {
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) == JNI_OK) return env;
  if (vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) return nullptr;
  attachment.vm = vm;
  return env;
}

jbyteArray bytes(JNIEnv* env, const char* text, std::size_t length) {
  jbyteArray array = env->NewByteArray(static_cast<jsize>(length));
  if (array) env->SetByteArrayRegion(array, 0, static_cast<jsize>(length), reinterpret_cast<const jbyte*>(text));
  return array;
}

jbyteArray bytes(JNIEnv* env, const char* text) { return bytes(env, text, std::char_traits<char>::length(text)); }

// Calls back into the Java engine, if it is still reachable, with a local frame for the arguments.
template <class Call>
void callJava(const JavaHost* host, Call call) {
  JNIEnv* env = envFor(host->vm);
  if (!env || env->PushLocalFrame(8) != 0) return;
  if (jobject engine = env->NewLocalRef(host->engine)) call(env, engine);
  if (env->ExceptionCheck()) env->ExceptionClear();
  env->PopLocalFrame(nullptr);
}

void onDispatch(void* context, const char* className, const char* info, int64_t time) {
  const auto* host = static_cast<const JavaHost*>(context);
  callJava(host, [&](JNIEnv* env, jobject engine) {
    env->CallVoidMethod(engine, host->dispatch, bytes(env, className), bytes(env, info), static_cast<jlong>(time));
  });
}

void onLog(void* context, kltce_log_level level, const char* line, std::size_t length) {
  const auto* host = static_cast<const JavaHost*>(context);
  callJava(host, [&](JNIEnv* env, jobject engine) {
    env->CallVoidMethod(engine, host->log, static_cast<jint>(level), bytes(env, line, length));
  });
}

void onDecision(void* context, const char* record) {
  const auto* host = static_cast<const JavaHost*>(context);
  callJava(host, [&](JNIEnv* env, jobject engine) { env->CallVoidMethod(engine, host->decision, bytes(env, record)); });
}

int64_t onSettableClock(void* context) {
  return static_cast<const JavaHost*>(context)->settableNow.load(std::memory_order_acquire);
}

int64_t onClock(void* context) {
  const auto* host = static_cast<const JavaHost*>(context);
  jlong now = 0;
  callJava(host, [&](JNIEnv* env, jobject engine) { now = env->CallLongMethod(engine, host->clock); });
  return now;
}

// Throws KltceException for a failed status; true when the call succeeded.
bool succeeded(JNIEnv* env, kltce_status status) {
  if (status == KLTCE_OK) return true;
  if (env->ExceptionCheck()) return false;
  jclass type = env->FindClass("com/kelto/kltce/KltceException");
  if (!type) return false;
  jmethodID make = env->GetMethodID(type, "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
  if (!make) return false;
  jstring name = env->NewStringUTF(kltce_status_name(status));
  // The message is UTF-8 of the engine's own words; NewStringUTF reads it as such.
  jstring message = env->NewStringUTF(kltce_last_error());
  if (!name || !message) return false;
  if (auto error = static_cast<jthrowable>(env->NewObject(type, make, name, message))) env->Throw(error);
  return false;
}

// A Java byte[] as a NUL-terminated text; absent for null.
class Text {
 public:
  Text(JNIEnv* env, jbyteArray array) {
    if (!array) return;
    const jsize length = env->GetArrayLength(array);
    text_.resize(static_cast<std::size_t>(length));
    env->GetByteArrayRegion(array, 0, length, reinterpret_cast<jbyte*>(text_.data()));
    present_ = true;
  }
  const char* get() const { return present_ ? text_.c_str() : nullptr; }

 private:
  std::string text_;
  bool present_ = false;
};

kltce_engine* engineOf(jlong handle) { return reinterpret_cast<kltce_engine*>(handle); }

// The text a call handed out, as byte[] (null for none), freed here.
jbyteArray takeText(JNIEnv* env, char* text) {
  jbyteArray out = text ? bytes(env, text) : nullptr;
  kltce_string_free(text);
  return out;
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nCreate(JNIEnv* env, jobject self, jbyteArray storePath,
                                                            jbyteArray deviceModel, jboolean firstSession,
                                                            jbyteArray appVersion, jbyteArray timeZone, jint clock,
                                                            jlong startMillis, jboolean virtualTimers, jboolean log, jint logLevel,
                                                            jboolean dispatch, jboolean drained, jlongArray made) {
  auto* host = new (std::nothrow) JavaHost;
  if (!host) {
    succeeded(env, KLTCE_ERROR_OUT_OF_MEMORY);
    return;
  }
  jclass type = env->GetObjectClass(self);
  env->GetJavaVM(&host->vm);
  host->dispatch = env->GetMethodID(type, "fromNativeDispatch", "([B[BJ)V");
  host->log = env->GetMethodID(type, "fromNativeLog", "(I[B)V");
  host->decision = env->GetMethodID(type, "fromNativeDecision", "([B)V");
  host->clock = env->GetMethodID(type, "fromNativeClock", "()J");
  host->engine = env->NewWeakGlobalRef(self);
  if (env->ExceptionCheck() || !host->engine) {
    delete host;
    return;
  }
  const Text store(env, storePath), model(env, deviceModel), version(env, appVersion), zone(env, timeZone);
  kltce_config config;
  kltce_config_init(&config);
  config.store_path = store.get();
  config.device_model = model.get();
  config.first_session = firstSession;
  config.app_version = version.get();
  config.time_zone = zone.get();
  host->settableNow.store(startMillis);
  if (clock != 0) {
    config.clock = clock == 2 ? onSettableClock : onClock;  // 1: the host's LongSupplier; 2: a clock it sets
    config.clock_context = host;
    config.virtual_timers = virtualTimers;
  }
  if (log) {
    config.log = onLog;
    config.log_context = host;
  }
  config.log_level = logLevel;
  if (dispatch) {
    config.dispatch = onDispatch;
    config.dispatch_context = host;
  }
  config.queue = drained ? KLTCE_QUEUE_DRAINED : KLTCE_QUEUE_THREAD;
  kltce_engine* engine = nullptr;
  if (!succeeded(env, kltce_engine_create(&config, &engine))) {
    env->DeleteWeakGlobalRef(host->engine);
    delete host;
    return;
  }
  const jlong out[2] = {reinterpret_cast<jlong>(engine), reinterpret_cast<jlong>(host)};
  env->SetLongArrayRegion(made, 0, 2, out);
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nFree(JNIEnv* env, jclass, jlong handle, jlong hostHandle) {
  kltce_engine_destroy(engineOf(handle));  // closes it first when still open; no callback after
  auto* host = reinterpret_cast<JavaHost*>(hostHandle);
  env->DeleteWeakGlobalRef(host->engine);
  delete host;
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nSetTime(JNIEnv*, jclass, jlong hostHandle, jlong millis) {
  reinterpret_cast<JavaHost*>(hostHandle)->settableNow.store(millis, std::memory_order_release);
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nParse(JNIEnv* env, jobject, jlong handle, jbyteArray document) {
  succeeded(env, kltce_engine_parse(engineOf(handle), Text(env, document).get()));
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nDeliver(JNIEnv* env, jobject, jlong handle, jlong code, jbyteArray name,
                                                             jbyteArray attributes) {
  if (code < 0) {
    env->ThrowNew(env->FindClass("java/lang/IllegalArgumentException"), "an event code is 0 or more");
    return;
  }
  succeeded(env, kltce_engine_deliver_event(engineOf(handle), static_cast<unsigned long>(code), Text(env, name).get(),
                                            Text(env, attributes).get()));
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nCountDisplay(JNIEnv* env, jobject, jlong handle, jbyteArray id) {
  succeeded(env, kltce_engine_count_display(engineOf(handle), Text(env, id).get()));
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nMerge(JNIEnv* env, jobject, jlong handle, jint which, jbyteArray json) {
  static constexpr kltce_status (*kSetters[])(kltce_engine*, const char*) = {
      kltce_engine_set_user_attributes, kltce_engine_set_session_attributes, kltce_engine_set_user_custom_info,
      kltce_engine_set_session_custom_info};
  if (which < 0 || which > 3) return;
  succeeded(env, kSetters[which](engineOf(handle), Text(env, json).get()));
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nNewSession(JNIEnv* env, jobject, jlong handle, jbyteArray attributes,
                                                                jbyteArray customInfo, jboolean firstSession) {
  succeeded(env, kltce_engine_new_session(engineOf(handle), Text(env, attributes).get(), Text(env, customInfo).get(),
                                          firstSession));
}

JNIEXPORT jbyteArray JNICALL Java_com_kelto_kltce_Engine_nReplaceMacros(JNIEnv* env, jobject, jlong handle, jbyteArray text) {
  char* filled = nullptr;
  if (!succeeded(env, kltce_engine_replace_macros(engineOf(handle), Text(env, text).get(), &filled))) return nullptr;
  return takeText(env, filled);
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nSetDecisions(JNIEnv* env, jobject, jlong handle, jlong host,
                                                                  jboolean on) {
  succeeded(env, kltce_engine_set_decision_callback(engineOf(handle), on ? onDecision : nullptr,
                                                    reinterpret_cast<void*>(host)));
}

JNIEXPORT jbyteArray JNICALL Java_com_kelto_kltce_Engine_nCheck(JNIEnv* env, jobject, jlong handle, jbyteArray document) {
  char* findings = nullptr;
  if (!succeeded(env, kltce_engine_check(engineOf(handle), Text(env, document).get(), &findings))) return nullptr;
  return takeText(env, findings);
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nWait(JNIEnv* env, jobject, jlong handle, jboolean drainOnly) {
  succeeded(env, drainOnly ? kltce_engine_drain(engineOf(handle)) : kltce_engine_wait_idle(engineOf(handle)));
}

JNIEXPORT void JNICALL Java_com_kelto_kltce_Engine_nClose(JNIEnv* env, jobject, jlong handle) {
  succeeded(env, kltce_engine_close(engineOf(handle)));
}

}  // extern "C"
