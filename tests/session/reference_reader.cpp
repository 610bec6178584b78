#include "session/reference_reader.h"

#include <algorithm>

namespace test {
namespace {

const std::array<std::string, 4> kWithoutEnd{"AT+OK", "Bootup", "Finish scan", "Group connection finish"};
constexpr int kOther = 8, kScanLine = 7;

/// How long the frame is whose first bytes are these, if it is one: 0 when it is none, -1 when it may become one.
int frameLength(const std::string& s, bool endsHere) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto checked = [&](std::size_t n) {
        unsigned sum = 1;
        for (std::size_t i = 2; i < n && n <= s.size(); ++i) {
            sum += at(i);
        }
        return n <= s.size() && sum % 256 == 0;
    };
    if (s.substr(0, 2) == "\xAA\xDD" || s.substr(0, 2) == "\xAA\xEE" || s == "\xAA") {
        const bool exactlyLong = endsHere && s.size() == 16 && checked(16);
        return checked(8) && !exactlyLong ? 8 : s.size() < 16 ? -1 : checked(16) ? 16 : 0;
    }
    static const std::string_view kStart = "\x55\x55";
    if (s.substr(0, 2) != kStart.substr(0, s.size())) {
        return 0;
    }
    const int kind = s.size() < 3 ? -1 : at(2);
    const int length = kind < 0 ? 1000 : kind == 0x02 ? 8 : kind == 0x20 ? 36 : kind == 0xE2 ? 230 : 0;
    if (length == 230 && s.size() > 3 && at(3) < 0x80 && (at(3) < 0x40 || at(3) % 16 == 0)) {
        return 0;
    }
    return length > static_cast<int>(s.size()) ? -1 : length;
}

/// Whether `s` may begin with a frame; an empty one may.
bool mayBegin(const std::string& s) {
    return s.empty() || frameLength(s, true) != 0 ||
           (s[0] == '\xAA' && (s[1] == '\xDD' || s[1] == '\xEE'));  // its check byte is not looked at
}

}  // namespace

ReferenceReader::Header ReferenceReader::headerAt(std::string_view text) {
    const std::string_view s = text.substr(0, 17), syncWord = "AT+DAT";
    if (s.empty() || s.substr(0, 6) != syncWord.substr(0, s.size())) {
        return {};
    }
    std::array<unsigned long, 2> numbers{};
    std::size_t at = 6;
    for (const std::size_t i : {0u, 1u}) {
        const std::size_t start = at;
        for (; at < s.size() && s[at] >= '0' && s[at] <= '9'; ++at) {
            numbers[i] = numbers[i] * 10 + static_cast<unsigned long>(s[at] - '0');
        }
        if (numbers[i] > (i == 0 ? 15 : 10240)) {
            return {};
        }
        if (at >= s.size()) {  // it may go on, if there is room for the rest of the shortest header
            return {false, s.size() + (start == at ? 4 - 2 * i : 3 - 2 * i) <= 17};
        }
        if (start == at || s[at++] != ":#"[i]) {
            return {};
        }
    }
    return {true, false, static_cast<int>(numbers[0]), at, numbers[1]};
}

void ReferenceReader::read(const Bytes& bytes, int ms) {
    line_.append(bytes.begin(), bytes.end());
    times_.insert(times_.end(), bytes.size(), ms);
    const auto use = [&](std::size_t count) {
        line_.erase(0, count);
        times_.erase(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(count));
    };
    while (!line_.empty()) {
        const Header header = headerAt(line_);
        const std::size_t end = header.length + header.payload;
        if (header.whole && line_.size() >= end) {
            const std::string behind = line_.substr(end), payload = line_.substr(header.length, header.payload);
            const Header next = headerAt(behind);
            bool holdsHeader = false;
            for (std::size_t i = payload.find("AT"); i != std::string::npos; i = payload.find("AT", i + 1)) {
                holdsHeader = holdsHeader || headerAt(payload.substr(i)).whole;
            }
            const int follows = next.whole ? 1 : next.possible ? -1 : textAt(behind);
            if (holdsHeader && follows < 0 && ms - times_.back() < 20) {
                return;
            }
            if (follows != 0 || !holdsHeader) {
                takePayload(static_cast<std::size_t>(header.index), payload);
                behindFrame_.clear();
                use(end);
                continue;
            }
        } else if ((header.whole || header.possible) && ms - times_[0] < 1000) {
            return;
        }
        damagedHeaders += header.whole;
        takeByte(line_[0]);
        use(1);
    }
}

