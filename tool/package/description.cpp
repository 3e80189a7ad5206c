// SPDX-License-Identifier: Apache-2.0
#include "package/description.h"

#include "board/names.h"
#include "console/failure.h"
#include "console/text.h"
#include "internal/ota_paths.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <initializer_list>
#include <set>

namespace {

constexpr size_t max_images = std::size(decltype(update_info_t::partition_info){});
constexpr size_t max_boards = 16;
constexpr size_t longest_board = 127;
constexpr size_t longest_map_name = 95;
constexpr size_t md5_digits = 32;
constexpr size_t sha256_digits = 64;

Failure refusal(const std::string& sentence) {
    return {ExitCode::refused, std::string(description_entry) + ": " + sentence};
}

/** ASCII, whatever the locale. */
bool is_board_name(const Json& name) {
    const auto is_printable = [](char c) { return c >= '!' && c <= '~'; };
    return name.is_string() && !name.text().empty() && name.text().size() <= longest_board &&
           std::ranges::all_of(name.text(), is_printable);
}

/** Takes fields out of a JSON object and keeps track of unknown ones. */
class Fields {
public:
    Fields(const Json& object, std::string where) : object_(object), where_(std::move(where)) {
        if (!object_.is_object()) {
            throw refusal(where_ + "must be an object");
        }
    }

    [[nodiscard]] Failure wrong(const std::string& field, const std::string& what) const {
        return refusal(where_ + "\"" + field + "\" " + what);
    }

    const Json* optional(const std::string& field) {
        taken_.insert(field);
        return object_.find(field);
    }

    const Json& required(const std::string& field) {
        const Json* value = optional(field);
        if (value == nullptr) {
            throw wrong(field, "is missing");
        }
        return *value;
    }

    /** A text that fits an array of `room` bytes with its NUL. */
    std::string text(const std::string& field, size_t room) {
        const Json& value = required(field);
        if (!value.is_string() || value.text().empty()) {
            throw wrong(field, "must be a string");
        }
        const std::string& text = value.text();
        if (text.size() >= room || text.find('\0') != std::string::npos) {
            throw wrong(field, format("must be shorter than %zu bytes", room));
        }
        return text;
    }

    int32_t choice(const std::string& field, const Names& names) {
        const auto value = names.value(text(field, 32));
        if (!value) {
            throw wrong(field, "must be " + names.choices());
        }
        return *value;
    }

    /** Hexadecimal digits; empty if the field is optional and missing. */
    std::string digest(const std::string& field, size_t digits, bool may_be_missing) {
        if (may_be_missing && optional(field) == nullptr) {
            return {};
        }
        std::string text = this->text(field, 128);
        const auto is_digit = [](unsigned char c) { return std::isxdigit(c) != 0; };
        if (text.size() != digits || !std::all_of(text.begin(), text.end(), is_digit)) {
            throw wrong(field, format("must be %zu hexadecimal digits", digits));
        }
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
        return text;
    }

    bool flag(const std::string& field) {
        const Json* value = optional(field);
        if (value != nullptr && !value->is_boolean()) {
            throw wrong(field, "must be true or false");
        }
        return value != nullptr && value->flag();
    }

    std::optional<uint64_t> size(const std::string& field) {
        const Json* value = optional(field);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_number_unsigned() || value->number() == 0) {
            throw wrong(field, "must be a number of bytes above 0");
        }
        return value->number();
    }

    int32_t zero_or_one(const std::string& field) {
        const Json* value = optional(field);
        if (value != nullptr && (!value->is_number_unsigned() || value->number() > 1)) {
            throw wrong(field, "must be 0 or 1");
        }
        return value == nullptr ? 0 : static_cast<int32_t>(value->number());
    }

    /** Names of boards; empty when the field is missing. */
    std::vector<std::string> boards(const std::string& field) {
        const Json* value = optional(field);
        if (value == nullptr) {
            return {};
        }
        if (!value->is_array() || value->empty() || value->size() > max_boards) {
            throw wrong(field, format("must be a list of 1 to %zu names", max_boards));
        }
        std::vector<std::string> names;
        names.reserve(value->size());
        for (const Json& name : *value) {
            if (!is_board_name(name)) {
                throw wrong(
                    field, format("must contain names of 1 to %zu printable characters without blanks", longest_board));
            }
            names.push_back(name.text());
        }
        return names;
    }

    void refuse_others() const {
        for (const Json::Field& field : object_.fields()) {
            if (!taken_.contains(field.key)) {
                throw wrong(field.key, "is not a known field");
            }
        }
    }

private:
    const Json& object_;
    std::string where_;
    std::set<std::string> taken_;
};

/** Partitions that an update relies on while it runs, or that contain all others. */
constexpr std::array<const char*, 3> untouchable = {ota_misc_partition, ota_ubootenv_partition, ota_gpt_partition};

void check_name(const Fields& fields, const Image& image) {
    if (image.name.find('/') != std::string::npos || image.name.starts_with('.')) {
        throw fields.wrong("name", "must be the name of a partition");
    }
    if (image.name.ends_with("_a") || image.name.ends_with("_b") || image.name.ends_with("_c")) {
        throw fields.wrong("name", "must not carry a slot suffix: the type ab chooses the slot");
    }
    if (std::find(untouchable.begin(), untouchable.end(), image.name) != untouchable.end()) {
        throw fields.wrong("name", "must not be " + image.name + ", which updates rely on");
    }
}

