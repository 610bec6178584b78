/// C++20 on top of velmora.h: handles that free themselves, spans, exceptions with a status. Header only. What the
/// calls do, how long they take and which may overlap is said there; this file only says what differs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "velmora/velmora.h"

namespace velmora {

using Found = velmora_found;
using Headset = velmora_headset;
using HeadsetStatistics = velmora_headset_statistics;
using Port = velmora_port;
using Record = velmora_record;
using Statistics = velmora_statistics;
using Wanted = velmora_wanted;

/// Thrown by every call that fails, unless it returns the status. what() says what happened and what to do.
class Error : public std::runtime_error {
  public:
    Error(velmora_status status, int systemCode, const char* text)
        : std::runtime_error(*text != '\0' ? text : velmora_status_text(status)),
          status_(status),
          systemCode_(systemCode) {}

    velmora_status status() const noexcept { return status_; }
    int systemCode() const noexcept { return systemCode_; }  ///< errno or GetLastError(), or 0

  private:
    velmora_status status_;
    int systemCode_;
};

/// How long a call may wait; nothing: no limit.
using Timeout = std::optional<std::chrono::milliseconds>;

namespace detail {

inline constexpr std::size_t kListStep = 64;

class Check {
  public:
    Check() noexcept : error_{sizeof(velmora_error), VELMORA_OK, 0, 0, {}} {}
    velmora_error* error() noexcept { return &error_; }
    /// Throws unless the status is VELMORA_OK or one of `fine`.
    template <typename... Fine>
    velmora_status operator()(velmora_status status, Fine... fine) const {
        if (status != VELMORA_OK && !((status == fine) || ...)) {
            throw Error(status, error_.system_code, error_.text);
        }
        return status;
    }

  private:
    velmora_error error_;
};

inline std::int32_t milliseconds(Timeout timeout) {
    constexpr std::int64_t kMost = INT32_MAX;
    if (!timeout) {
        return -1;
    }
    const std::int64_t count = timeout->count();
    return static_cast<std::int32_t>(count < 0 ? 0 : count > kMost ? kMost : count);
}

/// All elements of a list: `call` fills in a span's worth and says how many there are.
template <typename Element, typename Call>
std::vector<Element> all(Call&& call) {
    std::vector<Element> elements(kListStep);
    for (;;) {
        std::size_t count = 0;
        call(elements.data(), elements.size(), &count);
        const bool complete = count <= elements.size();
        elements.resize(count);
        if (complete) {
            return elements;
        }
    }
}

struct Free {
    void operator()(velmora_cancel* cancel) const noexcept { velmora_cancel_destroy(cancel); }
    void operator()(velmora_dongle* dongle) const noexcept { velmora_destroy(dongle); }
};

}  // namespace detail

/// Ends calls that wait. raise() is safe inside a signal handler.
class Cancel {
  public:
    Cancel() {
        velmora_cancel* made = nullptr;
        detail::Check()(velmora_cancel_create(&made));
        cancel_.reset(made);
    }
    void raise() noexcept {
        raised_ = true;
        velmora_cancel_raise(cancel_.get());
    }
    void reset() noexcept {
        velmora_cancel_reset(cancel_.get());
        raised_ = false;
    }
    bool raised() const noexcept { return raised_; }
    velmora_cancel* get() const noexcept { return cancel_.get(); }

