#include "quarrystone/QSBlockResponse.h"

#include <gtest/gtest.h>

namespace qs {
namespace {

TEST(QSBlockResponse, OnlyTheExactActionNamesAreTheServices) {
  const Value full = {{"uuid", "u-1"},
                      {"vid", "v-1"},
                      {"appId", "APP"},
                      {"collectorUrl", "https://c"},
                      {"page", "PHA+aGk8L3A+"}};
  auto withAction = [&](Value action) {
    Value v = full;
    v["action"] = std::move(action);
    return v;
  };
  EXPECT_EQ(QSBlockResponse(withAction("block")).type(), QSBlockResponseTypeBlock);
  EXPECT_EQ(QSBlockResponse(withAction("captcha")).type(), QSBlockResponseTypeCaptcha);
  // Anything else, even with every field, is foreign and keeps none of them.
  for (const Value& odd :
       {withAction("Block"), withAction("captcha "), withAction(0), withAction(nullptr), full,
        Value::object(), Value::array({"block"}), Value(nullptr), Value("block")}) {
    QSBlockResponse r(odd);
    EXPECT_EQ(r.type(), QSBlockResponseTypeForeign) << odd.dump();
    EXPECT_TRUE(r.uuid().empty() && r.vid().empty() && r.appId().empty() &&
                r.collectorUrl().empty() && r.pageHtml().empty())
        << odd.dump();
  }
}

TEST(QSBlockResponse, CopiesStringFieldsAndDecodesThePageStrictly) {
  QSBlockResponse block(Value{{"action", "block"},
                              {"uuid", "u-1"},
                              {"vid", 42},
                              {"appId", "APP"},
                              {"collectorUrl", "https://c/x"},
                              {"page", "PGgxPkjDqWxsbzwvaDE+"}});
  EXPECT_EQ(block.uuid(), "u-1");
  EXPECT_EQ(block.vid(), "");  // not a string: left empty, never thrown
  EXPECT_EQ(block.appId(), "APP");
  EXPECT_EQ(block.collectorUrl(), "https://c/x");
  EXPECT_EQ(block.pageHtml(), "<h1>H\xC3\xA9llo</h1>");

  QSBlockResponse noPage(Value{{"action", "captcha"}, {"uuid", "u-2"}});
  EXPECT_EQ(noPage.type(), QSBlockResponseTypeCaptcha);
  EXPECT_EQ(noPage.uuid(), "u-2");
  EXPECT_EQ(noPage.pageHtml(), "");

  // Line breaks, a stray character, a missing pad, bytes that are not UTF-8,
  // a page that is not text: the page stays empty and the type is kept.
  for (const Value& page : {Value("PHA+\naGk8L3A+"), Value("PHA+aGk8L3A+!"), Value("PHA+aGk8L3A"),
                            Value("/w=="), Value(7)}) {
    QSBlockResponse r(Value{{"action", "captcha"}, {"appId", "APP"}, {"page", page}});
    EXPECT_EQ(r.type(), QSBlockResponseTypeCaptcha) << page.dump();
    EXPECT_EQ(r.pageHtml(), "") << page.dump();
    EXPECT_EQ(r.appId(), "APP");
  }
}

}  // namespace
}  // namespace qs
