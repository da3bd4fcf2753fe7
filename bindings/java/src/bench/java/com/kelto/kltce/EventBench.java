package com.kelto.kltce;

import com.google.gson.JsonObject;
import com.google.gson.JsonParser;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * One host event through the Java binding, timed with plain loops (no harness): the Java side of
 * bench/capi_bench.cpp, on the realistic input that `gen_realistic --out DIR --events 20000` writes
 * (the document, profile and stream BM_Cxx_Event/1000 and BM_C_Event/1000 build in memory).
 *
 * <p>As there: each repetition a fresh engine on a drained queue with a virtual clock set to each
 * event's time and a log listener that drops its lines; the host reports each display it is asked
 * for; each batch delivers 64 events in stream order, drains, reports the displays and drains
 * again (300 batches: the same 19,200 events as there). Prints the median and spread of the CPU
 * time per event over the repetitions (the first, which warms the JIT up, left out).
 *
 * <p>Usage: java -Dkltce.jni.library=LIB -cp kltce.jar:kltce-bench.jar:gson.jar
 * com.kelto.kltce.EventBench DIR [repetitions=7] [batches per repetition=300]
 */
public final class EventBench {
  private record Event(long millis, long code, String name, String attributes) {}

  public static void main(String[] args) throws Exception {
    Path dir = Path.of(args[0]);
    int repetitions = args.length > 1 ? Integer.parseInt(args[1]) : 7;
    int batches = args.length > 2 ? Integer.parseInt(args[2]) : 300;
    JsonObject profile = JsonParser.parseString(Files.readString(dir.resolve("realistic-profile.json"))).getAsJsonObject();
    List<Event> events = new ArrayList<>();
    for (String text : Files.readAllLines(dir.resolve("realistic-events.jsonl"))) {
      JsonObject line = JsonParser.parseString(text).getAsJsonObject();
      if (!line.has("type")) continue;
      String type = line.get("type").getAsString();
      long code = switch (type) {
        case "activity" -> 1;
        case "presence" -> 3;
        case "app" -> 4;
        default -> 5;
      };
      events.add(new Event(line.get("t").getAsLong(), code, line.has("name") ? line.get("name").getAsString() : null,
          line.has("attributes") ? line.get("attributes").toString() : null));
    }
    var bean = java.lang.management.ManagementFactory.getThreadMXBean();
    double[] perEvent = new double[repetitions + 1];  // the first repetition warms the JIT up
    for (int r = 0; r <= repetitions; ++r) {
      List<String> shown = new ArrayList<>();
      try (Engine engine = Engine.builder()
          .appVersion(profile.get("app_version").getAsString())
          .deviceModel(profile.get("device_model").getAsString())
          .timeZone(profile.get("time_zone").getAsString())
          .settableClock(events.get(0).millis())
          .log((level, line) -> {}, 2)
          .dispatch(e -> {
            String info = e.infoJson();  // {"id":"rc-12",...}: the engine writes the id first
            int start = info.indexOf("\"id\":\"") + 6;
            shown.add(info.substring(start, info.indexOf('"', start)));
          })
          .drainedQueue(true)
          .build()) {
        engine.setUserAttributes(profile.getAsJsonObject("user").get("attributes").toString());
        engine.setSessionAttributes(profile.getAsJsonObject("session").get("attributes").toString());
        engine.parse(Files.readString(dir.resolve("realistic-campaigns.json")));
        engine.drain();
        int next = 0;
        long start = bean.getCurrentThreadCpuTime();
        for (int b = 0; b < batches; ++b) {
          for (int i = 0; i < 64; ++i) {
            Event e = events.get(next);
            next = (next + 1) % events.size();
            engine.setTimeMillis(e.millis());
            engine.deliverEvent(e.code(), e.name(), e.attributes());
          }
          engine.drain();
          for (String id : shown) engine.countDisplay(id);
          shown.clear();
          engine.drain();
        }
        perEvent[r] = (bean.getCurrentThreadCpuTime() - start) / (batches * 64.0);
      }
    }
    double[] measured = Arrays.copyOfRange(perEvent, 1, perEvent.length);
    Arrays.sort(measured);
    double mean = Arrays.stream(measured).average().orElse(0);
    double cv = Math.sqrt(Arrays.stream(measured).map(x -> (x - mean) * (x - mean)).sum() / measured.length) / mean;
    System.out.printf("java event: median %.0f ns CPU per event, cv %.1f %%, %d repetitions of %d events%n",
        measured[measured.length / 2], 100 * cv, repetitions, batches * 64);
  }
}
