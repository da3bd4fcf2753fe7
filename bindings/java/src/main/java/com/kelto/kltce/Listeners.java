package com.kelto.kltce;

/**
 * The host's listeners. Dispatch and decision listeners are called on the engine's queue (its
 * worker thread, or the thread calling {@link Engine#drain()}); log listeners on any thread the
 * engine works or is called on. A listener must return quickly and must not wait for the engine.
 * What a listener throws is caught and handed to the engine's error handler; the engine goes on.
 */
public final class Listeners {
  private Listeners() {}

  /** Receives each display event. */
  @FunctionalInterface
  public interface DispatchListener {
    void onDisplay(DisplayEvent event);
  }

  /** Receives each log line that passes the level: 0 DEBUG, 1 INFO, 2 ERROR; the line ends in a newline. */
  @FunctionalInterface
  public interface LogListener {
    void onLog(int level, String line);
  }

  /** Receives each decision record as compact JSON ({"seq","kind","campaign","values","time",...}). */
  @FunctionalInterface
  public interface DecisionListener {
    void onDecision(String recordJson);
  }
}
