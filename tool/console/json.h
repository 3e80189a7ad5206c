// SPDX-License-Identifier: Apache-2.0
/** JSON values: written as initializer lists or parsed from text. Fields keep their order. */
#ifndef TOOL_JSON_H
#define TOOL_JSON_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/**
 * One value. A list of fields is an object: `Json value = {{"slot", "a"}, {"tries", 7}};`. An array begins as
 * Json::array(). text(), number(), flag() and at() throw std::exception where the value is of another kind: ask before.
 */
class Json {
public:
    struct Field;
    struct Pair;
    using Array = std::vector<Json>;
    using Object = std::vector<Field>;

    Json(std::nullptr_t = nullptr);
    Json(bool flag);
    Json(int number);
    Json(unsigned number);
    Json(long number);
    Json(unsigned long number);
    Json(long long number);
    Json(unsigned long long number);
    Json(double number);
    Json(const char* text);
    Json(const std::string& text);
    Json(std::string_view text);
    Json(const std::vector<std::string>& texts);
    Json(std::initializer_list<Pair> fields); /* each of another name */
    Json(const void*) = delete;               /* and not a bool */

    /* All out of line: every verb writes dozens of values. */
    Json(const Json& other);
    Json(Json&& other) noexcept;
    Json& operator=(const Json& other);
    Json& operator=(Json&& other) noexcept;
    ~Json();

    static Json array();
    static Json array(Array items);
    static Json object(Object fields);

    [[nodiscard]] bool is_null() const;
    [[nodiscard]] bool is_boolean() const;
    [[nodiscard]] bool is_number_unsigned() const; /* a whole one that is not negative */
    [[nodiscard]] bool is_string() const;
    [[nodiscard]] bool is_array() const;
    [[nodiscard]] bool is_object() const;

    [[nodiscard]] bool flag() const;
    [[nodiscard]] uint64_t number() const;
    [[nodiscard]] const std::string& text() const;

    /** Of an array or object; null has no items, any other value one. */
    [[nodiscard]] size_t size() const;
    [[nodiscard]] bool empty() const;

    /** The items of an array, in their order. */
    [[nodiscard]] Json* begin();
    [[nodiscard]] Json* end();
    [[nodiscard]] const Json* begin() const;
    [[nodiscard]] const Json* end() const;
    [[nodiscard]] const Json& operator[](size_t index) const;
    [[nodiscard]] Json& back();
    void push_back(Json item); /* null becomes an array */

    /** The fields of an object, in their order. */
    [[nodiscard]] const Object& fields() const;
    [[nodiscard]] const Json* find(std::string_view key) const; /* nullptr if there is none, or not an object */
    [[nodiscard]] bool contains(std::string_view key) const;
    [[nodiscard]] const Json& at(std::string_view key) const;
    void erase(std::string_view key);
    Json& operator[](std::string_view key); /* adds a null where there is none; null becomes an object */

    bool operator==(const Json& other) const;

private:
    friend class JsonWriter;
    std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, Array, Object> value_;
};

struct Json::Field {
    std::string key;
    Json value;
    bool operator==(const Field& other) const;
};

/** A field as it is written in a list. */
struct Json::Pair {
    const char* key;
    Json value;
};

/**
 * The text of a value: on one line, or with every item on a line of its own, `indent` blanks deeper than what
 * holds it. Names from packages may not be UTF-8; what is not is shown as U+FFFD.
 */
std::string to_text(const Json& value, int indent = -1);

/**
 * Reads a JSON text (RFC 8259) that nests at most 2048 deep. A key given twice is refused, since readers would
 * differ on which one counts; so is a whole number outside int64_t.
 *
 * @param name  what the text is, for the refusal
 * @throws Failure (refused) with the reason and its line and column
 */
Json parse_json(const std::string& text, const std::string& name);

#endif
