#include "protocol/reports.h"

namespace protocol {

using kxorbeta_if::isHexText;
using kxorbeta_if::leadingNumber;

std::optional<ConnectionReport> readConnectionReport(std::string_view line) {
    const std::size_t keyword = line.find(reply::kServiceConnected);
    if (keyword == std::string_view::npos) {
        return std::nullopt;
    }
    const std::size_t start = line.find_first_not_of(' ', keyword + reply::kServiceConnected.size());
    if (start == std::string_view::npos) {
        return std::nullopt;  // a report that names nobody
    }
    const std::string_view report = line.substr(start);
    ConnectionReport result{report.substr(0, kAddressDigits), 0};
    if (!isHexText(result.address)) {
        return std::nullopt;
    }
    if (const std::size_t comma = report.find(','); comma != std::string_view::npos) {
        result.index = leadingNumber(report.substr(comma + 1));
    }
    return result;
}

std::optional<std::string_view> readDisconnectionReport(std::string_view text) {
    const std::size_t keyword = text.find(reply::kClientDisconnected);
    if (keyword == std::string_view::npos) {
        return std::nullopt;
    }
    const std::size_t comma = text.find(',', keyword);
    if (comma == std::string_view::npos) {
        return std::nullopt;
    }
    // What follows the address is of no use here.
    const std::string_view rest = text.substr(comma + 1);
    const std::string_view address = rest.substr(0, rest.find(','));
    if (!isHexText(address) || address.size() != kAddressDigits) {
        return std::nullopt;
    }
    return address;
}

std::optional<ListReply> readListReply(std::string_view text) {
    const std::size_t keyword = text.find(reply::kListPrefix);
    if (keyword == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view list = text.substr(keyword + reply::kListPrefix.size());
    return ListReply{list.starts_with("none"), list.substr(0, list.find('\n'))};
}

std::optional<ScanFields> readScanFields(std::string_view line) {
    if (line.size() < kAddressDigits) {
        return std::nullopt;
    }
    const std::string_view address = line.substr(0, kAddressDigits);
    const std::size_t space = line.find(' ');
    if (space == std::string_view::npos) {
        return ScanFields{address, "", false};
    }
    const std::string_view name = line.substr(space + 1, line.find('\n', space) - space - 1);
    const std::size_t comma = line.find(',');
    if (comma == std::string_view::npos) {
        return ScanFields{address, name, false};
    }
    const auto number = comma < space ? leadingNumber(line.substr(comma + 1, space - comma - 1)) : std::nullopt;
    if (!number) {
        return std::nullopt;
    }
    return ScanFields{address, name, *number != 0};
}

}  // namespace protocol
