// The SQLite store's own promises: persistence across opens, recovery from
// damaged files, and integrity when a writer process is killed or two write.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "SandboxProcess.h"
#include "platform/fake/FakePlatform.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

namespace fs = std::filesystem;

class SqliteStore : public ::testing::Test {
 protected:
  std::shared_ptr<KeyValueStore> open() { return openSqliteStore(path_, log_); }

  std::size_t setAsideCount() const {
    auto entries = fs::directory_iterator(fs::path(path_).parent_path());
    return static_cast<std::size_t>(std::count_if(begin(entries), end(entries), [](auto& e) {
      std::string name = e.path().filename();
      return name.find(".corrupt-") != std::string::npos && !name.ends_with("-wal");
    }));
  }

  // Runs SQL on the file directly; the first column of the first row, or the error.
  std::string sql(const char* statement) const {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    std::string result;
    sqlite3_open(path_.c_str(), &db);
    if (sqlite3_prepare_v2(db, statement, -1, &stmt, nullptr) == SQLITE_OK) {
      int rc = sqlite3_step(stmt);
      result = rc == SQLITE_ROW    ? reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))
               : rc == SQLITE_DONE ? ""
                                   : sqlite3_errmsg(db);
    } else {
      result = sqlite3_errmsg(db);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return result;
  }

  testing::TempDir temp_;
  std::string dir_ = temp_.path().string();
  std::string path_ = dir_ + "/nested/dir/store.sqlite";
  std::shared_ptr<fake::FakeLog> log_ = std::make_shared<fake::FakeLog>();
};

TEST_F(SqliteStore, DamagedFilesAndValuesAreLoggedAndRecovered) {
  // Garbage bytes, then a real store cut short: each is set aside and replaced.
  fs::create_directories(fs::path(path_).parent_path());
  std::ofstream(path_) << std::string(5000, '\x5a');
  auto store = open();
  EXPECT_TRUE(log_->contains("set aside"));
  EXPECT_EQ(setAsideCount(), 1u);
  for (int i = 0; i < 200; ++i)
    store->setObject("k" + std::to_string(i), Value(std::string(500, 'v')));
  EXPECT_TRUE(store->synchronize());
  store.reset();
  fs::resize_file(path_, 3 * 4096);
  fs::remove(path_ + "-wal");
  store = open();
  EXPECT_EQ(setAsideCount(), 2u);
  EXPECT_FALSE(store->objectForKey("k0"));
  store->setObject("good", Value(1));
  store.reset();
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");

  // A value that does not decode reads as absent; the rest of the store is fine.
  // "huge" declares an array of 2^63-1 elements, which the parser throws for.
  EXPECT_EQ(sql("INSERT INTO entries VALUES ('bad', x'ff00ff')"), "");
  EXPECT_EQ(sql("INSERT INTO entries VALUES ('huge', x'9b7fffffffffffffff')"), "");
  log_->clear();
  store = open();
  EXPECT_FALSE(store->objectForKey("bad"));
  EXPECT_FALSE(store->objectForKey("huge"));
  EXPECT_EQ(store->objectForKey("good"), Value(1));
  EXPECT_TRUE(log_->contains("\"bad\""));
  EXPECT_TRUE(log_->contains("\"huge\""));

  // A parent "directory" that is a regular file: nothing can be created there.
  std::ofstream(dir_ + "/file") << "x";
  auto memory = openSqliteStore(dir_ + "/file/store.sqlite", log_);
  EXPECT_TRUE(log_->contains("in memory only"));
  memory->setObject("k", Value("v"));
  EXPECT_EQ(memory->objectForKey("k"), Value("v"));
  EXPECT_FALSE(memory->synchronize());
}

