#include "SchemaFile.h"

#include <filesystem>
#include <glib.h>
#include <memory>
#include <system_error>

namespace desk::phone {
namespace {

namespace fs = std::filesystem;

// From the folder of the program: installed, and where it has been built.
constexpr const char* places[] = {"../share/shotmentor/preset.schema.json", "reference/preset.schema.json"};

std::string url_of(const fs::path& path) {
    const std::unique_ptr<gchar, decltype(&g_free)> url(g_filename_to_uri(path.c_str(), nullptr, nullptr), g_free);
    return url ? url.get() : "";
}

} // namespace

std::string schema_url() {
    std::error_code failed;
    const fs::path folder = fs::read_symlink("/proc/self/exe", failed).parent_path();
    for (const char* place : places) {
        const fs::path path = (folder / place).lexically_normal();
        if (!failed && fs::is_regular_file(path, failed)) {
            return url_of(path);
        }
        failed.clear();
    }
    return "";
}

} // namespace desk::phone
