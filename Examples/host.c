/*
 * A whole small host: keeps presets in memory, and serves one phone after the other on a socket.
 *
 *     example_host [-v] unix:PATH|tcp:PORT [PICTURE.jpg]     -v logs all lines of the library, not the errors alone
 *
 * The Numbers in brackets are a host's obligations, as README.md lists them. What a camera does in another way: packets
 * come from its Bluetooth service instead of a socket, and presets lie in flash.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ADE_ShotMentor.h"

enum { PACKET_SIZE = SM_REQUEST_LIMIT + 1, SEND_SIZE = 4096, PATIENCE_MS = 10000 };

static tag_custom_info stored[SM_PRESET_LIMIT] = {
    {.title = "Landscape", .mode = SM_MODE_APERTURE, .av_index = 96, .ev_step = 15}, /* f/8 */
    {.title = "Waterfall", .mode = SM_MODE_SHUTTER, .tv_index = 0, .ev_step = 15},   /* 1 s */
    {.title = "Evening", .mode = SM_MODE_PROGRAM, .ev_step = 15},
};
static int stored_count = 3;
static int next_id = 1;                                /* [14] an identity is above 0 and never given twice */
static int linked_ids[SM_CUSTOM_MODES] = {1, 0};       /* CUSTOM1 uses the first; by identity, as numbers change */
static const char* first_picture = "example_host.jpg"; /* the three share it */
static bool is_verbose;

static struct {
    int socket; /* -1 without a phone */
    bool is_stream;
    unsigned char bytes[PACKET_SIZE + sizeof(sm_frame)];
    size_t received, to_skip;
} phone = {.socket = -1};

static struct {
    bool is_on_its_way;
    const unsigned char* bytes;
    size_t left;
} reply;

static _Noreturn void fail(const char* what, const char* fault) {
    fprintf(stderr, "example_host: %s: %s\n", what, fault);
    exit(1);
}

/* ---- [1] The services, which the library imports from the program ------------------------------------------------ */

/* [8] The library copies errors to standard error itself. A system log gets them here, like all other lines. */
int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
    if (is_verbose && priority != 6) {
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
    reply.bytes = message->data;
    reply.left = (size_t)message->length;
    reply.is_on_its_way = true; /* [5] also with 0 bytes; confirmed when the library has returned, never in here */
    return 0;
}

bool __ui_get_bt_state_for_phone(void) {
    return phone.socket >= 0;
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

static bool write_picture(const char* path, const void* image, size_t length) {
    FILE* const file = fopen(path, "wb");
    const bool is_written = file != NULL && fwrite(image, 1, length, file) == length;
    return file != NULL && fclose(file) == 0 && is_written;
}

/* [11] Refuses what it cannot keep. A camera flushes picture and record before it answers: success outlives power. */
int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    if (length < 0 || stored_count == SM_PRESET_LIMIT) {
        return length < 0 ? SM_RETURN_JPG_ERR : SM_RETURN_DATA_ERR;
    }
    preset->preset_num = stored_count; /* these two travel back to the phone */
    preset->custom_id = next_id;
    tag_custom_info* const added = &stored[stored_count];
    *added = *preset;
    memset(added->screennail_path, 0, SM_SCREENNAIL_PATH_SIZE); /* the phone's own text */
    snprintf(added->screennail_path, SM_SCREENNAIL_PATH_SIZE, "example_host_%d.jpg", next_id);
    if (!write_picture(added->screennail_path, image, (size_t)length)) {
        return SM_RETURN_FAIL;
    }
    ++stored_count;
    ++next_id;
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
    reply.is_on_its_way = false;
    ADE_ShotMentor_Result_Manager(NULL, 0);
}

/* [6] The next phone begins anew, and no send stays unconfirmed. */
static void lose_phone(void) {
    close(phone.socket);
    phone.socket = -1;
    phone.received = phone.to_skip = 0;
    ADE_ShotMentor_Return_To_Idle();
    if (reply.is_on_its_way) {
        confirm();
    }
}

static void send_on(void) {
    const size_t size = reply.left < SEND_SIZE ? reply.left : SEND_SIZE;
    const ssize_t sent = size > 0 ? send(phone.socket, reply.bytes, size, 0) : 0;
    if (sent < 0 && errno != EAGAIN) {
        lose_phone();
    } else if (sent >= 0) {
        reply.bytes += sent;
        reply.left -= (size_t)sent;
        if (reply.left == 0) {
            confirm();
        }
    }
}

/* [2] What to read of a stream, so that no packet for the library holds bytes of two requests: the header whole, then
 * what the library misses. Where the link keeps message boundaries a packet is one already. */
static size_t wanted(void) {
    const int missing = sm_BT_total_length - sm_BT_combine_length;
    const size_t rest = phone.to_skip > 0 ? phone.to_skip : (size_t)(missing > 0 ? missing : 0);
    const size_t size = rest > 0 ? rest : sizeof(sm_frame) - phone.received;
    return !phone.is_stream ? PACKET_SIZE : size < PACKET_SIZE ? size : PACKET_SIZE - 1;
}

