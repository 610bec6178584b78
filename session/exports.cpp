#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/text.h"
#include "protocol/reports.h"
#include "session/dongle_finder.h"
#include "session/environment.h"
#include "session/outcome.h"
#include "session/session.h"
#include "session/signal.h"
#include "velmora/velmora.h"

// The C border: arguments are checked and translated here, and no exception passes.

struct velmora_cancel {
    velmora::Signal signal;
};

struct velmora_dongle {
    velmora::Session session;
};

namespace {

using velmora::failure;
using velmora::invalid;
using velmora::Outcome;
using velmora::Signal;
using velmora::statusName;

constexpr std::size_t kSmallestSize = 2 * sizeof(std::uint32_t);  // of a struct of the host that begins with its size

/// Fills in such a struct as far as it goes; what it has beyond this library's becomes zero. False when its size cannot
/// be right.
template <typename Struct>
bool writeSized(Struct* to, Struct from) {
    const std::size_t size = to->size;
    if (size < kSmallestSize) {
        return false;
    }
    from.size = to->size;
    std::memcpy(to, &from, std::min(size, sizeof from));
    if (size > sizeof from) {
        std::memset(reinterpret_cast<unsigned char*>(to) + sizeof from, 0, size - sizeof from);
    }
    return true;
}

velmora_status report(const Outcome& outcome, velmora_error* error) {
    if (error != nullptr) {
        velmora_error full{};
        full.status = outcome.status;
        full.system_code = outcome.systemCode;
        constexpr std::size_t kTextAt = offsetof(velmora_error, text);
        if (error->size > kTextAt) {
            const std::size_t room = std::min<std::size_t>(error->size, sizeof full) - kTextAt - 1;
            const std::string text = outcome.ok() || !outcome.text.empty() ? outcome.text : statusName(outcome.status);
            velmora::beginning(text, room).copy(full.text, room);
        }
        writeSized(error, full);
    }
    return outcome.status;
}

/// Runs `call`, which returns an Outcome; whatever it throws becomes one.
template <typename Call>
velmora_status guarded(velmora_error* error, Call&& call) noexcept {
    try {
        try {
            return report(call(), error);
        } catch (const std::bad_alloc&) {
            return report({VELMORA_NO_MEMORY}, error);
        } catch (const std::system_error& e) {
            return report(failure(VELMORA_FAILED, std::string("The system refused something: ") + e.what() + ".",
                                  e.code().value()),
                          error);
        } catch (const std::exception& e) {
            return report(failure(VELMORA_FAILED, e.what()), error);
        } catch (...) {
            return report(failure(VELMORA_FAILED, "A function of the host threw an exception."), error);
        }
    } catch (...) {
        return VELMORA_NO_MEMORY;  // not even room for the text
    }
}

Signal* signalOf(velmora_cancel* cancel) {
    return cancel != nullptr ? &cancel->signal : nullptr;
}

/// A struct of the host, whose first member is its size: as this library knows it, defaults where the host's ends.
template <typename Options>
bool readOptions(const Options* given, Options& options) {
    options = {};
    if (given == nullptr) {
        return true;
    }
    if (given->size < kSmallestSize) {
        return false;
    }
    std::memcpy(&options, given, std::min<std::size_t>(given->size, sizeof options));
    return true;
}

/// A list of the host's, as the header describes lists.
template <typename Element>
class HostList {
  public:
    HostList(Element* first, std::size_t stride, std::size_t capacity)
        : first_(reinterpret_cast<unsigned char*>(first)), stride_(stride), capacity_(capacity) {}

    bool valid() const {
        return capacity_ == 0 || (first_ != nullptr && stride_ >= sizeof(Element) && stride_ % 8 == 0);
    }
    /// What a host's element has beyond this library's becomes zero.
    void set(std::size_t i, const Element& element) const {
        if (i < capacity_) {
            replace(i, element);
            std::memset(first_ + i * stride_ + sizeof element, 0, stride_ - sizeof element);
        }
    }
    void replace(std::size_t i, const Element& element) const {
        std::memcpy(first_ + i * stride_, &element, sizeof element);
    }
    Element get(std::size_t i) const {
        Element element;
        std::memcpy(&element, first_ + i * stride_, sizeof element);
        return element;
    }

