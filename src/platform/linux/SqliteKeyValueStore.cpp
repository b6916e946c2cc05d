// The persistent key/value store on Linux: one SQLite file in WAL mode with
// every persisted value cached in memory, so reads never touch the file.
//
// Durability: setObject changes the cache, which every reader in the process
// sees at once. Without a committer the write is committed before setObject
// returns: with WAL and synchronous=NORMAL it then sits in the WAL file and
// survives a crash or SIGKILL of the host process. With a committer (the
// platform's worker pool) the file is left to a task there, which commits
// what has been set meanwhile in one transaction, so a caller (an answer from
// the collector on its way to the host) never waits for SQLite; a process
// killed, or ended with _exit(), between a setObject and that commit loses the
// write. Either way a commit can be lost to a power cut or kernel crash until
// the next checkpoint. synchronize() commits what is pending and forces that
// checkpoint (it syncs the WAL and the database file); closing the store and
// leaving the process through exit() commit what is pending too.
//
// Privacy: the file, its WAL and its shared-memory file are readable by their
// owner only (0600), and every folder this code creates is 0700, whatever the
// umask. SQLite gives the WAL and shared-memory files the main file's mode
// when it creates them, so making the main file private before SQLite opens
// it covers them; copies left wider by older releases are tightened.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

// Written into the file header: marks the file as ours and names the layout.
constexpr int kApplicationId = 0x51534B56;  // "QSKV"
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using DbHandle = std::unique_ptr<sqlite3, DbCloser>;
using StmtHandle = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

// Why a file could not be used. Corrupt files (and foreign ones at our path)
// are set aside and replaced; anything else leaves the file alone.
struct OpenError {
  enum class Kind { Corrupt, Unusable } kind;
  std::string message;
};

struct OpenedStore {
  DbHandle db;
  std::map<std::string, Value> values;
};

// A stored value from its CBOR bytes; discarded when they do not decode. The
// parser's no-exceptions mode still throws for an array or map that declares
// more elements than a vector could hold, so a damaged value would end the
// host: that is caught here and reads as undecodable too.
Value decodeStoredValue(const Bytes& bytes) {
  try {
    return Value::from_cbor(bytes, /*strict=*/true, /*allow_exceptions=*/false);
  } catch (const Value::exception&) {
    return Value(Value::value_t::discarded);
  }
}

bool isCorruption(int rc) {
  int primary = rc & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

OpenError errorFrom(sqlite3* db, int rc, const char* step) {
  std::string detail = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
  return OpenError{isCorruption(rc) ? OpenError::Kind::Corrupt : OpenError::Kind::Unusable,
                   fmt::format("{}: {}", step, detail)};
}

std::variant<StmtHandle, OpenError> prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  StmtHandle stmt(raw);
  if (rc != SQLITE_OK) return errorFrom(db, rc, sql);
  return stmt;
}

// Runs a statement that yields at most one row and returns its first column
// as text ("" when there is no row).
std::variant<std::string, OpenError> queryText(sqlite3* db, const char* sql) {
  auto prepared = prepare(db, sql);
  if (auto* error = std::get_if<OpenError>(&prepared)) return *error;
  sqlite3_stmt* stmt = std::get<StmtHandle>(prepared).get();
  int rc = sqlite3_step(stmt);
  if (rc == SQLITE_DONE) return std::string();
  if (rc != SQLITE_ROW) return errorFrom(db, rc, sql);
  const unsigned char* text = sqlite3_column_text(stmt, 0);
  return std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "");
}

// Switching a file to WAL needs a moment of exclusive access. When another
// process opens the same new file at the same instant, SQLite can answer
// "locked" at once without consulting the busy handler, so the switch is
// retried here for as long as the busy time-out would have waited.
std::variant<std::string, OpenError> switchToWal(sqlite3* db) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  for (;;) {
    auto mode = queryText(db, "PRAGMA journal_mode=WAL");
    int primary = sqlite3_errcode(db) & 0xff;
    bool busy = std::holds_alternative<OpenError>(mode) &&
                (primary == SQLITE_BUSY || primary == SQLITE_LOCKED);
    if (!busy || std::chrono::steady_clock::now() >= deadline) return mode;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::optional<OpenError> exec(sqlite3* db, const char* sql) {
  int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) return errorFrom(db, rc, sql);
  return std::nullopt;
}

