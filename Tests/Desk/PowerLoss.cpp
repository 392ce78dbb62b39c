#include "PowerLoss.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <regex>
#include <stdexcept>

namespace fs = std::filesystem;
using desk::camera::PresetStore;
using system_calls::Call;
using system_calls::Kind;

namespace {

size_t hash_of(const Tree& tree) {
    std::string all;
    for (const auto& [path, bytes] : tree) {
        all += path + '\0' + (bytes ? std::to_string(bytes->size()) + '\0' + *bytes : "folder") + '\0';
    }
    return std::hash<std::string>()(all);
}

} // namespace

// ---- Recording ------------------------------------------------------------------------------------------------------

fs::path temporary_folder() {
    const fs::path memory = "/dev/shm";
    const bool usable = ::access(memory.c_str(), W_OK) == 0;
    std::string path = ((usable ? memory : fs::temp_directory_path()) / "faults-XXXXXX").string();
    return mkdtemp(path.data());
}

bool may_change_a_disk(const Call& call) {
    constexpr std::array kinds = {Kind::open,   Kind::write,  Kind::pwrite, Kind::ftruncate, Kind::mkdir,
                                  Kind::rename, Kind::unlink, Kind::rmdir,  Kind::fsync,     Kind::fdatasync};
    return std::ranges::find(kinds, call.kind) != kinds.end();
}

bool Session::is_new_moment(size_t calls_made) const {
    return calls_made == 0 || may_change_a_disk(calls[calls_made - 1]) || expectations.contains(calls_made);
}

std::string Session::moment(size_t calls_made) const {
    const std::string step = expected_after(calls_made).step;
    if (calls_made == 0) {
        return step;
    }
    return step + ", after call " + std::to_string(calls_made) + ", " +
           system_calls::name_of(calls[calls_made - 1].kind) + " of " + file_of(calls_made - 1);
}

std::string Session::file_of(size_t call) const {
    const std::string path = calls[call].path.lexically_relative(before.root() / store).string();
    return std::regex_replace(path, std::regex("[0-9]+"), "N");
}

Recorder::Recorder(const Disk& disk, const fs::path& store, const Expectation& expected)
    : session_{disk, store, {}, {}}, highest_custom_id_(expected.highest_custom_id) {
    for (const fs::directory_entry& entry : fs::directory_iterator(disk.root())) {
        fs::remove_all(entry.path());
    }
    write_tree(disk.cached(), disk.root());
    system_calls::watch(disk.root());
    expect(expected);
}

void Recorder::expect(const Expectation& expected) {
    session_.expectations[system_calls::recorded().size()] = expected;
}

void Recorder::expect_confirmed(const std::string& step) {
    expect({step, false, {confirmed_}, highest_custom_id_});
}

Contents Recorder::filled_with(const std::vector<std::string>& titles, PresetStore& store) {
    Contents filled;
    for (const std::string& title : titles) {
        const Change change = saving(title);
        int custom_id = 0;
        if (change.make(store, custom_id) != SM_RETURN_TRUE) {
            throw std::runtime_error(title + " cannot be saved: " + store.last_error());
        }
        change.expect(filled, custom_id);
        highest_custom_id_ = custom_id;
    }
    return filled;
}

void Recorder::start(const std::vector<std::string>& titles) {
    const size_t begin = system_calls::recorded().size();
    Expectation expected = session_.expected_after(begin);
    bool was_made = false;
    const fs::path folder = session_.before.root() / session_.store;
    store_ = PresetStore::open(folder, expected.may_be_missing, [&](PresetStore& store) {
        was_made = true;
        expected.allowed = {filled_with(titles, store)};
    });
    confirmed_ = contents_of(*store_, folder);
    if (std::ranges::find(expected.allowed, confirmed_) == expected.allowed.end()) {
        throw std::runtime_error("the store holds " + to_string(confirmed_));
    }
    expected.step = was_made ? "making" : "opening";
    session_.expectations[begin] = expected;
    expect_confirmed("after " + expected.step);
}

void Recorder::stop() {
    expect_confirmed("closing");
    store_.reset();
}

