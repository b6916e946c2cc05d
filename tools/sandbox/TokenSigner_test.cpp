#include "TokenSigner.h"

#include <gtest/gtest.h>

#include "SandboxCodec.h"

namespace qs::sandbox {
namespace {

TEST(TokenSignerTest, TokenVerifiesUntilItsExpirySecond) {
  const TokenSigner signer("secret");
  const std::string token = signer.sign({"APP", "v-1", 1000, "captcha"});
  EXPECT_EQ(token.find_first_of("|: "), std::string::npos);
  EXPECT_NE(token, signer.sign({"APP", "v-1", 1000, "captcha"}));

  const TokenCheck valid = signer.verify(token, 999.9);
  EXPECT_EQ(valid.status, TokenStatus::Valid);
  EXPECT_EQ(valid.claims.appId, "APP");
  EXPECT_EQ(valid.claims.vid, "v-1");
  EXPECT_EQ(valid.claims.expiresAt, 1000);
  EXPECT_EQ(valid.claims.simulate, "captcha");

  const TokenCheck expired = signer.verify(token, 1000);
  EXPECT_EQ(expired.status, TokenStatus::Expired);
  EXPECT_EQ(expired.claims.vid, "v-1");  // still readable for the block answer
}

TEST(TokenSignerTest, RefusesTamperedForeignAndMalformedTokens) {
  const TokenSigner signer("secret");
  const std::string token = signer.sign({"APP", "v-1", 5000, ""});
  const std::size_t dot = token.rfind('.');

  // Claims rewritten to a later expiry, under the old signature.
  const std::string forged =
      SandboxCodec::base64UrlEncode(R"({"appId":"APP","vid":"v-1","exp":9999})") +
      token.substr(dot);
  EXPECT_EQ(signer.verify(forged, 0).status, TokenStatus::BadSignature);
  std::string flipped = token;
  flipped.back() = flipped.back() == '0' ? '1' : '0';
  EXPECT_EQ(signer.verify(flipped, 0).status, TokenStatus::BadSignature);
  EXPECT_EQ(TokenSigner("other").verify(token, 0).status, TokenStatus::BadSignature);

  for (const std::string& bad :
       {std::string(), std::string("nodot"), std::string("."), std::string(5000, 'a') + ".b"}) {
    EXPECT_NE(signer.verify(bad, 0).status, TokenStatus::Valid) << bad;
  }
}

TEST(TokenSignerTest, RecognisesOnlyItsOwnVisitorIdsAndChallengeHashes) {
  const TokenSigner signer("secret");
  const std::string vid = signer.newVisitorId();
  EXPECT_TRUE(signer.isKnownVisitor(vid));
  EXPECT_NE(vid, signer.newVisitorId());
  EXPECT_FALSE(TokenSigner("other").isKnownVisitor(vid));
  std::string altered = vid;
  altered[0] = altered[0] == 'a' ? 'b' : 'a';
  EXPECT_FALSE(signer.isKnownVisitor(altered));
  EXPECT_FALSE(signer.isKnownVisitor(""));

  const std::string hash = signer.challengeHash("uuid-1", 42);
  EXPECT_EQ(hash.size(), 64u);
  EXPECT_EQ(hash, signer.challengeHash("uuid-1", 42));
  EXPECT_NE(hash, signer.challengeHash("uuid-1", 43));
  EXPECT_NE(hash, signer.challengeHash("uuid-2", 42));
}

}  // namespace
}  // namespace qs::sandbox
