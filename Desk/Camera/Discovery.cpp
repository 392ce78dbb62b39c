#include "Discovery.h"

#include <algorithm>
#include <array>
#include <exception>
#include <fmt/format.h>
#include <utility>

#include "BluetoothTalk.h"
#include "Budgets.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Links/ServiceUuids.h"
#include "ServiceRecord.h"

namespace desk::camera {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

// Our objects.
constexpr const char* root = "/shotmentor";
constexpr const char* application = "/shotmentor/application";
constexpr const char* low_energy_service = "/shotmentor/application/service";
constexpr const char* advertisement = "/shotmentor/advertisement";
constexpr const char* quiet_advertisement = "/shotmentor/quiet";
constexpr const char* agent = "/shotmentor/agent";
constexpr const char* record_prefix = "/shotmentor/record";

constexpr const char* adapter_interface = "org.bluez.Adapter1";
constexpr const char* characteristic_interface = "org.bluez.GattCharacteristic1";

constexpr const char* usual_name = "ShotMentor";

// Where a read begins; nothing where the daemon does not say that as it should.
std::optional<int64_t> offset_in(bus::Message& call) {
    const std::optional<bus::Properties> options = bus::read_properties(call);
    if (!options) {
        return std::nullopt;
    }
    return options->contains("offset") ? bus::property<int64_t>(*options, "offset") : std::optional<int64_t>(0);
}

} // namespace

Discovery::Discovery(asio::io_context& loop, const Visibility& visibility, std::vector<Endpoint> endpoints)
    : visibility_(visibility), endpoints_(std::move(endpoints)),
      daemon_(loop, root,
              {.found = [this](const bus::Objects& objects) { found(objects); },
               .lost = [this] { lost(); },
               .called =
                   [this](bus::Message call) {
                       return objects_.called(std::move(call),
                                              [this](const bus::Message& answer) { daemon_.send(answer); });
                   }}),
      agent_(daemon_, objects_, agent, visibility.pairing), hide_(loop) {
    wanted_.name = visibility_.name;
    wanted_.is_visible = visibility_.discoverable.has_value();
    wanted_.is_pairable = visibility_.pairing != Pairing::none;
    wanted_.has_classic = has(Endpoint::Kind::rfcomm) || has(Endpoint::Kind::l2cap);
    wanted_.has_low_energy = has(Endpoint::Kind::le);
    wanted_.application = application;
    wanted_.advertisement = advertisement;
    wanted_.quiet_advertisement = quiet_advertisement;
    offer_records();
    if (wanted_.has_low_energy) {
        offer_low_energy();
    }
}

Discovery::~Discovery() {
    try {
        put_back();
    } catch (const std::exception& failure) {
        tell_of_bluetooth("refused",
                          fmt::format("the Bluetooth adapter stays as the camera has set it: {}", failure.what()));
    }
}

void Discovery::open() {
    daemon_.open();
    if (visibility_.discoverable.value_or(seconds(0)) > seconds(0)) {
        hide_.expires_after(*visibility_.discoverable);
        hide_.async_wait([this](const asio::error_code& error) {
            if (!error) {
                daemon_.attempt([this] { time_is_over(); });
            }
        });
    }
}

std::string Discovery::answer_pairing(bool accepts) {
    return agent_.answer(accepts);
}

std::string Discovery::name() const {
    return visibility_.name.value_or(usual_name);
}

bool Discovery::has(Endpoint::Kind kind) const {
    return std::ranges::any_of(endpoints_, [&](const Endpoint& endpoint) { return endpoint.kind == kind; });
}

// ---- Our objects ----------------------------------------------------------------------------------------------------

// The sockets listen already: of a profile there is nothing but its record.
void Discovery::offer_records() {
    for (const Endpoint& endpoint : endpoints_) {
        if (record_uuid(endpoint.kind) != nullptr) {
            const std::string path = record_prefix + std::to_string(records_.size());
            objects_.offer(path, "org.bluez.Profile1", "Release",
                           [this](const bus::Message& call) { daemon_.send(call.answer()); });
            records_.push_back({endpoint, path});
        }
    }
}

void Discovery::offer_low_energy() {
    objects_.offer(low_energy_service, "org.bluez.GattService1",
                   {{"UUID", "s", std::string(service_uuid)}, {"Primary", "b", true}});
    for (const Endpoint& endpoint : endpoints_) {
        if (endpoint.kind != Endpoint::Kind::le) {
            continue;
        }
        const std::string path = fmt::format("{}/psm{}", low_energy_service, endpoint.port);
        objects_.offer(path, characteristic_interface,
                       {{"UUID", "s", std::string(psm_characteristic_uuid)},
                        {"Service", "o", std::string(low_energy_service)},
                        {"Flags", "as", std::vector<std::string>{"read"}}});
        objects_.offer(path, characteristic_interface, "ReadValue", [this, psm = endpoint.port](bus::Message call) {
            const std::array<uint8_t, 2> value = {static_cast<uint8_t>(psm), static_cast<uint8_t>(psm >> 8)};
            const std::optional<int64_t> offset = offset_in(call);
            if (!offset || *offset < 0 || *offset > static_cast<int64_t>(value.size())) {
                call.answer_error("org.bluez.Error.InvalidOffset", "the value has two bytes");
                return;
            }
            const auto start = static_cast<size_t>(*offset);
            bus::Message answer = call.answer();
            answer.append_bytes(std::span(value).subspan(start));
            daemon_.send(answer);
        });
    }
    offer_advertisement(advertisement, {{"Type", "s", std::string("peripheral")},
                                        {"ServiceUUIDs", "as", std::vector<std::string>{service_uuid}},
                                        {"Discoverable", "b", true},
                                        {"LocalName", "s", name()}});
    offer_advertisement(quiet_advertisement, {{"Type", "s", std::string("peripheral")}, {"Discoverable", "b", false}});
}