  private:
    unsigned char* first_;
    std::size_t stride_;
    std::size_t capacity_;
};

Outcome invalidList() {
    return invalid("The list is null, or its stride is too small or no multiple of 8.");
}

}  // namespace

const char* velmora_version(void) {
    return VELMORA_VERSION_TEXT;
}

const char* velmora_status_text(velmora_status status) {
    return velmora::statusName(status);
}

int64_t velmora_now(void) {
    return velmora::nanoseconds(velmora::Clock::Time(std::chrono::steady_clock::now()));
}

velmora_status velmora_cancel_create(velmora_cancel** cancel) {
    return guarded(nullptr, [&]() -> Outcome {
        if (cancel == nullptr) {
            return {VELMORA_INVALID};
        }
        *cancel = nullptr;
        *cancel = new velmora_cancel;
        return {};
    });
}

void velmora_cancel_raise(velmora_cancel* cancel) {
    if (cancel != nullptr) {
        cancel->signal.set();
    }
}

void velmora_cancel_reset(velmora_cancel* cancel) {
    if (cancel != nullptr) {
        cancel->signal.reset();
    }
}

void velmora_cancel_destroy(velmora_cancel* cancel) {
    delete cancel;
}

velmora_status velmora_ports(velmora_port* ports, size_t stride, size_t capacity, size_t* count, velmora_error* error) {
    return guarded(error, [&]() -> Outcome {
        const HostList list(ports, stride, capacity);
        if (count == nullptr || !list.valid()) {
            return count == nullptr ? invalid("count is null.") : invalidList();
        }
        const auto all = velmora::systemEnvironment().listPorts(velmora::Environment::Holders::kLook);
        for (std::size_t i = 0; i < all.size(); ++i) {
            list.set(i, all[i]);
        }
        *count = all.size();
        return {};
    });
}

velmora_status velmora_find(const velmora_find_options* options, velmora_port* ports, size_t stride, size_t capacity,
                            size_t* count, velmora_cancel* cancel, velmora_error* error) {
    return guarded(error, [&]() -> Outcome {
        velmora_find_options set;
        const HostList list(ports, stride, capacity);
        if (count == nullptr || !list.valid() || !readOptions(options, set)) {
            return invalid("count is null, the list is not valid, or the options do not carry their size.");
        }
        std::vector<velmora_port> found;
        Outcome outcome = findDongles(velmora::systemEnvironment(), (set.flags & VELMORA_FIND_ALL_PORTS) != 0,
                                      signalOf(cancel), found);
        for (std::size_t i = 0; i < found.size(); ++i) {
            list.set(i, found[i]);
        }
        *count = found.size();
        return outcome;
    });
}

velmora_status velmora_open(const char* path, const velmora_open_options* options, velmora_dongle** dongle,
                            velmora_error* error) {
    return guarded(error, [&]() -> Outcome {
        velmora_open_options set;
        if (dongle == nullptr) {
            return invalid("dongle is null.");
        }
        *dongle = nullptr;
        if (path == nullptr || *path == '\0' || !readOptions(options, set)) {
            return invalid("The path is empty, or the options do not carry their size.");
        }
        velmora::Settings settings;
        if (set.queue_capacity != 0) {
            settings.queueCapacity = set.queue_capacity;
        }
        if (set.command_gap_ms != 0) {
            settings.commandGap = std::chrono::milliseconds(set.command_gap_ms);
        }
        if (settings.queueCapacity < 16 || settings.queueCapacity > 1'000'000 ||
            settings.commandGap > std::chrono::seconds(1)) {
            return invalid("queue_capacity is 16 to 1,000,000, command_gap_ms 1 to 1,000; 0 is the default of both.");
        }
        settings.log = set.log;
        settings.logContext = set.log_context;
        std::unique_ptr<velmora_dongle> handle(new velmora_dongle{{velmora::systemEnvironment(), settings}});
        Outcome outcome = handle->session.open(path);
        if (outcome.ok()) {
            *dongle = handle.release();
        }
        return outcome;
    });
}

