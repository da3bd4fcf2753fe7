// kltce fleet --compare in one process: each device replayed with two documents, the comparison
// against two plain fleet runs, its merging, and the document diff behind it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "tests/kltce_merge_rows.h"
#include "tools/kltce/analysis/check_compare.h"
#include "tools/kltce/analysis/document_diff.h"
#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/replay/replay.h"

namespace {

// "capped" shows at the first "go" unless its cap of `cap` displays is already used up by "shown"
// reports; "thrice" shows at the third "go".
std::string campaign(const std::string& id, int count, int cap) {
  return R"({"_id": ")" + id + R"(", "enabled": true, "audience": {"attributes": {"user": [], "session": []}},
   "validity": {"start_date": "2026-01-01T00:00:00Z", "end_date": "2027-12-31T23:59:59Z"},
   "frequency": {"validity": "OVERALL", "count": )" + std::to_string(cap) + R"(}, "meta": {"type": "IN_APP"},
   "conditions": [{"event_type": "app_event", "details": {"name": "go", "additional_info": {}},
   "time_bounds": {"lower": 0, "upper": 4102444800000}, "count_config": {"count": )" + std::to_string(count) +
         R"(, "operator": "GTE"}, "combine_operator": "AND",
   "trigger": {"event_type": "app_start", "details": {"additional_info": {}}}}]})";
}
KLTValue document(const std::vector<std::string>& campaigns) {
  std::string text = R"({"configs": [)";
  for (std::size_t i = 0; i < campaigns.size(); ++i) text += (i ? "," : "") + campaigns[i];
  return kltce::parseJson(text + "]}").value;
}

std::string line(const std::string& id, int second, const std::string& body) {
  return R"({"device": ")" + id + R"(", "t": "2026-11-22T09:00:)" + (second < 10 ? "0" : "") + std::to_string(second) +
         R"(Z", )" + body + "}\n";
}

// 30 devices: every third reports "capped" shown before its first "go" (so a cap of 1 blocks it),
// and they send 1 to 4 "go" events.
std::string fleet() {
  std::string out;
  for (int d = 0; d < 30; ++d) {
    const std::string id = "dev-" + std::to_string(d);
    out += R"({"device": ")" + id + R"(", "action": "profile"})" "\n";
    if (d % 3 == 0) out += line(id, 1, R"("action": "shown", "id": "capped")");
    for (int g = 0; g <= d % 4; ++g) out += line(id, 10 + g, R"("type": "app", "name": "go")");
  }
  return out;
}

struct Replayed {
  kltce::FleetResult result;
  std::string csv;
};

// compareWith: the old document of a comparison (none: a plain run); shard and pieces as in
// kltce_fleet_test.cpp; text: the fleet file.
Replayed replay(const KLTValue& doc, const std::optional<KLTValue>& compareWith, kltce::FleetPart shard = {},
                std::size_t pieces = 0, const std::string& text = fleet()) {
  kltce::FleetOptions options;
  options.document = doc;
  options.compareWith = compareWith;
  options.shard = shard;
  std::ostringstream csv;
  options.csv = &csv;
  std::istringstream in(text), probe(text);
  const kltce::FleetPieces cut{text.size(), pieces};
  std::size_t next = 0;
  if (pieces > 0) {
    options.nextRange = [&]() -> std::optional<kltce::FleetRange> {
      while (next < pieces) {
        if (const auto range = cut.range(probe, next++)) return range;
      }
      return std::nullopt;
    };
  }
  Replayed run{kltce::replayFleet(options, in), ""};
  run.csv = csv.str();
  return run;
}

const KLTValue kOld = document({campaign("capped", 1, 1), campaign("thrice", 3, 5)});

