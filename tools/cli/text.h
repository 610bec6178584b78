// Pieces of what the program writes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::cli {

/// A text from the air as it may be shown: no trailing blanks, nothing that a terminal would obey.
std::string printable(std::string_view text);

/// With a point and that many digits behind it, whatever the locale.
std::string fixed(double value, int decimals);

/// Cut or filled up with blanks to that many characters.
std::string padded(std::string_view text, std::size_t width);
std::string rightPadded(std::string_view text, std::size_t width);

/// "12 (0.3 %)"; "0" for none. `brief`: the number as countText() has it.
std::string lossText(std::uint64_t packets, std::uint64_t lost, bool brief = false);
/// Of all packets that were sent, 0 to 100.
double lossPercent(std::uint64_t packets, std::uint64_t lost);

/// "512 B", "1.5 MB" and so on, in steps of 1000.
std::string sizeText(std::uint64_t bytes);
/// "512", "1.5k", "20.6M", likewise.
std::string countText(std::uint64_t count);

/// "0:07", "12:34", "1:02:03".
std::string timeText(double seconds);

/// "8 x 500.0"; "3 x 250.0-500.0" when the channels differ; "..." as long as there is no rate.
std::string rateText(int channels, double slowest, double fastest);

}  // namespace velmora::cli
