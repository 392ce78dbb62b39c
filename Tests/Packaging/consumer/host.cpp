// A host in C++17 that is built against an installed library: one phone after another on a Unix socket that keeps
// message boundaries, presets in memory, their pictures in the working directory.
//
// Usage: consumer SOCKET
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_Version.h"

namespace {

std::vector<tag_custom_info> presets;
int last_identity = 0;
int phone = -1;
int unconfirmed = 0;

void renumber() {
    for (std::size_t number = 0; number < presets.size(); ++number) {
        presets[number].preset_num = static_cast<int32_t>(number);
    }
}

std::vector<tag_custom_info>::iterator find(int custom_id) {
    return std::find_if(presets.begin(), presets.end(),
                        [=](const tag_custom_info& preset) { return preset.custom_id == custom_id; });
}

} // namespace

// ---- The services ---------------------------------------------------------------------------------------------------

int __dlog_print(int, int, const char*, const char*, ...) {
    return 0;
}

int __ui_set_shotmentor_state(int) {
    return SM_RETURN_TRUE;
}

bool __ui_get_bt_state_for_phone() {
    return phone >= 0;
}

int __ui_get_custom_mode_list_info(tag_custom_info* list, int* count) {
    std::copy(presets.begin(), presets.end(), list);
    *count = static_cast<int>(presets.size());
    return SM_RETURN_TRUE;
}

int __ui_get_linked_preseet_num_for_phone(int) {
    return -1;
}

bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    const auto found = find(custom_id);
    if (found == presets.end()) {
        return false;
    }
    *preset = *found;
    return true;
}

int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    if (length < 0 || presets.size() == SM_PRESET_LIMIT) {
        return SM_RETURN_DATA_ERR;
    }
    preset->custom_id = ++last_identity;
    const std::string path = std::to_string(preset->custom_id) + ".jpg";
    if (!std::ofstream(path, std::ios::binary).write(static_cast<const char*>(image), length)) {
        return SM_RETURN_FAIL;
    }
    std::fill(std::begin(preset->screennail_path), std::end(preset->screennail_path), '\0');
    path.copy(preset->screennail_path, sizeof preset->screennail_path - 1);
    presets.push_back(*preset);
    renumber();
    *preset = presets.back();
    return SM_RETURN_TRUE;
}

int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    const auto found = find(custom_id);
    if (found == presets.end()) {
        return SM_RETURN_LOCALN_ERR;
    }
    found->server_id = server_id;
    std::snprintf(found->title, sizeof found->title, "%s", title);
    return SM_RETURN_TRUE;
}

int __ui_preset_delete_form_phone(int* flags) {
    presets.erase(std::remove_if(presets.begin(), presets.end(),
                                 [=](const tag_custom_info& preset) { return flags[preset.preset_num] == 1; }),
                  presets.end());
    renumber();
    return SM_RETURN_TRUE;
}

// The socket waits for room. That the phone has gone is seen by recv.
int bt_send_msgs(bt_msg_info* message) {
    const char* const bytes = static_cast<const char*>(message->data);
    const int longest = 4096;
    int sent = 0;
    while (sent < message->length) {
        const int size = std::min(message->length - sent, longest);
        if (send(phone, bytes + sent, static_cast<std::size_t>(size), MSG_NOSIGNAL) != size) {
            break;
        }
        sent += size;
    }
    ++unconfirmed;
    return 0;
}

int User_Spec_Get_Value(int key) {
    return key == SM_SPEC_KEY_ISO_STEP ? 1 : 0;
}

// ---- The loop -------------------------------------------------------------------------------------------------------

namespace {

void serve() {
    std::vector<char> packet(SM_REQUEST_LIMIT);
    for (ssize_t length; (length = recv(phone, packet.data(), packet.size(), 0)) > 0;) {
        ADE_ShotMentor_Receive_Manager(packet.data(), static_cast<int>(length));
        for (; unconfirmed > 0; --unconfirmed) {
            ADE_ShotMentor_Result_Manager(nullptr, 0);
        }
    }
    ADE_ShotMentor_Return_To_Idle();
}

int fail(const char* what) {
    std::perror(what);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (argc != 2 || std::strlen(argv[1]) >= sizeof address.sun_path) {
        std::fputs("usage: consumer SOCKET, with a short path\n", stderr);
        return 2;
    }
    std::strcpy(address.sun_path, argv[1]);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 4) != 0) {
        return fail(argv[1]);
    }
    std::printf("ShotMentor %s, listening on unix:%s\n", SHOTMENTOR_VERSION, argv[1]);
    std::fflush(stdout);
    while ((phone = accept(listener, nullptr, nullptr)) >= 0) {
        serve();
        close(phone);
    }
    return fail("accept");
}