static void deliver(void) {
    const bool is_first = sm_BT_total_length < 0;
    const int length = (int)phone.received;
    sm_frame head;
    memset(phone.bytes + length, 0, sizeof head); /* [2] 8 bytes are read of however short a packet */
    memcpy(&head, phone.bytes, sizeof head);
    phone.received = 0;
    ADE_ShotMentor_Receive_Manager(phone.bytes, length);
    if (phone.is_stream && is_first && sm_BT_total_length < 0 && head.total_length > length) {
        phone.to_skip = (size_t)(head.total_length - length); /* refused by its header: the rest is no request */
    }
}

static void receive(void) {
    const ssize_t length = recv(phone.socket, phone.bytes + phone.received, wanted(), 0);
    if (length == 0 || length == PACKET_SIZE || (length < 0 && errno != EAGAIN)) {
        lose_phone(); /* a packet that fills all the room may have been cut */
    } else if (length > 0 && phone.to_skip > 0) {
        phone.to_skip -= (size_t)length;
    } else if (length > 0) {
        phone.received += (size_t)length;
        if (!phone.is_stream || sm_BT_total_length >= 0 || phone.received == sizeof(sm_frame)) {
            deliver();
        }
    }
}

/* One phone at a time; others wait. [3] While a reply is on its way nothing is read. [7] A phone that stops halfway for
 * ten seconds counts as gone. */
static void serve(int listener) {
    const bool is_halfway = reply.is_on_its_way || sm_BT_total_length >= 0 || phone.received + phone.to_skip > 0;
    const short awaited = reply.is_on_its_way ? POLLOUT : POLLIN;
    struct pollfd link = {phone.socket >= 0 ? phone.socket : listener, awaited, 0};
    const int ready = poll(&link, 1, is_halfway ? PATIENCE_MS : -1);
    if (ready == 0) {
        lose_phone();
    } else if (ready > 0 && phone.socket < 0) {
        phone.socket = accept(listener, NULL, NULL);
        fcntl(phone.socket, F_SETFL, O_NONBLOCK);
    } else if (ready > 0 && reply.is_on_its_way) {
        send_on();
    } else if (ready > 0) {
        receive();
    }
}

/* ---- The start --------------------------------------------------------------------------------------------------- */

static void make_presets(const char* picture) {
    static const char grey[] = /* 8 by 8 pixels: quantisation, frame, two Huffman tables, scan */
        "\xff\xd8\xff\xdb\0\x43\0\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1"
        "\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\1\xff\xc0\0\x0b\x08\0\x08\0\x08\1\1\x11\0\xff\xc4\0\x14\0\1\0\0\0"
        "\0\0\0\0\0\0\0\0\0\0\0\0\0\xff\xc4\0\x14\x10\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\xff\xda\0\x08\1\1\0\0?\0?\xff"
        "\xd9";
    struct stat state;
    if (picture != NULL) {
        first_picture = picture;
    } else if (!write_picture(first_picture, grey, sizeof grey - 1)) {
        fail(first_picture, "cannot be written; start in another folder");
    }
    if (stat(first_picture, &state) != 0 || !S_ISREG(state.st_mode) || strlen(first_picture) > 51) {
        fail(first_picture,
             "is no file, or its path has over 51 bytes; name another"); /* [10] the library opens what is there */
    }
    for (int number = 0; number < stored_count; ++number) {
        stored[number].preset_num = number;
        stored[number].custom_id = next_id++;
        stored[number].made_id = SM_MADE_FAMILY_KT;
        memcpy(stored[number].screennail_path, first_picture, strlen(first_picture));
    }
}

static int listen_on(const char* url) {
    union {
        struct sockaddr any;
        struct sockaddr_in port;
        struct sockaddr_un path;
    } address = {.path = {.sun_family = AF_UNIX}};
    socklen_t size = sizeof address.path;
    phone.is_stream = strncmp(url, "tcp:", 4) == 0;
    if (phone.is_stream) {
        address.port.sin_family = AF_INET;
        address.port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.port.sin_port = htons((uint16_t)strtoul(url + 4, NULL, 10));
        size = sizeof address.port;
    } else if (strncmp(url, "unix:", 5) == 0 && strlen(url + 5) < sizeof address.path.sun_path) {
        memcpy(address.path.sun_path, url + 5, strlen(url + 5));
    } else {
        fail(url, "is no link; write unix:PATH or tcp:PORT");
    }
    const int listener = socket(address.any.sa_family, phone.is_stream ? SOCK_STREAM : SOCK_SEQPACKET, 0);
    if (bind(listener, &address.any, size) != 0 || listen(listener, 4) != 0) {
        fail(url, "cannot listen there; choose another one, or remove what is in its place");
    }
    getsockname(listener, &address.any, &size);
    if (phone.is_stream) {
        printf("listening on tcp:127.0.0.1:%d\n", ntohs(address.port.sin_port));
    } else {
        printf("listening on %s\n", url);
    }
    fflush(stdout);
    return listener;
}

int main(int argc, char** argv) {
    is_verbose = argc > 1 && strcmp(argv[1], "-v") == 0;
    argv += is_verbose ? 1 : 0;
    if (argc < 2 || argv[1] == NULL) {
        fail("usage", "example_host [-v] unix:PATH|tcp:PORT [PICTURE.jpg]");
    }
    signal(SIGPIPE, SIG_IGN); /* [7] a phone that has left is an error of its link, not the end of the host */
    make_presets(argv[2]);
    const int listener = listen_on(argv[1]);
    for (;;) {
        serve(listener);
    }
}
