#include "CaptureDiff.h"

#include <deque>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Capture/Assembler.h"
#include "Capture/Comparison.h"
#include "Capture/Exchanges.h"
#include "Capture/MessageWords.h"
#include "Capture/Playable.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"
#include "Reporting.h"
#include "StandardFiles.h"
#include "Wire/Frames.h"

namespace desk::phone {
namespace {

using capture::Ending;
using capture::Exchange;
using capture::Side;

// The first difference is enough, unless all are asked for.
struct Enough {};

// What is held of messages of one capture to which the other has no partner yet: they come at other times.
constexpr size_t most_waiting = 4 * longest_picture_reply;

struct Item {
    Bytes message;
    bool is_cut_off = false;
};

// One connection's messages of one side that wait for their partners.
struct Line {
    std::deque<Item> before;
    std::deque<Item> now;
    size_t compared = 0;
};

struct Conversation {
    Line requests;
    Line replies;
    std::optional<Ending> ended_before;
    std::optional<Ending> ended_now;
    bool has_parted = false; // from there on they speak of different things
};

// One capture, its messages put together.
class Source {
  public:
    Source(const std::string& path, const Options& options)
        : name_(name_of_input(path)), exchanges_(path, {.follows = false, .psm = options.psm}) {}

    // False at the end. `take` gets each message, `end` each connection's end.
    template<class Take, class End>
    bool next(Take take, End end);
    void check_any() const;
    void check_whole() const;

  private:
    struct Ends {
        capture::Assembler phone;
        capture::Assembler camera;
    };

    std::string name_;
    capture::Exchanges exchanges_;
    std::map<uint32_t, Ends> open_;
    bool had_any_ = false;
    bool has_faults_ = false;
};

template<class Take, class End>
bool Source::next(Take take, End end) {
    const std::optional<Exchange> exchange = exchanges_.next();
    for (const std::string& remark : exchanges_.remarks()) {
        has_faults_ = true;
        say(fmt::format("{}: {}", name_, remark));
    }
    if (!exchange) {
        return false;
    }
    had_any_ = true;
    const uint32_t number = exchange->connection;
    const bool keeps = exchange->keeps_message_boundaries;
    Ends& ends = open_.try_emplace(number, Ends{{Side::phone, keeps}, {Side::camera, keeps}}).first->second;
    for (const capture::Packet& packet : exchange->packets) {
        capture::Assembler& side = packet.sender == Side::phone ? ends.phone : ends.camera;
        for (Bytes& message : side.take(exchange->bytes_of(packet))) {
            take(number, packet.sender, Item{std::move(message), false});
        }
    }
    if (exchange->ending != Ending::none) {
        for (const Side side : {Side::phone, Side::camera}) {
            const Bytes& begun = (side == Side::phone ? ends.phone : ends.camera).begun();
            if (!begun.empty()) {
                take(number, side, Item{begun, true});
            }
        }
        end(number, exchange->ending);
        open_.erase(number);
    }
    return true;
}

void Source::check_any() const {
    if (!had_any_) {
        throw capture::nothing_in(name_);
    }
}

void Source::check_whole() const {
    if (has_faults_) {
        throw capture::not_in_full(name_);
    }
}

class CaptureDiff {
  public:
    explicit CaptureDiff(const Options& options)
        : options_(options), before_(options.captured_file, options), now_(options.other_capture, options) {}

    size_t run();

  private:
    bool read(Source& source, bool is_before);
    void compare();
    void compare(uint32_t number, Conversation& conversation);
    bool compare_items(uint32_t number, Side side, Line& line);
    bool differ_in_cut(const std::string& name, const Item& before, const Item& now);
    void compare_endings(uint32_t number, Conversation& conversation);
    void tell_rests();
    void tell_rest(uint32_t number, Side side, const Line& line);
    void differ(const std::string& line);

