#include "Control.h"

#include <utility>

#include "Budgets.h"
#include "Common/Failure.h"
#include "Lab.h"

namespace desk::camera {
namespace {

std::span<const uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

} // namespace

Control::Control(asio::io_context& loop, const Endpoint& endpoint, Lab& lab)
    : lab_(lab), buffer_(budget::control_bytes),
      listener_(loop, endpoint, budget::control_bytes, {.access = Access::owner}, buffer_),
      clients_(loop, budget::control_time, [](const std::shared_ptr<Link>& client) { client->close(); }) {}

void Control::open() {
    listener_.accept([this](const std::shared_ptr<Link>& link) { client_came(link); });
}

// The oldest goes where there are too many: one that says nothing keeps nobody out.
void Control::client_came(const std::shared_ptr<Link>& link) {
    if (clients_.size() == budget::control_clients) {
        clients_.take_oldest()->close();
    }
    clients_.add(link);
    link->on_lost([this, &client = *link](const std::string&) { clients_.remove(client); });
    listen_to(*link);
}

void Control::listen_to(Link& client) {
    client.receive([this, &client](std::span<const uint8_t> received) {
        answer(client, answer_to({reinterpret_cast<const char*>(received.data()), received.size()}));
    });
}

// The next command is read when the client has taken this answer.
void Control::answer(Link& client, const std::string& line) {
    const auto text = std::make_shared<const std::string>(line);
    clients_.remove(client);
    clients_.add(client.shared_from_this());
    client.send(bytes_of(*text), [this, &client, text] { listen_to(client); });
}

std::string Control::answer_to(const std::string& line) {
    try {
        const std::string told = lab_.run(line, "control");
        return told.empty() ? "done" : "done: " + told;
    } catch (const Failure& failure) {
        return std::string("refused: ") + failure.what();
    }
}

} // namespace desk::camera
