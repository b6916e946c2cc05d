#include "quarrystone/QSFieldsMapping.h"

#include <gtest/gtest.h>

#include <string>

namespace qs {
namespace {

TEST(QSFieldsMappingTest, CodesFollowTheNumberingRule) {
  // The rule from declaration order: one number per entry from 1, skipping
  // 5, 37, 132 and 253; after QSFM_CLICK_COUNTER two entries take 294 and
  // 295, the next eight 286 to 293, and numbering resumes at 296.
  auto table = QSFieldsMappingTable();
  ASSERT_EQ(table.size(), 344u);
  int next = 1;
  int swapped = -1;  // position within the swapped run after QSFM_CLICK_COUNTER
  for (const QSFieldEntry& entry : table) {
    int expected;
    if (swapped >= 0 && swapped < 10) {
      expected = swapped < 2 ? 294 + swapped : 286 + (swapped - 2);
      if (++swapped == 10) next = 296;
    } else {
      while (next == 5 || next == 37 || next == 132 || next == 253) ++next;
      expected = next++;
    }
    EXPECT_EQ(entry.code, "QS" + std::to_string(expected)) << entry.name;
    if (std::string_view(entry.name) == "QSFM_CLICK_COUNTER") swapped = 0;
  }
  EXPECT_EQ(next, 351);
}

}  // namespace
}  // namespace qs