// Creates the schema in an empty file, or checks that a file already holds
// ours. Several processes may race here; the immediate transaction makes one
// of them create and the others find it made.
std::optional<OpenError> ensureSchema(sqlite3* db) {
  if (auto error = exec(db, "BEGIN IMMEDIATE")) return error;
  auto finish = [db](std::optional<OpenError> error) -> std::optional<OpenError> {
    if (error) {
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
      return error;
    }
    int rc = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return errorFrom(db, rc, "COMMIT");
    return std::nullopt;
  };
  auto appId = queryText(db, "PRAGMA application_id");
  if (auto* error = std::get_if<OpenError>(&appId)) return finish(*error);
  auto version = queryText(db, "PRAGMA user_version");
  if (auto* error = std::get_if<OpenError>(&version)) return finish(*error);
  auto others = queryText(db, "SELECT count(*) FROM sqlite_master WHERE name <> 'entries'");
  if (auto* error = std::get_if<OpenError>(&others)) return finish(*error);

  int id = std::atoi(std::get<std::string>(appId).c_str());
  int schema = std::atoi(std::get<std::string>(version).c_str());
  if (id == 0 && schema == 0 && std::get<std::string>(others) == "0") {
    std::string create = fmt::format(
        "CREATE TABLE IF NOT EXISTS entries (key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL);"
        "PRAGMA application_id = {}; PRAGMA user_version = {};",
        kApplicationId, kSchemaVersion);
    return finish(exec(db, create.c_str()));
  }
  if (id != kApplicationId) {
    return finish(OpenError{OpenError::Kind::Corrupt, "the file is not a Quarrystone store"});
  }
  if (schema > kSchemaVersion) {
    // Written by a newer release: leave it untouched for that release.
    return finish(
        OpenError{OpenError::Kind::Unusable,
                  fmt::format("schema version {} is newer than {}", schema, kSchemaVersion)});
  }
  return finish(std::nullopt);
}

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateFolder = 0700;

OpenError systemError(const std::string& what, const std::string& path) {
  return OpenError{OpenError::Kind::Unusable,
                   fmt::format("{} {}: {}", what, path, std::strerror(errno))};
}

// Takes group and other access away from an existing file or folder that has
// any; logged, since it means someone else may have read the store.
void tighten(const std::string& path, const struct stat& st, mode_t mode, Log& log) {
  if ((st.st_mode & 077) == 0) return;
  if (::chmod(path.c_str(), mode) != 0) {
    log.write(
        LogLevel::Warning,
        fmt::format("Store path {} is open to others (mode {:04o}) and cannot be made private: {}",
                    path, st.st_mode & 07777, std::strerror(errno)));
    return;
  }
  log.write(LogLevel::Warning,
            fmt::format("Store path {} was open to others (mode {:04o}); now {:04o}", path,
                        st.st_mode & 07777, mode));
}

// Creates the missing folders above `file`, each 0700 whatever the umask.
// Existing folders at or below `ownedRoot` (the library's own) are tightened
// to 0700; folders above it, and all of them when it is empty, belong to the
// user and are left as they are.
std::optional<OpenError> makeFolders(const std::filesystem::path& file,
                                     const std::string& ownedRoot, Log& log) {
  auto owned = [&](const std::string& folder) {
    return !ownedRoot.empty() && (folder == ownedRoot || folder.starts_with(ownedRoot + "/"));
  };
  std::filesystem::path folder;
  for (const auto& part : file.parent_path()) {
    folder /= part;
    const std::string name = folder.string();
    if (part == "/" || part.empty()) continue;
    struct stat st {};
    if (::stat(name.c_str(), &st) != 0) {
      if (errno != ENOENT) return systemError("stat", name);
      if (::mkdir(name.c_str(), kPrivateFolder) != 0 && errno != EEXIST) {
        return systemError("mkdir", name);
      }
      // The umask may have taken the owner's own bits away.
      if (::chmod(name.c_str(), kPrivateFolder) != 0) return systemError("chmod", name);
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      return OpenError{OpenError::Kind::Unusable, name + " is not a folder"};
    }
    if (owned(name)) tighten(name, st, kPrivateFolder, log);
  }
  return std::nullopt;
}

// Creates the store file 0600 if it is missing, so that SQLite never creates
// it under the umask, and tightens the file, its WAL and its shared-memory
// file if they exist. Existing files are never opened here: closing any
// descriptor of a file drops this process's SQLite locks on it.
std::optional<OpenError> makePrivateFiles(const std::string& path, Log& log) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFile);
  if (fd >= 0) {
    int rc = ::fchmod(fd, kPrivateFile);
    ::close(fd);
    if (rc != 0) return systemError("fchmod", path);
  } else if (errno != EEXIST) {
    return systemError("create", path);
  }
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string name = path + suffix;
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode)) tighten(name, st, kPrivateFile, log);
  }
  return std::nullopt;
}

