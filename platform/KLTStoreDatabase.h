// KLTStoreDatabase: the SQLite file under the user-defaults store, with the few statements the
// store runs on it. It owns the connection and its prepared statements (closed on destruction).
//
// Layout (readable with the sqlite3 shell):
//   defaults(key TEXT PRIMARY KEY, position INTEGER, value TEXT)
//       one row per top-level key; value is the stored JSON text (see KLTStoreCoding.h), or NULL
//       when the key holds a dictionary, whose entries are the rows of `entries`;
//   entries(key TEXT, entry TEXT, position INTEGER, value TEXT, PRIMARY KEY (key, entry))
//       one row per entry of such a dictionary (the frequency counters: one row per campaign).
// Positions give the order of the keys (and of a dictionary's entries) as they were set.
//
// The file is in WAL mode with synchronous=NORMAL: a commit has written its pages to the WAL file
// through the operating system before it returns, so killing the process at any instant keeps
// every committed transaction, and a transaction cut off by the kill is rolled back on the next
// open. (A power cut may lose the last commits, never the file's consistency.)
//
// Failures are told apart: `damaged` is set when SQLite finds the file corrupt or not a database
// (or a stored value does not read back), and left false for trouble that says nothing of the
// file's contents (busy, locked, disk full, read-only, I/O errors, no permission), which a caller
// must not take for damage.
//
// Thread-safety: none; the store serialises every call.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

class KLTStoreDatabase {
 public:
  // Opens (creating when absent, unless readOnly) the file without writing to it; nothing when it
  // cannot be opened or is not a database. why tells what failed, damaged whether the file is at
  // fault. Read it with readAll, then (unless readOnly) call setUp.
  // busyWaitMillis: how long to wait for a lock another connection holds.
  static std::unique_ptr<KLTStoreDatabase> open(const std::filesystem::path& path, bool readOnly, int busyWaitMillis,
                                                std::string& why, bool& damaged);
  // Switches the file to WAL, creates the tables when missing and prepares the statements. Until it
  // succeeds nothing is written, so a file that fails to read is moved aside as it was found.
  bool setUp(std::string& why, bool& damaged);
  KLTStoreDatabase(const KLTStoreDatabase&) = delete;
  KLTStoreDatabase& operator=(const KLTStoreDatabase&) = delete;
  ~KLTStoreDatabase();

  // Calls row(key, position, value) for every top-level row in order (value nothing for a
  // dictionary), then entry(key, entry, position, value) for every dictionary entry in order. A
  // database without the store's tables reads as empty. A callback that returns false marks the
  // file damaged (a value that does not read back).
  bool readAll(const std::function<bool(std::string_view, int64_t, std::optional<std::string_view>)>& row,
               const std::function<bool(std::string_view, std::string_view, int64_t, std::string_view)>& entry,
               std::string& why, bool& damaged);

  bool begin();
  bool commit();
  void rollback();
  bool putValue(std::string_view key, int64_t position, std::optional<std::string_view> value);
  bool removeValue(std::string_view key);  // the row and any entries under key
  bool putEntry(std::string_view key, std::string_view entry, int64_t position, std::string_view value);
  bool removeEntry(std::string_view key, std::string_view entry);
  bool removeEntries(std::string_view key);

 private:
  struct Statement;
  KLTStoreDatabase() = default;
  bool run(Statement& s);
  // Sets why from the connection's last error and damaged when that error is the file's.
  bool failed(std::string why_prefix, std::string& why, bool& damaged) const;

  sqlite3* db_ = nullptr;
  std::unique_ptr<Statement> begin_, commit_, rollback_, putValue_, removeValue_, putEntry_, removeEntry_,
      removeEntries_;
};
