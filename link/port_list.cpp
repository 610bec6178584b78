#include "link/port_list.h"

#include <algorithm>
#include <cstddef>

namespace kxorbeta_if {
namespace {

std::size_t numberAt(const std::string& name) {
    return std::min(name.find_first_of("0123456789"), name.size());
}

}  // namespace

bool portNameLess(const std::string& left, const std::string& right) {
    const std::size_t a = numberAt(left);
    const std::size_t b = numberAt(right);
    if (const int order = left.compare(0, a, right, 0, b); order != 0) {
        return order < 0;
    }
    // The longer number is the greater one; no port's number has leading zeros.
    return left.size() != right.size() ? left.size() < right.size() : left < right;
}

}  // namespace kxorbeta_if
