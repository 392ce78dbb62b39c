#include "Disk.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <utility>

namespace fs = std::filesystem;
using system_calls::Call;
using system_calls::Kind;

namespace {

constexpr size_t root_node = 0;
constexpr size_t sector = 512;
constexpr size_t bits_of_fate = 64;

void put(std::string& content, size_t offset, const std::string& bytes) {
    if (content.size() < offset + bytes.size()) {
        content.resize(offset + bytes.size());
    }
    content.replace(offset, bytes.size(), bytes);
}

void put_sectors(std::string& content, size_t offset, const std::string& bytes, Disk::Fate fate) {
    for (size_t begin = 0; begin < bytes.size();) {
        const size_t end = std::min(bytes.size(), (offset + begin) / sector * sector + sector - offset);
        const size_t number = (offset + begin) / sector - offset / sector;
        if ((fate >> (number % bits_of_fate) & 1) != 0) {
            put(content, offset + begin, bytes.substr(begin, end - begin));
        }
        begin = end;
    }
}

} // namespace

Tree read_tree(const fs::path& folder) {
    Tree tree;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        const std::string path = entry.path().lexically_relative(folder).string();
        if (entry.is_directory()) {
            tree[path] = std::nullopt;
        } else {
            std::ifstream stream(entry.path(), std::ios::binary);
            tree[path] = std::string(std::istreambuf_iterator<char>(stream), {});
        }
    }
    return tree;
}

void write_tree(const Tree& tree, const fs::path& folder) {
    fs::create_directories(folder);
    for (const auto& [path, bytes] : tree) { // a folder comes before what is in it
        if (bytes) {
            std::ofstream stream(folder / path, std::ios::binary);
            stream.write(bytes->data(), static_cast<std::streamsize>(bytes->size()));
        } else {
            fs::create_directory(folder / path);
        }
    }
}

Disk::Disk(fs::path root, const Tree& durable) : root_(std::move(root)) {
    add_node(true);
    for (const auto& [path, bytes] : durable) {
        const Place place = place_of(root_ / path);
        const size_t node = add_node(!bytes);
        nodes_[node].bytes = bytes.value_or("");
        nodes_[node].cached_size = nodes_[node].bytes.size();
        nodes_[place.folder].names[place.name] = nodes_[place.folder].cached_names[place.name] = node;
    }
}

size_t Disk::add_node(bool is_folder) {
    nodes_.push_back({.is_folder = is_folder});
    return nodes_.size() - 1;
}

Disk::Place Disk::place_of(const fs::path& path) const {
    Place place{root_node, ""};
    for (const fs::path& part : path.lexically_relative(root_)) {
        if (!place.name.empty()) {
            place.folder = nodes_[place.folder].cached_names.at(place.name);
        }
        place.name = part.string();
    }
    return place;
}

std::optional<size_t> Disk::node_at(const Place& place) const {
    if (place.name == ".") {
        return root_node;
    }
    const Names& names = nodes_[place.folder].cached_names;
    const auto found = names.find(place.name);
    return found == names.end() ? std::nullopt : std::optional(found->second);
}

// ---- What calls do --------------------------------------------------------------------------------------------------

void Disk::follow(const Call& call) {
    if (call.kind == Kind::close) {
        descriptors_.erase(call.descriptor); // whatever it answers
        return;
    }
    if (call.kind == Kind::fsync || call.kind == Kind::fdatasync) {
        flush(call);
        return;
    }
    if (call.result < 0) {
        return;
    }
    switch (call.kind) {
    case Kind::open:
    case Kind::opendir:
        open(call);
        break;
    case Kind::write:
    case Kind::pwrite:
        write(call);
        break;
    case Kind::ftruncate:
        resize(descriptors_.at(call.descriptor), static_cast<size_t>(call.offset));
        break;
    case Kind::mkdir:
        make_folder(call);
        break;
    case Kind::rename:
        rename(call);
        break;
    case Kind::unlink:
    case Kind::rmdir:
        remove(call);
        break;
    case Kind::link:
        throw std::logic_error("links are beyond this model");
    default:
        break; // it changes nothing
    }
}

void Disk::leave_out(const Call& flush) {
    if (flush.kind != Kind::fsync && flush.kind != Kind::fdatasync) {
        throw std::logic_error("only a flush can be left out");
    }
}

void Disk::change_name(size_t folder, const std::string& gone, const std::string& come, size_t target) {
    pieces_.push_back({.what = Piece::What::name, .node = folder, .gone = gone, .come = come, .target = target});
    Names& names = nodes_[folder].cached_names;
    if (!gone.empty()) {
        names.erase(gone);
    }
    if (!come.empty()) {
        names[come] = target;
    }
}

