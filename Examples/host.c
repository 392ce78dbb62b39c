/*
 * A whole small host: presets in memory, and one phone after the other on a Unix socket. Its numbers in brackets are a
 * host's obligations, as README.md lists them. Usage: example_host unix:PATH PICTURE.jpg 2>log
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ADE_ShotMentor.h"

enum { SEND_SIZE = 4096, PATIENCE_MS = 10000 };

static tag_custom_info stored[SM_PRESET_LIMIT] = {
    {.title = "Landscape", .mode = SM_MODE_APERTURE, .av_index = 96, .ev_step = 15}, /* f/8 */
    {.title = "Waterfall", .mode = SM_MODE_SHUTTER, .tv_index = 0, .ev_step = 15},   /* 1 s */
    {.title = "Evening", .mode = SM_MODE_PROGRAM, .ev_step = 15},
};
static int stored_count = 3;
static int next_id = 1;                          /* [14] an identity is above 0 and never given twice */
static int linked_ids[SM_CUSTOM_MODES] = {1, 0}; /* CUSTOM1 uses the first; by identity, as numbers change */
static const char* first_picture;                /* the three share it */
static int phone = -1;                           /* its socket */
static const unsigned char* reply;               /* the rest of the reply that is on its way; null for none */
static size_t reply_left;

static _Noreturn void fail(const char* what, const char* fault) {
    fprintf(stderr, "example_host: %s: %s\n", what, fault);
    exit(1);
}

/* ---- [1] The services, which the library imports from the program ------------------------------------------------ */

/* [8] Errors, priority 6, are on standard error already: the library copies them there itself. */
int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
    if (priority != 6) {
        va_list arguments;
        va_start(arguments, format);
        fprintf(stderr, "%d %s ", buffer, tag);
        vfprintf(stderr, format, arguments);
        va_end(arguments);
    }
    return 0;
}

/* [4] The reply's bytes stay where they are. A request sends one reply at most, and [3] lets no other request in. */
int bt_send_msgs(bt_msg_info* message) {
    reply = message->data; /* [5] also of 0 bytes; confirmed when the library has returned, never in here */
    reply_left = (size_t)message->length;
    return 0;
}

bool __ui_get_bt_state_for_phone(void) {
    return phone >= 0;
}

int __ui_set_shotmentor_state(int state) {
    fprintf(stderr, "the phone %s the feature\n", state == 1 ? "uses" : "leaves");
    return 0;
}

int User_Spec_Get_Value(int key) {
    return key == SM_SPEC_KEY_ISO_STEP ? 1 : 0; /* ISO is set in full steps */
}

static int number_of(int custom_id) {
    int number = stored_count - 1;
    while (number >= 0 && stored[number].custom_id != custom_id) {
        --number;
    }
    return number; /* -1 for none */
}

/* [9] All presets in the order of their numbers, 40 at most. */
int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count) {
    memcpy(presets, stored, (size_t)stored_count * sizeof *presets);
    *count = stored_count;
    return 0;
}

/* [9] The number that the preset has now, or -1. */
int __ui_get_linked_preseet_num_for_phone(int custom_mode) {
    return number_of(linked_ids[custom_mode]);
}

/* [10] The whole record, or false for a number that a phone made up. */
bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    const int number = number_of(custom_id);
    if (number >= 0) {
        *preset = stored[number];
    }
    return number >= 0;
}

/* [11] Refuses what it cannot keep. A camera flushes picture and record before it answers: success outlives power. */
int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    if (length < 0 || stored_count == SM_PRESET_LIMIT) {
        return length < 0 ? SM_RETURN_JPG_ERR : SM_RETURN_DATA_ERR;
    }
    tag_custom_info* const added = &stored[stored_count];
    *added = *preset;
    added->preset_num = stored_count;
    added->custom_id = next_id;
    memset(added->screennail_path, 0, SM_SCREENNAIL_PATH_SIZE); /* the phone's own text */
    snprintf(added->screennail_path, SM_SCREENNAIL_PATH_SIZE, "example_host_%d.jpg", next_id);
    FILE* const file = fopen(added->screennail_path, "wb");
    const bool is_written = file != NULL && fwrite(image, 1, (size_t)length, file) == (size_t)length;
    if (file == NULL || fclose(file) != 0 || !is_written) {
        return SM_RETURN_FAIL;
    }
    preset->preset_num = stored_count++; /* these two travel back to the phone */
    preset->custom_id = next_id++;
    return SM_RETURN_TRUE;
}

