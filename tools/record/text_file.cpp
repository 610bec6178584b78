#include "record/text_file.h"

#include <array>
#include <charconv>
#include <utility>

namespace velmora::record {

void TextFile::begin(std::string title) {
    waiting_ = std::move(title);
    settled_ = 0;
    size_ = 0;
    made_ = false;
}

void TextFile::commit(std::string_view open) {
    const std::string text = waiting_ + std::string(open);
    if (!made_) {
        if (file_) {
            file_->replace(text);
        } else {
            file_ = files_.create(path_, text, ifExists_);
        }
        made_ = true;
    } else if (!text.empty() || size_ != settled_) {
        // What comes over the old lines must not stand beside their rest, so these go first.
        if (size_ != settled_) {
            file_->truncate(settled_);
        }
        size_ = settled_;
        try {
            file_->write(settled_, text);
        } catch (const FileError&) {
            try {
                file_->truncate(settled_);
            } catch (const FileError&) {
            }
            throw;
        }
    }
    size_ = settled_ + text.size();
    settled_ += waiting_.size();
    waiting_.clear();
}

void TextFile::finish() {
    commit();
    file_->sync();
    file_->close();
    file_.reset();
}

std::string csvField(std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        return std::string(text);
    }
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"') {
            result += '"';
        }
        result += c;
    }
    return result + '"';
}

void appendFixed(std::string& text, double value, int decimals) {
    std::array<char, 400> digits;
    const auto result =
        std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, decimals);
    text.append(digits.data(), result.ptr);
}

}  // namespace velmora::record
