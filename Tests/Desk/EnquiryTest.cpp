// Where a camera listens, as a Bluetooth device tells it: the bytes of the questions, and any bytes as answers.

#include <gtest/gtest.h>
#include <random>
#include <string>

#include "Links/PsmQuery.h"
#include "Links/ServiceSearch.h"

namespace desk {
namespace {

using Bytes = std::vector<uint8_t>;
using Kind = Finding::Kind;

constexpr Uuid uuid = {0x25, 0x2A, 0x3C, 0x13, 0xCB, 0x4C, 0x4A, 0xC9, 0xAE, 0xC8, 0x24, 0xE7, 0x15, 0x74, 0x3B, 0x86};

// Of hexadecimal digits; blanks are for the reader.
Bytes bytes_of(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (const char character : text) {
        if (character != ' ') {
            digits += character;
        }
    }
    for (size_t at = 0; at + 1 < digits.size(); at += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

// What comes of a packet that answers the first question.
Finding answer_of(Enquiry& enquiry, const std::string& packet) {
    return enquiry.take(bytes_of(packet));
}

Finding answer_of_directory(const std::string& packet) {
    ServiceSearch search(uuid);
    return answer_of(search, packet);
}

Finding answer_of_attributes(const std::string& packet) {
    PsmQuery query(uuid);
    return answer_of(query, packet);
}

// A record of RFCOMM's channel 7: attribute 4, protocols L2CAP, and RFCOMM with its channel. In front the header and
// the number of bytes, behind no continuation.
const std::string record = "35 11  09 0004  35 0c  35 03 19 0100  35 05 19 0003 08 07";
const std::string whole_answer = "07 0001 0018  0015  35 13 " + record + "  00";

// ---- The directory of services --------------------------------------------------------------------------------------

TEST(ServiceSearch, AsksForTheProtocolsOfTheService) {
    EXPECT_EQ(ServiceSearch(uuid).first_packet(),
              bytes_of("06 0001 001b  35 11 1c 252a3c13cb4c4ac9aec824e715743b86  ffff  35 03 09 0004  00"));
}

TEST(ServiceSearch, FindsTheChannel) {
    const Finding finding = answer_of_directory(whole_answer);
    EXPECT_EQ(finding.kind, Kind::found);
    EXPECT_EQ(finding.port, 7);
    EXPECT_TRUE(finding.to_send.empty());
}

TEST(ServiceSearch, FindsTheChannelWhereverRfcommsUuidIsWrittenInFull) {
    EXPECT_EQ(answer_of_directory("07 0001 001a  0017  35 15  35 13  09 0004  35 0e  35 03 19 0100  "
                                  "35 07 1a 00000003 08 1e  00")
                  .port,
              30);
    EXPECT_EQ(answer_of_directory("07 0001 0026  0023  35 21  35 1f  09 0004  35 1a  35 03 19 0100  "
                                  "35 13 1c 0000000300001000800000805f9b34fb 08 01  00")
                  .port,
              1);
}

TEST(ServiceSearch, TakesLengthsOfAnyWidth) {
    const std::string wide = "36 0012  09 0004  35 0d  35 03 19 0100  36 0005 19 0003 08 09";
    EXPECT_EQ(answer_of_directory("07 0001 001b  0018  36 0015" + wide + "00").port, 9);
    EXPECT_EQ(answer_of_directory("07 0001 001d  001a  37 00000015" + wide + "00").port, 9);
    EXPECT_EQ(answer_of_directory("07 0001 001d  001a  37 ffffffff" + wide + "00").kind, Kind::faulty);
}

TEST(ServiceSearch, AsksForTheRestOfALongAnswerWithWhatTheDirectoryGaveForThat) {
    ServiceSearch search(uuid);
    const Finding part = answer_of(search, "07 0001 000b  0006  35 13 35 11 09 00  02 beef");
    EXPECT_EQ(part.kind, Kind::nothing_yet);
    EXPECT_EQ(part.to_send,
              bytes_of("06 0002 001d  35 11 1c 252a3c13cb4c4ac9aec824e715743b86  ffff  35 03 09 0004  02 beef"));
    const Finding rest = answer_of(search, "07 0002 0012  000f  04 350c 3503190100 3505190003 0807  00");
    EXPECT_EQ(rest.kind, Kind::found);
    EXPECT_EQ(rest.port, 7);
}

TEST(ServiceSearch, TakesTheFirstChannelOfSeveralRecords) {
    // The first has another protocol alone, the second no protocols, the third channel 7, the fourth channel 8.
    const std::string other = "35 0a  09 0004  35 05  35 03 19 0100";
    const std::string none = "35 05  09 0005  08 01";
    const std::string fourth = "35 11  09 0004  35 0c  35 03 19 0100  35 05 19 0003 08 08";
    const Finding right =
        answer_of_directory("07 0001 0040  003d  35 3b " + other + none + record + "35 00" + fourth + "00");
    EXPECT_EQ(right.kind, Kind::found);
    EXPECT_EQ(right.port, 7);
}

TEST(ServiceSearch, FindsNothingWhereNoRecordHasAChannel) {
    EXPECT_EQ(answer_of_directory("07 0001 0005  0002  35 00  00").kind, Kind::absent);
    for (const char* channel : {"08 00", "08 1f", "09 07", "19 07", "25 07"}) { // 0, 31, cut numbers, a text
        EXPECT_NE(
            answer_of_directory("07 0001 0018  0015  35 13  35 11  09 0004  35 0c  35 03 19 0100  35 05 19 0003 " +
                                std::string(channel) + "  00")
                .kind,
            Kind::found)
            << channel;
    }
}

TEST(ServiceSearch, TellsARefusalFromAnAnswer) {
    EXPECT_EQ(answer_of_directory("01 0001 0002  0003").kind, Kind::refused);
}

TEST(ServiceSearch, TakesNoAnswerToAnotherQuestion) {
    EXPECT_EQ(answer_of_directory("07 0002 0005  0002  35 00  00").kind, Kind::faulty);
    EXPECT_EQ(answer_of_directory("05 0001 0005  0002  35 00  00").kind, Kind::faulty);
}

TEST(ServiceSearch, IsNotKeptGoingForEver) {
    EXPECT_EQ(answer_of_directory("07 0001 0005  0000  02 beef").kind, Kind::faulty); // a part of nothing
    EXPECT_EQ(answer_of_directory("07 0001 0014  0000  11 00112233445566778899aabbccddeeff11").kind, Kind::faulty);
    ServiceSearch search(uuid);
    size_t parts = 0;
    Finding finding;
    do {
        const auto transaction = static_cast<uint8_t>(++parts);
        Bytes packet = {0x07, static_cast<uint8_t>(parts >> 8), transaction, 0x03, 0xEC, 0x03, 0xE8};
        packet.resize(packet.size() + 1000);
        packet.push_back(1);
        packet.push_back(0xAA);
        finding = search.take(packet);
    } while (finding.kind == Kind::nothing_yet && parts < 100);
    EXPECT_EQ(finding.kind, Kind::faulty);
    EXPECT_EQ(parts, 17U); // 16384 bytes are taken at most
}

TEST(ServiceSearch, RefusesAnAnswerThatIsCutAnywhere) {
    const Bytes whole = bytes_of(whole_answer);
    for (size_t size = 0; size < whole.size(); ++size) {
        ServiceSearch search(uuid);
        EXPECT_EQ(search.take(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))).kind, Kind::faulty)
            << size;
    }
}

// Also where the header's lengths are mended, so that only the records are cut.
TEST(ServiceSearch, RefusesRecordsThatAreCutAnywhere) {
    const Bytes records = bytes_of("35 13 " + record);
    for (size_t size = 0; size < records.size(); ++size) {
        Bytes packet = {0x07, 0x00, 0x01, 0x00, static_cast<uint8_t>(size + 3), 0x00, static_cast<uint8_t>(size)};
        packet.insert(packet.end(), records.begin(), records.begin() + static_cast<ptrdiff_t>(size));
        packet.push_back(0);
        ServiceSearch search(uuid);
        EXPECT_EQ(search.take(packet).kind, Kind::faulty) << size;
    }
}

// ---- The attribute --------------------------------------------------------------------------------------------------

TEST(PsmQuery, AsksForTheCharacteristicAmongAllAttributes) {
    EXPECT_EQ(PsmQuery(uuid).first_packet(), bytes_of("08 0100 ffff 863b7415e724c8aec94a4ccb133c2a25"));
}

TEST(PsmQuery, FindsThePsm) {
    const Finding finding = answer_of_attributes("09 04  0300 8000");
    EXPECT_EQ(finding.kind, Kind::found);
    EXPECT_EQ(finding.port, 128);
    EXPECT_EQ(answer_of_attributes("09 04  0300 ff00").port, 255);
}

TEST(PsmQuery, TakesTheFirstOfSeveral) {
    EXPECT_EQ(answer_of_attributes("09 04  0300 8100  0900 8200").port, 129);
}

TEST(PsmQuery, TakesNoValueThatIsNoPsm) {
    for (const char* packet : {"09 04 0300 0000", "09 04 0300 0001", "09 03 0300 80", "09 05 0300 800000",
                               "09 04 0300 8000 05", "09 04", "09 00", "09 04 0300 80"}) {
        EXPECT_EQ(answer_of_attributes(packet).kind, Kind::faulty) << packet;
    }
}

TEST(PsmQuery, TellsWhyThereIsNoAnswer) {
    EXPECT_EQ(answer_of_attributes("01 08 0100 0a").kind, Kind::absent);
    for (const char* fault : {"05", "08", "0c", "0f"}) {
        EXPECT_EQ(answer_of_attributes(std::string("01 08 0300") + fault).kind, Kind::for_paired) << fault;
    }
    EXPECT_EQ(answer_of_attributes("01 08 0100 06").kind, Kind::refused);
    EXPECT_EQ(answer_of_attributes("01 0a 0100 0a").kind, Kind::faulty); // an error of what was not asked
}

TEST(PsmQuery, AnswersWhatTheDeviceAsksMeanwhile) {
    const std::pair<const char*, const char*> packets[] = {
        {"02 f701", "03 1700"},                      // how long packets may be
        {"10 0100 ffff 0028", "01 10 0100 0a"},      // which services there are
        {"04 0500 ffff", "01 04 0500 0a"},           // which attributes
        {"08 0200 ffff 0328", "01 08 0200 0a"},      // which of a type
        {"06 0100 ffff 0028 1801", "01 06 0100 0a"}, // which of a value
        {"0a 0300", "01 0a 0000 06"},                // reading
        {"12 0300 01", "01 12 0000 06"},             // writing
        {"20", "01 20 0000 06"},                     // reading several
        {"10", "01 10 0000 0a"},                     // one that is cut
        {"1d 0300 01", "1e"},                        // a change that is to be confirmed
    };
    for (const auto& [packet, answer] : packets) {
        const Finding finding = answer_of_attributes(packet);
        EXPECT_EQ(finding.kind, Kind::nothing_yet) << packet;
        EXPECT_EQ(finding.to_send, bytes_of(answer)) << packet;
    }
}

TEST(PsmQuery, PassesOverWhatWantsNoAnswer) {
    for (const char* packet : {"52 0300 01", "d2 0300", "1b 0300 01", "23 0300", "1e", "03 1700", "0b 00", "11 06"}) {
        const Finding finding = answer_of_attributes(packet);
        EXPECT_EQ(finding.kind, Kind::nothing_yet) << packet;
        EXPECT_TRUE(finding.to_send.empty()) << packet;
    }
}

TEST(PsmQuery, RefusesAnAnswerThatIsCutAnywhere) {
    for (const char* text : {"09 04  0300 8000", "01 08 0100 0a"}) {
        const Bytes whole = bytes_of(text);
        for (size_t size = 0; size < whole.size(); ++size) {
            PsmQuery query(uuid);
            EXPECT_EQ(query.take(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))).kind, Kind::faulty)
                << text << ' ' << size;
        }
    }
}