/* [12] The title may be a byte longer than there is room for. */
int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    const int number = number_of(custom_id);
    if (number < 0) {
        return SM_RETURN_LOCALN_ERR;
    }
    stored[number].server_id = server_id;
    memset(stored[number].title, 0, SM_TITLE_SIZE);
    memcpy(stored[number].title, title, strnlen(title, SM_TITLE_SIZE - 1));
    return SM_RETURN_TRUE;
}

/* [13] Those that are left close up and get new numbers. */
int __ui_preset_delete_form_phone(int* flags) {
    int kept = 0;
    for (int number = 0; number < stored_count; ++number) {
        if (flags[number] == 0) {
            stored[kept] = stored[number];
            stored[kept].preset_num = kept;
            ++kept;
        } else if (strcmp(stored[number].screennail_path, first_picture) != 0) {
            unlink(stored[number].screennail_path);
        }
    }
    stored_count = kept;
    return 0;
}

/* ---- The link ---------------------------------------------------------------------------------------------------- */

/* [5] Once for each send, when its last byte has gone: the library then frees the reply. */
static void confirm(void) {
    reply = NULL;
    ADE_ShotMentor_Result_Manager(NULL, 0);
}

/* [6] The next phone begins anew, and no send stays unconfirmed. */
static void lose_phone(void) {
    close(phone);
    phone = -1;
    ADE_ShotMentor_Return_To_Idle();
    if (reply != NULL) {
        confirm();
    }
}

static void send_on(void) {
    const size_t size = reply_left < SEND_SIZE ? reply_left : SEND_SIZE;
    const ssize_t sent = size > 0 ? send(phone, reply, size, MSG_DONTWAIT) : 0;
    if (sent < 0 && errno != EAGAIN) {
        lose_phone();
    } else if (sent >= 0) {
        reply += sent;
        reply_left -= (size_t)sent;
        if (reply_left == 0) {
            confirm();
        }
    }
}

/* [2] Each packet as the link delivers it, with room for the 8 bytes that are read of however short a one. A byte
 * stream has no packets: there a host counts bytes, so that none holds bytes of two requests. */
static void receive(void) {
    static unsigned char packet[SM_REQUEST_LIMIT + 1];
    memset(packet, 0, sizeof(sm_frame));
    const ssize_t length = recv(phone, packet, sizeof packet, MSG_DONTWAIT);
    if (length == 0 || length > SM_REQUEST_LIMIT || (length < 0 && errno != EAGAIN)) {
        lose_phone(); /* a packet that fills all the room may have been cut */
    } else if (length > 0) {
        ADE_ShotMentor_Receive_Manager(packet, (int)length);
    }
}

/* One phone at a time; others wait. [3] While a reply is on its way nothing is read. [7] A phone that stops halfway for
 * ten seconds counts as gone. */
static void serve(int listener) {
    const bool is_halfway = reply != NULL || sm_BT_total_length >= 0;
    struct pollfd link = {phone >= 0 ? phone : listener, reply != NULL ? POLLOUT : POLLIN, 0};
    if (poll(&link, 1, is_halfway ? PATIENCE_MS : -1) == 0) {
        lose_phone();
    } else if (phone < 0) {
        phone = accept(listener, NULL, NULL);
    } else if (reply != NULL) {
        send_on();
    } else {
        receive();
    }
}

static void make_presets(const char* picture) {
    if (access(picture, R_OK) != 0 || strlen(picture) >= SM_SCREENNAIL_PATH_SIZE) { /* [10] the library opens it */
        fail(picture, "cannot be read, or its path has over 51 bytes; name another");
    }
    first_picture = picture;
    for (int number = 0; number < stored_count; ++number) {
        stored[number].preset_num = number;
        stored[number].custom_id = next_id++;
        stored[number].made_id = SM_MADE_FAMILY_KT;
        memcpy(stored[number].screennail_path, picture, strlen(picture));
    }
}

static int listen_on(const char* url) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (strncmp(url, "unix:", 5) != 0 || strlen(url + 5) >= sizeof address.sun_path) {
        fail(url, "is no link; write unix:PATH, with at most 107 bytes");
    }
    memcpy(address.sun_path, url + 5, strlen(url + 5));
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0); /* keeps message boundaries, as L2CAP does */
    if (bind(listener, (const struct sockaddr*)&address, sizeof address) != 0 || listen(listener, 4) != 0) {
        fail(url, "cannot listen there; choose another one, or remove what is in its place");
    }
    printf("listening on %s\n", url);
    fflush(stdout);
    return listener;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fail("usage", "example_host unix:PATH PICTURE.jpg");
    }
    signal(SIGPIPE, SIG_IGN); /* [7] a phone that has left is an error of its link, not the end of the host */
    make_presets(argv[2]);
    const int listener = listen_on(argv[1]);
    for (;;) {
        serve(listener);
    }
}