/// Runs `call` with the session of a handle.
template <typename Call>
static velmora_status onDongle(velmora_dongle* dongle, velmora_error* error, Call&& call) noexcept {
    return guarded(
        error, [&]() -> Outcome { return dongle != nullptr ? call(dongle->session) : invalid("The handle is null."); });
}

velmora_status velmora_reopen(velmora_dongle* dongle, int32_t timeout_ms, velmora_cancel* cancel,
                              velmora_error* error) {
    return onDongle(dongle, error,
                    [&](auto& session) { return session.reopen(velmora::deadlineIn(timeout_ms), signalOf(cancel)); });
}

void velmora_close(velmora_dongle* dongle) {
    onDongle(dongle, nullptr, [](auto& session) -> Outcome {
        session.close();
        return {};
    });
}

void velmora_destroy(velmora_dongle* dongle) {
    velmora_close(dongle);
    delete dongle;
}

velmora_status velmora_scan(velmora_dongle* dongle, const velmora_scan_options* options, velmora_found* found,
                            size_t stride, size_t capacity, size_t* count, int32_t timeout_ms, velmora_cancel* cancel,
                            velmora_error* error) {
    return onDongle(dongle, error, [&](auto& session) -> Outcome {
        velmora_scan_options set;
        const HostList list(found, stride, capacity);
        if (count == nullptr || !list.valid() || !readOptions(options, set)) {
            return invalid("count is null, the list is not valid, or the options do not carry their size.");
        }
        *count = 0;
        return session.scan(
            [&](const velmora_found& headset) {
                list.set((*count)++, headset);
                if (set.on_found != nullptr) {
                    set.on_found(set.context, &headset);
                }
            },
            velmora::deadlineIn(timeout_ms), signalOf(cancel));
    });
}

/// An address as the protocol has them: 12 hexadecimal digits.
static bool isAddress(std::string_view text) {
    return text.size() == protocol::kAddressDigits && kxorbeta_if::isHexText(text);
}

velmora_status velmora_connect(velmora_dongle* dongle, velmora_wanted* wanted, size_t stride, size_t count,
                               uint32_t flags, int32_t timeout_ms, velmora_cancel* cancel, velmora_error* error) {
    return onDongle(dongle, error, [&](auto& session) -> Outcome {
        constexpr std::size_t kMost = 32;
        const HostList list(wanted, stride, count);
        if (count == 0 || count > kMost || !list.valid()) {
            return invalid("One call connects 1 to 32 headsets; their stride is at least 32 and a multiple of 8.");
        }
        std::vector<velmora_wanted> headsets;
        for (std::size_t i = 0; i < count; ++i) {
            velmora_wanted element = list.get(i);
            const std::string address(element.address, ::strnlen(element.address, sizeof element.address));
            if (!isAddress(address)) {
                return invalid("\"" + address + "\" is no address: it takes 12 hexadecimal digits without ':'.");
            }
            element.status = VELMORA_NOT_CONNECTED;
            element.headset = element.index = -1;
            headsets.push_back(element);
        }
        Outcome outcome = session.connect(headsets, (flags & VELMORA_ALLOW_UNPROVED) != 0,
                                          velmora::deadlineIn(timeout_ms), signalOf(cancel));
        const bool ended = outcome.ok() || outcome.status == VELMORA_NOT_CONNECTED;
        for (std::size_t i = 0; i < count; ++i) {
            if (!ended && headsets[i].status != VELMORA_OK) {
                headsets[i].status = outcome.status;
            }
            list.replace(i, headsets[i]);
        }
        return outcome;
    });
}

velmora_status velmora_drop(velmora_dongle* dongle, const char* address, int32_t timeout_ms, velmora_cancel* cancel,
                            velmora_error* error) {
    return onDongle(dongle, error, [&](auto& session) -> Outcome {
        if (address == nullptr || !isAddress(address)) {
            return invalid("An address takes 12 hexadecimal digits without ':'.");
        }
        return session.drop(address, velmora::deadlineIn(timeout_ms), signalOf(cancel));
    });
}