void Discovery::offer_advertisement(const std::string& path, std::vector<OfferedProperty> properties) {
    constexpr const char* interface = "org.bluez.LEAdvertisement1";
    objects_.offer(path, interface, std::move(properties));
    objects_.offer(path, interface, "Release", [this](const bus::Message& call) { daemon_.send(call.answer()); });
}

// ---- The daemon and its adapters ------------------------------------------------------------------------------------

void Discovery::found(const bus::Objects& objects) {
    if (!std::exchange(is_registered_, true)) {
        register_records();
        if (wanted_.is_visible && wanted_.is_pairable) {
            agent_.begin();
        }
    }
    adapters_found(objects);
}

void Discovery::adapters_found(const bus::Objects& objects) {
    count_down();
    bool has_adapter = false;
    for (const auto& [path, interfaces] : objects) {
        if (!is_listened_on(interfaces) || (!adapters_.contains(path) && adapters_.size() == budget::adapters)) {
            continue;
        }
        has_adapter = true;
        adapters_.try_emplace(path, daemon_, wanted_, path).first->second.found(interfaces);
    }
    for (auto& [path, adapter] : adapters_) {
        const auto there = objects.find(path);
        if (there == objects.end() || !there->second.contains(adapter_interface)) {
            adapter.lost();
        }
    }
    if (!has_adapter && !told_no_adapter_) {
        tell_of_bluetooth("waiting", "there is no Bluetooth adapter that the camera listens on, and no phone reaches "
                                     "it: plug one in (rfkill list shows those that are switched off)");
    }
    told_no_adapter_ = !has_adapter;
}

bool Discovery::is_listened_on(const bus::Interfaces& interfaces) const {
    const auto adapter = interfaces.find(adapter_interface);
    if (adapter == interfaces.end()) {
        return false;
    }
    const std::string address = bus::property<std::string>(adapter->second, "Address").value_or("");
    return std::ranges::any_of(endpoints_, [&](const Endpoint& endpoint) {
        return !endpoint.address || text_of(*endpoint.address) == address;
    });
}

void Discovery::lost() {
    is_registered_ = false;
    agent_.lost();
    for (auto& [path, adapter] : adapters_) {
        adapter.lost();
    }
}

void Discovery::register_records() {
    for (const Record& record : records_) {
        bus::Message call = daemon_.call("/org/bluez", "org.bluez.ProfileManager1", "RegisterProfile");
        call.append("os", record.path.c_str(), record_uuid(record.endpoint.kind));
        call.append("a{sv}", 5, "Name", "s", name().c_str(), "Role", "s", "server", "RequireAuthentication", "b", 0,
                    "RequireAuthorization", "b", 0, "ServiceRecord", "s", record_xml(record.endpoint, name()).c_str());
        daemon_.ask(call, [endpoint = record.endpoint](const std::optional<bus::Error>& error, bus::Message&) {
            registered(endpoint, error);
        });
    }
}

void Discovery::registered(const Endpoint& endpoint, const std::optional<bus::Error>& error) {
    if (!error) {
        tell_of_bluetooth("record", fmt::format("phones find {} by its service record", endpoint.url()),
                          {{"url", endpoint.url()}, {"uuid", record_uuid(endpoint.kind)}});
        return;
    }
    const std::string reason = printable(error->name + ": " + error->text);
    tell_of_bluetooth("refused",
                      fmt::format("the Bluetooth daemon refuses the service record of {} ({}); phones that know the "
                                  "camera's address and this number still connect",
                                  endpoint.url(), reason),
                      {{"url", endpoint.url()}, {"reason", reason}});
}

// ---- Time -----------------------------------------------------------------------------------------------------------

// What is left of the time, in whole seconds: an adapter that comes late is visible until then, too.
void Discovery::count_down() {
    if (wanted_.is_visible && *visibility_.discoverable > seconds(0)) {
        wanted_.time = std::max(std::chrono::ceil<seconds>(hide_.expiry() - Clock::now()), seconds(1));
    }
}

void Discovery::time_is_over() {
    wanted_.is_visible = false;
    tell_of_bluetooth("hidden", fmt::format("phones that look for cameras find this one no more: its {} s are over",
                                            visibility_.discoverable->count()));
    agent_.end();
    if (!daemon_.is_there()) {
        return;
    }
    for (auto& [path, adapter] : adapters_) {
        adapter.hide();
    }
}

// The rest the daemon forgets by itself when the camera leaves the bus.
void Discovery::put_back() {
    const Clock::time_point end = Clock::now() + budget::bus_farewell;
    for (auto& [path, adapter] : adapters_) {
        if (!daemon_.is_there()) {
            return;
        }
        for (const bus::Message& call : adapter.calls_to_put_back()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
            daemon_.ask_and_wait(call, std::max(left, std::chrono::milliseconds(1)));
        }
    }
}

} // namespace desk::camera
