#include "activity/AppActivity.h"

#include "CoreFixture.h"
#include "activity/ChallengeActivity.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

class AppActivityTest : public CoreTest {
 protected:
  Value build(QSAppState state) {
    AppActivity builder(QSManagerInternals::platform(*manager),
                        *QSManagerInternals::storage(*manager),
                        *QSManagerInternals::utils(*manager), *QSManagerInternals::uuid(*manager));
    return builder.collectActivityData(state);
  }
};

TEST_F(AppActivityTest, StateDecidesTypeAndTheInitOnlyFields) {
  QSManagerInternals::storage(*manager)->saveCustomParams(
      Value{{"plan", "gold"}, {QSFM_DEVICE_MODEL, "Custom"}, {QSFM_RESUME_COUNTER, 99}});
  Value idle = build(QSAppStateIdle);
  EXPECT_EQ(idle["t"], QSFM_APP_IDLE);
  EXPECT_EQ(idle["d"][QSFM_APP_STATE], "idle");
  for (const char* key : {"plan", QSFM_DEVICE_SUPPORTED_LANGUAGES, QSFM_APP_SUPPORTED_LANGUAGES,
                          QSFM_RESUME_COUNTER}) {
    EXPECT_FALSE(idle["d"].contains(key)) << key;
  }
  EXPECT_EQ(idle["d"][QSFM_DEVICE_MODEL], "Simulator");
  EXPECT_FALSE(QSManagerInternals::storage(*manager)->getAppResumeCounter().has_value());

  // Any other state reports "idle" but is an app-init activity.
  for (QSAppState odd : {5, -1}) {
    Value v = build(odd);
    EXPECT_EQ(v["t"], QSFM_APP_INIT);
    EXPECT_EQ(v["d"][QSFM_APP_STATE], "idle");
  }
  Value init = build(QSAppStateWakeup);
  const Value& d = init["d"];
  EXPECT_EQ(d[QSFM_APP_STATE], "wakeup");
  EXPECT_EQ(d["plan"], "gold");
  EXPECT_EQ(d[QSFM_DEVICE_MODEL], "Custom");  // host keys replace the library's values
  EXPECT_EQ(d[QSFM_RESUME_COUNTER], 3);       // ...but not the counter
  EXPECT_EQ(d[QSFM_DEVICE_SUPPORTED_LANGUAGES], Value::array({"en-US"}));
  EXPECT_EQ(d[QSFM_APP_SUPPORTED_LANGUAGES], Value::array({"en"}));
  EXPECT_EQ(QSManagerInternals::storage(*manager)->getAppResumeCounter(), Value(3));
}

