// Who may look on. The address that is opened holds a token that is good once; the browser gets a cookie for it. Pages
// of others, which a browser may have open beside, are told by Host and Origin.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::view {

class Access {
  public:
    /// `port` is part of the cookie's name: cookies know none, and two programs may run side by side.
    explicit Access(std::uint16_t port);

    /// The token that is good now.
    const std::string& token() const { return token_; }
    /// The value of a new cookie for the right token, which is another one from then on.
    std::optional<std::string> exchange(std::string_view token);
    /// `cookies`: the request's header field.
    bool admits(std::string_view cookies) const;
    /// The header field that sets the cookie.
    std::string cookieField(std::string_view value) const;

  private:
    static constexpr std::size_t kMostSessions = 64;  // the oldest is forgotten

    const std::string name_;
    std::string token_;
    std::deque<std::string> sessions_;
};

/// The value of "token" in a request's target, when that is this path with a token and nothing else.
std::optional<std::string_view> tokenOf(std::string_view target, std::string_view path);

/// Whether the Host field names the very address that the connection came to. A name that somebody else's server gave
/// for this address is refused: so a foreign page would get in.
///   address  of this end of the connection; brackets around IPv6
bool hostIsOurs(std::string_view host, std::string_view address, bool loopback, std::uint16_t port);
/// Programs that are no browsers send none.
bool originIsOurs(std::string_view origin, std::string_view host);

}  // namespace velmora::view
