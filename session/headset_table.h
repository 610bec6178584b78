#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/headset_frames.h"

namespace velmora {

/// Whether two addresses are the same: they are numbers, so letter case does not count.
bool sameAddress(std::string_view a, std::string_view b);

/// Which headsets the handle has met, which of them are connected, and whose data an index at the dongle is. Pure.
class HeadsetTable {
  public:
    struct Headset {
        std::string address;  ///< empty: nobody reported it, only its data is known
        std::string name;
        int index = 0;  ///< where it is, or was last
        bool connected = false;
    };
    struct Change {
        bool connected;  ///< or disconnected
        int number;
        int index;
    };
    using OnChange = std::function<void(const Change&)>;

    static constexpr int kNobody = -1;

    /// `onChange` is called for each headset that connects or disconnects, when the table already says so.
    explicit HeadsetTable(OnChange onChange);

    /// The dongle reports a headset at an index, 0 to 15. A report of what is known changes nothing. A headset that was
    /// inferred there keeps its number, and has connected under the address.
    void connected(std::string_view address, int index);
    /// It reports that one left. The index stays its own until somebody else takes it: data may still be on its way.
    void disconnected(std::string_view address);
    /// All are gone, and with `forgetOwners` nobody knows whose the indices are any more.
    void disconnectAll(bool forgetOwners);

    /// Whose data comes under an index; a headset without an address where nobody reported one.
    int owner(int index) {
        const int number = owners_[static_cast<std::size_t>(index)];
        return number != kNobody ? number : adopt(index);
    }
    /// The dongle lists who is connected; all others have left.
    void disconnectAllBut(std::span<const std::string_view> addresses);
    /// Data alone has shown that a headset without an address is connected.
    void inferConnected(int number);

    /// A scan found it. Its number, kNobody when there is no room for more.
    int found(std::string_view address, std::string_view name);

    /// By number.
    const std::vector<Headset>& headsets() const { return headsets_; }
    /// The number of the connected headset of an address.
    std::optional<int> findConnected(std::string_view address) const;
    bool anyConnected() const;

  private:
    // Whoever makes up more addresses than this on a damaged line gets no memory for them.
    static constexpr std::size_t kMost = 4096;

    std::optional<std::size_t> find(std::string_view address) const;
    std::optional<std::size_t> findOrAdd(std::string_view address);
    std::optional<std::size_t> findReported(std::string_view address, int index);
    int adopt(int index);
    void leave(std::size_t number);

    const OnChange onChange_;
    std::vector<Headset> headsets_;
    std::array<int, protocol::kHeadsets> owners_;
    std::array<int, protocol::kHeadsets>
        strangers_;  // for each index the headset without an address that was seen there
};

}  // namespace velmora
