#pragma once

#include <string>

namespace test {

/// A library loaded by name, as a host with plug-ins loads it. Unloaded by unload(), not by destruction.
class SharedLibrary {
  public:
    explicit SharedLibrary(const std::string& path);

    template <typename Function>
    Function* function(const char* name) const {
        return reinterpret_cast<Function*>(symbol(name));
    }

    void unload();

    /// Whether the library is mapped into this process.
    static bool loaded(const std::string& path);

  private:
    void* symbol(const char* name) const;
    void* handle_;
};

}  // namespace test
