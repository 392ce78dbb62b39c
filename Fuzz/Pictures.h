// The screennail pictures that a made-up preset's path may lead to. One of them is a file in memory, whose content a
// run makes up.
#pragma once

#include <string>

#include "FuzzHost.h"

namespace fuzz {

void create_picture(); // once, before any other
void set_picture(const Bytes& content);
const Bytes& picture_content();

// A path: none, a folder, one without a NUL, a device, or that of the picture for any other choice.
std::string path_of(int choice);
bool is_picture_path(const tag_custom_info& preset);

} // namespace fuzz
