#include "quarrystone/QSFieldsMapping.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace qs {
namespace {

std::string codeOf(std::string_view name) {
  for (const QSFieldEntry& entry : QSFieldsMappingTable()) {
    if (entry.name == name) return entry.code;
  }
  return "";
}

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

TEST(QSFieldsMappingTest, SpotValuesGapsAndUniqueness) {
  EXPECT_STREQ(QSFM_FINGERPRINT, "QS4");
  EXPECT_STREQ(QSFM_NAV_TIMING, "QS6");
  EXPECT_STREQ(QSFM_ACTION, "QS36");
  EXPECT_STREQ(QSFM_EVENT, "QS38");
  EXPECT_STREQ(QSFM_FEATURES_MIMETYPES, "QS133");
  EXPECT_STREQ(QSFM_WINDOW_SHOWMODALDIALOG, "QS254");
  EXPECT_STREQ(QSFM_CLICK_COUNTER, "QS283");
  EXPECT_STREQ(QSFM_TARGET_LIMIT, "QS294");
  EXPECT_STREQ(QSFM_FEATURES_TOUCHEVENT, "QS295");
  EXPECT_STREQ(QSFM_FEATURE_TOUCHEVENT, "QS267");
  EXPECT_STREQ(QSFM_WINDOW_DEVICEPIXELRATIO, "QS286");
  EXPECT_STREQ(QSFM_WINDOW_SESSIONSTORAGE, "QS293");
  EXPECT_STREQ(QSFM_COLLECTOR_DNS_RESOLVE, "QS296");
  EXPECT_STREQ(QSFM_SCREEN_WIDTH, "QS91");
  EXPECT_STREQ(QSFM_CHALLENGE_TS, "QS259");
  EXPECT_STREQ(QSFM_APP_INIT, "QS315");
  EXPECT_STREQ(QSFM_DEVICE_MODEL, "QS320");
  EXPECT_STREQ(QSFM_APP_IDLE, "QS325");
  EXPECT_STREQ(QSFM_APP_CHALLENGE, "QS329");
  EXPECT_STREQ(QSFM_SENSOR_ACCELROMETER, "QS335");
  EXPECT_STREQ(QSFM_MANAGER_READY_TIME_INTERVAL, "QS350");
  EXPECT_STREQ(QSFieldsMapping_VERSION, "6");

  std::set<std::string> codes;
  std::set<std::string> names;
  for (const QSFieldEntry& entry : QSFieldsMappingTable()) {
    codes.insert(entry.code);
    names.insert(entry.name);
  }
  EXPECT_EQ(codes.size(), 344u);
  EXPECT_EQ(names.size(), 344u);
  for (int gap : {5, 37, 132, 253, 284, 285})
    EXPECT_EQ(codes.count("QS" + std::to_string(gap)), 0u);
  // The table and the constants agree.
  EXPECT_EQ(codeOf("QSFM_WINDOW_WEBGLCONTECTEVENT_FP"), QSFM_WINDOW_WEBGLCONTECTEVENT_FP);
  EXPECT_EQ(QSFieldsMappingTable().front().name, std::string("QSFM_NO_SCRIPT"));
}

}  // namespace
}  // namespace qs
