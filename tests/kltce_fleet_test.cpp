// kltce fleet in one process: the fleet file's order rules, fresh devices, mergeable sums.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "tests/kltce_merge_rows.h"
#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/fleet/fleet_input.h"
#include "tools/kltce/input/json_text.h"

namespace {

using kltce::FleetPart;

// One campaign per audience check, each firing at its first "go" event.
constexpr const char* kDocument = R"({"configs": [
  {"_id": "hw", "enabled": true, "audience": {"hw": {"val": "Pixel 7"}, "attributes": {"user": [], "session": []}},
   "validity": {"start_date": "2026-01-01T00:00:00Z", "end_date": "2027-12-31T23:59:59Z"}, "frequency": {"validity": "OVERALL", "count": 5},
   "meta": {"type": "IN_APP"}, "conditions": [{"event_type": "app_event", "details": {"name": "go", "additional_info": {}},
   "time_bounds": {"lower": 0, "upper": 4102444800000}, "count_config": {"count": 2, "operator": "GTE"}, "combine_operator": "AND",
   "trigger": {"event_type": "app_start", "details": {"additional_info": {}}}}]}]})";

// pieces: replayed as that many pieces of the file, one after another, as a worker takes them;
// csv: the rows, when given.
kltce::FleetResult replay(const std::string& fleet, FleetPart shard = {}, std::size_t pieces = 0, std::ostream* csv = nullptr) {
  kltce::FleetOptions options;
  options.document = kltce::parseJson(kDocument).value;
  options.shard = shard;
  options.csv = csv;
  std::istringstream in(fleet);
  std::istringstream probe(fleet);
  const kltce::FleetPieces cut{fleet.size(), pieces};
  std::size_t next = 0;
  if (pieces > 0) {
    options.nextRange = [&]() -> std::optional<kltce::FleetRange> {
      while (next < pieces) {
        if (const auto range = cut.range(probe, next++)) return range;
      }
      return std::nullopt;
    };
  }
  return kltce::replayFleet(options, in);
}

std::string profile(const std::string& id, const std::string& keys = "") {
  return R"({"device": ")" + id + R"(", "action": "profile")" + keys + "}\n";
}
std::string go(const std::string& id, int second) {
  return R"({"device": ")" + id + R"(", "t": "2026-11-22T09:00:)" + (second < 10 ? "0" : "") + std::to_string(second) +
         R"(Z", "type": "app", "name": "go"})" + "\n";
}

