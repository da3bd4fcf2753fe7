#include "platform/KLTStoreDatabase.h"

#include <sqlite3.h>

#include <initializer_list>

struct KLTStoreDatabase::Statement {
  sqlite3_stmt* stmt = nullptr;
  ~Statement() { sqlite3_finalize(stmt); }

  void bind(int at, std::string_view text) {
    sqlite3_bind_text(stmt, at, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  void bind(int at, int64_t n) { sqlite3_bind_int64(stmt, at, n); }
  void bind(int at, std::optional<std::string_view> text) {
    if (text) {
      bind(at, *text);
    } else {
      sqlite3_bind_null(stmt, at);
    }
  }
  std::string_view text(int column) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt, column))) : std::string_view();
  }
};

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS defaults(key TEXT PRIMARY KEY, position INTEGER NOT NULL, value TEXT);"
    "CREATE TABLE IF NOT EXISTS entries(key TEXT NOT NULL, entry TEXT NOT NULL, position INTEGER NOT NULL,"
    " value TEXT NOT NULL, PRIMARY KEY (key, entry)) WITHOUT ROWID;";

// Only these say the file itself is not a sound store; every other failure is the machine's.
bool isDamage(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_FORMAT;
}

}  // namespace

KLTStoreDatabase::~KLTStoreDatabase() {
  // Statements first: a connection with live statements does not close.
  for (auto* s : {&begin_, &commit_, &rollback_, &putValue_, &removeValue_, &putEntry_, &removeEntry_, &removeEntries_}) {
    s->reset();
  }
  sqlite3_close(db_);
}

bool KLTStoreDatabase::failed(std::string prefix, std::string& why, bool& damaged) const {
  damaged = db_ && isDamage(sqlite3_extended_errcode(db_));
  why = prefix.empty() ? std::string(db_ ? sqlite3_errmsg(db_) : "out of memory")
                       : prefix + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
  return false;
}

std::unique_ptr<KLTStoreDatabase> KLTStoreDatabase::open(const std::filesystem::path& path, bool readOnly,
                                                         int busyWaitMillis, std::string& why, bool& damaged) {
  std::unique_ptr<KLTStoreDatabase> d(new KLTStoreDatabase());
  damaged = false;
  const int flags = (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &d->db_, flags, nullptr) != SQLITE_OK) {
    d->failed("cannot open", why, damaged);
    return nullptr;
  }
  sqlite3_extended_result_codes(d->db_, 1);
  // Closing leaves the write-ahead log for the next open instead of checkpointing it, which would
  // flush the file to disk at every close.
  sqlite3_db_config(d->db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  // Another connection may be committing; wait for it rather than fail.
  sqlite3_busy_timeout(d->db_, busyWaitMillis);
  // Reading the schema checks the file header without writing anything.
  if (sqlite3_exec(d->db_, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) != SQLITE_OK) {
    d->failed("", why, damaged);
    return nullptr;
  }
  return d;
}

bool KLTStoreDatabase::setUp(std::string& why, bool& damaged) {
  const auto fail = [&](const char* what) { return failed(what, why, damaged); };
  {
    Statement mode;  // finalized at the end of this block: a live statement would block the checkpoint
    if (sqlite3_prepare_v2(db_, "PRAGMA journal_mode=WAL", -1, &mode.stmt, nullptr) != SQLITE_OK ||
        sqlite3_step(mode.stmt) != SQLITE_ROW || mode.text(0) != "wal") {
      // A journal mode that the file or its folder refuses reports no error of its own.
      if (sqlite3_errcode(db_) == SQLITE_OK || sqlite3_errcode(db_) == SQLITE_ROW) {
        damaged = false;
        why = "cannot use write-ahead logging (is the file or its folder read-only?)";
        return false;
      }
      return fail("cannot use write-ahead logging");
    }
  }
  // Checkpoints are the only flushes to disk under synchronous=NORMAL; running them every 8,000
  // pages rather than every 1,000 keeps a parse of many campaigns from waiting on the disk, and the
  // log is cut back to 4 MB after each one.
  // The log left by the last run is folded into the file once at open, so that the log a crash
  // leaves behind, which the next open must read whole, holds only this run's writes.
  if (sqlite3_exec(db_,
                   "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=8000; PRAGMA journal_size_limit=4194304;"
                   "PRAGMA wal_checkpoint(TRUNCATE);",
                   nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail("cannot create the tables");
  }
  const std::initializer_list<std::pair<std::unique_ptr<Statement>*, const char*>> statements = {
      {&begin_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
      {&putValue_, "INSERT OR REPLACE INTO defaults(key, position, value) VALUES (?1, ?2, ?3)"},
      {&removeValue_, "DELETE FROM defaults WHERE key = ?1"},
      {&putEntry_, "INSERT OR REPLACE INTO entries(key, entry, position, value) VALUES (?1, ?2, ?3, ?4)"},
      {&removeEntry_, "DELETE FROM entries WHERE key = ?1 AND entry = ?2"},
      {&removeEntries_, "DELETE FROM entries WHERE key = ?1"},
  };
  for (const auto& [slot, sql] : statements) {
    *slot = std::make_unique<Statement>();
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &(*slot)->stmt, nullptr) != SQLITE_OK) {
      return fail("cannot prepare the store's statements");
    }
  }
  return true;
}