  private:
    std::unique_ptr<velmora_cancel, detail::Free> cancel_;
    std::atomic<bool> raised_{false};
};

/// Null where no cancelling is wanted.
inline velmora_cancel* get(const Cancel* cancel) noexcept {
    return cancel != nullptr ? cancel->get() : nullptr;
}

inline std::vector<Port> ports() {
    return detail::all<Port>([](Port* ports, std::size_t capacity, std::size_t* count) {
        detail::Check check;
        check(velmora_ports(ports, sizeof *ports, capacity, count, check.error()));
    });
}

/// Every port, with a status of VELMORA_OK for those that have a dongle. Throws when none has.
inline std::vector<Port> find(const Cancel* cancel = nullptr, std::uint32_t flags = 0) {
    const velmora_find_options options{sizeof options, flags, {}};
    constexpr std::size_t kMost = 512;  // asked once: a second search could find something else
    std::vector<Port> ports(kMost);
    std::size_t count = 0;
    detail::Check check;
    check(velmora_find(&options, ports.data(), sizeof(Port), kMost, &count, get(cancel), check.error()));
    ports.resize(count < kMost ? count : kMost);
    return ports;
}

/// The path of the first dongle found.
inline std::string findFirst(const Cancel* cancel = nullptr, std::uint32_t flags = 0) {
    for (const Port& port : find(cancel, flags)) {
        if (port.status == VELMORA_OK) {
            return port.path;
        }
    }
    throw Error(VELMORA_NOT_FOUND, 0, "");
}

struct OpenOptions {
    std::uint32_t queueCapacity = 0;  ///< raw packets; 0: the default
    std::chrono::milliseconds commandGap{0};
    std::function<void(std::int64_t time, std::string_view text)> log{};  ///< must not throw
};

/// What read() brought.
struct Batch {
    std::span<const Record> records;  ///< in the caller's memory
    velmora_status status;            ///< VELMORA_OK, VELMORA_TIMEOUT, VELMORA_CANCELLED, VELMORA_GONE, VELMORA_CLOSED
};

/// An open dongle. Any thread, as velmora.h says; moving and destroying it are for when nobody is inside a call.
class Dongle {
  public:
    explicit Dongle(const std::string& path, OpenOptions options = {})
        : log_(options.log ? std::make_unique<decltype(options.log)>(std::move(options.log)) : nullptr) {
        velmora_open_options raw{};
        raw.size = sizeof raw;
        raw.queue_capacity = options.queueCapacity;
        raw.command_gap_ms = static_cast<std::uint32_t>(options.commandGap.count());
        if (log_) {
            raw.log = [](void* context, std::int64_t time, const char* text) {
                (*static_cast<decltype(options.log)*>(context))(time, text);
            };
            raw.log_context = log_.get();
        }
        velmora_dongle* opened = nullptr;
        detail::Check check;
        check(velmora_open(path.c_str(), &raw, &opened, check.error()));
        dongle_.reset(opened);
    }

    Dongle(Dongle&&) noexcept = default;
    Dongle& operator=(Dongle&& other) noexcept {
        dongle_ = std::move(other.dongle_);  // first: the handle that was here may log until it is gone
        log_ = std::move(other.log_);
        return *this;
    }

    void reopen(Timeout timeout = {}, const Cancel* cancel = nullptr) {
        detail::Check check;
        check(velmora_reopen(get(), detail::milliseconds(timeout), velmora::get(cancel), check.error()));
    }
    void close() noexcept { velmora_close(get()); }

    /// `onFound` may throw; the scan then ends with what it threw.
    std::vector<Found> scan(Timeout timeout = std::chrono::seconds(30), const Cancel* cancel = nullptr,
                            const std::function<void(const Found&)>& onFound = nullptr) {
        std::vector<Found> found;
        struct Progress {
            std::vector<Found>& found;
            const std::function<void(const Found&)>& onFound;
            std::exception_ptr thrown;
        } progress{found, onFound, nullptr};
        velmora_scan_options options{};
        options.size = sizeof options;
        options.context = &progress;
        options.on_found = [](void* context, const velmora_found* headset) {
            auto& here = *static_cast<Progress*>(context);
            if (here.thrown) {
                return;
            }
            try {
                here.found.push_back(*headset);
                if (here.onFound) {
                    here.onFound(*headset);
                }
            } catch (...) {
                here.thrown = std::current_exception();
            }
        };
        std::size_t count = 0;
        detail::Check check;
        const velmora_status status = velmora_scan(get(), &options, nullptr, sizeof(Found), 0, &count,
                                                   detail::milliseconds(timeout), velmora::get(cancel), check.error());
        if (progress.thrown) {
            std::rethrow_exception(progress.thrown);
        }
        check(status);
        return found;
    }

