#include <windows.h>

#include <stdexcept>

#include "support/shared_library.h"

namespace test {

SharedLibrary::SharedLibrary(const std::string& path) : handle_(LoadLibraryA(path.c_str())) {
    if (handle_ == nullptr) {
        throw std::runtime_error("cannot load " + path);
    }
}

void SharedLibrary::unload() {
    FreeLibrary(static_cast<HMODULE>(handle_));
}

bool SharedLibrary::loaded(const std::string& path) {
    return GetModuleHandleA(path.c_str()) != nullptr;
}

void* SharedLibrary::symbol(const char* name) const {
    const FARPROC found = GetProcAddress(static_cast<HMODULE>(handle_), name);
    if (found == nullptr) {
        throw std::runtime_error(name);
    }
    return reinterpret_cast<void*>(found);
}

}  // namespace test