// ---- Any bytes ------------------------------------------------------------------------------------------------------

// A port is found in its bounds alone, and each packet that is sent is one that the other side knows.
template<class Question>
void expect_sense(Question& question, const Bytes& packet, uint16_t last_port) {
    const Finding finding = question.take(packet);
    if (finding.kind == Kind::found) {
        EXPECT_GE(finding.port, 1);
        EXPECT_LE(finding.port, last_port);
    } else {
        EXPECT_EQ(finding.port, 0);
    }
    EXPECT_LE(finding.to_send.size(), 5U + 29U + 16U);
}

TEST(Enquiries, TakeWholeAnswersWithAnyFewBytesChanged) {
    std::mt19937 random(20260731); // NOLINT: the same on every run
    for (int round = 0; round < 4000; ++round) {
        for (const std::string& text : {whole_answer, std::string("09 04 0300 8000 0500 8100")}) {
            Bytes packet = bytes_of(text);
            for (uint32_t change = 0; change <= random() % 3; ++change) {
                packet[random() % packet.size()] = static_cast<uint8_t>(random());
            }
            packet.resize(random() % 8 == 0 ? random() % packet.size() : packet.size());
            ServiceSearch search(uuid);
            expect_sense(search, packet, 30);
            PsmQuery query(uuid);
            expect_sense(query, packet, 255);
        }
    }
}

} // namespace
} // namespace desk