TEST(FleetCompare, ADocumentWithItselfChangesNothing) {
  const Replayed run = replay(kOld, kOld);
  ASSERT_EQ(0, run.result.exitCode) << run.result.error;
  ASSERT_TRUE(run.result.comparison);
  const KLTValue json = run.result.comparison->toJson();
  EXPECT_EQ(json["old"], json["new"]);
  EXPECT_EQ(replay(kOld, std::nullopt).result.summary.toJson(), json["new"]);
  EXPECT_EQ(30u, json["devices"].get<uint64_t>());
  for (const auto& [id, c] : json["campaigns"].items()) {
    SCOPED_TRACE(id);
    EXPECT_EQ("unchanged", c["status"]);
    EXPECT_TRUE(c["outcome_changes"].empty());
    for (const char* figure : {"devices", "admitted", "reached", "displays"}) EXPECT_EQ(0, c[figure]["difference"]) << figure;
    for (const auto& [kind, f] : c["why_not"].items()) EXPECT_EQ(0, f["difference"]) << kind;
  }
  EXPECT_EQ("", run.csv);
}

// Raising the cap turns the devices it blocked into devices reached, and nothing else; the
// comparison's two sides are the two plain runs, and its differences their subtraction.
TEST(FleetCompare, ARaisedCapShowsOnlyCapBlockedToFiredAndEqualsTwoRunsSubtracted) {
  const KLTValue raised = document({campaign("capped", 1, 2), campaign("thrice", 3, 5)});
  const Replayed run = replay(raised, kOld);
  ASSERT_EQ(0, run.result.exitCode) << run.result.error;
  const KLTValue json = run.result.comparison->toJson();
  const KLTValue plainOld = replay(kOld, std::nullopt).result.summary.toJson();
  const KLTValue plainNew = replay(raised, std::nullopt).result.summary.toJson();
  EXPECT_EQ(plainOld, json["old"]);
  EXPECT_EQ(plainNew, json["new"]);
  EXPECT_EQ(plainNew, run.result.summary.toJson());
  EXPECT_EQ(KLTValue::parse(R"({"cap_blocked -> fired": 10})"), json["campaigns"]["capped"]["outcome_changes"]);
  EXPECT_EQ("edited", json["campaigns"]["capped"]["status"]);
  EXPECT_TRUE(json["campaigns"]["thrice"]["outcome_changes"].empty());
  for (const auto& [id, c] : json["campaigns"].items()) {
    for (const char* figure : {"devices", "admitted", "reached", "displays"}) {
      SCOPED_TRACE(id + " " + figure);
      EXPECT_EQ(c[figure]["new"], plainNew["campaigns"][id][figure]);
      EXPECT_EQ(plainNew["campaigns"][id][figure].get<int64_t>() - plainOld["campaigns"][id][figure].get<int64_t>(),
                c[figure]["difference"].get<int64_t>());
    }
    const KLTValue &oldWhy = plainOld["campaigns"][id]["why_not"], &newWhy = plainNew["campaigns"][id]["why_not"];
    for (const auto& [kind, f] : c["why_not"].items()) {
      SCOPED_TRACE(id + " " + kind);
      EXPECT_EQ(newWhy.value(kind, 0) - oldWhy.value(kind, 0), f["difference"].get<int64_t>());
    }
  }
  // One CSV row per changed (device, campaign): every third device, with both explain lines.
  std::istringstream rows(run.csv);
  std::string row;
  int count = 0;
  while (std::getline(rows, row)) {
    SCOPED_TRACE(row);
    EXPECT_EQ(0u, row.find("dev-" + std::to_string(count * 3) + ",capped,cap_blocked,fired,,,0,"));
    const std::size_t oldText = row.find(",blocked by the cap: count 1 >= limit 1,");  // then the new one
    ASSERT_NE(std::string::npos, oldText);
    EXPECT_NE(std::string::npos, row.find("fired ", oldText));
    ++count;
  }
  EXPECT_EQ(10, count);
}

