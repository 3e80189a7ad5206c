// SPDX-License-Identifier: Apache-2.0
/** A description is refused by a Failure, or every field is read. */
#include "board/names.h"
#include "box.h"
#include "console/failure.h"
#include "package/description.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <nlohmann/json.hpp>

using Plain = nlohmann::json; /* another reader than the command's, to compare with */

static std::optional<Description> parsed(const std::string& text, bool draft) {
    try {
        return parse_description(parse_json(text, description_entry), draft);
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused && std::strlen(failure.what()) > 0);
        return std::nullopt;
    }
}

static std::string lower(std::string digits) {
    std::ranges::transform(digits, digits.begin(), [](unsigned char c) { return std::tolower(c); });
    return digits;
}

static void arrived(const Plain& part, const Image& image) {
    const auto digest = [&part](const char* field) { return lower(part.value(field, "")); };
    must(image.name == part.at("name"));
    must(image.file == part.at("file"));
    must(described_medium_names.word(image.medium) == part.at("medium"));
    must(type_names.word(image.type) == part.at("type") && part.at("method") == "image");
    must(image.digests.md5 == digest("md5"));
    must(image.digests.sha256 == digest("sha256"));
    must(image.size.value_or(0) == part.value("size", uint64_t{0}));
    must(image.has_version == part.value("anti_rollback", false));
    must(part.count("blocks") == image.blocks.has_value());
    must(!image.blocks || (part["blocks"].size() == 2 && part["blocks"]["file"] == image.blocks->file &&
                           lower(part["blocks"]["sha256"]) == image.blocks->sha256));
    must(part.size() == 5 + part.count("md5") + part.count("sha256") + part.count("size") +
                            part.count("anti_rollback") + part.count("blocks"));
}

static void arrived(const Plain& json, const Description& description) {
    const Plain& parts = json.at("partitions");
    must(description.version == json.at("version"));
    must(description.boards == json.value("boards", std::vector<std::string>()));
    must(json.count("boards") == !description.boards.empty());
    must(description.sec_up_flag == json.value("sec_up_flag", 0));
    must(description.nosec_up_flag == json.value("nosec_up_flag", 0));
    must(json.size() == 2 + json.count("boards") + json.count("sec_up_flag") + json.count("nosec_up_flag"));
    must(description.images.size() == parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
        arrived(parts[i], description.images[i]);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<Description> whole = parsed(text, false), draft = parsed(text, true);
    must(!whole || draft);
    for (const std::optional<Description>& description : {whole, draft}) {
        if (description) {
            arrived(Plain::parse(text), *description);
        }
    }
    return 0;
}