// A child process writes numbered keys and acknowledges each completed write
// through a pipe; it is killed at a random moment. Every acknowledged write
// must be there and the file must pass SQLite's integrity check.
TEST_F(SqliteStore, KilledWriterLosesNoAcknowledgedWrite) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  int next = 0;
  for (int round = 0; round < 6; ++round) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      auto store = openSqliteStore(path_, std::make_shared<fake::FakeLog>());
      for (int i = next; i < next + 100000; ++i) {
        store->setObject("k" + std::to_string(i), Value{{"i", i}, {"pad", std::string(300, 'p')}});
        if (write(fds[1], &i, sizeof i) != sizeof i) _exit(2);
      }
      _exit(0);
    }
    close(fds[1]);
    int acknowledged = next - 1, value = 0;
    const int killAfter = std::uniform_int_distribution<int>(1, 400)(random);
    for (int n = 0; n < killAfter && read(fds[0], &value, sizeof value) == sizeof value; ++n) {
      acknowledged = value;
    }
    kill(child, SIGKILL);
    while (read(fds[0], &value, sizeof value) == sizeof value) acknowledged = value;
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended on its own, status " << status;

    ASSERT_EQ(sql("PRAGMA integrity_check"), "ok") << "round " << round;
    auto store = open();
    for (int i = 0; i <= acknowledged; ++i) {
      auto stored = store->objectForKey("k" + std::to_string(i));
      ASSERT_TRUE(stored && stored->at("i") == i) << "round " << round << ", key " << i;
    }
    next = acknowledged + 1;
  }
  EXPECT_FALSE(log_->contains("set aside"));
}

// With a committer, writes reach the file after setObject returns. What the
// file ends with must be what the cache ended with, however writers on
// several threads raced with the commits; synchronize() and closing make it
// so, and so does leaving the process through exit() before any commit ran.
TEST_F(SqliteStore, WithACommitterTheFileEndsWithTheLastValueReadersSaw) {
  auto threads = [] {
    auto tasks = fs::directory_iterator("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread
  const auto threadsBefore = threads();
  auto store = openSqliteStore(path_, log_, {}, makeThreadWorkerPool());
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&store, t] {
      for (int i = 0; i < 400; ++i) {
        store->setObject("shared", Value{{"t", t}, {"i", i}});
        if (i % 50 == 0) store->setObject("shared", std::nullopt);
        if (t == 0 && i % 100 == 0) store->synchronize();
      }
    });
  }
  for (auto& writer : writers) writer.join();
  const auto last = store->objectForKey("shared");
  ASSERT_TRUE(last.has_value());
  store->setObject("gone", Value(1));
  store->setObject("gone", std::nullopt);
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(open()->objectForKey("shared"), last);
  EXPECT_EQ(sql("SELECT count(*) FROM entries WHERE key = 'gone'"), "0");
  store->setObject("shared", Value("closing"));
  store.reset();
  EXPECT_EQ(open()->objectForKey("shared"), Value("closing"));

  // A committer that never gets to run: only the exit handler commits. The
  // fork waits for the pool's threads to end: one alive then would leave the
  // child its locks and references, but not itself.
  ASSERT_TRUE(testing::SandboxProcess::waitUntil([&] { return threads() <= threadsBefore; }, 10));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    auto stalled = std::make_shared<fake::FakeWorkerPool>();
    stalled->setDeferred(true);
    // Never released, as the host's manager is not.
    auto* leaked = new std::shared_ptr<KeyValueStore>(openSqliteStore(path_, log_, {}, stalled));
    (*leaked)->setObject("cookie", Value("T3"));
    std::exit((*leaked)->objectForKey("cookie") == Value("T3") ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(open()->objectForKey("cookie"), Value("T3"));
  EXPECT_FALSE(log_->contains("failed"));
}

// Releasing the store while the pool is committing its last write must wait
// for that commit; otherwise a store opened right after reads the value
// before it. The commit task used to keep the store alive on its own and
// finish after the host's release had returned. Here the commit is held up
// by another connection's write lock until after the release has begun.
TEST_F(SqliteStore, ReleasingTheStoreWaitsForACommitUnderWay) {
  auto pool = std::make_shared<fake::FakeWorkerPool>();
  pool->setDeferred(true);
  auto store = openSqliteStore(path_, log_, {}, pool);
  store->setObject("k", Value("old"));
  pool->runAll();
  store->setObject("k", Value("new"));

  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  std::thread worker([&pool] { pool->runAll(); });  // blocks in SQLite's busy wait
  // Until the task holds the store, when it does so (bounded: a task that
  // does not hold it shows nothing here).
  for (int spin = 0; spin < 100000 && store.use_count() < 2; ++spin) std::this_thread::yield();
  std::atomic<bool> releasing{false};
  std::thread unlocker([&] {
    while (!releasing) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  });
  releasing = true;
  store.reset();
  // Read without taking a lock (a WAL reader), so the lock still held or
  // just released decides nothing here.
  const Bytes fresh = Value::to_cbor(Value("new"));
  EXPECT_EQ(sql("SELECT hex(value) FROM entries WHERE key = 'k'"),
            fmt::format("{:02X}", fmt::join(fresh, "")));
  unlocker.join();
  worker.join();
  sqlite3_close(other);
  EXPECT_FALSE(log_->contains("failed"));
}