TEST(FleetCompare, AddedAndRemovedCampaignsAreReportedAsSuch) {
  const KLTValue edited = document({campaign("capped", 1, 1), campaign("twice", 2, 5)});
  const Replayed run = replay(edited, kOld);
  ASSERT_EQ(0, run.result.exitCode) << run.result.error;
  const KLTValue json = run.result.comparison->toJson();
  const KLTValue& campaigns = json["campaigns"];
  EXPECT_EQ("added", campaigns["twice"]["status"]);
  EXPECT_EQ("removed", campaigns["thrice"]["status"]);
  EXPECT_EQ("unchanged", campaigns["capped"]["status"]);
  // Devices with 1 to 4 "go": "twice" fires on 2 of 4, "thrice" fired on 1 of 4.
  EXPECT_EQ(KLTValue::parse(R"({"absent -> count_short": 8, "absent -> fired": 22})"), campaigns["twice"]["outcome_changes"]);
  EXPECT_EQ(KLTValue::parse(R"({"count_short -> absent": 16, "fired -> absent": 14})"), campaigns["thrice"]["outcome_changes"]);
  EXPECT_EQ(KLTValue::parse(R"({"old": 0, "new": 30, "difference": 30})"), campaigns["twice"]["devices"]);
  EXPECT_EQ(KLTValue::parse(R"({"old": 30, "new": 0, "difference": -30})"), campaigns["thrice"]["devices"]);
  EXPECT_TRUE(campaigns["capped"]["outcome_changes"].empty());
  std::ostringstream table;
  run.result.comparison->writeTable(table);
  EXPECT_NE(std::string::npos, table.str().find("campaigns: 1 added, 1 removed, 1 unchanged\n")) << table.str();
  EXPECT_NE(std::string::npos, table.str().find("\ntwice (added)")) << table.str();
  EXPECT_NE(std::string::npos, table.str().find("outcome changed on 30 devices: count_short -> absent 16, fired -> absent 14\n"))
      << table.str();
}

TEST(FleetCompare, ShardsAndPiecesMergeIntoTheWholeRun) {
  const KLTValue edited = document({campaign("capped", 1, 2), campaign("twice", 2, 5)});
  const Replayed whole = replay(edited, kOld);
  const std::string wholeJson = whole.result.comparison->toJson().dump();
  std::optional<kltce::FleetComparison> sum;
  for (uint64_t s = 0; s < 3; ++s) {
    std::string error;
    const auto part = kltce::FleetComparison::fromJson(replay(edited, kOld, {s, 3}).result.comparison->toJson(), error);
    ASSERT_TRUE(part) << error;
    if (!sum) {
      sum = part;
    } else {
      ASSERT_TRUE(sum->merge(*part, error)) << error;
    }
  }
  EXPECT_EQ(wholeJson, sum->toJson().dump());
  for (const std::size_t pieces : {std::size_t{4}, std::size_t{50}}) {
    const Replayed cut = replay(edited, kOld, {}, pieces);
    EXPECT_EQ(wholeJson, cut.result.comparison->toJson().dump()) << pieces;
    EXPECT_EQ(whole.csv, cut.csv) << pieces;
  }
  // A comparison of other documents does not merge.
  std::string error;
  EXPECT_FALSE(sum->merge(*replay(kOld, kOld).result.comparison, error));
  EXPECT_NE(std::string::npos, error.find("other documents"));
}

