#include "crypto/Base64.h"

#include <gtest/gtest.h>

namespace qs {
namespace {

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(Base64Test, StandardVectorsBothWays) {
  for (auto [plain, encoded] : {std::pair{"", ""},
                                {"f", "Zg=="},
                                {"fo", "Zm8="},
                                {"foo", "Zm9v"},
                                {"foob", "Zm9vYg=="},
                                {"fooba", "Zm9vYmE="},
                                {"foobar", "Zm9vYmFy"},
                                {"\xFB\xEF\xFF", "++//"}}) {
    EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
    EXPECT_EQ(base64Decode(encoded, false), bytes(plain));
  }
}

TEST(Base64Test, UnknownCharactersSkippedOnlyWhenAskedMalformedTextNever) {
  EXPECT_EQ(base64Decode("Zm9v\r\nYmFy\n", true), bytes("foobar"));
  EXPECT_EQ(base64Decode(" Zm9v-Yg==*", true), bytes("foob"));
  EXPECT_EQ(base64Decode("Zm9v\nYmFy", false), std::nullopt);
  EXPECT_EQ(base64Decode("Zm9v-", false), std::nullopt);
  // Incomplete group, short padding, padding too early, data or a group after it.
  for (const char* bad : {"Zm9", "Zg=", "Z===", "Zg=a", "Zg==Zm9v", "===="}) {
    EXPECT_EQ(base64Decode(bad, false), std::nullopt) << bad;
    EXPECT_EQ(base64Decode(bad, true), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace qs
