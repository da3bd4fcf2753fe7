package com.kelto.kltce;

/** A call the engine refused: its status (the C interface's kltce_status name) and message. */
public final class KltceException extends RuntimeException {
  private static final long serialVersionUID = 1L;
  private final String status;

  public KltceException(String status, String message) {
    super(status + ": " + message);
    this.status = status;
  }

  /** The status name, such as "KLTCE_ERROR_CLOSED" or "KLTCE_ERROR_INVALID_JSON". */
  public String status() {
    return status;
  }
}
