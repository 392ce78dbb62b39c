// What is read of messages of the bus.

#include <array>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "Bus/Properties.h"

namespace desk::bus {
namespace {

// Messages need a bus, but nobody at its other end.
class BusMessages : public testing::Test {
  protected:
    void SetUp() override {
        std::array<int, 2> ends = {};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
        other_end_ = ends[1];
        ASSERT_GE(sd_bus_new(&bus_), 0);
        ASSERT_GE(sd_bus_set_fd(bus_, ends[0], ends[0]), 0);
        ASSERT_GE(sd_bus_start(bus_), 0);
    }
    void TearDown() override {
        sd_bus_close_unref(bus_);
        ::close(other_end_);
    }

    // A message with this content, ready to be read.
    template<class... Values>
    Message made(const char* types, Values... values) {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus_, &message, "/a", "org.example", "Made"), 0);
        Message made(message);
        made.append(types, values...);
        return sealed(made);
    }
    static Message sealed(Message message) {
        EXPECT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
        return message;
    }

    sd_bus* bus_ = nullptr;
    int other_end_ = -1;
};

TEST_F(BusMessages, TellPropertiesOfAllKinds) {
    Message message = made("a{sv}", 7, "Alias", "s", "Kitchen", "Powered", "b", 1, "Class", "u", 7995392U, "RSSI", "n",
                           -60, "UUIDs", "as", 2, "one", "two", "Value", "ay", 2, 200, 0, "Adapter", "o", "/org/bluez");
    const std::optional<Properties> properties = read_properties(message);
    ASSERT_TRUE(properties);
    EXPECT_EQ(property<std::string>(*properties, "Alias"), "Kitchen");
    EXPECT_EQ(property<bool>(*properties, "Powered"), true);
    EXPECT_EQ(property<int64_t>(*properties, "Class"), 7995392);
    EXPECT_EQ(property<int64_t>(*properties, "RSSI"), -60);
    EXPECT_EQ(property<std::vector<std::string>>(*properties, "UUIDs"), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(property<std::vector<uint8_t>>(*properties, "Value"), (std::vector<uint8_t>{200, 0}));
    EXPECT_EQ(property<std::string>(*properties, "Adapter"), "/org/bluez");
    EXPECT_EQ(property<bool>(*properties, "Alias"), std::nullopt);
    EXPECT_EQ(property<bool>(*properties, "Missing"), std::nullopt);
}

TEST_F(BusMessages, OfAnyContentAreReadOrRefused) {
    for (const char* const types : {"a{sv}", "a{sa{sv}}", "a{oa{sa{sv}}}"}) {
        Message message = made(types, 0);
        EXPECT_EQ(read_properties(message).has_value(), std::string(types) == "a{sv}");
        sd_bus_message_rewind(message.get(), 1);
        EXPECT_EQ(read_interfaces(message).has_value(), std::string(types) == "a{sa{sv}}");
        sd_bus_message_rewind(message.get(), 1);
        EXPECT_EQ(read_objects(message).has_value(), std::string(types) == "a{oa{sa{sv}}}");
    }
    Message text = made("s", "text");
    EXPECT_FALSE(read_objects(text));
    Message empty = made("");
    EXPECT_FALSE(read_objects(empty));
    EXPECT_FALSE(read_value(empty));
    EXPECT_FALSE(empty.read_text());
}

TEST_F(BusMessages, LeaveOutWhatIsOfNoKind) {
    Message message = made("a{sv}", 2, "Deep", "a{sv}", 1, "Deeper", "s", "text", "Name", "s", "after it");
    const std::optional<Properties> properties = read_properties(message);
    ASSERT_TRUE(properties);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(properties->at("Deep")));
    EXPECT_EQ(property<std::string>(*properties, "Name"), "after it");
}

TEST_F(BusMessages, AreReadUpToSoManyEntries) {
    for (const size_t count : {most_entries, most_entries + 1}) {
        sd_bus_message* raw = nullptr;
        ASSERT_GE(sd_bus_message_new_signal(bus_, &raw, "/a", "org.example", "Made"), 0);
        Message message(raw);
        message.open('a', "{sv}");
        for (size_t number = 0; number < count; ++number) {
            message.append("{sv}", std::to_string(number).c_str(), "b", 1);
        }
        message.close();
        Message read = sealed(message);
        const std::optional<Properties> properties = read_properties(read);
        EXPECT_EQ(properties.has_value(), count == most_entries);
    }
}

} // namespace
} // namespace desk::bus
