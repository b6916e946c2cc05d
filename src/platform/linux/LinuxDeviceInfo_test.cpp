#include "LinuxDeviceInfo.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "quarrystone/LinuxPlatform.h"

namespace qs {
namespace {

TEST(LinuxDeviceInfo, ReportsTheMachineAndFreshVersion4Identifiers) {
  auto info = makeLinuxDeviceInfo(BundleInfo{"2.1", "Demo", "net.example.demo", {"en"}}, {});
  struct utsname names {};
  ASSERT_EQ(uname(&names), 0);
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  EXPECT_EQ(info->machine(), names.machine);
  EXPECT_EQ(info->deviceName(), host);
  EXPECT_FALSE(info->systemName().empty());
  EXPECT_FALSE(info->systemVersion().empty());
  EXPECT_FALSE(info->preferredLanguages().empty());
  EXPECT_FALSE(info->subscriberCarrier());

  const std::regex v4("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    for (const std::string& id : {info->globallyUniqueString(), info->newUUID()}) {
      EXPECT_TRUE(std::regex_match(id, v4)) << id;
      seen.insert(id);
    }
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST(LinuxDeviceInfo, LocaleVariablesAndOsReleaseAreParsed) {
  using List = std::vector<std::string>;
  EXPECT_EQ(preferredLanguagesFrom(nullptr, nullptr, nullptr, "en_US.UTF-8"), List{"en-US"});
  EXPECT_EQ(preferredLanguagesFrom("fr_CA:fr:en_GB", "", nullptr, "de_DE.UTF-8"),
            (List{"fr-CA", "fr", "en-GB", "de-DE"}));
  // LC_ALL wins over LC_MESSAGES and LANG; repeats are dropped.
  EXPECT_EQ(preferredLanguagesFrom("pt_BR", "pt_BR.utf8", "ja_JP", "it_IT"), List{"pt-BR"});
  EXPECT_EQ(preferredLanguagesFrom(nullptr, nullptr, "C.UTF-8", "POSIX"), List{"en"});
  EXPECT_EQ(preferredLanguagesFrom(nullptr, nullptr, nullptr, "sr_RS@latin"), List{"sr-RS"});
  EXPECT_EQ(preferredLanguagesFrom(nullptr, nullptr, nullptr, "es_419.UTF-8"), List{"es-419"});
  EXPECT_EQ(preferredLanguagesFrom("::x:", nullptr, nullptr, "1_2"), List{"en"});
  EXPECT_EQ(preferredLanguagesFrom(nullptr, nullptr, nullptr, nullptr), List{"en"});

  // os-release values are unquoted and unescaped; malformed lines are skipped.
  auto fields = parseOsRelease(
      "# comment\n"
      "NAME=\"Debian GNU/Linux\"\n"
      "VERSION_ID='12'\n"
      "  PRETTY_NAME=\"say \\\"hi\\\" \\\\ there\"  \n"
      "ID=debian\n"
      "BROKEN=two words\n"
      "UNTERMINATED=\"open\n"
      "=novalue\n");
  EXPECT_EQ(fields["NAME"], "Debian GNU/Linux");
  EXPECT_EQ(fields["VERSION_ID"], "12");
  EXPECT_EQ(fields["PRETTY_NAME"], "say \"hi\" \\ there");
  EXPECT_EQ(fields["ID"], "debian");
  EXPECT_EQ(fields.count("BROKEN") + fields.count("UNTERMINATED") + fields.count(""), 0u);
}

}  // namespace
}  // namespace qs