TEST(FleetReplay, EachDeviceIsFreshAndOrderErrorsNameTheLine) {
  const std::string model = R"(, "device_model": "Pixel 7")";
  struct Row {
    const char* name;
    std::string fleet;
    std::string summary;  // compact JSON of the "hw" campaign, or the error
  } rows[] = {
      // The second device has no model: the host's own, not the first device's; its one "go"
      // must not add to the first device's count.
      {"model and counts do not carry over", profile("a", model) + go("a", 1) + profile("b") + go("b", 2) + profile("c", model) + go("c", 3) + go("c", 9),
       R"({"admitted":2,"devices":3,"displays":1,"reached":1,"rejected":{"hardware":1},"first_display_seconds":{"median":6,"p90":6,"counts":{"6":1}},"why_not":{"count_short":1,"rejected":1}})"},
      {"lines of a device interleaved", profile("a") + profile("b") + go("a", 1), "line 3: device 'a' begins without its profile line"},
      {"no profile line", go("a", 1), "line 1: device 'a' begins without its profile line"},
      {"second profile line", profile("a") + go("a", 1) + profile("a"), "line 3: a second profile line for device 'a'"},
      {"no device", profile("a") + "{\"type\": \"app\", \"name\": \"go\"}\n", "line 2: a fleet line needs \"device\""},
      {"not JSON", profile("a") + "{\"device\": 1\n", "line 2: not valid JSON"},
      {"bad profile", profile("a", R"(, "first_session": "no")"), "line 1: device 'a': profile: \"first_session\" must be true or false"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const kltce::FleetResult r = replay(row.fleet);
    if (r.exitCode == 0) {
      KLTValue hw = r.summary.toJson()["campaigns"]["hw"];
      hw.erase("displays_per_reached");
      EXPECT_EQ(nlohmann::json::parse(row.summary), nlohmann::json::parse(hw.dump()));
    } else {
      EXPECT_EQ(kltce::kExitUsage, r.exitCode);
      EXPECT_EQ(0u, ("line " + std::to_string(r.errorLine) + ": " + r.error).find(row.summary)) << r.error;
    }
  }
}

TEST(FleetReplay, ShardsAddUpToTheWhole) {
  std::string fleet;
  for (int d = 0; d < 24; ++d) {
    const std::string id = "dev-" + std::to_string(d);
    fleet += profile(id, d % 2 ? R"(, "device_model": "Pixel 7")" : "") + go(id, d % 7) + go(id, 20 + d);
  }
  const std::string whole = replay(fleet).summary.toJson().dump();
  for (const uint64_t shards : {1, 2, 3, 5}) {
    SCOPED_TRACE(std::to_string(shards) + " shards");
    kltce::FleetSummary sum;
    uint64_t devices = 0;
    for (uint64_t s = 0; s < shards; ++s) {
      const kltce::FleetSummary part = replay(fleet, {s, shards}).summary;
      devices += part.devices();
      std::string error;
      sum.merge(*kltce::FleetSummary::fromJson(part.toJson(), error));  // through JSON, as merge reads it
    }
    EXPECT_EQ(24u, devices);
    EXPECT_EQ(whole, sum.toJson().dump());
  }
}

// However the file is cut, the devices and their rows are those of the whole, and an error names
// the same line.
TEST(FleetReplay, PiecesOfTheFileAddUpToTheWhole) {
  std::string fleet;
  for (int d = 0; d < 24; ++d) {
    const std::string id = "dev-" + std::to_string(d);
    fleet += profile(id, d % 2 ? R"(, "device_model": "Pixel 7")" : "") + go(id, d % 7) + (d % 5 ? "\n" : "") + go(id, 20 + d);
  }
  std::ostringstream wholeCsv;
  const std::string whole = replay(fleet, {}, 0, &wholeCsv).summary.toJson().dump();
  const std::string broken = fleet + profile("late") + go("dev-3", 1) + fleet;
  const kltce::FleetResult wholeError = replay(broken);
  ASSERT_NE(0u, wholeError.errorLine);
  for (const std::size_t pieces : {std::size_t{1}, std::size_t{7}, std::size_t{60}, fleet.size()}) {
    SCOPED_TRACE(std::to_string(pieces) + " pieces");
    std::ostringstream csv;
    EXPECT_EQ(whole, replay(fleet, {}, pieces, &csv).summary.toJson().dump());
    EXPECT_EQ(wholeCsv.str(), csv.str());
    const kltce::FleetResult error = replay(broken, {}, pieces);
    EXPECT_EQ(wholeError.errorLine, error.errorLine);
    EXPECT_EQ(wholeError.error, error.error);
  }
}

TEST(FleetSummary, QuantilesAreNearestRankOverExactCounts) {
  struct Row {
    std::map<int64_t, uint64_t> counts;
    std::optional<int64_t> median, p90;
  } rows[] = {
      {{}, std::nullopt, std::nullopt},
      {{{7, 1}}, 7, 7},
      {{{1, 1}, {2, 1}}, 1, 2},
      {{{1, 5}, {2, 4}, {60, 1}}, 1, 2},
      {{{1, 5}, {2, 3}, {60, 2}}, 1, 60},
  };
  for (const Row& row : rows) {
    kltce::CampaignTally t;
    t.firstDisplaySeconds = row.counts;
    SCOPED_TRACE(row.counts.size());
    EXPECT_EQ(row.median, t.firstDisplayQuantile(0.5));
    EXPECT_EQ(row.p90, t.firstDisplayQuantile(0.9));
  }
}

TEST(FleetSummary, MergeRefusesWhatIsNotASummary) {
  const char* rows[] = {
      R"([])",
      R"({"devices": -1, "lines": 0, "events": 0, "bad_lines": 0, "campaigns": {}})",
      R"({"devices": 1, "lines": 0, "events": 0, "bad_lines": 0})",
      R"({"devices": 1, "lines": 0, "events": 0, "bad_lines": 0, "campaigns": {"x": {"devices": 1, "admitted": 1, "reached": 0,
          "displays": 0, "rejected": {}, "why_not": {}, "first_display_seconds": {"counts": {"1.5": 1}}}}})",
      R"({"devices": 1, "lines": 0, "events": 0, "bad_lines": 0, "campaigns": {"x": {"devices": 1, "admitted": 1, "reached": 0,
          "displays": 0, "rejected": {"v": "1"}, "why_not": {}, "first_display_seconds": {"counts": {}}}}})",
  };
  for (const char* row : rows) {
    SCOPED_TRACE(row);
    std::string error;
    EXPECT_FALSE(kltce::FleetSummary::fromJson(KLTValue::parse(row), error));
    EXPECT_FALSE(error.empty());
  }
}

