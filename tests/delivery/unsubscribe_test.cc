#include "delivery/unsubscribe.h"

#include <gtest/gtest.h>

#include <string>

namespace quillo::delivery {
namespace {

constexpr const char* kKey = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

TEST(Unsubscribe, APathNamesItsClientAndCampaignAndChecks) {
  std::string path = UnsubscribePath(kKey, "CLIENT1", "CAMPAIGN1");
  EXPECT_EQ(path.rfind("/u/CLIENT1/CAMPAIGN1/", 0), 0u);
  auto target = CheckUnsubscribePath(kKey, path);
  ASSERT_TRUE(target.has_value());
  EXPECT_EQ(target->client, "CLIENT1");
  EXPECT_EQ(target->campaign, "CAMPAIGN1");
  // 128 bits of HMAC in Base64url.
  EXPECT_EQ(path.size() - std::string("/u/CLIENT1/CAMPAIGN1/").size(), 22u);
}

TEST(Unsubscribe, TokensDifferByClientCampaignAndKey) {
  std::string a = UnsubscribeToken(kKey, "C1", "K1");
  EXPECT_NE(a, UnsubscribeToken(kKey, "C2", "K1"));
  EXPECT_NE(a, UnsubscribeToken(kKey, "C1", "K2"));
  EXPECT_NE(a, UnsubscribeToken("another key", "C1", "K1"));
  // The separator keeps "C1"+"2K" apart from "C12"+"K".
  EXPECT_NE(UnsubscribeToken(kKey, "C1", "2K"), UnsubscribeToken(kKey, "C12", "K"));
  EXPECT_EQ(a, UnsubscribeToken(kKey, "C1", "K1"));
}

TEST(Unsubscribe, ForgedTruncatedAndBorrowedTokensAreRefused) {
  std::string good = UnsubscribePath(kKey, "C1", "K1");
  std::string token = good.substr(good.rfind('/') + 1);
  std::string altered = good;
  altered.back() = altered.back() == 'A' ? 'B' : 'A';
  EXPECT_FALSE(CheckUnsubscribePath(kKey, altered));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, good.substr(0, good.size() - 1)));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, good + "A"));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, "/u/C2/K1/" + token));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, "/u/C1/K2/" + token));
  EXPECT_FALSE(CheckUnsubscribePath("another key", good));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, "/u/C1/K1"));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, "/u/C1'/K1/" + token));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, "/x/C1/K1/" + token));
  EXPECT_FALSE(CheckUnsubscribePath(kKey, ""));
}

TEST(Verp, AReturnPathCarriesItsRecipientAndChecks) {
  // Generated keys are 32 hex digits; the local part stays within 64.
  const std::string client = "12E4BCC99FABF199C08F0EE247B7250C";
  const std::string campaign = "a9027bc9889d648dbf9eca58c8196960";
  std::string address = VerpAddress(kKey, "bounce@news.example.com", client, campaign);
  EXPECT_EQ(address.rfind("bounce+", 0), 0u);
  EXPECT_EQ(address.substr(address.find('@')), "@news.example.com");
  EXPECT_LE(address.find('@'), 64u);
  auto target = CheckVerpAddress(kKey, address);
  ASSERT_TRUE(target.has_value());
  EXPECT_EQ(target->client, client);
  EXPECT_EQ(target->campaign, campaign);
  auto plain = CheckVerpAddress(kKey, VerpAddress(kKey, "b@x.example", "C1", "K1"));
  ASSERT_TRUE(plain.has_value());
  EXPECT_EQ(plain->client, "C1");
  EXPECT_EQ(plain->campaign, "K1");
}

TEST(Verp, ForgedAlteredAndBorrowedTokensAreRefused) {
  std::string good = VerpAddress(kKey, "bounce@news.example.com", "C1", "K1");
  std::string other = VerpAddress(kKey, "bounce@news.example.com", "C2", "K1");
  EXPECT_NE(good, other);
  for (size_t i = std::string("bounce+").size(); i < good.find('@'); ++i) {
    std::string altered = good;
    altered[i] = altered[i] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(CheckVerpAddress(kKey, altered)) << altered;
  }
  EXPECT_FALSE(CheckVerpAddress("another key", good));
  EXPECT_FALSE(CheckVerpAddress(kKey, "bounce@news.example.com"));
  std::string truncated = good;
  truncated.erase(truncated.find('@') - 1, 1);
  EXPECT_FALSE(CheckVerpAddress(kKey, truncated));
  EXPECT_FALSE(
      CheckVerpAddress(kKey, "bounce+" + UnsubscribeToken(kKey, "C1", "K1") + "@news.example.com"));
}

TEST(Verp, ALocalPartPast64CharactersKeepsThePlainReturnPath) {
  EXPECT_EQ(VerpAddress(kKey, "bounces-for-the-spring-newsletter@news.example.com",
                        "12E4BCC99FABF199C08F0EE247B7250C", "A9027BC9889D648DBF9ECA58C8196960"),
            "bounces-for-the-spring-newsletter@news.example.com");
  EXPECT_EQ(VerpAddress(kKey, "bounce@news.example.com", "C-1", "K1"), "bounce@news.example.com");
}

}  // namespace
}  // namespace quillo::delivery
