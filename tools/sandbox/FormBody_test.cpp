#include "FormBody.h"

#include <gtest/gtest.h>

#include <string>

namespace qs::sandbox {
namespace {

TEST(FormBodyTest, KeepsRawBase64AndSplitsEachPairAtItsFirstEquals) {
  const auto form = FormBody::parse("uuid=u-1&payload=ab+x/y==&appId=APP&&tag=v2.51&empty=");
  ASSERT_TRUE(form) << form.error;
  EXPECT_EQ(form.value->get("payload"), "ab+x/y==");
  EXPECT_EQ(form.value->get("appId"), "APP");
  EXPECT_EQ(form.value->get("uuid"), "u-1");
  EXPECT_TRUE(form.value->has("empty"));
  EXPECT_EQ(form.value->get("empty"), "");
  EXPECT_FALSE(form.value->has("sid"));
  EXPECT_EQ(form.value->fields.size(), 5u);

  const auto nothing = FormBody::parse("");
  ASSERT_TRUE(nothing);
  EXPECT_TRUE(nothing.value->fields.empty());
}

TEST(FormBodyTest, RefusesMalformedBodiesWithAReason) {
  std::string tooMany;
  for (std::size_t i = 0; i <= FormBody::kMaxFields; ++i)
    tooMany += "k" + std::to_string(i) + "=v&";
  for (const std::string& body :
       {std::string("appId"), std::string("=value"), std::string("a=1&a=2"),
        std::string(FormBody::kMaxKeyLength + 1, 'k') + "=v", tooMany}) {
    const auto form = FormBody::parse(body);
    EXPECT_FALSE(form) << body;
    EXPECT_FALSE(form.error.empty()) << body;
  }
}

}  // namespace
}  // namespace qs::sandbox
