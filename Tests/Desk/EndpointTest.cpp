// The URLs of links.

#include <gtest/gtest.h>

#include "Links/Endpoint.h"

namespace desk {
namespace {

using Address = std::array<uint8_t, 6>;

std::string refusal_of(const std::string& url) {
    try {
        parse_endpoint(url);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), exit_usage) << url;
        return failure.what();
    }
    ADD_FAILURE() << url << " was accepted";
    return {};
}

TEST(Endpoint, TakesAPathForAUnixSocket) {
    const Endpoint endpoint = parse_endpoint("unix:/tmp/a:b/camera.sock");
    EXPECT_EQ(endpoint.kind, Endpoint::Kind::unix_socket);
    EXPECT_EQ(endpoint.path, "/tmp/a:b/camera.sock");
}

TEST(Endpoint, TakesHostAndPortForTcp) {
    const Endpoint endpoint = parse_endpoint("tcp:camera.local:5000");
    EXPECT_EQ(endpoint.kind, Endpoint::Kind::tcp);
    EXPECT_EQ(endpoint.host, "camera.local");
    EXPECT_EQ(endpoint.port, 5000);
}

TEST(Endpoint, TakesTcpPort0ForAnyFreeOne) {
    EXPECT_EQ(parse_endpoint("tcp:localhost:0").port, 0);
}

TEST(Endpoint, TakesAnIpv6AddressOutOfItsBrackets) {
    const Endpoint endpoint = parse_endpoint("tcp:[fe80::1]:65535");
    EXPECT_EQ(endpoint.host, "fe80::1");
    EXPECT_EQ(endpoint.port, 65535);
}

TEST(Endpoint, TakesAnRfcommChannelOnAnyAdapter) {
    const Endpoint endpoint = parse_endpoint("rfcomm:30");
    EXPECT_EQ(endpoint.kind, Endpoint::Kind::rfcomm);
    EXPECT_EQ(endpoint.port, 30);
    EXPECT_FALSE(endpoint.address);
}

TEST(Endpoint, TakesABluetoothAddressMostSignificantByteFirst) {
    const Endpoint endpoint = parse_endpoint("l2cap:00:11:22:aA:44:fF:4097");
    EXPECT_EQ(endpoint.kind, Endpoint::Kind::l2cap);
    EXPECT_EQ(endpoint.port, 4097);
    ASSERT_TRUE(endpoint.address);
    EXPECT_EQ(*endpoint.address, (Address{0x00, 0x11, 0x22, 0xAA, 0x44, 0xFF}));
}

