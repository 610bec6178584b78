#include "session/headset_table.h"

#include <algorithm>
#include <utility>

namespace velmora {
namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool sameAddress(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lower(x) == lower(y); });
}

HeadsetTable::HeadsetTable(OnChange onChange) : onChange_(std::move(onChange)) {
    owners_.fill(kNobody);
    strangers_.fill(kNobody);
}

std::optional<std::size_t> HeadsetTable::find(std::string_view address) const {
    for (std::size_t number = 0; number < headsets_.size(); ++number) {
        if (!headsets_[number].address.empty() && sameAddress(headsets_[number].address, address)) {
            return number;
        }
    }
    return std::nullopt;
}

std::optional<std::size_t> HeadsetTable::findOrAdd(std::string_view address) {
    std::optional<std::size_t> number = find(address);
    if (!number && headsets_.size() < kMost) {
        number = headsets_.size();
        headsets_.push_back({std::string(address), {}, 0, false});
    }
    return number;
}

/// Whom a report of an address at an index means. One that nobody has met is the headset whose data was there already.
std::optional<std::size_t> HeadsetTable::findReported(std::string_view address, int index) {
    const auto place = static_cast<std::size_t>(index);
    const int stranger = strangers_[place];
    if (stranger == kNobody || owners_[place] != stranger || find(address)) {
        return findOrAdd(address);
    }
    Headset& headset = headsets_[static_cast<std::size_t>(stranger)];
    if (!std::exchange(headset.connected, false)) {
        return findOrAdd(address);
    }
    headset.address = address;  // connected() takes it in under its name
    strangers_[place] = kNobody;
    return static_cast<std::size_t>(stranger);
}

void HeadsetTable::connected(std::string_view address, int index) {
    const std::optional<std::size_t> number = findReported(address, index);
    if (!number) {
        return;
    }
    // Whoever else was there, and is nowhere else by now, has left; the report of that was lost.
    int& owner = owners_[static_cast<std::size_t>(index)];
    const auto before = static_cast<std::size_t>(owner);
    if (owner != kNobody && before != *number && headsets_[before].index == index) {
        leave(before);
    }
    Headset& headset = headsets_[*number];
    const bool known = headset.connected && headset.index == index;
    headset.index = index;
    headset.connected = true;
    owner = static_cast<int>(*number);
    if (!known) {
        onChange_({true, owner, index});
    }
}

void HeadsetTable::disconnected(std::string_view address) {
    if (const auto number = find(address)) {
        leave(*number);
    }
}

void HeadsetTable::leave(std::size_t number) {
    Headset& headset = headsets_[number];
    if (std::exchange(headset.connected, false)) {
        onChange_({false, static_cast<int>(number), headset.index});
    }
}

void HeadsetTable::disconnectAll(bool forgetOwners) {
    for (std::size_t number = 0; number < headsets_.size(); ++number) {
        leave(number);
    }
    if (forgetOwners) {
        owners_.fill(kNobody);
    }
}

void HeadsetTable::disconnectAllBut(std::span<const std::string_view> addresses) {
    for (std::size_t number = 0; number < headsets_.size(); ++number) {
        const auto same = [&](std::string_view address) { return sameAddress(address, headsets_[number].address); };
        if (std::none_of(addresses.begin(), addresses.end(), same)) {
            leave(number);
        }
    }
}

int HeadsetTable::adopt(int index) {
    int& stranger = strangers_[static_cast<std::size_t>(index)];
    if (stranger == kNobody) {
        stranger = static_cast<int>(headsets_.size());
        headsets_.push_back({{}, {}, index, false});
    }
    owners_[static_cast<std::size_t>(index)] = stranger;
    return stranger;
}

void HeadsetTable::inferConnected(int number) {
    Headset& headset = headsets_[static_cast<std::size_t>(number)];
    if (headset.address.empty() && !std::exchange(headset.connected, true)) {
        onChange_({true, number, headset.index});
    }
}

int HeadsetTable::found(std::string_view address, std::string_view name) {
    const std::optional<std::size_t> number = findOrAdd(address);
    if (!number) {
        return kNobody;
    }
    headsets_[*number].name = name;
    return static_cast<int>(*number);
}

std::optional<int> HeadsetTable::findConnected(std::string_view address) const {
    const auto number = find(address);
    if (!number || !headsets_[*number].connected) {
        return std::nullopt;
    }
    return static_cast<int>(*number);
}

bool HeadsetTable::anyConnected() const {
    return std::any_of(headsets_.begin(), headsets_.end(), [](const Headset& headset) { return headset.connected; });
}

}  // namespace velmora
