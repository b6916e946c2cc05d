#include "crypto/Base64.h"

#include <gtest/gtest.h>

namespace qs {
namespace {

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

TEST(Base64Test, StandardVectorsBothWays) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (auto [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
    EXPECT_EQ(base64Decode(encoded, false), bytes(plain));
  }
  // Both ends of the alphabet.
  EXPECT_EQ(base64Encode(Bytes{0xFB, 0xEF, 0xFF}), "++//");
  EXPECT_EQ(base64Decode("++//", false), (Bytes{0xFB, 0xEF, 0xFF}));
}

TEST(Base64Test, UnknownCharactersSkippedOnlyWhenAsked) {
  EXPECT_EQ(base64Decode("Zm9v\r\nYmFy\n", true), bytes("foobar"));
  EXPECT_EQ(base64Decode(" Zm9v-Yg==*", true), bytes("foob"));
  EXPECT_EQ(base64Decode("Zm9v\nYmFy", false), std::nullopt);
  EXPECT_EQ(base64Decode("Zm9v-", false), std::nullopt);
}

TEST(Base64Test, MalformedTextFails) {
  for (bool ignore : {false, true}) {
    SCOPED_TRACE(ignore);
    EXPECT_EQ(base64Decode("Zm9", ignore), std::nullopt);       // incomplete group
    EXPECT_EQ(base64Decode("Zg=", ignore), std::nullopt);       // short padding
    EXPECT_EQ(base64Decode("Z===", ignore), std::nullopt);      // padding too early
    EXPECT_EQ(base64Decode("Zg=a", ignore), std::nullopt);      // data after padding
    EXPECT_EQ(base64Decode("Zg==Zm9v", ignore), std::nullopt);  // group after padding
    EXPECT_EQ(base64Decode("====", ignore), std::nullopt);
  }
}

}  // namespace
}  // namespace qs