void Disk::open(const Call& call) {
    const Place place = place_of(call.path);
    std::optional<size_t> node = node_at(place);
    if (!node) {
        if ((call.flags & O_CREAT) == 0) {
            throw std::logic_error(call.path.string() + " came into being by a call that passed by");
        }
        node = add_node(false);
        change_name(place.folder, "", place.name, *node);
    } else if ((call.flags & O_TRUNC) != 0) {
        resize(*node, 0);
    }
    descriptors_[call.descriptor] = *node;
}

void Disk::make_folder(const Call& call) {
    const Place place = place_of(call.path);
    change_name(place.folder, "", place.name, add_node(true));
}

void Disk::rename(const Call& call) {
    const Place from = place_of(call.path);
    const Place to = place_of(call.to);
    if (from.folder != to.folder) {
        throw std::logic_error("a rename from folder to folder is beyond this model");
    }
    change_name(from.folder, from.name, to.name, node_at(from).value());
}

void Disk::remove(const Call& call) {
    const Place place = place_of(call.path);
    change_name(place.folder, place.name, "", 0);
}

void Disk::write(const Call& call) {
    const size_t node = descriptors_.at(call.descriptor);
    const auto offset = static_cast<size_t>(call.offset);
    const size_t end = offset + call.bytes.size();
    if (end > nodes_[node].cached_size) {
        resize(node, end);
    }
    pieces_.push_back({.what = Piece::What::bytes, .node = node, .offset = offset, .bytes = call.bytes});
}

void Disk::resize(size_t node, size_t size) {
    if (nodes_[node].cached_size != size) {
        pieces_.push_back({.what = Piece::What::size, .node = node, .offset = size});
        nodes_[node].cached_size = size;
    }
}

void Disk::flush(const Call& call) {
    const size_t node = descriptors_.at(call.descriptor);
    if (call.result < 0) {
        for (Piece& piece : pieces_) {
            piece.missed |= piece.node == node && piece.what == Piece::What::bytes && call.error != EINTR;
        }
        return;
    }
    for (const Piece& piece : pieces_) {
        if (piece.node == node && !piece.missed) {
            make_durable(nodes_, piece, kept);
        }
    }
    std::erase_if(pieces_, [&](const Piece& piece) { return piece.node == node; });
}

// ---- What is left ---------------------------------------------------------------------------------------------------

void Disk::make_durable(std::vector<Node>& nodes, const Piece& piece, Fate fate) {
    Node& node = nodes[piece.node];
    switch (piece.what) {
    case Piece::What::bytes: {
        const size_t size = node.bytes.size();
        put_sectors(node.bytes, piece.offset, piece.bytes, fate);
        node.bytes.resize(size); // the size is a piece of its own
        break;
    }
    case Piece::What::size:
        node.bytes.resize(piece.offset);
        break;
    case Piece::What::name:
        if (!piece.gone.empty()) {
            node.names.erase(piece.gone);
        }
        if (!piece.come.empty()) {
            node.names[piece.come] = piece.target;
        }
        break;
    }
}

Tree Disk::after_power_loss(std::vector<Fate> fates) const {
    std::vector<Node> nodes = nodes_;
    std::set<std::pair<size_t, std::string>> stuck; // names whose later changes cannot come first
    for (size_t number = 0; number < pieces_.size(); ++number) {
        const Piece& piece = pieces_[number];
        Fate fate = fates.at(number);
        if (piece.what == Piece::What::name) {
            const std::pair gone(piece.node, piece.gone);
            const std::pair come(piece.node, piece.come);
            if (fate == lost || stuck.contains(gone) || stuck.contains(come)) {
                fate = lost;
                for (const auto& name : {gone, come}) {
                    if (!name.second.empty()) {
                        stuck.insert(name);
                    }
                }
            }
        }
        if (fate != lost) {
            make_durable(nodes, piece, fate);
        }
    }
    Tree tree;
    collect(tree, nodes, root_node, "");
    return tree;
}

Tree Disk::cached() const {
    return after_power_loss(std::vector<Fate>(pieces_.size(), kept));
}

// As deep as a test makes its folders. NOLINTNEXTLINE(misc-no-recursion)
void Disk::collect(Tree& tree, const std::vector<Node>& nodes, size_t folder, const std::string& path) const {
    for (const auto& [name, number] : nodes[folder].names) {
        const std::string inner = path + name;
        if (nodes[number].is_folder) {
            tree[inner] = std::nullopt;
            collect(tree, nodes, number, inner + "/");
        } else {
            tree[inner] = nodes[number].bytes;
        }
    }
}
