#include <gtest/gtest.h>

#include "client/HostIdentity.h"
#include "client/SyncClient.h"
#include "wire/Digest.h"

namespace {

TEST(HostIdentityTest, ParsesEveryFieldAndRejectsOtherTexts)
{
    const std::string digest = Digest::md5OfString(SyncClient::hashPassword("secret"));
    auto id = HostIdentity::parse("ZandrelSync4Mac 1.5.0:Office Mac:odd:user:192.168.1.20,10.0.0.7:35000:" + digest);
    ASSERT_TRUE(id);
    EXPECT_EQ(id->version + "|" + id->computer + "|" + id->user, "ZandrelSync4Mac 1.5.0|Office Mac|odd:user");
    EXPECT_EQ(id->addresses, (std::vector<std::string>{"192.168.1.20", "10.0.0.7"}));
    EXPECT_EQ(id->port, 35000);
    EXPECT_FALSE(id->acceptsHash(SyncClient::hashPassword("other")));
    EXPECT_TRUE(HostIdentity::parse("V:C:U::1024:D")->addresses.empty());

    for (const char* text : {"", "ZandrelSync", "V:C:U:1.2.3.4:35000", "V:C:U:1.2.3.4:port:D",
             "V:C:U:1.2.3.4:70000:D", "V:C:U:1.2.3.4::D"})
        EXPECT_FALSE(HostIdentity::parse(text)) << text;
}

} // namespace