    /// Connects headsets. VELMORA_OK, or VELMORA_NOT_CONNECTED when some are not: `wanted` tells which. Throws for the
    /// rest.
    velmora_status connect(std::span<Wanted> wanted, Timeout timeout = {}, const Cancel* cancel = nullptr,
                           std::uint32_t flags = 0) {
        detail::Check check;
        return check(velmora_connect(get(), wanted.data(), sizeof(Wanted), wanted.size(), flags,
                                     detail::milliseconds(timeout), velmora::get(cancel), check.error()),
                     VELMORA_NOT_CONNECTED);
    }
    /// The same for what a scan found; for nothing it does nothing.
    std::vector<Wanted> connect(std::span<const Found> found, Timeout timeout = {}, const Cancel* cancel = nullptr,
                                std::uint32_t flags = 0) {
        std::vector<Wanted> wanted(found.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            std::memcpy(wanted[i].address, found[i].address, sizeof wanted[i].address);
            wanted[i].option = found[i].option;
        }
        if (!wanted.empty()) {
            connect(std::span(wanted), timeout, cancel, flags);
        }
        return wanted;
    }
    void drop(const std::string& address, Timeout timeout = std::chrono::seconds(5), const Cancel* cancel = nullptr) {
        detail::Check check;
        check(velmora_drop(get(), address.c_str(), detail::milliseconds(timeout), velmora::get(cancel), check.error()));
    }
    void dropAll(std::uint32_t flags = 0) {
        detail::Check check;
        check(velmora_drop_all(get(), flags, check.error()));
    }
    std::vector<Headset> headsets() const {
        return detail::all<Headset>([this](Headset* headsets, std::size_t capacity, std::size_t* count) {
            detail::Check()(velmora_headsets(get(), headsets, sizeof *headsets, capacity, count));
        });
    }

    void send(int target, std::uint8_t command, std::span<const std::uint8_t> payload = {}, std::uint32_t flags = 0) {
        detail::Check check;
        check(velmora_send(get(), target, command, payload.data(), payload.size(), flags, check.error()));
    }
    Record request(int index, std::uint8_t command, std::span<const std::uint8_t> payload = {},
                   Timeout timeout = std::chrono::seconds(1), const Cancel* cancel = nullptr, std::uint32_t flags = 0) {
        Record response{};
        detail::Check check;
        check(velmora_request(get(), index, command, payload.data(), payload.size(), flags, &response,
                              detail::milliseconds(timeout), velmora::get(cancel), check.error()));
        return response;
    }

    struct Moment {
        std::int64_t time;  ///< on the records' clock
        std::int64_t utc;   ///< nanoseconds since 1970-01-01 UTC
    };
    Moment start() {
        Moment moment{};
        detail::Check()(velmora_start(get(), &moment.time, &moment.utc));
        return moment;
    }
    void stop() { detail::Check()(velmora_stop(get())); }

    /// Throws for VELMORA_BUSY and VELMORA_INVALID alone.
    Batch read(std::span<Record> into, std::size_t min = 1, Timeout timeout = {}, const Cancel* cancel = nullptr) {
        std::size_t got = 0;
        const velmora_status status = velmora_read(get(), into.data(), sizeof(Record), into.size(), min,
                                                   detail::milliseconds(timeout), velmora::get(cancel), &got);
        detail::Check()(status, VELMORA_TIMEOUT, VELMORA_CANCELLED, VELMORA_GONE, VELMORA_CLOSED);
        return {into.first(got), status};
    }

    Statistics statistics() const {
        Statistics statistics{};
        statistics.size = sizeof statistics;
        detail::Check()(velmora_get_statistics(get(), &statistics));
        return statistics;
    }
    HeadsetStatistics statistics(int headset) const {
        HeadsetStatistics statistics{};
        statistics.size = sizeof statistics;
        detail::Check()(velmora_get_headset_statistics(get(), headset, &statistics));
        return statistics;
    }

    velmora_dongle* get() const noexcept { return dongle_.get(); }

  private:
    // The handle's threads call it: destroyed after the handle, and where it was when the handle moves.
    std::unique_ptr<std::function<void(std::int64_t, std::string_view)>> log_;
    std::unique_ptr<velmora_dongle, detail::Free> dongle_;
};

}  // namespace velmora
