#pragma once

#include <string>

/// A USB adapter collects bytes for some milliseconds (its latency timer, often 16) before it passes them on.
namespace kxorbeta_if::low_latency_linux {

/// Asks the driver of `device`, the descriptor of an open terminal, to pass bytes on at once, in both ways that drivers
/// offer: the terminal's low-latency flag, and the latency timer that stands beside its name in `ttyFolder`. Does
/// nothing where neither is offered or allowed.
///   deviceFile  the terminal's name; a link to it will do
void request(int device, const std::string& deviceFile, const std::string& ttyFolder = "/sys/class/tty");

}  // namespace kxorbeta_if::low_latency_linux
