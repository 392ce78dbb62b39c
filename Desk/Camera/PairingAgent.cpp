#include "PairingAgent.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

#include "BluetoothTalk.h"
#include "Bus/Properties.h"
#include "Common/Failure.h"
#include "Common/Text.h"

namespace desk::camera {
namespace {

constexpr const char* agent_interface = "org.bluez.Agent1";
constexpr const char* manager_path = "/org/bluez";
constexpr const char* manager_interface = "org.bluez.AgentManager1";
constexpr const char* rejected = "org.bluez.Error.Rejected";

// /org/bluez/hci0/dev_00_11_22_33_44_55
std::string address_in(const std::string& device) {
    const size_t start = device.rfind("/dev_");
    std::string address = start == std::string::npos ? device : device.substr(start + 5);
    std::ranges::replace(address, '_', ':');
    return printable(address);
}

void tell_of_pairing(const char* event, const std::string& phone, const std::string& message,
                     nlohmann::ordered_json more = nlohmann::ordered_json::object()) {
    more["phone"] = phone;
    tell_of_bluetooth(event, message, more);
}

} // namespace

PairingAgent::PairingAgent(BluetoothDaemon& daemon, OfferedObjects& objects, const std::string& path, Pairing pairing)
    : daemon_(daemon), path_(path), pairing_(pairing) {
    const auto offer = [&](const char* method, OfferedObjects::Method called) {
        objects.offer(path, agent_interface, method, std::move(called));
    };
    const auto no = [](const bus::Message& call) { reject(call); };
    offer("Release", [this](const bus::Message& call) {
        is_registered_ = false;
        accept(call);
    });
    offer("Cancel", [this](const bus::Message& call) { cancelled(call); });
    offer("RequestPinCode", no); // phones before Bluetooth 2.1, and other services
    offer("DisplayPinCode", no);
    offer("RequestPasskey", no);
    offer("AuthorizeService", no);
    if (pairing == Pairing::any) {
        offer("RequestAuthorization", [this](const bus::Message& call) { accept_without_asking(call); });
        offer("RequestConfirmation", [this](const bus::Message& call) { accept_without_asking(call); });
        offer("DisplayPasskey", no);
    } else {
        offer("RequestAuthorization", no); // a phone without digits
        offer("RequestConfirmation", [this](const bus::Message& call) { asked_about_digits(call); });
        offer("DisplayPasskey", [this](const bus::Message& call) { show_digits(call); });
    }
}

// ---- Registration ---------------------------------------------------------------------------------------------------

// As the default one: the others are asked about phones that they have sought out themselves.
void PairingAgent::begin() {
    if (std::exchange(is_registered_, true)) {
        return;
    }
    const auto failed = [](const std::optional<bus::Error>& error, bus::Message&) {
        if (error) {
            const std::string reason = printable(error->name + ": " + error->text);
            tell_of_bluetooth("refused",
                              fmt::format("the Bluetooth daemon refuses to ask the camera about pairing ({}): only "
                                          "phones that are paired already are served",
                                          reason),
                              {{"reason", reason}});
        }
    };
    bus::Message registration = daemon_.call(manager_path, manager_interface, "RegisterAgent");
    registration.append("os", path_.c_str(), pairing_ == Pairing::any ? "NoInputNoOutput" : "DisplayYesNo");
    daemon_.ask(registration, [this, failed](const std::optional<bus::Error>& error, bus::Message& answer) {
        if (error) {
            failed(error, answer);
            return;
        }
        bus::Message call = daemon_.call(manager_path, manager_interface, "RequestDefaultAgent");
        call.append("o", path_.c_str());
        daemon_.ask(call, failed);
    });
}

void PairingAgent::end() {
    question_.reset();
    if (std::exchange(is_registered_, false) && daemon_.is_there()) {
        bus::Message call = daemon_.call(manager_path, manager_interface, "UnregisterAgent");
        call.append("o", path_.c_str());
        daemon_.ask(call, [](const std::optional<bus::Error>&, bus::Message&) {});
    }
}

void PairingAgent::lost() {
    question_.reset();
    is_registered_ = false;
}

// ---- Questions ------------------------------------------------------------------------------------------------------

// What the daemon knows of it. An answer that does not come is none: the address is enough.
void PairingAgent::with_phone(const std::string& device, const std::function<void(const std::string& phone)>& go_on) {
    const std::string address = address_in(device);
    bus::Message call = daemon_.call(device, "org.freedesktop.DBus.Properties", "GetAll");
    call.append("s", "org.bluez.Device1");
    daemon_.ask(call, [address, go_on](const std::optional<bus::Error>& error, bus::Message& answer) {
        const std::optional<bus::Properties> known = error ? std::nullopt : bus::read_properties(answer);
        const auto name = known ? bus::property<std::string>(*known, "Alias") : std::nullopt;
        go_on(name ? fmt::format("\"{}\" ({})", shortened(printable(*name), 60), address) : address);
    });
}

void PairingAgent::accept_without_asking(const bus::Message& call) {
    bus::Message question = call;
    const std::optional<std::string> device = question.read_text();
    if (!device) {
        reject(call);
        return;
    }
    accept(call);
    with_phone(*device,
               [](const std::string& phone) { tell_of_pairing("pairs", phone, phone + " pairs with the camera"); });
}

void PairingAgent::asked_about_digits(bus::Message call) {
    const std::optional<std::string> device = call.read_text();
    uint32_t digits = 0;
    if (!device || !call.read("u", &digits)) {
        reject(call);
        return;
    }
    const std::string address = address_in(*device);
    if (question_) { // one at a time
        reject(question_->call);
    }
    question_ = Question{call, address};
    with_phone(*device, [this, digits](const std::string& phone) {
        if (question_) {
            question_->phone = phone;
            const std::string shown = fmt::format("{:06}", digits);
            tell_of_pairing("asks to pair", phone,
                            fmt::format("{} wants to pair: if it shows {}, answer \"pair yes\" at the control socket, "
                                        "else \"pair no\"",
                                        phone, shown),
                            {{"digits", shown}});
        }
    });
}

void PairingAgent::show_digits(bus::Message call) {
    const std::optional<std::string> device = call.read_text();
    uint32_t digits = 0;
    uint16_t typed = 0;
    if (!device || !call.read("uq", &digits, &typed)) {
        reject(call);
        return;
    }
    accept(call);
    if (typed == 0) { // it is called again for each digit
        with_phone(*device, [digits](const std::string& phone) {
            const std::string shown = fmt::format("{:06}", digits);
            tell_of_pairing("shows digits", phone, fmt::format("to pair, type {} on {}", shown, phone),
                            {{"digits", shown}});
        });
    }
}

void PairingAgent::cancelled(const bus::Message& call) {
    accept(call);
    if (const std::optional<Question> question = std::exchange(question_, std::nullopt)) {
        tell_of_pairing("gives up pairing", question->phone, question->phone + " wants to pair no more");
    }
}

std::string PairingAgent::answer(bool accepts) {
    if (!question_) {
        throw Failure(exit_usage, "no phone wants to pair; the camera says on standard error when one does");
    }
    const Question question = std::move(*question_);
    question_.reset();
    if (accepts) {
        accept(question.call);
    } else {
        reject(question.call);
    }
    daemon_.send_soon();
    tell_of_pairing(accepts ? "pairs" : "may not pair", question.phone,
                    question.phone + (accepts ? " pairs with the camera" : " may not pair"));
    return question.phone + (accepts ? " pairs" : " may not pair");
}

void PairingAgent::accept(const bus::Message& call) {
    daemon_.send(call.answer());
}

void PairingAgent::reject(const bus::Message& call) {
    call.answer_error(rejected, "the camera does not want to");
}

} // namespace desk::camera
