// SPDX-License-Identifier: Apache-2.0
/** JSON values from text, which jansson parses. */
#include "console/failure.h"
#include "console/json.h"
#include "console/text.h"

#include <jansson.h>
#include <memory>
#include <new>

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
