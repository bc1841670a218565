// Parsing the server's identifier text into its fields.

#include <gtest/gtest.h>

#include "client/HostIdentity.h"
#include "client/SyncClient.h"
#include "wire/Digest.h"

namespace {

TEST(HostIdentityTest, ParsesEveryFieldAndRejectsOtherTexts)
{
    const std::string digest = Digest::md5OfString(SyncClient::hashPassword("secret"));
    auto id = HostIdentity::parse("ZandrelSync4Mac 1.5.0:Office Mac:user1:192.168.1.20,10.0.0.7:35000:" + digest);
    ASSERT_TRUE(id);
    EXPECT_EQ(id->version, "ZandrelSync4Mac 1.5.0");
    EXPECT_EQ(id->computer, "Office Mac");
    EXPECT_EQ(id->user, "user1");
    EXPECT_EQ(id->addresses, (std::vector<std::string>{"192.168.1.20", "10.0.0.7"}));
    EXPECT_EQ(id->port, 35000);
    EXPECT_TRUE(id->acceptsHash(SyncClient::hashPassword("secret")));
    EXPECT_FALSE(id->acceptsHash(SyncClient::hashPassword("other")));

    // No addresses at all, and a user name that the server does not escape.
    id = HostIdentity::parse("V:C:odd:user::1024:D");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->user, "odd:user");
    EXPECT_TRUE(id->addresses.empty());
    EXPECT_EQ(id->hashDigest, "D");

    for (const char* text : {"", "ZandrelSync", "V:C:U:1.2.3.4:35000", "V:C:U:1.2.3.4:port:D",
             "V:C:U:1.2.3.4:70000:D", "V:C:U:1.2.3.4::D"})
        EXPECT_FALSE(HostIdentity::parse(text)) << text;
}

} // namespace
