#include <iostream>

#include "velmora/commands.h"

namespace velmora {

void scanCommand(Session& session, const std::string& port) {
    session.openPort(port);
    std::cout << headsetTable(session.scan());
}

}  // namespace velmora