    const Options& options_;
    Source before_;
    Source now_;
    capture::Comparison comparison_;
    std::map<uint32_t, Conversation> conversations_;
    size_t waiting_ = 0; // bytes
    size_t differences_ = 0;
};

void CaptureDiff::differ(const std::string& line) {
    ++differences_;
    print(line + "\n");
    if (!options_.all_differences) {
        throw Enough{};
    }
}

size_t CaptureDiff::run() {
    try {
        bool has_before = true;
        bool has_now = true;
        while (has_before || has_now) {
            has_before = has_before && read(before_, true);
            has_now = has_now && read(now_, false);
            compare();
        }
        before_.check_any();
        now_.check_any();
        tell_rests();
    } catch (const Enough&) {
        mention(options_, "this is the first difference; --all tells all");
    }
    if (differences_ == 0) {
        before_.check_whole();
        now_.check_whole();
    }
    return differences_;
}

bool CaptureDiff::read(Source& source, bool is_before) {
    const auto take = [&](uint32_t number, Side side, Item item) {
        Conversation& conversation = conversations_[number];
        if (conversation.has_parted) {
            return;
        }
        waiting_ += item.message.size();
        Line& line = side == Side::phone ? conversation.requests : conversation.replies;
        (is_before ? line.before : line.now).push_back(std::move(item));
    };
    const auto end = [&](uint32_t number, Ending ending) {
        Conversation& conversation = conversations_[number];
        (is_before ? conversation.ended_before : conversation.ended_now) = ending;
    };
    return source.next(take, end);
}

void CaptureDiff::compare() {
    for (auto one = conversations_.begin(); one != conversations_.end();) {
        compare(one->first, one->second);
        const bool is_over = one->second.ended_before && one->second.ended_now;
        if (is_over) {
            compare_endings(one->first, one->second);
        }
        one = is_over ? conversations_.erase(one) : std::next(one);
    }
    if (waiting_ > most_waiting) {
        throw Failure(exit_usage, "the captures have too little in common: one is far ahead of the other");
    }
}

void CaptureDiff::compare(uint32_t number, Conversation& conversation) {
    const bool has_parted = conversation.has_parted || !compare_items(number, Side::phone, conversation.requests) ||
                            !compare_items(number, Side::camera, conversation.replies);
    if (!has_parted || conversation.has_parted) {
        return;
    }
    conversation.has_parted = true;
    for (Line* const line : {&conversation.requests, &conversation.replies}) {
        for (const auto* const items : {&line->before, &line->now}) {
            for (const Item& item : *items) {
                waiting_ -= item.message.size();
            }
        }
        *line = {};
    }
}

std::string name_of(uint32_t number, Side side, size_t count, const Bytes& message) {
    const std::string name =
        message.size() < sizeof(sm_frame) ? "cut off" : capture::name_of_message(capture::function_of(message));
    return fmt::format("connection {}, {} {} ({})", number, side == Side::phone ? "request" : "reply", count, name);
}

bool is_of_other_kind(const Item& before, const Item& now) {
    return before.message.size() < sizeof(sm_frame) || now.message.size() < sizeof(sm_frame) ||
           capture::function_of(before.message) != capture::function_of(now.message);
}

// False when the two part: what follows on this connection is not compared.
bool CaptureDiff::compare_items(uint32_t number, Side side, Line& line) {
    while (!line.before.empty() && !line.now.empty()) {
        const Item before = std::move(line.before.front());
        const Item now = std::move(line.now.front());
        line.before.pop_front();
        line.now.pop_front();
        waiting_ -= before.message.size() + now.message.size();
        const std::string name = name_of(number, side, ++line.compared, before.message);
        if (differ_in_cut(name, before, now)) {
            return false;
        }
        const bool is_request = side == Side::phone;
        const auto lines = is_request ? comparison_.of_requests(before.message, now.message)
                                      : comparison_.of_replies(before.message, now.message);
        for (const std::string& one : lines) {
            differ(fmt::format("{}: {}", name, one));
        }
        if (!lines.empty() && is_of_other_kind(before, now)) {
            return false;
        }
    }
    return true;
}

bool CaptureDiff::differ_in_cut(const std::string& name, const Item& before, const Item& now) {
    if (before.is_cut_off == now.is_cut_off) {
        return false;
    }
    const auto text = [](const Item& item) {
        return item.is_cut_off ? fmt::format("cut off after {}", counted(item.message.size(), "byte"))
                               : std::string("whole");
    };
    differ(fmt::format("{}: was {}, is {}", name, text(before), text(now)));
    return true;
}

void CaptureDiff::compare_endings(uint32_t number, Conversation& conversation) {
    if (conversation.has_parted) {
        return;
    }
    tell_rest(number, Side::phone, conversation.requests);
    tell_rest(number, Side::camera, conversation.replies);
    const Ending before = *conversation.ended_before;
    const Ending now = *conversation.ended_now;
    if (before != now && before != Ending::unknown && now != Ending::unknown) {
        const char* const phone_then = "the phone closed the link, and now the camera does";
        const char* const camera_then = "the camera closed the link, and now the phone does";
        differ(fmt::format("connection {}: {}", number, before == Ending::phone_left ? phone_then : camera_then));
    }
}

void CaptureDiff::tell_rests() {
    for (const auto& [number, conversation] : conversations_) {
        if (!conversation.has_parted) {
            tell_rest(number, Side::phone, conversation.requests);
            tell_rest(number, Side::camera, conversation.replies);
        }
    }
}

void CaptureDiff::tell_rest(uint32_t number, Side side, const Line& line) {
    const bool is_missing = !line.before.empty();
    const std::deque<Item>& rest = is_missing ? line.before : line.now;
    if (rest.empty()) {
        return;
    }
    const std::string more = rest.size() == 1 ? "" : fmt::format(", and {} more behind it", rest.size() - 1);
    differ(fmt::format("{}: {}{}", name_of(number, side, line.compared + 1, rest.front().message),
                       is_missing ? "was there, is not" : "was not there, is", more));
}

} // namespace

int compare_captures(const Options& options) {
    return CaptureDiff(options).run() == 0 ? exit_done : exit_differs;
}

} // namespace desk::phone
