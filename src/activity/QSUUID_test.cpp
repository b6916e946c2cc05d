#include "activity/QSUUID.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <thread>
#include <vector>

#include "FakePlatform.h"

namespace qs {
namespace {

// The platform hands out upper-case UUIDs; the library's is the lower-case
// form of the first one, for good, even when the first calls race.
TEST(QSUUIDTest, OneLowerCaseUUIDForTheLifeOfTheObject) {
  fake::FakePlatform fake;
  QSUUID uuid(fake.device);
  std::vector<std::string> seen(4);
  std::vector<std::thread> threads;
  for (auto& s : seen) threads.emplace_back([&uuid, &s] { s = uuid.UUID(); });
  for (auto& t : threads) t.join();

  EXPECT_EQ(seen[0], "e621e1f8-c36c-495a-93fc-000000000001");
  EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), 4);
  EXPECT_EQ(fake.device->newUUID(), "E621E1F8-C36C-495A-93FC-000000000002") << "asked only once";
  EXPECT_EQ(uuid.UUID(), seen[0]);
}

}  // namespace
}  // namespace qs
