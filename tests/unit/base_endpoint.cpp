#include "base/endpoint.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>

#include "base/name_lookup.h"

namespace
{

std::string parsed(std::string_view text, std::optional<uint16_t> usual = std::nullopt)
{
    const auto place = host_port_parse(text, usual);
    return place ? place->host + " " + std::to_string(place->port) : "none";
}

TEST(Endpoints, AHostAndAPortAreTakenApart)
{
    EXPECT_EQ(parsed("localhost:80"), "localhost 80");
    EXPECT_EQ(parsed("127.0.0.1:0"), "127.0.0.1 0");
    EXPECT_EQ(parsed("[::1]:65535"), "::1 65535");
    EXPECT_EQ(parsed("[name]:080"), "name 80");
}

TEST(Endpoints, WhatIsNotOfTheFormIsRefused)
{
    for (const char *bad : {"",        "host",    ":80",        "host:",      "host:x",           "host:+1",
                            "host:-1", "host: 1", "host:1 ",    "host:65536", "host:99999999999", "::1:80",
                            "a:b:80",  "[]:80",   "[::1]",      "[::1]:",     "[::1]80",          "[::1",
                            "[::1:80", "::1]:80", "[[::1]]:80", "a[b]:80"})
        EXPECT_EQ(parsed(bad), "none") << bad;
}

TEST(Endpoints, TheUsualPortMayBeLeftOut)
{
    EXPECT_EQ(parsed("host", 53), "host 53");
    EXPECT_EQ(parsed("host:5353", 53), "host 5353");
    EXPECT_EQ(parsed("[fe80::1]", 53), "fe80::1 53");
    EXPECT_EQ(parsed("[fe80::1]:1", 53), "fe80::1 1");
    EXPECT_EQ(parsed("fe80::1", 53), "fe80::1 53");
    for (const char *bad : {"", ":53", "host:", "host:x", "[]", "[", "[::1", "[::1]x", "host]"})
        EXPECT_EQ(parsed(bad, 53), "none") << bad;
}

TEST(Endpoints, TheTextIsReadBack)
{
    for (const char *text : {"name:1", "127.0.0.1:65535", "[::1]:0"})
        EXPECT_EQ(host_port_text(*host_port_parse(text)), text);
}

TEST(Endpoints, ASocketPathHasToFit)
{
    sockaddr_un address;
    EXPECT_FALSE(unix_address("", &address));
    EXPECT_FALSE(unix_address(std::string(unix_path_max + 1, 'x'), &address));
    const std::string longest(unix_path_max, 'x');
    ASSERT_TRUE(unix_address(longest, &address));
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(address.sun_path, longest);
}

TEST(Endpoints, AnAddressInDigitsIsNoName)
{
    host_address address;
    ASSERT_TRUE(address_parse("127.0.0.1", AF_UNSPEC, &address));
    address.set_port(8080);
    EXPECT_EQ(address.port(), 8080);
    sockaddr_in bytes;
    memcpy(&bytes, address.get(), sizeof bytes);
    EXPECT_EQ(bytes.sin_port, htons(8080));
    EXPECT_EQ(address_text(address), "127.0.0.1");
    ASSERT_TRUE(address_parse("::1", AF_INET6, &address));
    address.set_port(1);
    EXPECT_EQ(address.port(), 1);
    EXPECT_EQ(address_text(address), "::1");
    EXPECT_FALSE(address_parse("localhost", AF_UNSPEC, &address));
    EXPECT_FALSE(address_parse("::1", AF_INET, &address));
    EXPECT_EQ(address_text({}), "");
}

void await(const name_lookup &lookup)
{
    pollfd fd{.fd = lookup.fd(), .events = POLLIN, .revents = 0};
    ASSERT_EQ(poll(&fd, 1, 60'000), 1);
    ASSERT_TRUE(lookup.ended());
}

TEST(NameLookup, FindsTheAddressesOfAName)
{
    const auto lookup = name_lookup::start("localhost", AF_INET);
    ASSERT_TRUE(lookup);
    await(*lookup);
    // As often as the machine's own list of hosts has it.
    ASSERT_FALSE(lookup->found().empty());
    for (const host_address &address : lookup->found())
        EXPECT_EQ(address_text(address), "127.0.0.1");
}

TEST(NameLookup, SaysWhyNothingIsFound)
{
    const auto lookup = name_lookup::start("not a name", AF_UNSPEC);
    ASSERT_TRUE(lookup);
    await(*lookup);
    EXPECT_TRUE(lookup->found().empty());
    EXPECT_STRNE(lookup->error(), "Success");
}

} // namespace
