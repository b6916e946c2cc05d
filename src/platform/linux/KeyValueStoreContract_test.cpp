// One suite for every KeyValueStore: the in-memory fake and the SQLite store.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "SandboxProcess.h"
#include "platform/fake/FakePlatform.h"
#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

struct FakeStoreMaker {
  std::shared_ptr<KeyValueStore> make() { return std::make_shared<fake::FakeKeyValueStore>(); }
};

struct SqliteStoreMaker {
  std::shared_ptr<KeyValueStore> make() {
    return openSqliteStore(dir.path() / "store.sqlite", std::make_shared<fake::FakeLog>());
  }
  testing::TempDir dir;
};

template <typename Maker>
class KeyValueStoreContract : public ::testing::Test {
 protected:
  Maker maker;
  std::shared_ptr<KeyValueStore> store_ = maker.make();
};

using StoreMakers = ::testing::Types<FakeStoreMaker, SqliteStoreMaker>;
TYPED_TEST_SUITE(KeyValueStoreContract, StoreMakers);

TYPED_TEST(KeyValueStoreContract, ValuesRoundTripAndFallBackToDefaults) {
  auto& store = *this->store_;
  const auto start = store.changeCount();
  const Value map = {{"z", 1}, {"a", {true, nullptr, 2.5, "x"}}};
  const Value bytes = Value::binary({0x00, 0x01, 0xFF, 0x80});
  store.setObject("s", Value("text"));
  store.setObject("n", Value(42));
  store.setObject("m", map);
  store.setObject("b", bytes);
  EXPECT_EQ(store.changeCount(), start + 4);

  EXPECT_EQ(store.objectForKey("s"), Value("text"));
  EXPECT_EQ(store.objectForKey("n"), Value(42));
  EXPECT_EQ(store.objectForKey("m")->dump(), map.dump());  // order kept too
  auto readBytes = store.objectForKey("b");
  ASSERT_TRUE(readBytes && readBytes->is_binary());
  EXPECT_EQ(readBytes->get_binary(), bytes.get_binary());
  EXPECT_FALSE(store.objectForKey("missing"));

  store.registerDefaults(Value{{"s", "default"}, {"only", 7}});
  EXPECT_EQ(store.changeCount(), start + 5);
  EXPECT_EQ(store.objectForKey("s"), Value("text"));  // the persisted value wins
  EXPECT_EQ(store.objectForKey("only"), Value(7));
  store.setObject("s", std::nullopt);
  EXPECT_EQ(store.objectForKey("s"), Value("default"));
  EXPECT_EQ(store.changeCount(), start + 6);
  EXPECT_TRUE(store.synchronize());
}

TYPED_TEST(KeyValueStoreContract, ConcurrentWritersAndReadersSeeWholeValues) {
  auto& store = *this->store_;
  const auto start = store.changeCount();
  constexpr int kThreads = 4, kWrites = 150;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < kWrites; ++i) {
        store.setObject("k" + std::to_string(t) + "-" + std::to_string(i), Value(i));
        store.setObject("shared", Value{{"t", t}, {"i", i}});
        auto shared = store.objectForKey("shared");
        ASSERT_TRUE(shared && shared->contains("t") && shared->contains("i"));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store.changeCount(), start + 2 * kThreads * kWrites);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kWrites; ++i) {
      EXPECT_EQ(store.objectForKey("k" + std::to_string(t) + "-" + std::to_string(i)), Value(i));
    }
  }
  EXPECT_EQ(store.objectForKey("shared")->at("i"), Value(kWrites - 1));
}

}  // namespace
}  // namespace qs
