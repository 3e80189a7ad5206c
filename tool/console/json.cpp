// SPDX-License-Identifier: Apache-2.0
#include "console/json.h"

#include <algorithm>
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

void Json::erase(std::string_view key) {
    if (auto* object = std::get_if<Object>(&value_)) {
        std::erase_if(*object, [&](const Field& field) { return field.key == key; });
    }
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