std::variant<OpenedStore, OpenError> openFile(const std::string& path, const std::string& ownedRoot,
                                              Log& log) {
  if (auto error = makeFolders(path, ownedRoot, log)) return *error;
  if (auto error = makePrivateFiles(path, log)) return *error;

  sqlite3* raw = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  DbHandle db(raw);
  if (rc != SQLITE_OK) return errorFrom(db.get(), rc, "open");
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);

  auto mode = switchToWal(db.get());
  if (auto* error = std::get_if<OpenError>(&mode)) return *error;
  if (std::get<std::string>(mode) != "wal") {
    return OpenError{OpenError::Kind::Unusable, "the file cannot be put in WAL mode"};
  }
  if (auto error = exec(db.get(), "PRAGMA synchronous=NORMAL")) return *error;
  auto check = queryText(db.get(), "PRAGMA quick_check");
  if (auto* error = std::get_if<OpenError>(&check)) return *error;
  if (std::get<std::string>(check) != "ok") {
    return OpenError{OpenError::Kind::Corrupt, "integrity check: " + std::get<std::string>(check)};
  }
  if (auto error = ensureSchema(db.get())) return *error;

  OpenedStore opened;
  auto prepared = prepare(db.get(), "SELECT key, value FROM entries");
  if (auto* error = std::get_if<OpenError>(&prepared)) return *error;
  sqlite3_stmt* stmt = std::get<StmtHandle>(prepared).get();
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    const unsigned char* keyText = sqlite3_column_text(stmt, 0);
    std::string key(keyText != nullptr ? reinterpret_cast<const char*>(keyText) : "");
    const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, 1));
    Bytes bytes(blob, blob + sqlite3_column_bytes(stmt, 1));
    Value value = decodeStoredValue(bytes);
    if (value.is_discarded()) {
      log.write(
          LogLevel::Warning,
          fmt::format("Store value for key \"{}\" cannot be decoded; it reads as absent", key));
      continue;
    }
    opened.values.insert_or_assign(std::move(key), std::move(value));
  }
  if (rc != SQLITE_DONE) return errorFrom(db.get(), rc, "load");
  opened.db = std::move(db);
  return opened;
}

// Moves a damaged store (and its WAL) out of the way under a name that says
// what happened. Returns the new name, or nullopt if the file cannot move.
std::optional<std::string> setAside(const std::string& path) {
  std::string base = fmt::format("{}.corrupt-{}", path, static_cast<long long>(std::time(nullptr)));
  std::string aside = base;
  std::error_code ec;
  for (int n = 2; std::filesystem::exists(aside, ec); ++n) aside = fmt::format("{}-{}", base, n);
  std::filesystem::rename(path, aside, ec);
  if (ec && std::filesystem::exists(path)) return std::nullopt;
  for (const char* suffix : {"-wal", "-journal"}) {
    std::error_code ignored;
    if (std::filesystem::exists(path + suffix, ignored)) {
      std::filesystem::rename(path + suffix, aside + suffix, ignored);
    }
  }
  std::error_code ignored;
  std::filesystem::remove(path + "-shm", ignored);
  return aside;
}

class SqliteKeyValueStore;

// The stores of this process with a file, so that leaving the process through
// exit() commits what they still hold. Never destroyed: exit handlers use it.
struct OpenStores {
  std::mutex mutex;
  std::set<SqliteKeyValueStore*> stores;  // guarded by mutex
};
OpenStores& openStores() {
  static auto* const stores = new OpenStores;
  return *stores;
}
void commitOpenStores();

// Thread contract: every operation may be called from any thread. Reads take
// a shared lock on the cache only. A write changes the cache and the pending
// set under pendingMutex_, so both see writes in the same order; commits take
// the pending set under writeMutex_, which also guards the connection, so the
// file sees them in that order too. Lock order: the commit gate,
// writeMutex_, pendingMutex_, cacheMutex_.
class SqliteKeyValueStore final : public KeyValueStore {
 public:
  // `db` null: the store lives in memory only. `committer` null: each write
  // commits before setObject returns.
  SqliteKeyValueStore(std::shared_ptr<Log> log, DbHandle db, std::map<std::string, Value> values,
                      std::shared_ptr<WorkerPool> committer)
      : log_(std::move(log)),
        hasFile_(db != nullptr),
        committer_(std::move(committer)),
        db_(std::move(db)),
        persisted_(std::move(values)) {
    gate_->store = this;
    if (!hasFile_) return;
    static std::once_flag once;
    std::call_once(once, [] { std::atexit(commitOpenStores); });
    std::lock_guard lock(openStores().mutex);
    openStores().stores.insert(this);
  }

