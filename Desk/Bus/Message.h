// A message of the bus: its content is appended, or read, in order.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <systemd/sd-bus.h>

namespace desk::bus {

// What a call ended with in the place of an answer.
struct Error {
    std::string name; // such as org.bluez.Error.AlreadyExists
    std::string text; // of others: not fit for a terminal yet

    bool is_named(std::string_view ending) const { return name.ends_with(ending); }
};

class Message {
  public:
    // Takes the message over.
    explicit Message(sd_bus_message* message = nullptr) : message_(message) {}
    // A copy is another owner of the same message, which is read on where the other one has come to.
    Message(const Message& other) : Message(sd_bus_message_ref(other.get())) {}
    Message(Message&&) noexcept = default;
    Message& operator=(Message other) noexcept {
        message_.swap(other.message_);
        return *this;
    }
    ~Message() = default;
    static Message shared(sd_bus_message* message) { return Message(sd_bus_message_ref(message)); }

    sd_bus_message* get() const { return message_.get(); }

    // As sd_bus_message_append(3) takes it: append("sv", "Name", "b", 1). Throws Failure (exit_machine).
    template<class... Values>
    Message& append(const char* types, Values... values) {
        check_appended(sd_bus_message_append(get(), types, values...));
        return *this;
    }

    void append_bytes(std::span<const uint8_t> bytes);

    // As sd_bus_message_read(3) takes it: read("s", &text). False where the message has something else there; texts
    // are the message's.
    template<class... Values>
    bool read(const char* types, Values... values) {
        return sd_bus_message_read(get(), types, values...) > 0;
    }
    std::optional<std::string> read_text(); // a string or an object's path
    bool skip(const char* types) const { return sd_bus_message_skip(get(), types) >= 0; }

    // An answer to this call, to be filled and sent; or an error that goes at once.
    Message answer() const;
    void answer_error(const char* name, const std::string& text) const;

    // Goes into a container, such as ('a', "{sv}"), and out of it. False at the end of the one around it, or where the
    // message has something else there.
    bool enter(char type, const char* content) const {
        return sd_bus_message_enter_container(get(), type, content) > 0;
    }
    bool leave() const { return sd_bus_message_exit_container(get()) >= 0; }
    void open(char type, const char* content) const {
        check_appended(sd_bus_message_open_container(get(), type, content));
    }
    void close() const { check_appended(sd_bus_message_close_container(get())); }

    // Whose message it is, and about what; empty where it does not say.
    std::string_view sender() const { return text_or_empty(sd_bus_message_get_sender(get())); }
    std::string_view path() const { return text_or_empty(sd_bus_message_get_path(get())); }
    std::string_view interface() const { return text_or_empty(sd_bus_message_get_interface(get())); }
    std::string_view member() const { return text_or_empty(sd_bus_message_get_member(get())); }

  private:
    static void check_appended(int result);
    static std::string_view text_or_empty(const char* text) { return text != nullptr ? text : ""; }

    struct Unref {
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    std::unique_ptr<sd_bus_message, Unref> message_;
};

// How a call ended: with an answer, or with an error.
struct Reply {
    Message message;
    std::optional<Error> error;
};

} // namespace desk::bus