TEST_F(SqliteStore, TwoProcessesWriteTheSameFile) {
  constexpr int kWrites = 300;
  pid_t children[2];
  for (int p = 0; p < 2; ++p) {
    children[p] = fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      auto store = openSqliteStore(path_, log_);
      for (int i = 0; i < kWrites; ++i) store->setObject(fmt::format("{}-{}", p, i), Value(i));
      for (const auto& line : log_->lines())
        std::fprintf(stderr, "writer %d: %s\n", p, line.c_str());
      _exit(log_->lines().empty() ? 0 : 1);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer logged an error";
  }
  auto store = open();
  for (int i = 0; i < 2 * kWrites; ++i) {
    EXPECT_EQ(store->objectForKey(fmt::format("{}-{}", i % 2, i / 2)), Value(i / 2));
  }
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// A reopened store has what was persisted, not the defaults. Whatever the
// umask, the file, its WAL and shared-memory files and the folders made for
// them are the owner's alone; a store left open to others is tightened, but
// only the library's own folders are touched.
TEST_F(SqliteStore, ReopenedFilesKeepValuesAndArePrivateWhateverTheUmask) {
  struct MaskGuard {
    mode_t old;
    ~MaskGuard() { umask(old); }
  } mask{umask(0)};
  const std::string owned = dir_ + "/nested";
  {
    auto store = openSqliteStore(path_, log_, owned);
    store->setObject("sid", Value("abc"));
    store->setObject("cookie", Value::array({Value::binary({1, 2, 3})}));
    store->setObject("gone", Value(1));
    store->setObject("gone", std::nullopt);
    store->registerDefaults(Value{{"UserAgent", "ua"}});
    for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(path_ + suffix), 0600u);
    EXPECT_EQ(modeOf(owned), 0700u);
    EXPECT_EQ(modeOf(owned + "/dir"), 0700u);
  }
  EXPECT_TRUE(log_->lines().empty());
  EXPECT_EQ(sql("PRAGMA journal_mode"), "wal");

  // Left open to others (as older releases did), while another connection
  // has the file open, so its WAL and shared memory exist, as wide.
  for (const auto& folder : {dir_, owned, owned + "/dir"}) ::chmod(folder.c_str(), 0755);
  ::chmod(path_.c_str(), 0644);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "SELECT count(*) FROM entries", nullptr, nullptr, nullptr),
            SQLITE_OK);
  for (const char* suffix : {"-wal", "-shm"}) ASSERT_EQ(modeOf(path_ + suffix), 0644u);
  auto store = openSqliteStore(path_, log_, owned);
  EXPECT_EQ(store->objectForKey("sid"), Value("abc"));
  EXPECT_EQ(store->objectForKey("cookie")->at(0).get_binary(),
            (Value::binary_t(std::vector<std::uint8_t>{1, 2, 3})));
  EXPECT_FALSE(store->objectForKey("gone"));
  EXPECT_FALSE(store->objectForKey("UserAgent"));
  for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(path_ + suffix), 0600u);
  EXPECT_EQ(modeOf(owned), 0700u);
  EXPECT_EQ(modeOf(owned + "/dir"), 0700u);
  EXPECT_EQ(modeOf(dir_), 0755u) << "a folder above the library's own is the user's";
  EXPECT_EQ(log_->count("was open to others"), 5u);
  store->setObject("sid", Value("def"));
  EXPECT_EQ(sqlite3_close(other), SQLITE_OK);

  // A path the host chose: the file is private, its existing folder the host's.
  auto chosen = openSqliteStore(dir_ + "/store.sqlite", log_);
  chosen->setObject("k", Value(1));
  EXPECT_EQ(modeOf(dir_ + "/store.sqlite"), 0600u);
  EXPECT_EQ(modeOf(dir_), 0755u);
}

}  // namespace
}  // namespace qs