  ~SqliteKeyValueStore() override {
    if (!hasFile_) return;
    {
      std::lock_guard lock(openStores().mutex);
      openStores().stores.erase(this);
    }
    {
      // Waits for a commit task under way; one that runs later finds the
      // store gone. Either way the release returns with every write in the
      // file, so a store opened next reads them.
      std::lock_guard lock(gate_->mutex);
      gate_->store = nullptr;
    }
    commitPending();
  }

  SqliteKeyValueStore(const SqliteKeyValueStore&) = delete;
  SqliteKeyValueStore& operator=(const SqliteKeyValueStore&) = delete;

  std::optional<Value> objectForKey(const std::string& key) override {
    std::shared_lock lock(cacheMutex_);
    if (auto it = persisted_.find(key); it != persisted_.end()) return it->second;
    if (auto it = defaults_.find(key); it != defaults_.end()) return it->second;
    return std::nullopt;
  }

  void setObject(const std::string& key, std::optional<Value> value) override {
    std::optional<Bytes> encoded;
    if (value) {
      try {
        encoded = Value::to_cbor(*value);
      } catch (const std::exception& e) {
        log_->write(LogLevel::Warning,
                    fmt::format("Store cannot encode the value for key \"{}\": {}", key, e.what()));
        return;
      }
    }
    bool commitHere = false;
    {
      std::lock_guard pendingLock(pendingMutex_);
      {
        std::unique_lock cacheLock(cacheMutex_);
        if (value) {
          persisted_.insert_or_assign(key, std::move(*value));
        } else {
          persisted_.erase(key);
        }
      }
      changes_.fetch_add(1, std::memory_order_relaxed);
      if (!hasFile_) return;
      pending_.insert_or_assign(key, std::move(encoded));
      commitHere = !committer_;
      if (committer_ && !commitQueued_) {
        commitQueued_ = true;
        // The task holds the gate, not the store: the host's release is
        // then the last one and waits for the task (see the destructor).
        committer_->post([gate = gate_] {
          std::lock_guard gateLock(gate->mutex);
          SqliteKeyValueStore* self = gate->store;
          if (self == nullptr) return;  // closed, and committed then
          {
            std::lock_guard lock(self->pendingMutex_);
            self->commitQueued_ = false;
          }
          self->commitPending();
        });
      }
    }
    if (commitHere) commitPending();
  }

  void registerDefaults(const Value& defaults) override {
    if (!defaults.is_object()) return;
    {
      std::unique_lock cacheLock(cacheMutex_);
      for (const auto& [key, value] : defaults.items()) defaults_.insert_or_assign(key, value);
    }
    changes_.fetch_add(1, std::memory_order_relaxed);
  }

