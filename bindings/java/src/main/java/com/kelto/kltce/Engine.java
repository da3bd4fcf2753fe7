package com.kelto.kltce;

import java.lang.ref.Cleaner;
import java.nio.charset.StandardCharsets;
import java.util.function.Consumer;
import java.util.function.LongSupplier;

/**
 * One campaign engine over an environment of its own (counters, clock, log, app version, device,
 * user and session), through the C interface (include/kltce/kltce.h). Two engines share nothing.
 *
 * <p>Every method may be called from any thread, but {@link #close()} not from a listener. A
 * refused call throws {@link KltceException}; after {@link #close()} every call, close included,
 * throws it with status KLTCE_ERROR_CLOSED. An engine never closed is closed when collected.
 * Texts are passed as UTF-8; JSON arguments are JSON texts.
 */
public final class Engine implements AutoCloseable {
  static {
    String path = System.getProperty("kltce.jni.library");
    if (path != null) {
      System.load(java.nio.file.Path.of(path).toAbsolutePath().toString());  // load() wants an absolute path
    } else {
      System.loadLibrary("kltce_jni");
    }
  }

  private static final Cleaner CLEANER = Cleaner.create();

  /** What an engine is made with; every setting is optional. */
  public static final class Builder {
    private String storePath;
    private String deviceModel;
    private boolean firstSession;
    private String appVersion;
    private String timeZone;
    private LongSupplier clock;
    private boolean virtualTimers;
    private boolean settableClock;
    private long startMillis;
    private Listeners.LogListener log;
    private int logLevel = 2;
    private Listeners.DispatchListener dispatch;
    private boolean drainedQueue;
    private Consumer<Throwable> onListenerError = t -> t.printStackTrace();

    /** The counters' file; none: in memory only. */
    public Builder storePath(String path) { storePath = path; return this; }
    public Builder deviceModel(String model) { deviceModel = model; return this; }
    public Builder firstSession(boolean first) { firstSession = first; return this; }
    public Builder appVersion(String version) { appVersion = version; return this; }
    /** An IANA zone for daily windows; none: the process's. */
    public Builder timeZone(String zone) { timeZone = zone; return this; }
    /** Epoch milliseconds; none: the system clock. With virtual timers a timer ends at once. */
    public Builder clock(LongSupplier millis, boolean virtualTimers) {
      clock = millis;
      settableClock = false;
      this.virtualTimers = virtualTimers;
      return this;
    }
    /**
     * A clock the host sets with {@link Engine#setTimeMillis(long)}, starting at startMillis, with
     * virtual timers: the engine reads it without calling into Java (it reads the clock at every
     * counted event), which suits a host that replays recorded time.
     */
    public Builder settableClock(long startMillis) {
      clock = null;
      settableClock = true;
      virtualTimers = true;
      this.startMillis = startMillis;
      return this;
    }
    /** Log lines go to the listener (none: standard error) at the host's level (default 2). */
    public Builder log(Listeners.LogListener listener, int level) { log = listener; logLevel = level; return this; }
    public Builder dispatch(Listeners.DispatchListener listener) { dispatch = listener; return this; }
    /** The engine's work waits for {@link Engine#drain()} on the caller's thread, not a thread of its own. */
    public Builder drainedQueue(boolean drained) { drainedQueue = drained; return this; }
    /** Receives what a listener or the clock throws (default: its stack trace on standard error). */
    public Builder onListenerError(Consumer<Throwable> handler) { onListenerError = handler; return this; }

    public Engine build() {
      return new Engine(this);
    }
  }

  public static Builder builder() {
    return new Builder();
  }

  private final long handle;
  private final long host;  // the native side's state, context of every callback
  private final Builder settings;
  private volatile Listeners.DecisionListener decisions;
  private volatile long lastClock;

  private Engine(Builder b) {
    settings = b;
    long[] made = new long[2];  // the engine handle and the native host's state
    nCreate(utf8(b.storePath), utf8(b.deviceModel), b.firstSession, utf8(b.appVersion), utf8(b.timeZone),
        b.clock != null ? 1 : b.settableClock ? 2 : 0, b.startMillis, b.virtualTimers, b.log != null, b.logLevel, b.dispatch != null, b.drainedQueue, made);
    handle = made[0];
    host = made[1];
    final long engine = made[0];
    final long state = made[1];
    CLEANER.register(this, () -> nFree(engine, state));  // captures no reference to this object
  }