TEST_F(AppActivityTest, DeviceAndAppFactsWithTheirPlaceholders) {
  fake.device->bundleValue = BundleInfo{"1.2 beta 3", std::nullopt, std::nullopt, {}};
  fake.device->screen.reset();
  fake.device->carrier = CarrierInfo{"Carrier", "us"};
  fake.clock->set(1'700'000'123.9);
  const Value d = build(QSAppStateNewSession)["d"];
  EXPECT_EQ(d[QSFM_APP_VERSION], "1.2beta3");
  EXPECT_EQ(d[QSFM_APP_NAME], "<null>");
  EXPECT_EQ(d[QSFM_APP_IDENTIFIER], "<null>");
  EXPECT_EQ(d[QSFM_SCREEN_WIDTH], 0);
  EXPECT_EQ(d[QSFM_CARRIER], "Carrier");
  EXPECT_EQ(d[QSFM_SIM_SUPPORT], true);
  EXPECT_EQ(d[QSFM_UNIX_TIME], 1700000123);
  // No round trip and no ready manager yet: no timing fields.
  EXPECT_FALSE(d.contains(QSFM_COLLECTOR_REQUEST_RTT));
  EXPECT_FALSE(d.contains(QSFM_MANAGER_READY_TIME_INTERVAL));

  fake.device->carrier = CarrierInfo{std::nullopt, std::nullopt};
  const Value d2 = build(QSAppStateNewSession)["d"];
  EXPECT_EQ(d2[QSFM_CARRIER], "");
  EXPECT_EQ(d2[QSFM_SIM_SUPPORT], false);
}

// Each activity reads the route through a monitor of its own, which logs the
// flags it saw as letters and is gone once the record is built.
TEST_F(AppActivityTest, ConnectionTypeComesFromTheActivitysOwnMonitor) {
  const std::size_t watching = fake.reachability->scheduledTargetCount();
  fake.reachability->setFlags(kReachabilityFlagsReachable | kReachabilityFlagsIsWWAN |
                              kReachabilityFlagsConnectionRequired);
  fake.log->clear();
  EXPECT_EQ(build(QSAppStateNewSession)["d"][QSFM_CONNECTION_TYPE], "Mobile");
  EXPECT_EQ(fake.log->lines(),
            std::vector<std::string>{"Reachability Flag Status: WR -c----- networkStatusForFlags"});
  EXPECT_EQ(fake.reachability->scheduledTargetCount(), watching);

  fake.reachability->setFlags(0);
  EXPECT_EQ(build(QSAppStateIdle)["d"][QSFM_CONNECTION_TYPE], "No internet");
  fake.reachability->setFlagsReadable(false);
  fake.log->clear();
  EXPECT_EQ(build(QSAppStateIdle)["d"][QSFM_CONNECTION_TYPE], "No internet");
  EXPECT_EQ(fake.log->count("Reachability Flag Status"), 0u);
}

TEST_F(AppActivityTest, FingerprintsAndTimings) {
  fake.device->uniqueStringValue = "AB-CD-EF";
  // The first and third fingerprints are checked end to end, with an
  // independent SHA-1 (EndToEnd.DemoFlowAsTheSandboxSawIt).
  Value d = build(QSAppStateIdle)["d"];
  EXPECT_EQ(d[QSFM_FINGERPRINT2], "ABCDEF");  // 6 characters: sent whole

  fake.device->uniqueStringValue = "12345-6789";  // 9 characters: cut to 8
  EXPECT_EQ(build(QSAppStateIdle)["d"][QSFM_FINGERPRINT2], "12345678");

  QSManagerInternals::utils(*manager)->startTimerForManagerStart();
  QSManagerInternals::utils(*manager)->startTimerForCollectorRequest();
  fake.clock->advance(0.2349);
  QSManagerInternals::utils(*manager)->stopTimerForCollectorRequest();
  fake.clock->advance(1.765);
  QSManagerInternals::utils(*manager)->stopTimerForManagerStart();
  d = build(QSAppStateIdle)["d"];
  EXPECT_EQ(d[QSFM_COLLECTOR_REQUEST_RTT], 234);
  EXPECT_EQ(d[QSFM_MANAGER_READY_TIME_INTERVAL], 1999);
  EXPECT_TRUE(fake.log->contains("start --> ready - executionTime = 1.9999"));
}

TEST(ChallengeActivityTest, ReversesWholeCharacterSequences) {
  fake::FakePlatform fake;
  Text& text = *fake.text;
  EXPECT_EQ(ChallengeActivity::reverseString("", text), "");
  const std::string uuid = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";
  std::string mirror(uuid.rbegin(), uuid.rend());
  EXPECT_EQ(ChallengeActivity::reverseString(uuid, text), mirror);
  // CR LF is one character; LF CR and a lone CR are not.
  EXPECT_EQ(ChallengeActivity::reverseString("a\r\nb\n\rc\r", text), "\rc\r\nb\r\na");
  EXPECT_EQ(ChallengeActivity::reverseString("\r\n\xC3\xA9\r\n", text), "\r\n\xC3\xA9\r\n");
  // "e" + combining acute stays in that order; so does a surrogate-range emoji.
  EXPECT_EQ(ChallengeActivity::reverseString("ae\xCC\x81x\xF0\x9F\x98\x80", text),
            "\xF0\x9F\x98\x80xe\xCC\x81"
            "a");
}

}  // namespace
}  // namespace qs::testing
