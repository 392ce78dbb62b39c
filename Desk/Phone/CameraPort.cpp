#include "CameraPort.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <poll.h>
#include <span>
#include <sys/socket.h>

#include "Common/Descriptor.h"
#include "Common/Text.h"
#include "Links/Bluetooth.h"
#include "Links/PsmQuery.h"
#include "Links/ServiceSearch.h"
#include "Links/ServiceUuids.h"

namespace desk::phone {
namespace {

constexpr size_t largest_packet = 65536;

// Whom to ask, and in which words.
struct Question {
    L2capAddress own = {}; // of any adapter
    L2capAddress device = {};
    std::unique_ptr<Enquiry> enquiry;
};

// A camera of RFCOMM stands in its device's directory of services.
Question question_to_directory(const Endpoint& camera) {
    Endpoint any;
    any.kind = Endpoint::Kind::l2cap;
    Endpoint directory = any;
    directory.address = camera.address;
    directory.port = ServiceSearch::psm;
    return {l2cap_address(any), l2cap_address(directory), std::make_unique<ServiceSearch>(uuid_from(service_uuid))};
}

Question question_to_attributes(const Endpoint& camera) {
    Endpoint any;
    any.kind = Endpoint::Kind::le;
    Question question = {l2cap_address(any), l2cap_address(camera),
                         std::make_unique<PsmQuery>(uuid_from(psm_characteristic_uuid))};
    question.own.channel_id[0] = question.device.channel_id[0] = PsmQuery::channel_id;
    return question;
}

Question question_to(const Endpoint& camera) {
    return camera.kind == Endpoint::Kind::le ? question_to_attributes(camera) : question_to_directory(camera);
}

const sockaddr* plain(const L2capAddress& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// False, and errno, where the kernel has no such sockets.
bool open_socket(Descriptor& connection, const Question& question) {
    connection = Descriptor(socket(AF_BLUETOOTH, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, l2cap_protocol));
    return connection.get() >= 0 && bind(connection.get(), plain(question.own), sizeof question.own) == 0;
}

// Returns 0, or the error.
int connect_to_device(int connection, const Question& question, std::chrono::milliseconds timeout, int stop) {
    Address address{AF_BLUETOOTH, 0, 0, {}, sizeof question.device};
    std::memcpy(&address.bytes, &question.device, sizeof question.device);
    return try_to_connect(connection, address, Clock::now() + timeout, stop);
}

bool send_packet(int connection, std::span<const uint8_t> packet) {
    return send(connection, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

PortAnswer no_port(ExitCode code, const std::string& reason) {
    PortAnswer answer;
    answer.code = code;
    answer.reason = reason;
    return answer;
}

PortAnswer hung_up() {
    return no_port(exit_protocol, "the device hung up when it was asked where its camera listens; see that the camera "
                                  "runs, and pair the two if it wants that (bluetoothctl pair)");
}

PortAnswer answer_of(const Finding& finding) {
    switch (finding.kind) {
    case Finding::Kind::found: {
        PortAnswer answer;
        answer.port = finding.port;
        return answer;
    }
    case Finding::Kind::absent: {
        PortAnswer answer = no_port(
            exit_link, "the device has no such service; is a camera running there that listens on this kind of link?");
        answer.is_absent = true;
        return answer;
    }
    case Finding::Kind::for_paired:
        return no_port(exit_link, "the camera wants a phone that is paired; pair the two first (bluetoothctl pair)");
    case Finding::Kind::refused:
        return no_port(exit_link, "the device does not tell where its camera listens; write the number that the camera "
                                  "said in the place of auto");
    case Finding::Kind::faulty:
    case Finding::Kind::nothing_yet:
        break;
    }
    return no_port(exit_protocol, "what the device answers does not tell where its camera listens; write the number "
                                  "that the camera said in the place of auto");
}

// The whole answer has its time, in however many packets it comes.
PortAnswer converse(int connection, Enquiry& enquiry, Clock::time_point deadline, int stop) {
    std::vector<uint8_t> received(largest_packet);
    std::vector<uint8_t> to_send = enquiry.first_packet();
    while (to_send.empty() || send_packet(connection, to_send)) {
        if (poll_one(connection, POLLIN, deadline, stop) == 0) {
            return no_port(exit_timeout, "the device does not answer where its camera listens; try once more, or write "
                                         "the number that the camera said in the place of auto");
        }
        const ssize_t count = recv(connection, received.data(), received.size(), 0);
        if (count <= 0) {
            break;
        }
        const Finding finding = enquiry.take(std::span(received).first(static_cast<size_t>(count)));
        if (finding.kind != Finding::Kind::nothing_yet) {
            return answer_of(finding);
        }
        to_send = finding.to_send;
    }
    return hung_up();
}

Failure failure_of(const Endpoint& camera, const PortAnswer& answer) {
    return {answer.code, fmt::format("cannot connect to {}: {}", printable(camera.url()), answer.reason)};
}

} // namespace

PortAnswer ask_for_port(const Endpoint& camera, std::chrono::milliseconds timeout, int stop) {
    const Question question = question_to(camera);
    Descriptor connection;
    if (!open_socket(connection, question)) {
        return no_port(exit_link, reason_of(camera, errno));
    }
    const int error = connect_to_device(connection.get(), question, timeout, stop);
    PortAnswer answer = error != 0 ? no_port(exit_link, reason_of(camera, error))
                                   : converse(connection.get(), *question.enquiry, Clock::now() + timeout, stop);
    answer.was_tried = true;
    return answer;
}

Endpoint with_port(const Endpoint& camera, std::chrono::milliseconds timeout) {
    const bool tells = camera.kind == Endpoint::Kind::rfcomm || camera.kind == Endpoint::Kind::le;
    if (!tells || camera.port != 0 || !camera.address) {
        return camera;
    }
    const PortAnswer answer = ask_for_port(camera, timeout);
    if (!answer.port) {
        throw failure_of(camera, answer);
    }
    Endpoint found = camera;
    found.port = *answer.port;
    return found;
}

} // namespace desk::phone
