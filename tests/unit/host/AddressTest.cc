#include <gtest/gtest.h>

#include "IPAddr.h"
#include "standin/ReportRecorder.h"

namespace {

std::string masked(const char* text, int bits) {
  IPAddr addr(text);
  addr.Mask(bits);
  return addr.AsString();
}

}  // namespace

TEST(IPAddr, FamilyFollowsTheMappedPrefix) {
  EXPECT_EQ(IPAddr("192.0.2.1").GetFamily(), IPv4);
  EXPECT_EQ(IPAddr("::ffff:192.0.2.1").GetFamily(), IPv4);
  EXPECT_EQ(IPAddr("2001:db8::1").GetFamily(), IPv6);
  EXPECT_EQ(IPAddr().GetFamily(), IPv6);
}

TEST(IPAddr, TextIsCompressedAndLowerCase) {
  EXPECT_EQ(IPAddr("192.0.2.1").AsString(), "192.0.2.1");
  EXPECT_EQ(IPAddr("2001:DB8:0:0:0:0:0:1").AsString(), "2001:db8::1");
  EXPECT_EQ(IPAddr("::1.2.3.4").AsString(), "::1.2.3.4");
  EXPECT_EQ(IPAddr("2001:db8::1").AsURIString(), "[2001:db8::1]");
  EXPECT_EQ(IPAddr("192.0.2.1").AsURIString(), "192.0.2.1");
  EXPECT_EQ(IPAddr("192.0.2.1").AsHexString(), "c0000201");
  EXPECT_EQ(IPAddr("192.0.2.1").PtrName(), "1.2.0.192.in-addr.arpa");
}

TEST(IPAddr, BadTextIsReportedAndAllZero) {
  standin::ReportRecorder recorder;
  EXPECT_TRUE(IPAddr("300.1.2.3") == IPAddr());
  EXPECT_EQ(recorder.Texts(standin::ReportKind::kError),
            std::vector<std::string>{"Bad IP address: 300.1.2.3"});
}

TEST(IPAddr, BytesAreInNetworkOrder) {
  const IPAddr v4("192.0.2.1");
  const uint32_t* words = nullptr;
  ASSERT_EQ(v4.GetBytes(&words), 1);
  EXPECT_EQ(ntohl(words[0]), 0xc0000201u);
  const IPAddr v6("2001:db8::1");
  ASSERT_EQ(v6.GetBytes(&words), 4);
  EXPECT_EQ(ntohl(words[0]), 0x20010db8u);
  uint32_t copied[4];
  v6.CopyIPv6(copied, IPAddr::Host);
  EXPECT_EQ(copied[0], 0x20010db8u);
  EXPECT_EQ(copied[3], 1u);
  v4.CopyIPv6(copied);
  EXPECT_EQ(ntohl(copied[2]), 0x0000ffffu);
}

TEST(IPAddr, IsMadeFromWordsOfEitherOrder) {
  const uint32_t host[] = {0xc0000201};
  EXPECT_EQ(IPAddr(IPv4, host, IPAddr::Host).AsString(), "192.0.2.1");
  const uint32_t network[] = {htonl(0x20010db8), 0, 0, htonl(7)};
  EXPECT_EQ(IPAddr(IPv6, network, IPAddr::Network).AsString(), "2001:db8::7");
}

TEST(IPAddr, MasksCountFromTheTopOf128Bits) {
  EXPECT_EQ(masked("192.0.2.255", 96 + 24), "192.0.2.0");
  EXPECT_EQ(masked("2001:db8:ffff::1", 33), "2001:db8:8000::");
  EXPECT_EQ(masked("2001:db8::1", 128), "2001:db8::1");
  EXPECT_EQ(masked("2001:db8::1", 0), "::");
}

TEST(IPAddr, KindsOfAddresses) {
  EXPECT_TRUE(IPAddr("127.1.2.3").IsLoopback());
  EXPECT_TRUE(IPAddr("::1").IsLoopback());
  EXPECT_FALSE(IPAddr("192.0.2.1").IsLoopback());
  EXPECT_TRUE(IPAddr("224.0.0.1").IsMulticast());
  EXPECT_TRUE(IPAddr("ff02::1").IsMulticast());
  EXPECT_TRUE(IPAddr("255.255.255.255").IsBroadcast());
}

TEST(IPAddr, BecomesAThreadingValue) {
  threading::Value::addr_t v;
  IPAddr("192.0.2.1").ConvertToThreadingValue(&v);
  EXPECT_EQ(v.family, IPv4);
  EXPECT_EQ(ntohl(v.in.in4.s_addr), 0xc0000201u);
  IPAddr("2001:db8::1").ConvertToThreadingValue(&v);
  EXPECT_EQ(v.family, IPv6);
  EXPECT_EQ(v.in.in6.s6_addr[0], 0x20);
}

TEST(IPPrefix, LengthOfThreadingValuesCountsFrom128) {
  threading::Value::subnet_t v;
  IPPrefix(IPAddr("192.168.1.1"), 16).ConvertToThreadingValue(&v);
  EXPECT_EQ(v.length, 112);
  EXPECT_EQ(ntohl(v.prefix.in.in4.s_addr), 0xc0a80000u);
  IPPrefix(IPAddr("2001:db8::1"), 32).ConvertToThreadingValue(&v);
  EXPECT_EQ(v.length, 32);
}

TEST(IPPrefix, TextAndContent) {
  const IPPrefix prefix(IPAddr("192.168.1.1"), 16);
  EXPECT_EQ(prefix.AsString(), "192.168.0.0/16");
  EXPECT_EQ(prefix.Length(), 16);
  EXPECT_EQ(prefix.LengthIPv6(), 112);
  EXPECT_TRUE(prefix.Contains("192.168.77.1"));
  EXPECT_FALSE(prefix.Contains("192.169.0.1"));
}
