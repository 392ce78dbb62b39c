// Captures of links over Bluetooth itself, which few machines have: where they lead, and to whom.

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include "Capture/Writer.h"

namespace desk::capture {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t header_size = 16;
constexpr size_t record_size = 24;

// The packets of a capture with this link alone, which is over again.
class CapturedLink {
  public:
    CapturedLink(Side own, const std::string& url, uint64_t number = 1, const Bytes& sent = {}) {
        std::string path = ::testing::TempDir() + "capture-XXXXXX";
        ::close(::mkstemp(path.data()));
        const auto file = std::make_shared<OutputFile>(path, [](const std::string& line) { ADD_FAILURE() << line; });
        file->begin();
        {
            LinkWriter link(file, own, number, parse_endpoint(url));
            if (!sent.empty()) {
                link.sent(sent);
            }
        }
        read(path);
        read_back(path);
        ::unlink(path.c_str());
    }

    // What the desk reads out of it.
    const std::vector<Channel>& channels_read() const { return channels_; }
    const std::vector<Bytes>& packets_read() const { return read_; }

    // A part of a packet.
    Bytes bytes(size_t index, size_t offset, size_t count) const {
        const auto begin = packets_.at(index).begin() + static_cast<std::ptrdiff_t>(offset);
        return {begin, begin + static_cast<std::ptrdiff_t>(count)};
    }

  private:
    void read(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        const Bytes all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        size_t position = header_size;
        while (position < all.size()) {
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(position + record_size);
            const size_t length = static_cast<size_t>(all.at(position + 6)) << 8 | all.at(position + 7);
            packets_.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(length));
            position += record_size + length;
        }
    }

    void read_back(const std::string& path) {
        Reader reader(path, {});
        while (const std::optional<Event> event = reader.next()) {
            EXPECT_NE(event->kind, Event::Kind::gap) << event->text;
            EXPECT_NE(event->kind, Event::Kind::remark) << event->text;
            if (event->kind == Event::Kind::opened) {
                channels_.push_back(event->channel);
            } else if (event->kind == Event::Kind::data) {
                read_.emplace_back(event->bytes.begin(), event->bytes.end());
            }
        }
    }

    std::vector<Bytes> packets_;
    std::vector<Channel> channels_;
    std::vector<Bytes> read_;
};

constexpr size_t complete = 0, connection_request = 1, first_of_rfcomm = 7; // the places of packets
constexpr size_t first_of_low_energy = 3;
constexpr size_t handle_offset = 4, peer_offset = 6; // in Connect Complete
constexpr size_t psm_offset = 13;                    // in the connection request
constexpr size_t frame_offset = 9;                   // in a packet that carries a frame

TEST(CaptureOfL2cap, LeadsToItsOwnPsmAtTheCameraOfItsUrl) {
    const CapturedLink link(Side::phone, "l2cap:00:11:22:33:44:55:4099");
    EXPECT_EQ(link.bytes(connection_request, psm_offset, 2), (Bytes{0x03, 0x10}));
    EXPECT_EQ(link.bytes(complete, peer_offset, 6), (Bytes{0x55, 0x44, 0x33, 0x22, 0x11, 0x00}));
}

TEST(CaptureOfRfcomm, LeadsToItsOwnChannelAtTheCameraOfItsUrl) {
    const CapturedLink link(Side::phone, "rfcomm:00:11:22:33:44:55:3");
    EXPECT_EQ(link.bytes(connection_request, psm_offset, 2), (Bytes{0x03, 0x00}));
    EXPECT_EQ(link.bytes(complete, peer_offset, 6), (Bytes{0x55, 0x44, 0x33, 0x22, 0x11, 0x00}));
    EXPECT_EQ(link.bytes(first_of_rfcomm, frame_offset, 4), (Bytes{0x03, 0x3f, 0x01, 0x1c}));
    // Channel 3 is the DLCI 6, and 6 * 4 + 3 the address of its commands.
    EXPECT_EQ(link.bytes(first_of_rfcomm + 2, frame_offset, 4), (Bytes{0x1b, 0x3f, 0x01, 0xd3}));
}

TEST(CaptureOfLowEnergy, IsAConnectionAndAChannelOfLowEnergyWithItsOwnPsm) {
    const CapturedLink link(Side::phone, "le:00:11:22:33:44:55:128");
    // H4, LE Meta Event with 19 bytes: connection complete, done, handle 1, we are central, a public address.
    EXPECT_EQ(link.bytes(complete, 0, 9), (Bytes{0x04, 0x3e, 0x13, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00}));
    EXPECT_EQ(link.bytes(complete, 9, 6), (Bytes{0x55, 0x44, 0x33, 0x22, 0x11, 0x00}));
    // On the signalling channel of Low Energy a credit-based connection request of ten bytes for PSM 128, from 0x40.
    EXPECT_EQ(link.bytes(connection_request, 7, 10),
              (Bytes{0x05, 0x00, 0x14, 0x01, 0x0a, 0x00, 0x80, 0x00, 0x40, 0x00}));
}

TEST(CaptureOfLowEnergy, OfACameraIsAPeripherals) {
    const CapturedLink link(Side::camera, "le:128");
    EXPECT_EQ(link.bytes(complete, 7, 8), (Bytes{0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x02}));
}

TEST(CaptureOfLowEnergy, PutsTheLengthOfAPacketBeforeIt) {
    const CapturedLink link(Side::camera, "le:128", 1, {0xaa, 0xbb, 0xcc});
    EXPECT_EQ(link.bytes(first_of_low_energy, 5, 9), (Bytes{0x05, 0x00, 0x40, 0x00, 0x03, 0x00, 0xaa, 0xbb, 0xcc}));
}

TEST(CaptureOfLowEnergy, IsReadBack) {
    const Bytes list = {0x01, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00};
    const CapturedLink link(Side::phone, "le:128", 1, list);
    EXPECT_EQ(link.packets_read(), std::vector<Bytes>{list});
    ASSERT_EQ(link.channels_read().size(), 1u);
    EXPECT_EQ(link.channels_read().front().kind, Channel::Kind::le);
    EXPECT_EQ(link.channels_read().front().port, 128);
}

TEST(CaptureOfLowEnergy, CutsAPacketThatIsLongerThanOneOfL2cap) {
    const Bytes longest(65535, 0x55);
    const CapturedLink link(Side::camera, "le:128", 1, longest);
    // An announced length that fills the largest packet: 65535 - 4 - 2.
    EXPECT_EQ(link.bytes(first_of_low_energy, 5, 6), (Bytes{0xfb, 0xff, 0x40, 0x00, 0xf9, 0xff}));
}

TEST(CaptureOfACamera, DoesNotTakeItsOwnAddressForThePhones) {
    const CapturedLink link(Side::camera, "l2cap:00:11:22:33:44:55:4099");
    EXPECT_EQ(link.bytes(complete, peer_offset, 6), (Bytes{0x01, 0x00, 0x00, 0x00, 0x00, 0x02}));
}

TEST(CaptureOfManyLinks, BeginsItsHandlesAnewBehindTheLastThatThereIs) {
    EXPECT_EQ(CapturedLink(Side::camera, "unix:/x", 3839).bytes(complete, handle_offset, 2), (Bytes{0xff, 0x0e}));
    EXPECT_EQ(CapturedLink(Side::camera, "unix:/x", 3840).bytes(complete, handle_offset, 2), (Bytes{0x01, 0x00}));
}

} // namespace
} // namespace desk::capture
