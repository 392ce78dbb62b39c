// Our own objects on the bus: their properties, and the methods that the daemon calls.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "Bus/Bus.h"

namespace desk::camera {

struct OfferedProperty {
    const char* name;
    const char* type; // as the bus writes it: b, s, o or as
    std::variant<bool, std::string, std::vector<std::string>> value;
};

class OfferedObjects {
  public:
    using Method = std::function<void(const bus::Message& call)>;

    void offer(const std::string& path, const std::string& interface, std::vector<OfferedProperty> properties);
    void offer(const std::string& path, const std::string& interface, const std::string& method, Method called);

    // Answers a call, or returns false: there is no such method. What is called is answered by `send`.
    using Send = std::function<void(const bus::Message&)>;
    bool called(bus::Message call, const Send& send) const;

  private:
    struct Interface {
        std::vector<OfferedProperty> properties;
        std::map<std::string, Method, std::less<>> methods;
    };
    using Object = std::map<std::string, Interface, std::less<>>;

    bool called_standard(const Object* object, bus::Message& call, const Send& send) const;
    void append_objects_below(std::string_view path, bus::Message& answer) const;

    std::map<std::string, Object, std::less<>> objects_;
};

} // namespace desk::camera