  /** Sets the time of a {@link Builder#settableClock(long)} clock (the engine's never goes back). */
  public void setTimeMillis(long millis) {
    nSetTime(host, millis);
  }

  /** Queues the parse of a campaign document (a JSON object with "configs"). */
  public void parse(String documentJson) { nParse(handle, utf8(documentJson)); }

  /** Delivers an event: code 1 screen, 3 presence, 4 app event, 5 client event; name and attributes may be null. */
  public void deliverEvent(long code, String name, String attributesJson) {
    nDeliver(handle, code, utf8(name), utf8(attributesJson));
  }

  /** The host showed the campaign: its display counters move. */
  public void countDisplay(String campaignId) { nCountDisplay(handle, utf8(campaignId)); }

  public void setUserAttributes(String json) { nMerge(handle, 0, utf8(json)); }
  public void setSessionAttributes(String json) { nMerge(handle, 1, utf8(json)); }
  public void setUserCustomInfo(String json) { nMerge(handle, 2, utf8(json)); }
  public void setSessionCustomInfo(String json) { nMerge(handle, 3, utf8(json)); }

  public void newSession(String attributesJson, String customInfoJson, boolean firstSession) {
    nNewSession(handle, utf8(attributesJson), utf8(customInfoJson), firstSession);
  }

  /** The text with its placeholders filled; null for an empty text. */
  public String replaceMacros(String text) { return string(nReplaceMacros(handle, utf8(text))); }

  /** Installs the decision listener (null: none), in force from the next task of the engine's queue. */
  public void setDecisionListener(Listeners.DecisionListener listener) {
    decisions = listener;
    nSetDecisions(handle, host, listener != null);
  }

  /** Each campaign's admission for this engine's device and user, as {"campaigns":[{"id","admitted","reason"}]}. */
  public String check(String documentJson) { return string(nCheck(handle, utf8(documentJson))); }

  /** Waits until every task queued so far has run (drains a drained queue on this thread). */
  public void waitUntilIdle() { nWait(handle, false); }

  /** Runs the tasks of a drained queue on this thread. */
  public void drain() { nWait(handle, true); }

  /** Runs what is queued, frees the rules and saves the counters; no listener is called afterwards. */
  @Override
  public void close() { nClose(handle); }

  // --- called by the native side; nothing thrown here reaches the engine ---

  private void fromNativeDispatch(byte[] className, byte[] info, long time) {
    try {
      settings.dispatch.onDisplay(new DisplayEvent(string(className), string(info), time));
    } catch (Throwable t) {
      report(t);
    }
  }

  private void fromNativeLog(int level, byte[] line) {
    try {
      settings.log.onLog(level, string(line));
    } catch (Throwable t) {
      report(t);
    }
  }

  private void fromNativeDecision(byte[] record) {
    Listeners.DecisionListener listener = decisions;
    if (listener == null) return;
    try {
      listener.onDecision(string(record));
    } catch (Throwable t) {
      report(t);
    }
  }

  private long fromNativeClock() {
    try {
      lastClock = settings.clock.getAsLong();
    } catch (Throwable t) {
      report(t);  // the engine reads the last good time
    }
    return lastClock;
  }

  private void report(Throwable t) {
    try {
      settings.onListenerError.accept(t);
    } catch (Throwable ignored) {
      // the error handler's own failure has nowhere else to go
    }
  }

  private static byte[] utf8(String s) {
    return s == null ? null : s.getBytes(StandardCharsets.UTF_8);
  }

  private static String string(byte[] b) {
    return b == null ? null : new String(b, StandardCharsets.UTF_8);
  }

  private native void nCreate(byte[] storePath, byte[] deviceModel, boolean firstSession, byte[] appVersion,
      byte[] timeZone, int clock, long startMillis, boolean virtualTimers, boolean log, int logLevel, boolean dispatch,
      boolean drained, long[] made);
  private static native void nFree(long handle, long host);
  private static native void nSetTime(long host, long millis);
  private native void nParse(long handle, byte[] document);
  private native void nDeliver(long handle, long code, byte[] name, byte[] attributes);
  private native void nCountDisplay(long handle, byte[] id);
  private native void nMerge(long handle, int which, byte[] json);
  private native void nNewSession(long handle, byte[] attributes, byte[] customInfo, boolean firstSession);
  private native byte[] nReplaceMacros(long handle, byte[] text);
  private native void nSetDecisions(long handle, long host, boolean on);
  private native byte[] nCheck(long handle, byte[] document);
  private native void nWait(long handle, boolean drainOnly);
  private native void nClose(long handle);
}
