#include <linnet/addr.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {
unsigned int H(const char* dotted) { return ntohl(inet_addr(dotted)); }
}  // namespace

TEST(IsPrivateIP, OnlyTenAndOneNineTwoOneSixEightCount) {
    EXPECT_EQ(IsPrivateIP(H("10.1.2.3")), 1);
    EXPECT_EQ(IsPrivateIP(H("10.255.255.255")), 1);
    EXPECT_EQ(IsPrivateIP(H("192.168.255.255")), 1);
    EXPECT_EQ(IsPrivateIP(H("192.168.0.0")), 1);
    // The 172.16/12 row never parses: those addresses are not private.
    EXPECT_EQ(IsPrivateIP(H("172.16.0.1")), 0);
    EXPECT_EQ(IsPrivateIP(H("172.31.0.1")), 0);
    EXPECT_EQ(IsPrivateIP(H("11.0.0.1")), 0);
    EXPECT_EQ(IsPrivateIP(H("192.169.0.1")), 0);
    EXPECT_EQ(IsPrivateIP(H("127.0.0.1")), 0);
    EXPECT_EQ(IsPrivateIP(0xffffffffu), 0);
}

TEST(AddressText, BothByteOrdersRenderTheSameAddress) {
    EXPECT_STREQ(ip2sn(htonl(0x7f000001u)), "127.0.0.1");
    EXPECT_STREQ(ip2sh(0x7f000001u), "127.0.0.1");
    EXPECT_STREQ(ip2sh(0xc0000201u), "192.0.2.1");
    EXPECT_STREQ(ip2sn(0), "0.0.0.0");
}

TEST(AddressText, RenderersShareOneStaticBuffer) {
    const char* a = ip2sh(0x01020304u);
    const char* b = ip2sn(htonl(0x05060708u));
    EXPECT_EQ(a, b);
    EXPECT_STREQ(a, "5.6.7.8");  // the last rendering wins
    char both[64];
    std::snprintf(both, sizeof both, "%s %s", ip2sh(1), ip2sh(2));
    const std::string text(both);
    const std::size_t blank = text.find(' ');
    EXPECT_EQ(text.substr(0, blank), text.substr(blank + 1));  // one text, twice
}
