#include <linnet/addr.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

TEST(IsPrivateIP, OnlyTenAndOneNineTwoOneSixEightCount) {
    for (const char* ip : {"10.1.2.3", "10.255.255.255", "192.168.0.0", "192.168.255.255"})
        EXPECT_EQ(IsPrivateIP(ntohl(inet_addr(ip))), 1) << ip;
    // The 172.16/12 row never parses: those addresses are not private.
    for (const char* ip : {"172.16.0.1", "172.31.0.1", "11.0.0.1", "192.169.0.1", "127.0.0.1"})
        EXPECT_EQ(IsPrivateIP(ntohl(inet_addr(ip))), 0) << ip;
}

TEST(AddressText, BothByteOrdersRenderIntoOneSharedStaticBuffer) {
    EXPECT_STREQ(ip2sn(htonl(0x7f000001u)), "127.0.0.1");
    EXPECT_STREQ(ip2sh(0xc0000201u), "192.0.2.1");
    const char* a = ip2sh(0x01020304u);
    EXPECT_EQ(a, ip2sn(htonl(0x05060708u)));
    EXPECT_STREQ(a, "5.6.7.8");  // the last rendering wins
    char both[64];
    std::snprintf(both, sizeof both, "%s %s", ip2sh(1), ip2sh(2));
    EXPECT_TRUE(std::string(both) == "0.0.0.1 0.0.0.1" || std::string(both) == "0.0.0.2 0.0.0.2") << both;
}
