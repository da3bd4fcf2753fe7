package com.kelto.kltce;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.jupiter.api.Test;

/** The binding's promises: listener failures are contained, engines stay apart, closed engines refuse. */
class EngineTest {
  static final long NINE_UTC = 1795338000000L;  // 2026-11-22T09:00:00Z

  static String homeOffer(String id) {
    return "{\"configs\":[{\"_id\":\"" + id + "\",\"prio\":1,\"enabled\":true,"
        + "\"audience\":{\"ver\":{\"val\":\"2.0\",\"op\":\"GTE\"},\"attributes\":{\"user\":[],\"session\":[]}},"
        + "\"validity\":{\"start_date\":\"2026-01-01T00:00:00Z\",\"end_date\":\"2027-12-31T23:59:59Z\"},"
        + "\"frequency\":{\"validity\":\"OVERALL\",\"count\":100},"
        + "\"conditions\":[{\"event_type\":\"activity_event\",\"activity\":\"Home\",\"details\":{\"additional_info\":{}},"
        + "\"time_bounds\":{\"lower\":1767225600000,\"upper\":1830297599000},"
        + "\"count_config\":{\"count\":1,\"operator\":\"GTE\"},\"combine_operator\":\"AND\","
        + "\"trigger\":{\"event_type\":\"app_start\",\"details\":{\"additional_info\":{}}}}],\"meta\":{\"type\":\"IN_APP\"}}]}";
  }

  static Engine.Builder quiet(List<DisplayEvent> displays, long start) {
    AtomicLong now = new AtomicLong(start);
    return Engine.builder().appVersion("2.4.1").timeZone("UTC").clock(now::get, true)
        .log((level, line) -> {}, 2).dispatch(displays::add);
  }

  @Test
  void aThrowingListenerIsReportedAndTheEngineGoesOn() {
    List<Throwable> reported = Collections.synchronizedList(new ArrayList<>());
    List<DisplayEvent> displays = Collections.synchronizedList(new ArrayList<>());
    int[] calls = {0};
    int[] reads = {0};
    // The clock answers once, then throws: the engine goes on with the last time it read.
    try (Engine engine = Engine.builder().appVersion("2.4.1").timeZone("UTC").clock(() -> {
          if (reads[0]++ > 0) throw new IllegalStateException("clock broke");
          return NINE_UTC;
        }, true)
        .log((level, line) -> { throw new IllegalStateException("log broke"); }, 2)
        .dispatch(e -> {
          displays.add(e);
          if (++calls[0] == 1) throw new IllegalStateException("dispatch broke");
        })
        .onListenerError(reported::add).drainedQueue(true).build()) {
      engine.setDecisionListener(record -> { throw new IllegalStateException("decision broke"); });
      engine.parse(homeOffer("home_offer"));
      engine.drain();
      engine.deliverEvent(1, "Home", null);
      engine.drain();
      engine.deliverEvent(1, "Home", "{}");
      engine.drain();
    }
    assertEquals(2, displays.size(), "the second dispatch still arrives");
    assertEquals(NINE_UTC, displays.get(1).timeMillis());
    List<String> messages = new ArrayList<>();
    synchronized (reported) {
      for (Throwable t : reported) messages.add(t.getMessage());
    }
    for (String m : List.of("clock broke", "log broke", "dispatch broke", "decision broke")) {
      assertTrue(messages.contains(m), m + " reported in " + messages);
    }
  }

  @Test
  void twoEnginesInTwoThreadsStayApart() throws Exception {
    List<DisplayEvent> first = Collections.synchronizedList(new ArrayList<>());
    List<DisplayEvent> second = Collections.synchronizedList(new ArrayList<>());
    Runnable[] drives = {
      () -> drive(quiet(first, NINE_UTC).build(), "alpha", 30),
      () -> drive(quiet(second, NINE_UTC + 3_600_000).build(), "beta", 20),
    };
    Thread a = new Thread(drives[0]);
    Thread b = new Thread(drives[1]);
    a.start();
    b.start();
    a.join();
    b.join();
    assertEquals(30, first.size());
    assertEquals(20, second.size());
    for (DisplayEvent e : first) {
      assertEquals("{\"id\":\"alpha\",\"type\":\"IN_APP\"}", e.infoJson());
      assertEquals(NINE_UTC, e.timeMillis());
    }
    for (DisplayEvent e : second) {
      assertEquals("{\"id\":\"beta\",\"type\":\"IN_APP\"}", e.infoJson());
      assertEquals(NINE_UTC + 3_600_000, e.timeMillis());
    }
  }

