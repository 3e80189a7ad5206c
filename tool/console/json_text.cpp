// SPDX-License-Identifier: Apache-2.0
/** JSON values as text. */
#include "console/json.h"
#include "console/text.h"

#include <array>
#include <charconv>
#include <cmath>

namespace {

/* Bytes that may follow the lead byte of a character in UTF-8: no overlong forms, no surrogates, no end past U+10FFFF.
 */
struct Sequence {
    unsigned char first, last; /* lead bytes */
    unsigned char length;
    unsigned char second_first, second_last;
};

constexpr Sequence sequences[] = {
    {0x00, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F}};

struct Character {
    size_t length;
    bool is_whole; /* or as much of one as could have begun one */
};

Character first_character(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    for (const Sequence& sequence : sequences) {
        if (byte(0) < sequence.first || byte(0) > sequence.last) {
            continue;
        }
        size_t length = 1;
        while (length < sequence.length && length < text.size()) {
            const bool is_second = length == 1;
            if (byte(length) < (is_second ? sequence.second_first : 0x80) ||
                byte(length) > (is_second ? sequence.second_last : 0xBF)) {
                break;
            }
            ++length;
        }
        return {length, length == sequence.length};
    }
    return {1, false};
}

std::string escaped(char c) {
    static constexpr std::string_view special = "\"\\\b\f\n\r\t", letters = "\"\\bfnrt";
    if (const size_t i = special.find(c); i != std::string_view::npos) {
        return {'\\', letters[i]};
    }
    return format("\\u%04x", static_cast<unsigned>(c));
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const Character character = first_character(text);
        const char first = text.front();
        if (!character.is_whole) {
            result += "\xEF\xBF\xBD";
        } else if (static_cast<unsigned char>(first) < ' ' || first == '"' || first == '\\') {
            result += escaped(first);
        } else {
            result += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
    }
    return result + "\"";
}

} // namespace

class JsonWriter {
public:
    explicit JsonWriter(int indent) : indent_(indent) {
    }

    std::string write(const Json& json) {
        std::visit([this](const auto& value) { add(value); }, json.value_);
        return std::move(text_);
    }

private:
    void add(std::nullptr_t) {
        text_ += "null";
    }
    void add(bool flag) {
        text_ += flag ? "true" : "false";
    }
    void add(int64_t number) {
        text_ += std::to_string(number);
    }
    void add(uint64_t number) {
        text_ += std::to_string(number);
    }
    /** The shortest digits that read back as the same number. */
    void add(double number) {
        std::array<char, 32> digits{};
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
        const std::string_view text(digits.data(), static_cast<size_t>(end - digits.data()));
        const bool looks_whole = text.find_first_of(".e") == std::string_view::npos;
        text_ += std::isfinite(number) ? std::string(text) + (looks_whole ? ".0" : "") : "null";
    }
    void add(const std::string& text) {
        text_ += quoted(text);
    }
    void add(const Json::Array& items) {
        open('[');
        for (const Json& item : items) {
            next();
            add_nested(item);
        }
        close(']', items.empty());
    }
    void add(const Json::Object& fields) {
        open('{');
        for (const Json::Field& field : fields) {
            next();
            text_ += quoted(field.key) + (indent_ < 0 ? ":" : ": ");
            add_nested(field.value);
        }
        close('}', fields.empty());
    }

    void add_nested(const Json& json) {
        std::visit([this](const auto& value) { add(value); }, json.value_);
        is_first_ = false;
    }
    void open(char bracket) {
        text_ += bracket;
        ++depth_;
        is_first_ = true;
    }
    void next() {
        text_ += is_first_ ? "" : ",";
        break_line();
    }
    void close(char bracket, bool is_empty) {
        --depth_;
        if (!is_empty) {
            break_line();
        }
        text_ += bracket;
    }
    void break_line() {
        if (indent_ >= 0) {
            text_ += "\n" + std::string(static_cast<size_t>(indent_) * depth_, ' ');
        }
    }

    std::string text_;
    int indent_;
    size_t depth_ = 0;
    bool is_first_ = true; /* no item of the current array or object is written yet */
};

std::string to_text(const Json& value, int indent) {
    return JsonWriter(indent).write(value);
}
