#include <iostream>

#include "velmora/commands.h"

namespace velmora {

void findCommand(Session& session) {
    std::cout << session.findPort() << "\n";
}

}  // namespace velmora