TEST(FleetInput, DeviceIdWithoutParsingOnlyWhenPlain) {
  const std::pair<const char*, std::optional<std::string_view>> rows[] = {
      {R"({"device":"d1","t":1})", "d1"},
      {R"(  { "device" : "a b" })", "a b"},
      {R"({"t":1,"device":"d1"})", std::nullopt},
      {R"({"device":"d\"1"})", std::nullopt},
      {R"({"device":""})", std::nullopt},
      {R"({"device":"d1)", std::nullopt},
      {R"({"device":1})", std::nullopt},
  };
  for (const auto& [line, id] : rows) EXPECT_EQ(id, kltce::leadingDeviceId(line)) << line;
}

TEST(FleetInput, RangesBeginWhereTheLeadingDeviceChanges) {
  const std::string lines[] = {profile("a"), go("a", 1), profile("b"), "\n", profile("c"), R"({"device": "c\u0031"})" "\n",
                               profile("e"), profile("f").insert(profile("f").size() - 1, "\r"), profile("g")};
  std::string text;
  std::vector<uint64_t> at;  // where each line starts
  for (const std::string& line : lines) {
    at.push_back(text.size());
    text += line;
  }
  const uint64_t end = text.size();
  const struct {
    uint64_t from, to;
    std::optional<uint64_t> start;
  } rows[] = {
      {0, end, 0},
      {1, end, at[2]},               // b after a
      {at[1], end, at[2]},           // a line starting at `from` may be the one before
      {at[1], at[2], std::nullopt},  // the start must come before `to`
      {at[2], at[7], std::nullopt},  // next to a blank line, or to an id read only by parsing
      {at[2], end, at[7]},           // a line ending "\r\n" reads as any other
      {at[8], end, std::nullopt},
  };
  std::istringstream in(text);
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.from) + ".." + std::to_string(row.to));
    EXPECT_EQ(row.start, kltce::fleetRangeStart(in, row.from, row.to));
  }
}

TEST(FleetInput, ShardsAreReadAsIOfN) {
  const std::pair<const char*, std::optional<std::pair<uint64_t, uint64_t>>> rows[] = {
      {"0/1", std::pair<uint64_t, uint64_t>{0, 1}}, {"3/4", std::pair<uint64_t, uint64_t>{3, 4}},
      {"4/4", std::nullopt}, {"1/0", std::nullopt}, {"1", std::nullopt}, {"-1/2", std::nullopt}, {"1/2x", std::nullopt}};
  for (const auto& [text, expected] : rows) {
    const auto p = kltce::parseFleetPart(text);
    EXPECT_EQ(expected.has_value(), p.has_value()) << text;
    if (p && expected) {
      EXPECT_EQ(*expected, std::make_pair(p->index, p->count)) << text;
    }
  }
}

}  // namespace