void check_file(const Fields& fields, const std::string& file) {
    const std::string around = "/" + file + "/";
    if (file.starts_with('/') || around.find("/../") != std::string::npos || file.ends_with('/')) {
        throw fields.wrong("file", "must be the name of a file in the package");
    }
    if (file == description_entry || is_signature_name(file)) {
        throw fields.wrong("file", "must not be " + file);
    }
}

/** Where the map of an image is. */
std::optional<MapEntry> parse_blocks(const Json* json, const std::string& where) {
    if (json == nullptr) {
        return std::nullopt;
    }
    Fields fields(*json, where + "\"blocks\": ");
    MapEntry map;
    map.file = fields.text("file", longest_map_name + 1);
    map.sha256 = fields.digest("sha256", sha256_digits, false);
    fields.refuse_others();
    check_file(fields, map.file);
    return map;
}

Image parse_image(const Json& json, size_t index, bool draft) {
    std::string where = format("partition %zu: ", index + 1);
    if (const Json* name = json.find("name"); name != nullptr && name->is_string()) {
        where = "partition " + name->text() + ": ";
    }
    Fields fields(json, where);
    Image image{};
    image.name = fields.text("name", sizeof partition_info_t::part_name);
    image.file = fields.text("file", sizeof partition_info_t::part_file);
    image.medium = static_cast<ota_medium_e>(fields.choice("medium", described_medium_names));
    image.type = static_cast<ota_part_type_e>(fields.choice("type", type_names));
    (void)fields.choice("method", method_names);
    image.digests.md5 = fields.digest("md5", md5_digits, draft);
    image.digests.sha256 = fields.digest("sha256", sha256_digits, true);
    image.size = fields.size("size");
    image.has_version = fields.flag("anti_rollback");
    image.blocks = parse_blocks(fields.optional("blocks"), where);
    fields.refuse_others();
    check_name(fields, image);
    check_file(fields, image.file);
    return image;
}

void refuse_repeated_names(const std::vector<Image>& images) {
    std::set<std::string> names;
    for (const Image& image : images) {
        if (!names.insert(image.name).second) {
            throw refusal("partition " + image.name + " is described twice");
        }
    }
}

/** An entry is either an image or the map of one image. */
void refuse_ambiguous_maps(const std::vector<Image>& images) {
    for (const Image& image : images) {
        for (const Image& other : images) {
            if (image.file == other.file && image.blocks != other.blocks) {
                throw refusal("partitions " + image.name + " and " + other.name +
                              " have the same image but different \"blocks\"");
            }
            if (image.blocks && (image.blocks->file == other.file || (image.file != other.file && other.blocks &&
                                                                      image.blocks->file == other.blocks->file))) {
                throw refusal("partition " + image.name + ": \"blocks\" must name an entry of its own");
            }
        }
    }
}

void check_version(const Fields& fields, const std::string& version) {
    const bool is_plain =
        std::none_of(version.begin(), version.end(), [](unsigned char c) { return std::isgraph(c) == 0; });
    if (!is_plain || version[0] != 'V') {
        throw fields.wrong("version", "must begin with a V and contain no blanks, like V1.2.0_20240101");
    }
}

} // namespace

std::string signature_name(size_t index) {
    return description_entry + (index == 0 ? "" : "." + std::to_string(index + 1)) + ".p7s";
}

bool is_signature_name(const std::string& name) {
    size_t index = 0;
    while (index < signature_count && signature_name(index) != name) {
        ++index;
    }
    return index < signature_count;
}

bool Image::matches(const Digests& found) const {
    const bool has_strongest = !(digests.sha256.empty() ? found.md5 : found.sha256).empty();
    return has_strongest && (found.md5.empty() || digests.md5 == found.md5) &&
           (found.sha256.empty() || digests.sha256 == found.sha256);
}

bool is_checked_first(const Description& description, const std::string& file) {
    return std::ranges::any_of(description.images,
                               [&](const Image& image) { return image.file == file && image.is_checked_first(); });
}

std::vector<std::string> files_in_order(const Description& description) {
    std::vector<std::string> files;
    for (const bool first : {true, false}) {
        for (const Image& image : description.images) {
            if (is_checked_first(description, image.file) == first &&
                std::ranges::find(files, image.file) == files.end()) {
                files.push_back(image.file);
            }
        }
    }
    return files;
}

Description parse_description(const Json& json, bool draft) {
    Fields fields(json, "");
    Description description{};
    description.version = fields.text("version", 128);
    check_version(fields, description.version);
    const Json& partitions = fields.required("partitions");
    if (!partitions.is_array() || partitions.empty() || partitions.size() > max_images) {
        throw fields.wrong("partitions", format("must be a list of 1 to %zu partitions", max_images));
    }
    description.boards = fields.boards("boards");
    description.sec_up_flag = fields.zero_or_one("sec_up_flag");
    description.nosec_up_flag = fields.zero_or_one("nosec_up_flag");
    fields.refuse_others();
    for (size_t i = 0; i < partitions.size(); ++i) {
        description.images.push_back(parse_image(partitions[i], i, draft));
    }
    refuse_repeated_names(description.images);
    refuse_ambiguous_maps(description.images);
    return description;
}
