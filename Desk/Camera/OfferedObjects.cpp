#include "OfferedObjects.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace desk::camera {
namespace {

constexpr const char* unknown_property = "org.freedesktop.DBus.Error.UnknownProperty";

void append_value(bus::Message& message, const OfferedProperty& property) {
    message.open('v', property.type);
    if (const bool* const flag = std::get_if<bool>(&property.value)) {
        message.append("b", static_cast<int>(*flag));
    } else if (const auto* const text = std::get_if<std::string>(&property.value)) {
        message.append(property.type, text->c_str());
    } else {
        message.open('a', "s");
        for (const std::string& each : std::get<std::vector<std::string>>(property.value)) {
            message.append("s", each.c_str());
        }
        message.close();
    }
    message.close();
}

void append_properties(bus::Message& message, const std::vector<OfferedProperty>& properties) {
    message.open('a', "{sv}");
    for (const OfferedProperty& property : properties) {
        message.open('e', "sv");
        message.append("s", property.name);
        append_value(message, property);
        message.close();
    }
    message.close();
}

} // namespace

void OfferedObjects::offer(const std::string& path, const std::string& interface,
                           std::vector<OfferedProperty> properties) {
    objects_[path][interface].properties = std::move(properties);
}

void OfferedObjects::offer(const std::string& path, const std::string& interface, const std::string& method,
                           Method called) {
    objects_[path][interface].methods[method] = std::move(called);
}

bool OfferedObjects::called(bus::Message call, const Send& send) const {
    const auto object = objects_.find(call.path());
    if (object != objects_.end()) {
        const auto interface = object->second.find(call.interface());
        if (interface != object->second.end()) {
            const auto method = interface->second.methods.find(call.member());
            if (method == interface->second.methods.end()) {
                return false;
            }
            method->second(call);
            return true;
        }
    }
    return called_standard(object != objects_.end() ? &object->second : nullptr, call, send);
}

// What every object is asked in the same way.
bool OfferedObjects::called_standard(const Object* object, bus::Message& call, const Send& send) const {
    if (call.interface() == "org.freedesktop.DBus.ObjectManager" && call.member() == "GetManagedObjects") {
        bus::Message answer = call.answer();
        append_objects_below(call.path(), answer);
        send(answer);
        return true;
    }
    const bool is_one = call.member() == "Get";
    const bool is_all = call.member() == "GetAll";
    if (call.interface() != "org.freedesktop.DBus.Properties" || object == nullptr || (!is_one && !is_all)) {
        return false;
    }
    const std::optional<std::string> wanted = call.read_text();
    const auto interface = wanted ? object->find(*wanted) : object->end();
    const std::optional<std::string> name = is_one ? call.read_text() : std::nullopt;
    bus::Message answer = call.answer();
    if (interface != object->end() && is_all) {
        append_properties(answer, interface->second.properties);
        send(answer);
        return true;
    }
    if (interface != object->end() && name) {
        const auto& all = interface->second.properties;
        const auto found = std::ranges::find(all, *name, &OfferedProperty::name);
        if (found != all.end()) {
            append_value(answer, *found);
            send(answer);
            return true;
        }
    }
    call.answer_error(unknown_property, "there is no such property");
    return true;
}

void OfferedObjects::append_objects_below(std::string_view path, bus::Message& answer) const {
    const std::string prefix = std::string(path) + "/";
    answer.open('a', "{oa{sa{sv}}}");
    for (const auto& [object_path, object] : objects_) {
        if (!object_path.starts_with(prefix)) {
            continue;
        }
        answer.open('e', "oa{sa{sv}}");
        answer.append("o", object_path.c_str());
        answer.open('a', "{sa{sv}}");
        for (const auto& [name, interface] : object) {
            answer.open('e', "sa{sv}");
            answer.append("s", name.c_str());
            append_properties(answer, interface.properties);
            answer.close();
        }
        answer.close();
        answer.close();
    }
    answer.close();
}

} // namespace desk::camera
