#include "Decode.h"

#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "Capture/Messages.h"
#include "Capture/Reader.h"
#include "Common/Failure.h"
#include "Common/Terminal.h"
#include "Common/Text.h"
#include "MessageHex.h"
#include "MessageWords.h"
#include "Options.h"
#include "Output.h"
#include "StandardFiles.h"

namespace desk::phone {
namespace {

using capture::Event;
using capture::Message;
using Fields = nlohmann::ordered_json;

constexpr int64_t microseconds = 1'000'000;

// ---- Time -----------------------------------------------------------------------------------------------------------

struct Moment {
    std::tm parts = {};
    int64_t fraction = 0; // of a second, in microseconds
};

Moment moment_of(int64_t time, std::tm* (*parts_of)(const std::time_t*, std::tm*)) {
    Moment moment;
    moment.fraction = (time % microseconds + microseconds) % microseconds;
    const auto seconds = static_cast<std::time_t>(time / microseconds - (time % microseconds < 0 ? 1 : 0));
    parts_of(&seconds, &moment.parts);
    return moment;
}

std::string formatted(const char* format, const Moment& moment) {
    char text[64] = {};
    return {text, std::strftime(text, sizeof text, format, &moment.parts)};
}

std::string local_time(int64_t time) {
    const Moment moment = moment_of(time, localtime_r);
    return fmt::format("{}.{:03}", formatted("%H:%M:%S", moment), moment.fraction / 1000);
}

std::string local_date(int64_t time) {
    return formatted("%Y-%m-%d", moment_of(time, localtime_r));
}

std::string universal_time(int64_t time) {
    const Moment moment = moment_of(time, gmtime_r);
    return fmt::format("{}.{:06}Z", formatted("%Y-%m-%dT%H:%M:%S", moment), moment.fraction);
}

// ---- What is printed ------------------------------------------------------------------------------------------------

struct Line {
    int64_t time = 0;
    uint32_t channel = 0; // 0 where it is of none
    std::string text;
    std::vector<std::string> more;
    Fields fields = Fields::object();
};

std::string name_of(const capture::Channel& channel) {
    const char* const kinds[] = {"L2CAP, PSM", "RFCOMM, channel", "L2CAP of Low Energy, PSM"};
    const std::string kind = kinds[static_cast<size_t>(channel.kind)];
    return channel.port != 0
               ? fmt::format("{} {}", kind, channel.port)
               : fmt::format("{}; how it was opened is not in the capture", kind.substr(0, kind.find(',')));
}

const char* name_of(capture::Side side) {
    return side == capture::Side::phone ? "phone" : "camera";
}

class Decoder {
  public:
    explicit Decoder(const Options& options)
        : options_(options), width_(options.width.value_or(width_of_lines(STDOUT_FILENO))),
          messages_({.keeps_pictures = false}) {}

    void take(const Event& event) {
        if (event.kind == Event::Kind::opened) {
            ++channels_;
            tell(event, fmt::format("opened: {}", name_of(event.channel)),
                 {{"kind", "opened"}, {"port", event.channel.port}});
        }
        for (const Message& message : messages_.take(event)) {
            tell(message, event.time);
        }
        if (event.kind == Event::Kind::closed) {
            tell(event, "closed", {{"kind", "closed"}});
        } else if (event.kind == Event::Kind::gap) {
            ++faults_;
            tell(event, fmt::format("{}: bytes are missing: {}", name_of(event.sender), event.text),
                 {{"kind", "gap"}, {"sender", name_of(event.sender)}});
        } else if (event.kind == Event::Kind::remark) {
            ++faults_;
            tell(event, fmt::format("remark: {}", event.text), {{"kind", "remark"}});
        }
        last_time_ = event.time;
    }

    void finish() {
        for (const Message& message : messages_.finish()) {
            tell(message, last_time_);
        }
    }

    // Throws Failure for a capture that is not whole, or has nothing to tell.
    void check(const std::string& name) const {
        if (faults_ > 0) {
            throw Failure(exit_cut_capture,
                          fmt::format("{} was not read in full: {} above; capture it again, or take what is here", name,
                                      faults_ == 1 ? "see the remark" : fmt::format("see the {} remarks", faults_)));
        }
        if (channels_ == 0) {
            throw Failure(
                exit_missing,
                fmt::format("{} holds nothing that a phone and a camera have said; where the capture lacks how "
                            "they began, name the camera's PSM with --psm",
                            name));
        }
    }

  private:
    void tell(const Event& event, const std::string& text, Fields fields) {
        fields["record"] = event.record;
        print_line({event.time, event.channel.number, text, {}, std::move(fields)});
    }

    // What shows only later that there is no answer is told with the time at which it shows.
    void tell(const Message& message, int64_t now) {
        const bool shows_later = message.fate == Message::Fate::unanswered || message.fate == Message::Fate::cut_off;
        MessageWords words = words_of(message, options_.raw ? Form::raw : Form::words);
        Line line;
        line.time = shows_later ? now : message.ended;
        line.channel = message.channel.number;
        line.text = fmt::format("{}: {}", name_of(message.sender), words.text);
        line.more = std::move(words.more);
        line.fields = std::move(words.fields);
        if (options_.with_hex) {
            add_hex(line, message);
        }
        print_line(line);
    }

    void add_hex(Line& line, const Message& message) const {
        if (options_.json) {
            line.fields["hex"] = fmt::format("{:02x}", fmt::join(message.bytes, ""));
        } else {
            const std::vector<std::string> lines = hex_of(message);
            line.more.insert(line.more.end(), lines.begin(), lines.end());
        }
    }

    void print_line(const Line& line) {
        if (options_.json) {
            print_object(line);
            return;
        }
        std::string text;
        if (const std::string date = local_date(line.time); date != date_) {
            date_ = date;
            text += date + "\n";
        }
        const std::string channel = line.channel == 0 ? "" : fmt::format(" {}", line.channel);
        text += fitted(fmt::format("{}{} {}", local_time(line.time), channel, line.text));
        for (const std::string& one : line.more) {
            text += fitted("    " + one);
        }
        print(text);
    }

    std::string fitted(const std::string& line) const { return (width_ == 0 ? line : shortened(line, width_)) + "\n"; }

    static void print_object(const Line& line) {
        Fields object = {{"time", universal_time(line.time)}};
        if (line.channel != 0) {
            object["channel"] = line.channel;
        }
        object.update(line.fields);
        object["message"] = line.text;
        print(escaped_json(object.dump(-1, ' ', false, Fields::error_handler_t::replace)) + "\n");
    }

    const Options& options_;
    size_t width_;
    capture::Messages messages_;
    std::string date_;
    int64_t last_time_ = 0;
    uint32_t channels_ = 0;
    uint64_t faults_ = 0;
};

// Whoever reads a capture as it grows may leave before it does.
void stop_without_reader() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, 0) > 0 && (output.revents & (POLLERR | POLLHUP)) != 0) {
        throw OutputClosed{};
    }
}

} // namespace

int decode(const Options& options) {
    capture::Reader reader(options.captured_file, {options.follows, options.psm, stop_without_reader});
    Decoder decoder(options);
    while (const std::optional<Event> event = reader.next()) {
        decoder.take(*event);
    }
    decoder.finish();
    decoder.check(name_of_input(options.captured_file));
    return exit_done;
}

} // namespace desk::phone
