package com.kelto.kltce;

/**
 * A display event the engine asks the host to show: its class ("KLTInAppEvent", "KLTSurveyEvent",
 * "KLTInlineEvent"), its info as compact JSON, and the engine's time of dispatch. Immutable.
 */
public final class DisplayEvent {
  private final String className;
  private final String infoJson;
  private final long timeMillis;

  public DisplayEvent(String className, String infoJson, long timeMillis) {
    this.className = className;
    this.infoJson = infoJson;
    this.timeMillis = timeMillis;
  }

  public String className() {
    return className;
  }

  /** The info as compact JSON, such as {"id":"welcome_offer","type":"IN_APP"}. */
  public String infoJson() {
    return infoJson;
  }

  /** Milliseconds since the Unix epoch on the engine's clock. */
  public long timeMillis() {
    return timeMillis;
  }

  @Override
  public String toString() {
    return className + " " + infoJson + " at " + timeMillis;
  }
}
