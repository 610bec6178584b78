#include "view/access.h"

#include <algorithm>
#include <random>

namespace velmora::view {
namespace {

constexpr std::string_view kLetters = "0123456789abcdef";

/// 256 bits that nobody can guess.
std::string secret() {
    std::random_device device;
    std::string text;
    for (int i = 0; i < 8; ++i) {
        auto bits = static_cast<std::uint32_t>(device());
        for (int j = 0; j < 8; ++j, bits >>= 4U) {
            text += kLetters[bits & 0xFU];
        }
    }
    return text;
}

/// Takes as long wherever the first difference is.
bool same(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i) {
        difference |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
    }
    return difference == 0;
}

}  // namespace

Access::Access(std::uint16_t port) : name_("velmora_" + std::to_string(port)), token_(secret()) {}

std::optional<std::string> Access::exchange(std::string_view token) {
    if (!same(token, token_)) {
        return std::nullopt;
    }
    token_ = secret();
    sessions_.push_back(secret());
    if (sessions_.size() > kMostSessions) {
        sessions_.pop_front();
    }
    return sessions_.back();
}

bool Access::admits(std::string_view cookies) const {
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view cookie = cookies.substr(0, end);
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        if (cookie.starts_with(name_) && cookie.substr(name_.size()).starts_with('=')) {
            const std::string_view value = cookie.substr(name_.size() + 1);
            if (std::any_of(sessions_.begin(), sessions_.end(),
                            [value](const std::string& session) { return same(session, value); })) {
                return true;
            }
        }
    }
    return false;
}

// Lax and not Strict: with that a browser which follows the address from a page of others keeps the cookie from the
// very page that it was set for. Requests other than such a navigation carry neither.
std::string Access::cookieField(std::string_view value) const {
    return name_ + "=" + std::string(value) + "; Path=/; HttpOnly; SameSite=Lax";
}

std::optional<std::string_view> tokenOf(std::string_view target, std::string_view path) {
    constexpr std::string_view kName = "?token=";
    if (!target.starts_with(path) || !target.substr(path.size()).starts_with(kName)) {
        return std::nullopt;
    }
    return target.substr(path.size() + kName.size());
}

bool hostIsOurs(std::string_view host, std::string_view address, bool loopback, std::uint16_t port) {
    const std::string number = std::to_string(port);
    const auto is = [&](std::string_view name) {
        return host == std::string(name) + ":" + number || (port == 80 && host == name);
    };
    return is(address) || (loopback && is("localhost"));
}

bool originIsOurs(std::string_view origin, std::string_view host) {
    return origin.empty() || origin == "http://" + std::string(host);
}

}  // namespace velmora::view