  private static void drive(Engine engine, String id, int events) {
    try (engine) {
      engine.parse(homeOffer(id));
      engine.waitUntilIdle();
      for (int i = 0; i < events; ++i) engine.deliverEvent(1, "Home", null);
      engine.waitUntilIdle();
    }
  }

  @Test
  void aSettableClockDatesTheDisplaysAndNeverGoesBack() {
    List<DisplayEvent> displays = new ArrayList<>();
    try (Engine engine = Engine.builder().appVersion("2.4.1").timeZone("UTC").settableClock(NINE_UTC)
        .log((level, line) -> {}, 2).dispatch(displays::add).drainedQueue(true).build()) {
      engine.parse(homeOffer("home_offer"));
      engine.drain();
      for (long t : new long[] {NINE_UTC + 5_000, NINE_UTC + 1_000}) {
        engine.setTimeMillis(t);
        engine.deliverEvent(1, "Home", null);
        engine.drain();
      }
    }
    assertEquals(2, displays.size());
    assertEquals(NINE_UTC + 5_000, displays.get(0).timeMillis());
    assertEquals(NINE_UTC + 5_000, displays.get(1).timeMillis(), "the engine's time does not go back");
  }

  @Test
  void aClosedEngineRefusesEveryCallWithAnException() {
    Engine engine = quiet(new ArrayList<>(), NINE_UTC).build();
    engine.close();
    List<Runnable> calls = List.of(engine::close, () -> engine.parse("{}"), () -> engine.deliverEvent(1, "Home", null),
        () -> engine.countDisplay("x"), () -> engine.setUserAttributes("{}"), () -> engine.replaceMacros("x"),
        () -> engine.check("{}"), engine::waitUntilIdle, () -> engine.newSession(null, null, false),
        () -> engine.setDecisionListener(null));
    for (Runnable call : calls) {
      KltceException e = assertThrows(KltceException.class, call::run);
      assertEquals("KLTCE_ERROR_CLOSED", e.status());
    }
  }

  @Test
  void badInputThrowsItsStatus() {
    try (Engine engine = quiet(new ArrayList<>(), NINE_UTC).build()) {
      assertEquals("KLTCE_ERROR_INVALID_JSON", assertThrows(KltceException.class, () -> engine.parse("{")).status());
      assertEquals("KLTCE_ERROR_WRONG_SHAPE", assertThrows(KltceException.class, () -> engine.parse("[]")).status());
      assertEquals("KLTCE_ERROR_INVALID_ARGUMENT", assertThrows(KltceException.class, () -> engine.parse(null)).status());
      assertEquals("KLTCE_ERROR_INVALID_ARGUMENT", assertThrows(KltceException.class, engine::drain).status());
      assertEquals("KLTCE_ERROR_WRONG_SHAPE",
          assertThrows(KltceException.class, () -> engine.deliverEvent(4, "buy", "[]")).status());
    }
  }

  @Test
  void macrosAndChecksCarryUnicodeBothWays() {
    try (Engine engine = quiet(new ArrayList<>(), NINE_UTC).appVersion("1.0").build()) {
      engine.setUserCustomInfo("{\"first_name\":\"Zoë 🐧\"}");
      assertEquals("Hi Zoë 🐧!", engine.replaceMacros("Hi [user_first_name(you)]!"));
      assertNull(engine.replaceMacros(""));
      String findings = engine.check(homeOffer("é"));
      assertTrue(findings.startsWith("{\"campaigns\":[{\"id\":\"é\",\"admitted\":false,\"reason\":{\"step\":\"version\""),
          findings);
    }
  }
}