// A broken fleet stops a comparison at the line, with the error, a plain run names, and its CSV
// holds the rows of the devices before it, however the file is cut.
TEST(FleetCompare, AnErrorStopsItAsItStopsAPlainRun) {
  const KLTValue raised = document({campaign("capped", 1, 2), campaign("thrice", 3, 5)});
  const std::string whole = fleet();
  const std::size_t cut = whole.find(R"({"device": "dev-12", "action")");
  const std::string broken = whole.substr(0, cut) + R"({"device": "dev-5", "t": 1})" "\n" + whole.substr(cut);
  const kltce::FleetResult plain = replay(raised, std::nullopt, {}, 0, broken).result;
  ASSERT_EQ(kltce::kExitUsage, plain.exitCode);
  const Replayed before = replay(raised, kOld, {}, 0, whole.substr(0, cut));
  for (const std::size_t pieces : {std::size_t{0}, std::size_t{3}, std::size_t{40}}) {
    SCOPED_TRACE(pieces);
    const Replayed run = replay(raised, kOld, {}, pieces, broken);
    EXPECT_EQ(plain.exitCode, run.result.exitCode);
    EXPECT_EQ(plain.errorLine, run.result.errorLine);
    EXPECT_EQ(plain.error, run.result.error);
    EXPECT_EQ(before.csv, run.csv);
  }
}
TEST(FleetCompare, MergeRefusesPartsThatAreNotOfOneRun) {
  const KLTValue raised = document({campaign("capped", 1, 2), campaign("thrice", 3, 5)});
  const auto identity = [](uint64_t shard, uint64_t split, const std::string& change) {
    kltce::FleetIdentity id;
    id.document = change == "document" ? "bbbbbbbbbbbbbbbb" : "aaaaaaaaaaaaaaaa";
    id.compare = change == "old document" ? "dddddddddddddddd" : "cccccccccccccccc";
    id.fleetSize = change == "fleet" ? 101 : 100;
    id.fleetEnds = "0123456789abcdef";
    id.split = split;
    id.shards = {shard};
    if (change == "no old document") id.compare.reset();
    return id.toJson();
  };
  // A comparison's part, or with change "plain" a plain run's.
  const auto part = [&](uint64_t shard, uint64_t split, const std::string& change = "") {
    const Replayed run = replay(raised, change == "plain" ? std::nullopt : std::optional(kOld), {shard, split});
    KLTValue json = run.result.comparison ? run.result.comparison->toJson() : run.result.summary.toJson();
    json["part"] = identity(shard, split, change == "plain" ? "no old document" : change);
    return json.dump();
  };
  const std::vector<KltceMergeRow> rows = {
      {"shards of one split", {part(0, 2), part(1, 2)}, 0, R"("split": 1,)"},
      {"some shards of a split", {part(0, 3), part(2, 3)}, 0, R"("split": 3,)"},
      {"the same part twice", {part(0, 2), part(0, 2)}, 2, "part 2': it repeats a part already merged (shard 0/2)"},
      {"a whole run twice", {part(0, 1), part(0, 1)}, 2, "part 2': it repeats a part already merged (shard 0/1)"},
      {"another shard count", {part(0, 2), part(1, 3)}, 2, "part 2': it is of another split (shards of 3, not of 2"},
      {"another new document", {part(0, 2), part(1, 2, "document")}, 2, "part 2': it is of another campaign document"},
      {"another old document", {part(0, 2), part(1, 2, "old document")}, 2,
       "part 2': it compares with another old document (--compare: document dddddddddddddddd, not cccccccccccccccc)"},
      {"another fleet", {part(0, 2), part(1, 2, "fleet")}, 2, "part 2': it is of another fleet file (101 bytes, not 100"},
      {"a plain summary after a comparison", {part(0, 2), part(1, 2, "plain")}, 2, "part 2': not a comparison"},
      {"a comparison after a plain summary", {part(0, 2, "plain"), part(1, 2)}, 2,
       "part 2': it is a comparison (of --compare), the parts before it plain summaries: the two do not merge"},
      {"a comparison whose part names no old document", {part(0, 2), part(1, 2, "no old document")}, 2,
       "part 2': it is a plain summary, the parts before it comparisons (of --compare): the two do not merge"},
      {"no part", {replay(raised, kOld).result.comparison->toJson().dump()}, 2, "part 1': \"part\" must say which run"},
  };
  expectMergeRows(rows);
}

TEST(DocumentDiff, ChangesArePointersWithBothValues) {
  struct Row {
    const char* name;
    const char* before;
    const char* after;
    std::vector<std::string> changes;  // "path: old -> new", "-" for absent
  } rows[] = {
      {"same", R"({"a": [1, {"b": 2}]})", R"({"a": [1, {"b": 2}]})", {}},
      {"a value", R"({"a": {"b": 2}})", R"({"a": {"b": 3}})", {"/a/b: 2 -> 3"}},
      {"a type", R"({"a": {"b": 2}})", R"({"a": [2]})", {"/a: {\"b\":2} -> [2]"}},
      {"keys added and removed", R"({"a": 1, "b": 2})", R"({"c": 3, "a": 1})", {"/c: - -> 3", "/b: 2 -> -"}},
      {"a list grown", R"({"a": [1]})", R"({"a": [0, 2, 3]})", {"/a/0: 1 -> 0", "/a/1: - -> 2", "/a/2: - -> 3"}},
      {"a list shrunk", R"({"a": [1, 2]})", R"({"a": [1]})", {"/a/1: 2 -> -"}},
      {"keys escaped", R"({"a/b": 1, "c~": 1})", R"({"a/b": 2, "c~": null})", {"/a~1b: 1 -> 2", "/c~0: 1 -> null"}},
  };
  const auto text = [](const std::optional<KLTValue>& v) { return v ? v->dump() : std::string("-"); };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> changes;
    for (const auto& c : kltce::diffValues(KLTValue::parse(row.before), KLTValue::parse(row.after))) {
      changes.push_back(c.path + ": " + text(c.before) + " -> " + text(c.after));
    }
    EXPECT_EQ(row.changes, changes);
  }
}

