package com.kelto.kltce;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;

import com.google.gson.JsonElement;
import com.google.gson.JsonObject;
import com.google.gson.JsonParser;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.time.OffsetDateTime;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;

/** A Java host replays the shipped example and prints the display events kltce run prints. */
class ExampleReplayTest {
  private static final Map<String, Long> CODES = Map.of("activity", 1L, "presence", 3L, "app", 4L, "client", 5L);
  private static final DateTimeFormatter SECONDS = DateTimeFormatter.ofPattern("uuuu-MM-dd'T'HH:mm:ss");
  private static final DateTimeFormatter OFFSET = DateTimeFormatter.ofPattern("XXX");

  private final Path examples = Path.of(System.getProperty("kltce.examples", "examples"));

  /** kltce's form of an instant: local time in the zone with its offset, milliseconds only when any. */
  static String formatInstant(long millis, ZoneId zone) {
    var local = Instant.ofEpochMilli(millis).atZone(zone);
    String fraction = millis % 1000 == 0 ? "" : String.format(".%03d", Math.floorMod(millis, 1000));
    return local.format(SECONDS) + fraction + local.format(OFFSET);
  }

  static long readInstant(JsonElement t) {
    if (t.getAsJsonPrimitive().isNumber()) return t.getAsLong();
    return OffsetDateTime.parse(t.getAsString()).toInstant().toEpochMilli();
  }

  private static String member(JsonObject o, String key) {
    return o.has(key) ? o.get(key).toString() : null;
  }

  String replay() throws IOException {
    JsonObject profile = JsonParser.parseString(Files.readString(examples.resolve("profile.json"))).getAsJsonObject();
    List<String> lines = Files.readAllLines(examples.resolve("events.jsonl"), StandardCharsets.UTF_8);
    ZoneId zone = ZoneId.of(profile.get("time_zone").getAsString());
    long[] now = {readInstant(JsonParser.parseString(lines.get(0)).getAsJsonObject().get("t"))};
    int[] lineNumber = {0};
    StringBuilder out = new StringBuilder();
    try (Engine engine = Engine.builder()
            .deviceModel(profile.get("device_model").getAsString())
            .appVersion(profile.get("app_version").getAsString())
            .firstSession(profile.get("first_session").getAsBoolean())
            .timeZone(zone.getId())
            .clock(() -> now[0], true)
            .drainedQueue(true)
            .log((level, line) -> {}, 2)
            .dispatch(e -> out.append("{\"time\":\"").append(formatInstant(e.timeMillis(), zone))
                .append("\",\"class\":\"").append(e.className()).append("\",\"info\":").append(e.infoJson())
                .append(",\"line\":").append(lineNumber[0]).append("}\n"))
            .build()) {
      JsonObject user = profile.getAsJsonObject("user");
      JsonObject session = profile.getAsJsonObject("session");
      engine.setUserAttributes(member(user, "attributes"));
      engine.setUserCustomInfo(member(user, "custom_info"));
      engine.setSessionAttributes(member(session, "attributes"));
      engine.setSessionCustomInfo(member(session, "custom_info"));
      engine.parse(Files.readString(examples.resolve("campaigns.json")));
      engine.drain();
      for (String text : lines) {
        ++lineNumber[0];
        if (text.isBlank()) continue;
        JsonObject line = JsonParser.parseString(text).getAsJsonObject();
        if (line.has("t")) now[0] = readInstant(line.get("t"));
        if (line.has("type")) {
          String name = line.has("name") ? line.get("name").getAsString() : null;
          engine.deliverEvent(CODES.get(line.get("type").getAsString()), name, member(line, "attributes"));
        } else if ("shown".equals(line.get("action").getAsString())) {
          engine.countDisplay(line.get("id").getAsString());
        }
        engine.drain();
      }
    }
    return out.toString();
  }

  @Test
  void printsTheDisplayEventsKltceRunPrints() throws Exception {
    String tool = System.getProperty("kltce.tool");
    Assumptions.assumeTrue(tool != null, "the kltce tool is not built");
    Process run = new ProcessBuilder(tool, "run", "--document", examples.resolve("campaigns.json").toString(),
        "--profile", examples.resolve("profile.json").toString(), "--events",
        examples.resolve("events.jsonl").toString(), "--fresh")
        .redirectError(ProcessBuilder.Redirect.DISCARD).start();
    String expected = new String(run.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
    run.waitFor(60, TimeUnit.SECONDS);
    assertEquals(0, run.exitValue());
    assertFalse(expected.isEmpty());
    assertEquals(expected, replay());
  }
}
