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

}  // namespace
}  // namespace quillo::delivery
