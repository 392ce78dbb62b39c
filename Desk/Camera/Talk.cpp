#include "Talk.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Common/Text.h"
#include "StandardError.h"

namespace desk::camera {
namespace {

// "2026-11-22T12:03:44.218+01:00": the local time, and how far it is from UTC.
std::string timestamp() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const std::tm local = fmt::localtime(static_cast<std::time_t>(milliseconds / 1000));
    const long minutes = std::labs(local.tm_gmtoff / 60);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}{}{:02}:{:02}", local, milliseconds % 1000,
                       local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

} // namespace

void say(const Said& said) {
    StandardError::tell(said);
}

std::string text_of(const Said& said) {
    const std::string time =
        said.kind == kind_request ? fmt::format("{:%H:%M:%S} ", fmt::localtime(std::time(nullptr))) : "";
    return fmt::format("{}: {}{}", program_name, time, said.message);
}

std::string json_of(const Said& said) {
    nlohmann::ordered_json line = {{"time", timestamp()}, {"kind", said.kind}};
    line.update(said.fields);
    line["message"] = printable(said.message);
    return escaped_json(line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

} // namespace desk::camera