bool ReferenceReader::isTextByte(char c) const {
    return (c >= 0x20 && c < 0x7F) || c == '\t' || c == '\r' || (c < 0 && scanning);
}

/// 1 when there is a text, 0 when there is none, -1 when more bytes would tell.
int ReferenceReader::textAt(std::string_view text) const {
    if (std::any_of(kWithoutEnd.begin(), kWithoutEnd.end(),
                    [&](const auto& known) { return text.starts_with(known); })) {
        return 1;
    }
    for (std::size_t i = 0; i < std::min<std::size_t>(text.size(), 256); ++i) {
        if (text[i] == '\n' || headerAt(text.substr(i)).whole) {
            return 1;
        }
        if (!isTextByte(text[i])) {
            return 0;
        }
    }
    return text.size() <= 256 ? -1 : 0;
}

void ReferenceReader::text(int kind, const std::string& text) {
    trace += "text " + std::to_string(kind) + " " + text + "\n";
    text_ = behindFrame_ = "";
    for (std::string& pending : pending_) {
        if (kind == 1 && !pending.empty()) {
            ++incomplete;
            stray += pending.size();
            pending.clear();
        }
    }
}

void ReferenceReader::takeByte(char c) {
    if (c == '\n') {
        text_.erase(text_.find_last_not_of('\r') + 1);
        int kind = kOther;
        for (int i = 3; i >= 0; --i) {
            kind = text_.ends_with(kWithoutEnd[static_cast<std::size_t>(i)]) ? i : kind;
        }
        kind = text_.find("AT+LIST=") != std::string::npos ? 6 : kind;
        kind = text_.find("Client disconnected") != std::string::npos ? 5 : kind;
        kind = text_.find("Service connected.") != std::string::npos ? 4 : kind;
        kind = scanning && text_.size() > 13 && text_[12] == ',' ? kScanLine : kind;
        if (!text_.empty()) {
            text(kind, text_);
        }
        behindFrame_.clear();
    } else if (!isTextByte(c)) {
        stray += text_.size() + 1;
        text_ = behindFrame_ = "";
    } else if (c != '\r' || !text_.empty()) {
        if (text_.size() == 1024) {
            stray += text_.size();
            text_ = behindFrame_ = "";
        }
        text_ += c;
        behindFrame_ += c;
        for (std::size_t i = 0; i < kWithoutEnd.size(); ++i) {
            if (text_ == kWithoutEnd[i] || behindFrame_ == kWithoutEnd[i]) {
                stray += text_.size() - kWithoutEnd[i].size();
                text(static_cast<int>(i), kWithoutEnd[i]);
            }
        }
    }
}

void ReferenceReader::takePayload(std::size_t index, const std::string& payload) {
    std::string& rest = pending_[index];
    const auto endsWell = [](const std::string& s, std::size_t before) {
        const int length = frameLength(s, false);
        return length > 0 && static_cast<std::size_t>(length) >= before &&
               mayBegin(s.substr(static_cast<std::size_t>(length)));
    };
    if (!rest.empty() && payload.size() >= 8) {
        const int own = frameLength(payload, false);
        const bool begins = own > 0 || (own < 0 && payload[0] == 0x55);
        if (begins && (endsWell(payload, 0) || !endsWell(rest + payload, rest.size()))) {
            ++incomplete;
            stray += rest.size();
            rest.clear();
        }
    }
    rest += payload;
    while (!rest.empty()) {
        const int length = frameLength(rest, true);
        if (length < 0) {
            return;
        }
        if (length == 0) {
            ++stray;
            rest.erase(0, 1);
            continue;
        }
        const std::string frame = rest.substr(0, static_cast<std::size_t>(length));
        const int kind = length == 230 ? 0 : length == 36 ? 1 : frame[0] == 0x55 ? 2 : length == 8 ? 3 : 4;
        trace += std::to_string(index) + " " + std::to_string(kind) + " " + hexOf({frame.begin(), frame.end()}) + "\n";
        rest.erase(0, frame.size());
    }
}

}  // namespace test