velmora_status velmora_drop_all(velmora_dongle* dongle, uint32_t flags, velmora_error* error) {
    return onDongle(dongle, error,
                    [&](auto& session) { return session.dropAll((flags & VELMORA_ALLOW_UNPROVED) != 0); });
}

velmora_status velmora_headsets(velmora_dongle* dongle, velmora_headset* headsets, size_t stride, size_t capacity,
                                size_t* count) {
    return onDongle(dongle, nullptr, [&](auto& session) -> Outcome {
        const HostList list(headsets, stride, capacity);
        if (count == nullptr || !list.valid()) {
            return {VELMORA_INVALID};
        }
        *count = 0;
        session.forEachHeadset([&](const velmora_headset& headset) { list.set((*count)++, headset); });
        return {};
    });
}

velmora_status velmora_send(velmora_dongle* dongle, int32_t target, uint8_t command, const uint8_t* payload,
                            size_t length, uint32_t flags, velmora_error* error) {
    return onDongle(dongle, error, [&](auto& session) -> Outcome {
        if (payload == nullptr && length > 0) {
            return invalid("payload is null.");
        }
        return session.send(target, command, {payload, length}, (flags & VELMORA_KNOWN_TEXTS) != 0);
    });
}

velmora_status velmora_request(velmora_dongle* dongle, int32_t index, uint8_t command, const uint8_t* payload,
                               size_t length, uint32_t flags, velmora_record* response, int32_t timeout_ms,
                               velmora_cancel* cancel, velmora_error* error) {
    return onDongle(dongle, error, [&](auto& session) -> Outcome {
        if (payload == nullptr && length > 0) {
            return invalid("payload is null.");
        }
        velmora_record unwanted;
        return session.request(index, command, {payload, length}, (flags & VELMORA_KNOWN_TEXTS) != 0,
                               velmora::deadlineIn(timeout_ms), signalOf(cancel),
                               response != nullptr ? *response : unwanted);
    });
}

velmora_status velmora_start(velmora_dongle* dongle, int64_t* time, int64_t* utc) {
    return onDongle(dongle, nullptr, [&](auto& session) { return session.start(time, utc); });
}

velmora_status velmora_stop(velmora_dongle* dongle) {
    return onDongle(dongle, nullptr, [](auto& session) { return session.stop(); });
}

velmora_status velmora_read(velmora_dongle* dongle, velmora_record* records, size_t stride, size_t capacity, size_t min,
                            int32_t timeout_ms, velmora_cancel* cancel, size_t* got) {
    if (got != nullptr) {
        *got = 0;
    }
    if (dongle == nullptr || records == nullptr || got == nullptr || capacity == 0 || stride < sizeof(velmora_record) ||
        stride % 8 != 0) {
        return VELMORA_INVALID;
    }
    return dongle->session.read(records, stride, capacity, min, timeout_ms, signalOf(cancel), *got);
}

velmora_status velmora_get_statistics(velmora_dongle* dongle, velmora_statistics* statistics) {
    return onDongle(dongle, nullptr, [&](auto& session) -> Outcome {
        if (statistics == nullptr) {
            return {VELMORA_INVALID};
        }
        return {writeSized(statistics, session.statistics()) ? VELMORA_OK : VELMORA_INVALID};
    });
}

velmora_status velmora_get_headset_statistics(velmora_dongle* dongle, int32_t headset,
                                              velmora_headset_statistics* statistics) {
    return onDongle(dongle, nullptr, [&](auto& session) -> Outcome {
        if (statistics == nullptr) {
            return {VELMORA_INVALID};
        }
        velmora_headset_statistics all{};
        Outcome outcome = session.headsetStatistics(headset, all);
        if (outcome.ok() && !writeSized(statistics, all)) {
            return {VELMORA_INVALID};
        }
        return outcome;
    });
}
