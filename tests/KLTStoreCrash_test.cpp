// A writer process killed at random moments: a child counts showings through KLTCEFrequency in a
// loop, reporting each count whose save returned to it; the parent kills it with SIGKILL, reopens
// the store and checks that it opens cleanly and holds the last reported count, or one more (a
// save that reached the file just before the kill, unreported). Each save also rewrites a padding
// value of varying size tied to the count, so that a mix of two saves would show, and so that
// commits span several pages of the write-ahead log and kills land inside them.
//
// The same on a file system that fills up (a small tmpfs, mounted when the test runs as root): the
// writer's saves start failing, it keeps trying and is killed; the store then opens without being
// moved aside, holds the last acknowledged count, and takes new counts once there is room again.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEFrequency.h"
#include "platform/KLTUserDefaults.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "testsupport/KLTTestMount.h"

namespace {

constexpr char kId[] = "crash";
// Each round reopens the store twice (writer and checker); 60 keeps the test to a few seconds.
constexpr int kKills = 60;

std::string paddingFor(int64_t count) { return std::to_string(count) + std::string(static_cast<std::size_t>(count % 7) * 3000, 'x'); }

int64_t countIn(const KLTValue& map) {
  return klt::integerValue(klt::valueForKey(klt::valueForKey(map, kId), kKLTCount));
}

// Each report is one 8-byte write, below the pipe's atomic size, so a read returns whole reports.
bool readCount(int fd, int64_t& count) { return ::read(fd, &count, sizeof count) == sizeof count; }

// The child: never returns into the test framework. With untilFull, a save that fails is reported
// as -1 (once) and the writer goes on trying; otherwise a failure ends it.
[[noreturn]] void runWriter(const std::filesystem::path& path, int fd, bool untilFull = false) {
  auto log = std::make_shared<KLTCapturedLog>();
  KLTLog::setSink(log);
  LOG_LEVEL = 2;
  auto store = std::make_shared<KLTUserDefaults>(path);
  KLTUserDefaults::setStandardUserDefaults(store);
  KLTCEFrequency frequency(KLTValue::object(), kId);  // lifetime mode, no limits
  if (log->contains("ERROR")) ::_exit(2);
  for (int i = 0; i < 1'000'000; ++i) {
    store->setObject(paddingFor(countIn(frequency.frequencyConfig()) + 1), "padding");
    frequency.updateFrequencyForIdentifier(kId);
    if (log->contains("ERROR")) {
      if (!untilFull) ::_exit(3);
      const int64_t full = -1;
      if (i >= 0 && ::write(fd, &full, sizeof full) != sizeof full) ::_exit(4);
      log->clear();
      // The engine's save failed and its count stays in memory: the same save, tried until it
      // goes through (room was made) or the writer is killed.
      while (!store->synchronize()) {
      }
    }
    const int64_t acknowledged = countIn(frequency.frequencyConfig());
    if (::write(fd, &acknowledged, sizeof acknowledged) != sizeof acknowledged) ::_exit(4);
  }
  ::_exit(0);
}

TEST(KLTStoreCrashTest, KilledWriterLeavesTheAcknowledgedCountOrOneMore) {
  KLTTempDir dir;
  const std::filesystem::path path = dir.path() / "store.kltstore";
  std::mt19937 rng(20261122);
  for (int kill = 0; kill < kKills; ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      runWriter(path, fds[1]);
    }
    ::close(fds[1]);

    // Let the writer report a few saves, then kill it after a random stretch of work of our own.
    int64_t acknowledged = -1;
    const int wanted = 1 + static_cast<int>(rng() % 6);
    for (int i = 0; i < wanted; ++i) ASSERT_TRUE(readCount(fds[0], acknowledged));
    volatile unsigned spin = 0;
    for (unsigned i = rng() % 400'000; i > 0; --i) spin = spin + i;
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer failed on its own: " << status;
    // Reports written before the kill are still in the pipe.
    for (int64_t more = 0; readCount(fds[0], more);) acknowledged = more;
    ::close(fds[0]);

    KLTScopedLogCapture capture(2);
    const KLTUserDefaults store(path);
    ASSERT_EQ(capture.log().count("ERROR"), 0) << "the store must open cleanly";
    const int64_t count = countIn(store.objectForKey(kKLTFrequencyStoreKey));
    ASSERT_TRUE(count == acknowledged || count == acknowledged + 1)
        << "stored " << count << ", acknowledged " << acknowledged;
    ASSERT_EQ(store.objectForKey("padding"), paddingFor(count)) << "counter and padding come from one save";
  }
}

TEST(KLTStoreCrashTest, FullFileSystemLosesNoAcknowledgedCount) {
  KLTTestMount mount(1 << 20);
  if (!mount.mounted()) GTEST_SKIP() << mount.why();
  const std::filesystem::path path = mount.path() / "store.kltstore";
  const std::filesystem::path filler = mount.path() / "filler";
  std::mt19937 rng(20261125);
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // Room for a few saves at most: the padding of one save is up to 18 KB.
    ASSERT_TRUE(mount.fill(filler));
    std::filesystem::resize_file(filler, std::filesystem::file_size(filler) - (120 + rng() % 120) * 1024);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      runWriter(path, fds[1], true);
    }
    ::close(fds[1]);
    int64_t acknowledged = 0, report = 0;
    while (readCount(fds[0], report) && report != -1) acknowledged = report;
    ASSERT_EQ(report, -1) << "the file system never filled up, or the writer failed at start";
    volatile unsigned spin = 0;
    for (unsigned i = rng() % 400'000; i > 0; --i) spin = spin + i;
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed on its own: " << status;
    for (int64_t more = 0; readCount(fds[0], more);) {
      if (more >= 0) acknowledged = more;
    }
    ::close(fds[0]);

    for (const char* when : {"still full", "with room again"}) {
      SCOPED_TRACE(when);
      if (when == std::string("with room again")) std::filesystem::remove(filler);
      KLTScopedLogCapture capture(2);
      const KLTUserDefaults store(path);
      ASSERT_EQ(capture.log().count("moved aside"), 0) << "a full disk is no damage";
      ASSERT_FALSE(std::filesystem::exists(path.string() + ".unreadable"));
      if (!store.unusable().empty()) {
        ASSERT_EQ(when, std::string("still full")) << store.unusable();
        continue;
      }
      const int64_t count = countIn(store.objectForKey(kKLTFrequencyStoreKey));
      ASSERT_TRUE(count == acknowledged || count == acknowledged + 1)
          << "stored " << count << ", acknowledged " << acknowledged;
      ASSERT_EQ(store.objectForKey("padding"), paddingFor(count)) << "counter and padding come from one save";
    }
  }
}

}  // namespace