namespace {

// `kltce fleet merge` adds up the parts of one run only. Each part is a summary with its "part";
// the rows name the parts (by a short form) and what the merge must say.
TEST(FleetMerge, RefusesPartsThatAreNotOfOneRun) {
  const auto part = [](const std::string& shards, uint64_t split, const std::string& change = "",
                       const std::string& devices = "1", const std::string& reached = "1") {
    std::string doc = "aaaaaaaaaaaaaaaa", size = "100", shown = "false";
    if (change == "document") doc = "bbbbbbbbbbbbbbbb";
    if (change == "fleet") size = "101";
    if (change == "options") shown = "true";
    return R"({"devices": )" + devices + R"(, "lines": 2, "events": 1, "bad_lines": 0, "campaigns": {"c": {"devices": 1,
      "admitted": 1, "rejected": {}, "reached": )" + reached + R"(, "displays": 1, "first_display_seconds": {"counts": {"3": 1}},
      "why_not": {}}}, "part": {"document": ")" + doc + R"(", "fleet": {"size": )" + size + R"(, "ends": "0123456789abcdef"},
      "state": null, "auto_shown": )" + shown + R"(, "split": )" + std::to_string(split) + R"(, "shards": [)" + shards + "]}}";
  };
  const std::string max = "18446744073709551615";
  const std::vector<KltceMergeRow> rows = {
      {"shards of one split", {part("0", 2), part("1", 2)}, 0, R"("split": 1,)"},
      {"some shards of a split", {part("0", 3), part("2", 3)}, 0, R"("split": 3,)"},
      {"the same part twice", {part("0", 2), part("0", 2)}, 2, "part 2': it repeats a part already merged (shard 0/2)"},
      {"a whole run twice", {part("0", 1), part("0", 1)}, 2, "part 2': it repeats a part already merged (shard 0/1)"},
      {"a run and one of its shards", {part("0", 1), part("1", 2)}, 2, "part 2': it is of another split"},
      {"mixed splits", {part("0", 2), part("1", 2), part("0", 3)}, 2, "part 3': it is of another split (shards of 3, not of 2"},
      {"overlapping parts", {part("0, 1", 3), part("1, 2", 3)}, 2, "part 2': it overlaps a part already merged (shard 1/3)"},
      {"another document", {part("0", 2), part("1", 2, "document")}, 2, "part 2': it is of another campaign document"},
      {"another fleet", {part("0", 2), part("1", 2, "fleet")}, 2, "part 2': it is of another fleet file (101 bytes, not 100"},
      {"other options", {part("0", 2), part("1", 2, "options")}, 2, "part 2': it was run with other options"},
      {"counts that wrap", {part("0", 2, "", max), part("1", 2)}, 2, "part 2': its counts added to the others' would pass"},
      {"reached above devices", {part("0", 2, "", "1", "2")}, 2, "part 1': campaign \"c\": the counts do not add up"},
      {"no part", {R"({"devices": 0, "lines": 0, "events": 0, "bad_lines": 0, "campaigns": {}})"}, 2,
       "part 1': \"part\" must say which run"},
  };
  expectMergeRows(rows);
}

}  // namespace

namespace {

// A stream that counts what is asked of it: the calls that fetch more bytes, and the bytes given.
class CountingBuf final : public std::stringbuf {
 public:
  explicit CountingBuf(const std::string& text) : std::stringbuf(text) {}
  uint64_t fetches = 0, bytes = 0;

 protected:
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    ++fetches;
    const std::streamsize got = std::stringbuf::xsgetn(s, n);
    bytes += static_cast<uint64_t>(got);
    return got;
  }
};

// A line of 4 MiB: BlockLines reads it in a number of fetches that grows with the log of its
// length, and a piece of the file inside it reads no more than its own bytes, so that every
// piece of a long line together cost one reading of it, whatever the number of workers.
TEST(FleetInput, LongLinesCostTheirLength) {
  const std::string longLine = R"({"device": "a", "t": 1, "type": "app", "name": ")" + std::string(4 << 20, 'x') + "\"}\n";
  const std::string text = profile("a") + longLine + profile("b");
  {
    CountingBuf buf(text);
    std::istream in(&buf);
    kltce::BlockLines lines(in, UINT64_MAX, 1024);
    std::vector<std::size_t> sizes;
    for (std::string_view line; lines.next(line);) sizes.push_back(line.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{profile("a").size() - 1, longLine.size() - 1, profile("b").size() - 1}));
    EXPECT_LE(buf.fetches, 20u) << "a line longer than the block must not be fetched a block at a time";
  }
  const uint64_t lineStart = profile("a").size(), lineEnd = lineStart + longLine.size();
  const struct {
    uint64_t from, to;
    std::optional<uint64_t> start;
  } rows[] = {
      {lineStart + 1000, lineStart + 9000, std::nullopt},         // inside the line
      {lineEnd - 4000, lineEnd + 10, std::nullopt},               // the end of it: b's line follows one before the piece
      {lineStart, lineEnd + 10, lineEnd},                         // the whole line: b's begins after it
      {lineStart - 10, lineStart + 100000, std::nullopt},         // the long line is a's
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.from) + ".." + std::to_string(row.to));
    CountingBuf buf(text);
    std::istream in(&buf);
    EXPECT_EQ(row.start, kltce::fleetRangeStart(in, row.from, row.to));
    // The piece's bytes, and the beginning of a line starting in it, read whole or in one block.
    EXPECT_LE(buf.bytes, row.to - row.from + 1 + (row.from < lineStart ? longLine.size() : 0) + 64 * 1024);
  }
}

}  // namespace