TEST(DocumentDiff, CampaignsAreMatchedById) {
  const KLTValue before = KLTValue::parse(R"({"configs": [{"_id": "a", "x": 1}, {"_id": "b"}, {"x": 9}, {"_id": "c", "x": 1},
                                                         {"_id": "c", "x": 2}]})");
  const KLTValue after = KLTValue::parse(R"({"configs": [{"_id": "d"}, {"_id": "c", "x": 1}, {"_id": "a", "x": 2}]})");
  std::vector<std::string> got;
  for (const auto& d : kltce::diffDocuments(before, after)) {
    got.push_back(d.id + " " + std::string(kltce::campaignStatusName(d.status)) + " " +
                  (d.oldIndex ? std::to_string(*d.oldIndex) : "-") + " " + (d.newIndex ? std::to_string(*d.newIndex) : "-") +
                  " " + std::to_string(d.changes.size()));
  }
  // The campaign without an _id is not matched; a repeated _id compares its first campaign.
  EXPECT_EQ((std::vector<std::string>{"a edited 0 2 1", "b removed 1 - 0", "c unchanged 3 1 0", "d added - 0 0"}), got);
}

TEST(CheckCompare, SaysWhatChangedAndWhetherTheProfileStillAdmitsIt) {
  // "v" wants app 2.0 in the old document and 3.0 in the new; "gone" and "new" are of one only.
  KLTValue versioned = KLTValue::parse(campaign("v", 1, 1));
  versioned["audience"]["ver"] = {{"val", "2.0"}, {"op", "GTE"}};
  const KLTValue before = document({campaign("gone", 1, 1), versioned.dump()});
  versioned["audience"]["ver"]["val"] = "3.0";
  KLTValue disabled = KLTValue::parse(campaign("new", 1, 1));
  disabled["enabled"] = false;
  kltce::CheckOptions options;
  options.document = document({versioned.dump(), disabled.dump()});
  options.profile.appVersion = "2.4.1";
  std::ostringstream out, err;
  ASSERT_EQ(0, kltce::runCheckCompare(options, before, out, err)) << err.str();
  const std::string text = out.str();
  EXPECT_NE(std::string::npos, text.find("gone: removed from configs[0]; was admitted\n")) << text;
  EXPECT_NE(std::string::npos, text.find("new: added as configs[1]; rejected (enabled")) << text;
  EXPECT_NE(std::string::npos, text.find("v: edited, moved from configs[1] to configs[0]; admitted -> rejected (version")) << text;
  EXPECT_NE(std::string::npos, text.find("\n  /audience/ver/val: \"2.0\" -> \"3.0\"\n")) << text;
  EXPECT_NE(std::string::npos, text.find("3 campaigns: 1 added, 1 removed, 1 edited, 0 unchanged; admission on this profile changed for 1\n"))
      << text;
  options.json = true;
  std::ostringstream json;
  ASSERT_EQ(0, kltce::runCheckCompare(options, before, json, err));
  const KLTValue report = KLTValue::parse(json.str());
  EXPECT_EQ(1, report["admission_changed"]);
  EXPECT_EQ(KLTValue::parse(R"([{"path": "/audience/ver/val", "old": "2.0", "new": "3.0"}])"), report["campaigns"][2]["changes"]);
  EXPECT_EQ(false, report["campaigns"][2]["new_admission"]["admitted"]);
  EXPECT_EQ("version", report["campaigns"][2]["new_admission"]["reason"]["step"]);
  EXPECT_EQ(2, kltce::runCheckCompare(options, KLTValue::array(), json, err));
}

}  // namespace