TEST(Endpoint, TakesAPsmOfLowEnergyOnAnyAdapterOrOne) {
    EXPECT_EQ(parse_endpoint("le:128").kind, Endpoint::Kind::le);
    EXPECT_EQ(parse_endpoint("le:255").port, 255);
    EXPECT_EQ(parse_endpoint("le:00:11:22:33:44:55:1").address, (Address{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    for (const char* const url : {"le:0", "le:256", "le:", "le:00:11:22:33:44:55", "le:x"}) {
        EXPECT_NE(refusal_of(url).find("the PSM is no number from 1 to 255, nor auto; write le:"), std::string::npos);
    }
}

TEST(Endpoint, TakesAutoForAnyFreeChannelAndForAnyFreePsmOfLowEnergy) {
    EXPECT_EQ(parse_endpoint("rfcomm:auto").port, 0);
    EXPECT_EQ(parse_endpoint("le:00:11:22:33:44:55:auto").port, 0);
    EXPECT_NE(refusal_of("l2cap:auto").find("no odd number"), std::string::npos);
    EXPECT_NE(refusal_of("rfcomm:automatic").find("nor auto"), std::string::npos);
}

TEST(Endpoint, MissesTheNumberBehindAnAddressAlone) {
    EXPECT_NE(refusal_of("rfcomm:00:11:22:33:44:55").find("the channel is no number"), std::string::npos);
    EXPECT_NE(refusal_of("l2cap:00:11:22:33:44:55").find("the PSM is no odd number"), std::string::npos);
}

TEST(Endpoint, TakesARandomAddressOfLowEnergyAlone) {
    const Endpoint endpoint = parse_endpoint("le:C0:11:22:33:44:55/random:128");
    EXPECT_TRUE(endpoint.has_random_address);
    EXPECT_EQ(*endpoint.address, (Address{0xC0, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_EQ(endpoint.port, 128);
    EXPECT_EQ(endpoint.url(), "le:C0:11:22:33:44:55/random:128");
    EXPECT_FALSE(parse_endpoint("le:C0:11:22:33:44:55:128").has_random_address);
    for (const char* const url : {"rfcomm:C0:11:22:33:44:55/random:1", "l2cap:C0:11:22:33:44:55/random:4097",
                                  "le:/random:128", "le:C0:11:22:33:44:55/public:128"}) {
        EXPECT_NE(refusal_of(url).find("the address is no Bluetooth address"), std::string::npos) << url;
    }
}

TEST(Endpoint, KnowsWhichLinksAreOfBluetooth) {
    for (const char* const url : {"rfcomm:1", "l2cap:4097", "le:128"}) {
        EXPECT_TRUE(parse_endpoint(url).is_bluetooth()) << url;
    }
    EXPECT_FALSE(parse_endpoint("unix:a").is_bluetooth());
    EXPECT_FALSE(parse_endpoint("tcp:a:1").is_bluetooth());
}

TEST(Endpoint, KnowsWhichLinksKeepMessageBoundaries) {
    EXPECT_TRUE(parse_endpoint("le:128").keeps_message_boundaries());
    EXPECT_TRUE(parse_endpoint("unix:a").keeps_message_boundaries());
    EXPECT_TRUE(parse_endpoint("l2cap:4097").keeps_message_boundaries());
    EXPECT_FALSE(parse_endpoint("tcp:a:1").keeps_message_boundaries());
    EXPECT_FALSE(parse_endpoint("rfcomm:1").keeps_message_boundaries());
}

TEST(Endpoint, WritesTheUrlThatItWasReadFrom) {
    for (const char* const url :
         {"unix:/tmp/camera.sock", "tcp:localhost:0", "tcp:[::1]:5000", "rfcomm:1", "rfcomm:00:11:22:33:44:FF:30",
          "l2cap:1", "l2cap:0A:11:22:33:44:55:65279", "rfcomm:auto", "le:128", "le:0A:11:22:33:44:55:auto"}) {
        EXPECT_EQ(parse_endpoint(url).url(), url);
    }
}

TEST(Endpoint, TakesAPathAsLongAsASocketsName) {
    EXPECT_EQ(parse_endpoint("unix:" + std::string(107, 'p')).path.size(), 107u);
    EXPECT_NE(refusal_of("unix:" + std::string(108, 'p')).find("108 bytes, a socket's has at most 107"),
              std::string::npos);
}

struct Refused {
    std::string url;
    const char* why;
    const char* example;
};

TEST(Endpoint, SaysWhatIsWrongWithAUrlAndShowsARightOne) {
    const char* const tcp = "write tcp:HOST:PORT";
    const char* const rfcomm = "write rfcomm:CHANNEL";
    const char* const l2cap = "write l2cap:PSM";
    const Refused refused[] = {
        {"", "no link that is known", "write unix:PATH, tcp:HOST:PORT"},
        {"unix", "the path is missing", "write unix:PATH"},
        {"/tmp/camera.sock", "no link that is known", "write unix:PATH"},
        {"http://camera", "no link that is known", "write unix:PATH"},
        {"unix:", "the path is missing", "write unix:PATH"},
        {"tcp:", "host or port is missing", tcp},
        {"tcp:camera", "host or port is missing", tcp},
        {"tcp::5000", "the host is missing", tcp},
        {"tcp:[]:5000", "the host is missing", tcp},
        {"tcp:camera:", "the port is no number from 0 to 65535", tcp},
        {"tcp:camera:65536", "the port is no number from 0 to 65535", tcp},
        {"tcp:camera:-1", "the port is no number from 0 to 65535", tcp},
        {"tcp:camera:99999999999", "the port is no number from 0 to 65535", tcp},
        {"tcp:camera:50x", "the port is no number from 0 to 65535", tcp},
        {"tcp:::1:5000", "an IPv6 address stands in brackets", "write tcp:[::1]:5000"},
        {"tcp:[::1:5000", "an IPv6 address stands in brackets", "write tcp:[::1]:5000"},
        {"rfcomm:", "the channel is no number from 1 to 30", rfcomm},
        {"rfcomm:0", "the channel is no number from 1 to 30", rfcomm},
        {"rfcomm:31", "the channel is no number from 1 to 30", rfcomm},
        {"rfcomm:00:11:22:33:44:55", "the channel is no number from 1 to 30", rfcomm},
        {"rfcomm:00:11:22:33:44:5G:1", "the address is no Bluetooth address", rfcomm},
        {"rfcomm:00-11-22-33-44-55:1", "the address is no Bluetooth address", rfcomm},
        {"l2cap:4098", "the PSM is no odd number", l2cap},
        {"l2cap:257", "the PSM is no odd number", l2cap},
        {"l2cap:65537", "the PSM is no odd number", l2cap},
        {"l2cap:0", "the PSM is no odd number", l2cap},
    };
    for (const Refused& line : refused) {
        const std::string refusal = refusal_of(line.url);
        EXPECT_EQ(refusal.find(line.url + ": "), 0u) << refusal;
        EXPECT_NE(refusal.find(line.why), std::string::npos) << refusal;
        EXPECT_NE(refusal.find(line.example), std::string::npos) << refusal;
    }
}

} // namespace
} // namespace desk