void Recorder::change(const Change& change) {
    const size_t begin = system_calls::recorded().size();
    int custom_id = 0;
    const int answer = change.make(*store_, custom_id);
    if (answer != change.answer) {
        throw std::runtime_error(change.name + " answers " + std::to_string(answer) + ": " + store_->last_error());
    }
    Contents after = confirmed_;
    change.expect(after, custom_id);
    session_.expectations[begin] = {change.name, false, {confirmed_, after}, highest_custom_id_};
    confirmed_ = after;
    highest_custom_id_ = std::max(highest_custom_id_, custom_id);
    expect_confirmed("after " + change.name);
}

Session Recorder::finish() {
    if (store_) {
        stop();
    }
    system_calls::stop();
    session_.calls = system_calls::recorded();
    return std::move(session_);
}

// ---- Judging --------------------------------------------------------------------------------------------------------

Judge::Judge() : folder_(temporary_folder()) {}

Judge::~Judge() {
    fs::remove_all(folder_);
}

std::string Judge::violation(const Tree& tree, const fs::path& store, const Expectation& expected) {
    const auto [found, is_new] = findings_.try_emplace(hash_of(tree));
    Finding& finding = found->second;
    if (is_new) {
        fs::remove_all(folder_ / "disk");
        write_tree(tree, folder_ / "disk");
        finding = find(folder_ / "disk" / store);
    }
    if (!finding.trouble.empty()) {
        return finding.trouble;
    }
    if (finding.is_missing) {
        return expected.may_be_missing ? "" : "there is no store";
    }
    if (std::ranges::find(expected.allowed, *finding.contents) == expected.allowed.end()) {
        return "found " + to_string(*finding.contents) + ", not " + to_string(expected.allowed.front());
    }
    if (finding.next_custom_id <= expected.highest_custom_id) {
        return "custom_id " + std::to_string(finding.next_custom_id) + " is given twice";
    }
    return "";
}

namespace {

// One piece apart from all others: kept alone, lost alone, and torn where it can be, the others lost. False when `left`
// wants no more.
bool each_fate_of(size_t piece, const Disk& disk, const std::function<bool(const std::vector<Disk::Fate>&)>& left) {
    // Of a page of 4096 bytes, eight sectors: the first half, and the second.
    static const std::vector<Disk::Fate> halves = {0x0F0F0F0F0F0F0F0F, 0xF0F0F0F0F0F0F0F0};
    std::vector fates(disk.unflushed(), Disk::lost);
    fates[piece] = Disk::kept;
    if (!left(fates)) {
        return false;
    }
    std::ranges::fill(fates, Disk::kept);
    fates[piece] = Disk::lost;
    if (!left(fates)) {
        return false;
    }
    std::ranges::fill(fates, Disk::lost);
    return std::ranges::all_of(disk.can_be_torn(piece) ? halves : std::vector<Disk::Fate>{}, [&](Disk::Fate half) {
        fates[piece] = half;
        return left(fates);
    });
}

} // namespace

void each_power_loss(const Disk& disk, int random_choices, std::mt19937& dice,
                     const std::function<bool(const Tree&)>& see) {
    const size_t pieces = disk.unflushed();
    const auto left = [&](const std::vector<Disk::Fate>& fates) { return see(disk.after_power_loss(fates)); };
    if (!left(std::vector(pieces, Disk::lost)) || pieces == 0 || !left(std::vector(pieces, Disk::kept))) {
        return;
    }
    for (size_t piece = 0; piece < pieces; ++piece) {
        if (!each_fate_of(piece, disk, left)) {
            return;
        }
    }
    for (int choice = 0; choice < random_choices; ++choice) {
        constexpr std::array share_of_kept = {0.15, 0.5, 0.85};
        std::bernoulli_distribution keeps(share_of_kept[dice() % share_of_kept.size()]);
        std::bernoulli_distribution tears(0.3);
        std::vector<Disk::Fate> fates;
        for (size_t piece = 0; piece < pieces; ++piece) {
            const bool torn = disk.can_be_torn(piece) && tears(dice);
            const Disk::Fate sectors = (Disk::Fate{dice()} << 32) | dice();
            fates.push_back(torn ? sectors : keeps(dice) ? Disk::kept : Disk::lost);
        }
        if (!left(fates)) {
            return;
        }
    }
}