  bool synchronize() override {
    if (!hasFile_) return false;
    commitPending();
    std::lock_guard writeLock(writeMutex_);
    int rc =
        sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      log_->write(LogLevel::Warning,
                  fmt::format("Store checkpoint failed: {}", sqlite3_errmsg(db_.get())));
      return false;
    }
    return true;
  }

  std::uint64_t changeCount() const override { return changes_.load(std::memory_order_relaxed); }

  // Commits every pending write, in one transaction when there are several.
  // Returns once they are in the file (or logged as failed).
  void commitPending() {
    std::lock_guard writeLock(writeMutex_);
    PendingWrites batch;
    {
      std::lock_guard pendingLock(pendingMutex_);
      batch.swap(pending_);
    }
    if (batch.empty()) return;
    const bool transaction = batch.size() > 1 && sqlite3_exec(db_.get(), "BEGIN IMMEDIATE", nullptr,
                                                              nullptr, nullptr) == SQLITE_OK;
    for (const auto& [key, encoded] : batch) writeRow(key, encoded);
    if (transaction && sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
      log_->write(LogLevel::Warning,
                  fmt::format("Store commit failed: {}", sqlite3_errmsg(db_.get())));
      sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }

 private:
  // Keys to their new encoded value; nullopt removes the row.
  using PendingWrites = std::map<std::string, std::optional<Bytes>>;

  // REQUIRES: writeMutex_ held. A failed write is logged; the value stays in
  // the cache, so this process keeps seeing it.
  void writeRow(const std::string& key, const std::optional<Bytes>& encoded) {
    sqlite3_stmt* stmt = encoded
                             ? statement(upsert_, "INSERT OR REPLACE INTO entries VALUES (?, ?)")
                             : statement(erase_, "DELETE FROM entries WHERE key = ?");
    if (stmt == nullptr) return;
    sqlite3_bind_text(stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (encoded) {
      sqlite3_bind_blob(stmt, 2, encoded->data(), static_cast<int>(encoded->size()), SQLITE_STATIC);
    }
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) {
      log_->write(LogLevel::Warning, fmt::format("Store write for key \"{}\" failed: {}", key,
                                                 sqlite3_errmsg(db_.get())));
    }
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }

  // REQUIRES: writeMutex_ held. Prepares `slot` on first use.
  sqlite3_stmt* statement(StmtHandle& slot, const char* sql) {
    if (!slot) {
      auto prepared = prepare(db_.get(), sql);
      if (auto* error = std::get_if<OpenError>(&prepared)) {
        log_->write(LogLevel::Warning,
                    fmt::format("Store cannot prepare a write: {}", error->message));
        return nullptr;
      }
      slot = std::move(std::get<StmtHandle>(prepared));
    }
    return slot.get();
  }

  std::shared_ptr<Log> log_;
  const bool hasFile_;
  const std::shared_ptr<WorkerPool> committer_;  // null: commit in setObject
  std::mutex writeMutex_;
  DbHandle db_;        // guarded by writeMutex_; null when in memory only
  StmtHandle upsert_;  // guarded by writeMutex_
  StmtHandle erase_;   // guarded by writeMutex_
  std::shared_mutex cacheMutex_;
  std::map<std::string, Value> persisted_;  // guarded by cacheMutex_
  std::map<std::string, Value> defaults_;   // guarded by cacheMutex_
  std::atomic<std::uint64_t> changes_{0};
  std::mutex pendingMutex_;
  PendingWrites pending_;      // guarded by pendingMutex_
  bool commitQueued_ = false;  // a commit task is posted and not begun; guarded by pendingMutex_

  // Shared with the commit tasks; `store` is null once the store is going.
  // A task runs with `mutex` held, so the destructor waits for it. Lock
  // order: gate, then the store's own (writeMutex_ first).
  struct CommitGate {
    std::mutex mutex;
    SqliteKeyValueStore* store = nullptr;
  };
  const std::shared_ptr<CommitGate> gate_ = std::make_shared<CommitGate>();
};

// An exit handler: what the stores of the process still hold goes to their files.
void commitOpenStores() {
  std::lock_guard lock(openStores().mutex);
  for (SqliteKeyValueStore* store : openStores().stores) store->commitPending();
}

}  // namespace

std::shared_ptr<KeyValueStore> openSqliteStore(const std::string& path, std::shared_ptr<Log> log,
                                               const std::string& ownedRoot,
                                               std::shared_ptr<WorkerPool> committer) {
  if (!log) log = makeStderrLog();
  if (path.empty()) {
    log->write(
        LogLevel::Warning,
        "Store has no file (no home directory to keep it in); values are kept in memory only");
    return std::make_shared<SqliteKeyValueStore>(std::move(log), nullptr,
                                                 std::map<std::string, Value>{}, nullptr);
  }
  auto opened = openFile(path, ownedRoot, *log);
  if (auto* error = std::get_if<OpenError>(&opened);
      error && error->kind == OpenError::Kind::Corrupt) {
    auto aside = setAside(path);
    if (aside) {
      log->write(LogLevel::Warning,
                 fmt::format("Store file {} is damaged ({}); set aside as {}, starting empty", path,
                             error->message, *aside));
      opened = openFile(path, ownedRoot, *log);
    } else {
      log->write(LogLevel::Warning,
                 fmt::format("Store file {} is damaged ({}) and cannot be moved aside", path,
                             error->message));
    }
  }
  if (auto* store = std::get_if<OpenedStore>(&opened)) {
    return std::make_shared<SqliteKeyValueStore>(std::move(log), std::move(store->db),
                                                 std::move(store->values), std::move(committer));
  }
  log->write(LogLevel::Warning,
             fmt::format("Store file {} cannot be used ({}); values are kept in memory only", path,
                         std::get<OpenError>(opened).message));
  return std::make_shared<SqliteKeyValueStore>(std::move(log), nullptr,
                                               std::map<std::string, Value>{}, nullptr);
}

}  // namespace qs
