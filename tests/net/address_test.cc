#include "net/address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <sstream>
#include <string>

#include "tests/support/base/error_text.h"

namespace {

using Net::Address;

TEST(AddressTest, UnixLengthsAreTheKernels) {
  EXPECT_EQ(Address().GetLength(), 0U);
  EXPECT_EQ(Address::FromUnixPath("/a").GetLength(), 110U);
  EXPECT_EQ(Address::FromUnixPath(std::string(200, 'p')).ToText(), "unix:" + std::string(107, 'p'));
  EXPECT_EQ(Address::FromUnixAbstract("abc").GetLength(), 6U);
  EXPECT_EQ(Address::FromUnixAbstract(std::string(200, 'n')).GetLength(), 109U);
  std::array<unsigned char, 113> const bytes{};
  EXPECT_EQ(Address(bytes.data(), 112).GetLength(), 112U);
  EXPECT_EQ(ErrorOf([&] { Address(bytes.data(), 113); }), "Overflow");
}

TEST(AddressTest, UnixTextIsAPathWhereThereIsASlash) {
  EXPECT_EQ(Address::FromUnixText("com.x").ToText(), "unix:@com.x");
  EXPECT_EQ(Address::FromUnixText("@com.x").ToText(), "unix:@com.x");
  EXPECT_EQ(Address::FromUnixText("./x").ToText(), "unix:./x");
  EXPECT_EQ(Address::FromUnixText("@/x").ToText(), "unix:\\x40/x") << "a path, not a name";
  EXPECT_EQ(Address::FromUnixText("@/x").GetLength(), 110U);
  EXPECT_EQ(Address::FromUnixText("/" + std::string(106, 'x')).GetLength(), 110U);
  for (std::string const& text :
       {"/" + std::string(107, 'x'), std::string(107, 'x'), std::string(), std::string("@")}) {
    EXPECT_EQ(ErrorOf([&] { Address::FromUnixText(text); }), "Invalid Address") << text;
  }
}

TEST(AddressTest, NamesOfPeersCannotForgeLines) {
  EXPECT_EQ(Address::FromUnixAbstract("a\n\"b\\").ToText(), "unix:@a\\x0a\\x22b\\x5c");
  EXPECT_EQ(Address("\x01\x00", 2).ToText(), "unix:");
  EXPECT_NE(Address("\x11\x00\x01", 3).ToText(), Address("\x11\x00\x02", 3).ToText());
}

TEST(AddressTest, TextIsReadBack) {
  sockaddr_in6 scoped{};
  scoped.sin6_family = AF_INET6;
  scoped.sin6_scope_id = 2;
  sockaddr_in6 labelled = scoped;
  labelled.sin6_flowinfo = 7;
  for (Address const& address :
       {Address(), Address("\x01\x00", 2), Address::FromUnixPath("@/x\\y\n"),
        Address::FromUnixPath("com.x"), Address::FromUnixAbstract(std::string("\0/\"", 3)),
        Address::FromUnixAbstract(""), Address::FromUnixAbstract(std::string(106, 'n')),
        Address(("\x01" + std::string(109, '\0')).data(), 110),
        Address(("\x01" + std::string(1, '\0') + std::string(108, 'p')).data(), 110),
        Address("\x01\x00/x\x00y", 6),
        Address(std::string("\x01\x00/x", 4).append(108, '\0').data(), 112),
        Address::Any(AF_INET, 80), Address::FromLiteral(AF_INET6, "2001:db8::1", 65535),
        Address(&scoped, sizeof scoped), Address(&labelled, sizeof labelled),
        Address(&scoped, sizeof scoped - 1), Address("\x11\x00\x03", 3)}) {
    std::string const text = address.ToText();
    Address const parsed = Address::FromText(text);
    ASSERT_EQ(parsed.GetLength(), address.GetLength()) << text;
    EXPECT_EQ(std::memcmp(parsed.GetData(), address.GetData(), parsed.GetLength()), 0) << text;
  }
}

TEST(AddressTest, TextThatIsNoneIsRefused) {
  auto const parse = [](std::string const& text) {
    return ErrorOf([&] { Address::FromText(text); });
  };
  std::istringstream texts(
      "unix:a\\x00 unix:\\x4 unix:\\y40 192.0.2.1 192.0.2.1: 192.0.2.1:65536 192.0.2.1:+1 "
      "192.0.2.256:1 [::1] ::1:1 [::1:1 []:1 [::1%lo]:1 [::1%4294967296]:1 localhost:1 "
      "[192.0.2.1]:1 17:1200 17:110");
  for (std::string text; texts >> text;) EXPECT_EQ(parse(text), "Invalid Address") << text;
  EXPECT_EQ(parse(""), "Invalid Address");
  EXPECT_EQ(parse("[::1]:1 "), "Invalid Address");
  EXPECT_EQ(parse("unix:" + std::string(109, 'p')), "Invalid Address");
  EXPECT_EQ(parse("unix:@" + std::string(108, 'n')), "Invalid Address");
  EXPECT_EQ(parse("17:" + std::string(226, '1')), "Invalid Address");
  EXPECT_EQ(parse(std::string("192.0.2.1\0:1", 12)), "Invalid Address");
}

TEST(AddressTest, InternetAddresses) {
  EXPECT_EQ(Address::Any(AF_INET, 80).ToText(), "0.0.0.0:80");
  EXPECT_EQ(Address::Any(AF_INET6, 443).ToText(), "[::]:443");
  EXPECT_EQ(Address::Any(AF_INET6, 443).GetLength(), sizeof(sockaddr_in6));
  EXPECT_EQ(Address::FromLiteral(AF_INET, "192.0.2.1", 80).ToText(), "192.0.2.1:80");
  EXPECT_EQ(Address::FromLiteral(AF_INET6, "2001:db8::1", 443).ToText(), "[2001:db8::1]:443");
  EXPECT_EQ(ErrorOf([] { Address::FromLiteral(AF_INET, "300.0.0.1", 1); }), "Invalid Address");
  EXPECT_EQ(ErrorOf([] { Address::FromLiteral(AF_INET6, "x", 1); }), "Invalid Address");
  EXPECT_EQ(ErrorOf([] { Address::Any(AF_UNIX, 1); }), "Unhandled Address Family");
}

TEST(AddressTest, NameAndPort) {
  EXPECT_EQ(Address::FromNameAndPort("127.0.0.1:8080").ToText(), "127.0.0.1:8080");
  EXPECT_EQ(Address::FromNameAndPort("127.0.0.1:4294967376").ToText(), "127.0.0.1:80");
  EXPECT_EQ(Address::FromNameAndPort("127.0.0.1:80x", "9").ToText(), "127.0.0.1:80");
  for (char const* const text :
       {"127.0.0.1", "127.0.0.1:", "127.0.0.1:x", "h:99999999999999999999", ""}) {
    EXPECT_EQ(ErrorOf([&] { Address::FromNameAndPort(text, "9"); }), "Invalid Address") << text;
  }
  EXPECT_EQ(ErrorOf([] { Address::FromNameAndPort("no such host:9", "9"); }), "Unknown Address");
}

TEST(AddressTest, AZeroByteEndsNoText) {
  std::string const zero(1, '\0');
  EXPECT_EQ(ErrorOf([&] { Address::FromLiteral(AF_INET, "127.0.0.1" + zero + ".9", 1); }),
            "Invalid Address");
  EXPECT_EQ(ErrorOf([&] { Address::FromLiteral(AF_INET6, "::1" + zero, 1); }), "Invalid Address");
  EXPECT_EQ(ErrorOf([&] { Address::Resolve("127.0.0.1" + zero, 9, "9"); }), "Unknown Address");
  EXPECT_EQ(ErrorOf([&] { Address::Resolve("127.0.0.1", 9, "9" + zero); }), "Unknown Address");
  EXPECT_EQ(ErrorOf([&] { Address::FromNameAndPort("127.0.0.1" + zero + ".9:9", "9"); }),
            "Unknown Address");
}

TEST(AddressTest, NetworksKeepThePrefix) {
  auto const network = [](int family, char const* text, unsigned bits) {
    return Address::FromLiteral(family, text, 0).GetNetwork(bits).ToText();
  };
  EXPECT_EQ(network(AF_INET, "192.168.1.77", 24), "192.168.1.0:0");
  EXPECT_EQ(network(AF_INET, "192.168.255.77", 19), "192.168.224.0:0");
  EXPECT_EQ(network(AF_INET, "192.168.1.77", 32), "192.168.1.77:0");
  EXPECT_EQ(network(AF_INET, "192.168.1.77", 0), "0.0.0.0:0");
  EXPECT_EQ(network(AF_INET6, "2001:db8:ffff::1", 33), "[2001:db8:8000::]:0");
  EXPECT_EQ(ErrorOf([&] { network(AF_INET, "192.168.1.77", 33); }), "Invalid Address");
  EXPECT_EQ(Address::FromUnixPath("/x").GetNetwork(8).GetLength(), 0U);
}

TEST(AddressTest, TheLoopbackInterfaceCarriesItsAddress) {
  EXPECT_EQ(Address::FromLiteral(AF_INET, "127.0.0.1", 0).GetInterfaceName(), "lo");
  EXPECT_EQ(Address::FromLiteral(AF_INET, "192.0.2.77", 0).GetInterfaceName(), "");
}

}  // namespace
