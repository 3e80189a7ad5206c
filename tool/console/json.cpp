// SPDX-License-Identifier: Apache-2.0
#include "console/json.h"

#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <jansson.h>
#include <memory>
#include <stdexcept>

Json::Json(std::nullptr_t) {
}

Json::Json(bool flag) : value_(flag) {
}

Json::Json(int number) : Json(static_cast<long long>(number)) {
}

Json::Json(unsigned number) : value_(uint64_t{number}) {
}

Json::Json(long number) : Json(static_cast<long long>(number)) {
}

Json::Json(unsigned long number) : value_(uint64_t{number}) {
}

Json::Json(unsigned long long number) : value_(uint64_t{number}) {
}

Json::Json(long long number) {
    if (number < 0) {
        value_ = int64_t{number};
    } else {
        value_ = static_cast<uint64_t>(number);
    }
}

Json::Json(double number) : value_(number) {
}

Json::Json(const char* text) : value_(std::string(text)) {
}

Json::Json(const std::string& text) : value_(text) {
}

Json::Json(std::string_view text) : value_(std::string(text)) {
}

Json::Json(const Json& other) = default;
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) = default;
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

bool Json::Field::operator==(const Field& other) const {
    return key == other.key && value == other.value;
}

Json::Json(std::initializer_list<Pair> fields) {
    Object members;
    members.reserve(fields.size());
    for (const Pair& field : fields) {
        members.push_back({field.key, field.value});
    }
    value_ = std::move(members);
}

Json::Json(const std::vector<std::string>& texts) : value_(Array(texts.begin(), texts.end())) {
}

Json Json::array() {
    return array(Array());
}

Json Json::array(Array items) {
    Json json;
    json.value_ = std::move(items);
    return json;
}

Json Json::object(Object fields) {
    Json json;
    json.value_ = std::move(fields);
    return json;
}

bool Json::is_null() const {
    return std::holds_alternative<std::nullptr_t>(value_);
}

bool Json::is_boolean() const {
    return std::holds_alternative<bool>(value_);
}

bool Json::is_number_unsigned() const {
    return std::holds_alternative<uint64_t>(value_);
}

bool Json::is_string() const {
    return std::holds_alternative<std::string>(value_);
}

bool Json::is_array() const {
    return std::holds_alternative<Array>(value_);
}

bool Json::is_object() const {
    return std::holds_alternative<Object>(value_);
}

bool Json::flag() const {
    return std::get<bool>(value_);
}

uint64_t Json::number() const {
    return std::get<uint64_t>(value_);
}

const std::string& Json::text() const {
    return std::get<std::string>(value_);
}

size_t Json::size() const {
    if (is_object()) {
        return fields().size();
    }
    return is_array() ? static_cast<size_t>(end() - begin()) : is_null() ? 0 : 1;
}

bool Json::empty() const {
    return size() == 0;
}

Json* Json::begin() {
    return std::get<Array>(value_).data();
}

Json* Json::end() {
    auto& items = std::get<Array>(value_);
    return items.data() + items.size();
}

const Json* Json::begin() const {
    return std::get<Array>(value_).data();
}

const Json* Json::end() const {
    const auto& items = std::get<Array>(value_);
    return items.data() + items.size();
}

const Json& Json::operator[](size_t index) const {
    return std::get<Array>(value_).at(index);
}

Json& Json::back() {
    return std::get<Array>(value_).back();
}

void Json::push_back(Json item) {
    if (is_null()) {
        value_ = Array();
    }
    std::get<Array>(value_).push_back(std::move(item));
}

const Json::Object& Json::fields() const {
    return std::get<Object>(value_);
}

const Json* Json::find(std::string_view key) const {
    if (is_object()) {
        for (const Field& field : fields()) {
            if (field.key == key) {
                return &field.value;
            }
        }
    }
    return nullptr;
}

bool Json::contains(std::string_view key) const {
    return find(key) != nullptr;
}

const Json& Json::at(std::string_view key) const {
    const Json* value = find(key);
    if (value == nullptr) {
        throw std::out_of_range("there is no field " + std::string(key));
    }
    return *value;
}

Json& Json::operator[](std::string_view key) {
    if (is_null()) {
        value_ = Object();
    }
    auto& members = std::get<Object>(value_);
    const auto found =
        std::find_if(members.begin(), members.end(), [&](const Field& field) { return field.key == key; });
    if (found != members.end()) {
        return found->value;
    }
    members.push_back({std::string(key), Json()});
    return members.back().value;
}

bool Json::operator==(const Json& other) const {
    return value_ == other.value_;
}

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

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

Json taken_over(const json_t* parsed);

Json object_of(const json_t* parsed) {
    Json::Object fields;
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(const_cast<json_t*>(parsed), key, value) {
        fields.push_back({key, taken_over(value)});
    }
    return Json::object(std::move(fields));
}

Json array_of(const json_t* parsed) {
    Json::Array items;
    for (size_t i = 0; i < json_array_size(parsed); ++i) {
        items.push_back(taken_over(json_array_get(parsed, i)));
    }
    return Json::array(std::move(items));
}

/** The parser bounds how deep this goes. */
Json taken_over(const json_t* parsed) {
    switch (json_typeof(parsed)) {
    case JSON_OBJECT:
        return object_of(parsed);
    case JSON_ARRAY:
        return array_of(parsed);
    case JSON_STRING:
        return std::string_view(json_string_value(parsed), json_string_length(parsed));
    case JSON_INTEGER:
        return json_integer_value(parsed);
    case JSON_REAL:
        return json_real_value(parsed);
    case JSON_NULL:
        return nullptr;
    default:
        return json_is_true(parsed);
    }
}

/** The key that ends before `end`, as it is written in the text. */
std::string key_before(std::string_view text, size_t end) {
    const size_t last = text.rfind('"', end - 1);
    size_t first = text.rfind('"', last - 1);
    while (first > 0 && text[first - 1] == '\\') {
        first = text.rfind('"', first - 1);
    }
    return std::string(text.substr(first, last + 1 - first));
}

Failure refusal(std::string_view text, const std::string& name, const json_error_t& error) {
    switch (json_error_code(&error)) {
    case json_error_duplicate_key:
        return {ExitCode::refused,
                name + ": " + key_before(text, static_cast<size_t>(error.position)) + " is given twice"};
    case json_error_numeric_overflow:
        return {ExitCode::refused, name + " contains a number that is too large"};
    case json_error_out_of_memory:
        throw std::bad_alloc();
    default:
        return {ExitCode::refused, format("%s is not valid JSON: line %d, column %d: %s", name.c_str(), error.line,
                                          error.column, error.text)};
    }
}

} // namespace

Json parse_json(const std::string& text, const std::string& name) {
    std::string_view rest = text;
    if (rest.starts_with(byte_order_mark)) {
        rest.remove_prefix(byte_order_mark.size());
    }
    if (const size_t zero = text.find('\0'); zero != std::string::npos) { /* the parser overlooks one after a number */
        throw Failure(ExitCode::refused, format("%s is not valid JSON: byte %zu is 0", name.c_str(), zero));
    }
    json_error_t error{};
    const std::unique_ptr<json_t, void (*)(json_t*)> parsed(
        json_loadb(rest.data(), rest.size(), JSON_REJECT_DUPLICATES | JSON_DECODE_ANY | JSON_ALLOW_NUL, &error),
        json_decref);
    if (parsed == nullptr) {
        throw refusal(rest, name, error);
    }
    return taken_over(parsed.get());
}
