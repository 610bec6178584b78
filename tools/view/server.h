// Shows a feed to browsers and to programs of others: a small web server on a thread of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "view/feed.h"

namespace velmora::view {

struct ServerOptions {
    std::string listen = "127.0.0.1";  ///< an address of this machine
    std::uint16_t port = 0;            ///< 0: one that is free
    std::size_t clients = 8;           ///< that look on at the same time, at most
};

class Server {
  public:
    /// Serves from here on. The feed must outlive the server. Throws std::runtime_error with a text for the user when
    /// that address cannot be had, or when this program was built without the server.
    static std::unique_ptr<Server> start(const ServerOptions& options, Feed& feed);

    /// Sends viewers what is still in the feed, for half a second at most, and ends.
    virtual ~Server() = default;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// What a browser is to open, once. The next address comes as a notice of the feed when this one has been used.
    virtual const std::string& address() const = 0;
    /// Others than this machine's programs can reach it.
    virtual bool open() const = 0;

  protected:
    Server() = default;
};

}  // namespace velmora::view
