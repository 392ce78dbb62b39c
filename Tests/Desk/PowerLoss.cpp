#include "PowerLoss.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace fs = std::filesystem;
using desk::PresetStore;

namespace {

fs::path folder_in_memory() {
    const fs::path memory = "/dev/shm";
    const bool usable = ::access(memory.c_str(), W_OK) == 0;
    std::string path = ((usable ? memory : fs::temp_directory_path()) / "power-loss-XXXXXX").string();
    return mkdtemp(path.data());
}

size_t hash_of(const Tree& tree) {
    std::string all;
    for (const auto& [path, bytes] : tree) {
        all += path + '\0' + (bytes ? std::to_string(bytes->size()) + '\0' + *bytes : "folder") + '\0';
    }
    return std::hash<std::string>()(all);
}

} // namespace

// ---- Recording --------------------------------------------------------------------------------------------

Recorder::Recorder(const fs::path& root, const fs::path& store, const std::optional<Contents>& known) {
    session_.root = root;
    session_.store = store;
    session_.durable = read_tree(root);
    confirmed_ = known.value_or(Contents{});
    for (const Preset& preset : confirmed_.presets) {
        highest_custom_id_ = std::max(highest_custom_id_, preset.custom_id);
    }
    system_calls::watch(root);
    expect("beginning", {confirmed_}, !known);
}

void Recorder::expect(const std::string& step, const std::vector<Contents>& allowed, bool may_be_missing) {
    session_.expectations[system_calls::recorded().size()] = {step, may_be_missing, allowed,
                                                              highest_custom_id_};
}

void Recorder::make(const std::vector<std::string>& titles) {
    Contents filled;
    const auto fill = [&](PresetStore& store) {
        for (const std::string& title : titles) {
            const Change change = saving(title);
            int custom_id = 0;
            if (change.make(store, custom_id) != SM_RETURN_TRUE) {
                throw std::runtime_error(title + " cannot be saved: " + store.last_error());
            }
            change.expect(filled, custom_id);
            highest_custom_id_ = custom_id;
        }
    };
    const size_t begin = system_calls::recorded().size();
    store_ = PresetStore::open(session_.root / session_.store, true, fill);
    session_.expectations[begin] = {"making", true, {filled}, 0};
    confirmed_ = filled;
    expect("after making", {confirmed_});
}

void Recorder::open() {
    expect("opening", {confirmed_});
    store_ = PresetStore::open(session_.root / session_.store, false);
}

void Recorder::close() {
    expect("closing", {confirmed_});
    store_.reset();
}

void Recorder::change(const Change& change) {
    const size_t begin = system_calls::recorded().size();
    int custom_id = 0;
    const int answer = change.make(*store_, custom_id);
    if (answer != change.answer) {
        throw std::runtime_error(change.name + " answers " + std::to_string(answer) + ": " +
                                 store_->last_error());
    }
    Contents after = confirmed_;
    change.expect(after, custom_id);
    session_.expectations[begin] = {change.name, false, {confirmed_, after}, highest_custom_id_};
    confirmed_ = after;
    highest_custom_id_ = std::max(highest_custom_id_, custom_id);
    expect("after " + change.name, {confirmed_});
}

Session Recorder::finish() {
    if (store_) {
        close();
    }
    expect("end", {confirmed_});
    system_calls::stop();
    session_.calls = system_calls::recorded();
    return std::move(session_);
}

// ---- Judging ----------------------------------------------------------------------------------------------

Judge::Judge() : folder_(folder_in_memory()) {}

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

void each_power_loss(const Disk& disk, int random_choices, std::mt19937& dice,
                     const std::function<bool(const Tree&)>& see) {
    const size_t pieces = disk.unflushed();
    const auto left = [&](const std::vector<Disk::Fate>& fates) { return see(disk.after_power_loss(fates)); };
    if (!left(std::vector(pieces, Disk::lost)) || pieces == 0 || !left(std::vector(pieces, Disk::kept))) {
        return;
    }
    for (size_t piece = 0; piece < pieces; ++piece) {
        std::vector fates(pieces, Disk::lost);
        fates[piece] = Disk::kept;
        if (!left(fates)) {
            return;
        }
        std::ranges::fill(fates, Disk::kept);
        fates[piece] = Disk::lost;
        if (!left(fates)) {
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
