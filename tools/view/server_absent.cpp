// In place of the server where it is left out: without Boost, and under sanitizers, whose builds it would slow down
// much.
#include <stdexcept>

#include "view/server.h"

namespace velmora::view {

std::unique_ptr<Server> Server::start(const ServerOptions&, Feed&) {
    throw std::runtime_error(
        "this velmora was built without its web server; build it anew with Boost's headers there "
        "(Debian: libboost1.81-dev)");
}

}  // namespace velmora::view
