#include <dlfcn.h>

#include <stdexcept>

#include "support/shared_library.h"

namespace test {

SharedLibrary::SharedLibrary(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW)) {
    if (handle_ == nullptr) {
        throw std::runtime_error(dlerror());
    }
}

void SharedLibrary::unload() {
    dlclose(handle_);
}

bool SharedLibrary::loaded(const std::string& path) {
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

void* SharedLibrary::symbol(const char* name) const {
    void* const found = dlsym(handle_, name);
    if (found == nullptr) {
        throw std::runtime_error(name);
    }
    return found;
}

}  // namespace test