bool KLTStoreDatabase::readAll(
    const std::function<bool(std::string_view, int64_t, std::optional<std::string_view>)>& row,
    const std::function<bool(std::string_view, std::string_view, int64_t, std::string_view)>& entry, std::string& why,
    bool& damaged) {
  damaged = false;
  Statement tables, values, entries;
  if (sqlite3_prepare_v2(db_, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN ('defaults', 'entries')",
                         -1, &tables.stmt, nullptr) != SQLITE_OK ||
      sqlite3_step(tables.stmt) != SQLITE_ROW) {
    return failed("", why, damaged);
  }
  if (sqlite3_column_int(tables.stmt, 0) < 2) return true;  // a new file
  if (sqlite3_prepare_v2(db_, "SELECT key, position, value FROM defaults ORDER BY position", -1, &values.stmt,
                         nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db_, "SELECT key, entry, position, value FROM entries ORDER BY key, position", -1,
                         &entries.stmt, nullptr) != SQLITE_OK) {
    failed("", why, damaged);
    // Tables of the store's names that these reads do not fit are another program's.
    if ((sqlite3_errcode(db_) & 0xff) == SQLITE_ERROR) damaged = true;
    return false;
  }
  int rc;
  while ((rc = sqlite3_step(values.stmt)) == SQLITE_ROW) {
    std::optional<std::string_view> value;
    if (sqlite3_column_type(values.stmt, 2) != SQLITE_NULL) value = values.text(2);
    if (!row(values.text(0), sqlite3_column_int64(values.stmt, 1), value)) {
      why = "a stored value cannot be read";
      damaged = true;
      return false;
    }
  }
  if (rc == SQLITE_DONE) {
    while ((rc = sqlite3_step(entries.stmt)) == SQLITE_ROW) {
      if (!entry(entries.text(0), entries.text(1), sqlite3_column_int64(entries.stmt, 2), entries.text(3))) {
        why = "a stored entry cannot be read";
        damaged = true;
        return false;
      }
    }
  }
  if (rc != SQLITE_DONE) return failed("", why, damaged);
  return true;
}

bool KLTStoreDatabase::run(Statement& s) {
  const int rc = sqlite3_step(s.stmt);
  sqlite3_reset(s.stmt);
  sqlite3_clear_bindings(s.stmt);
  return rc == SQLITE_DONE;
}

bool KLTStoreDatabase::begin() { return run(*begin_); }
bool KLTStoreDatabase::commit() { return run(*commit_); }
void KLTStoreDatabase::rollback() {
  // Fails harmlessly when SQLite already rolled the transaction back on an I/O error.
  run(*rollback_);
}

bool KLTStoreDatabase::putValue(std::string_view key, int64_t position, std::optional<std::string_view> value) {
  putValue_->bind(1, key);
  putValue_->bind(2, position);
  putValue_->bind(3, value);
  return run(*putValue_);
}

bool KLTStoreDatabase::removeValue(std::string_view key) {
  removeValue_->bind(1, key);
  return run(*removeValue_) && removeEntries(key);
}

bool KLTStoreDatabase::putEntry(std::string_view key, std::string_view entry, int64_t position, std::string_view value) {
  putEntry_->bind(1, key);
  putEntry_->bind(2, entry);
  putEntry_->bind(3, position);
  putEntry_->bind(4, value);
  return run(*putEntry_);
}

bool KLTStoreDatabase::removeEntry(std::string_view key, std::string_view entry) {
  removeEntry_->bind(1, key);
  removeEntry_->bind(2, entry);
  return run(*removeEntry_);
}

bool KLTStoreDatabase::removeEntries(std::string_view key) {
  removeEntries_->bind(1, key);
  return run(*removeEntries_);
}
