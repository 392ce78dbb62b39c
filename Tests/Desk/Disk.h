// A disk, and what a power loss leaves of it.
//
// It follows the recorded calls of a program on a folder. What is written, cut off, created, renamed and removed is at
// first known to the cache alone. fsync or fdatasync of a file makes its bytes and its size durable, but not its name;
// fsync of a folder makes the names in it durable, and what was renamed or removed there. Of all that is not durable
// yet, each piece may be lost or kept by itself when the power goes:
//
// - a write whole, not at all, or any of the 512-byte sectors that it touches; the size that it gives the
// file,
//   and a size that the file was cut to, each apart from the bytes. Bytes that were lost within a size that
//   was kept are zeros.
// - the name of a new file or folder, the removal of a name, a rename with both its halves. Changes of one
// name
//   happen in their order: a later one is kept only with those before it.
//
// This is the least that POSIX promises, and less than a file system of today does. A flush that fails leaves what was
// to be flushed to chance, and a later one that succeeds does not make up for bytes that it missed: Linux takes pages
// that it could not write for written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "SystemCalls.h"

// The content of a folder: files with their bytes, folders without; paths from the folder on.
using Tree = std::map<std::string, std::optional<std::string>>;

Tree read_tree(const std::filesystem::path& folder);
// The folder must not exist.
void write_tree(const Tree& tree, const std::filesystem::path& folder);

class Disk {
  public:
    // All of `durable` is.
    explicit Disk(std::filesystem::path root, const Tree& durable = {});

    // Follows one call. Throws std::logic_error for a call that is beyond this model.
    void follow(const system_calls::Call& call);
    // Follows a flush as if it had not been called.
    void leave_out(const system_calls::Call& flush);

    // What running programs see.
    Tree cached() const;
    const std::filesystem::path& root() const { return root_; }

    // The pieces that are not durable, and what becomes of each: `lost`, `kept`, or of a write the sectors whose bits
    // are set, counted from its first (a 65th like the first, and so on).
    using Fate = uint64_t;
    static constexpr Fate lost = 0;
    static constexpr Fate kept = ~uint64_t{0};
    size_t unflushed() const { return pieces_.size(); }
    bool can_be_torn(size_t piece) const { return pieces_[piece].what == Piece::What::bytes; }
    // What is there when the power is back. `fates` has one for each piece.
    Tree after_power_loss(std::vector<Fate> fates) const;

  private:
    using Names = std::map<std::string, size_t>; // each with its node
    struct Node {
        bool is_folder = false;
        std::string bytes = {}; // what is durable
        Names names = {};
        size_t cached_size = 0;
        Names cached_names = {};
    };
    struct Piece {
        enum class What { size, bytes, name };
        What what = What::size;
        size_t node = 0;   // the file, or the folder that holds the names
        size_t offset = 0; // of bytes; a size
        std::string bytes = {};
        std::string gone = {}; // the name that goes, and that comes, and what it stands for
        std::string come = {};
        size_t target = 0;
        bool missed = false; // a flush failed that was to make it durable
    };
    struct Place {
        size_t folder = 0;
        std::string name;
    };

    size_t add_node(bool is_folder);
    Place place_of(const std::filesystem::path& path) const;
    std::optional<size_t> node_at(const Place& place) const;
    void change_name(size_t folder, const std::string& gone, const std::string& come, size_t target);
    void open(const system_calls::Call& call);
    void make_folder(const system_calls::Call& call);
    void rename(const system_calls::Call& call);
    void remove(const system_calls::Call& call);
    void write(const system_calls::Call& call);
    void resize(size_t node, size_t size);
    void flush(const system_calls::Call& call);
    void collect(Tree& tree, const std::vector<Node>& nodes, size_t folder, const std::string& path) const;
    static void make_durable(std::vector<Node>& nodes, const Piece& piece, Fate fate);

    std::filesystem::path root_;
    std::vector<Node> nodes_;
    std::vector<Piece> pieces_; // in the order in which they came
    std::map<int, size_t> descriptors_;
};
