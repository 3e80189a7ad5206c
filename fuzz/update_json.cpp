/** A description is refused by a Failure, or each of its fields arrives; written down, it is parsed again the same. */
#include "box.h"
#include "description.h"
#include "failure.h"
#include "names.h"

#include <algorithm>
#include <cctype>
#include <cstring>

using Plain = nlohmann::json; /* fields in the order of their names */

static std::optional<Description> parsed(const std::string& text, bool draft) {
    try {
        return parse_description(parse_json(text, description_entry), draft);
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused && std::strlen(failure.what()) > 0);
        return std::nullopt;
    }
}

static Plain written(const Description& description) {
    Plain parts = Plain::array();
    for (const Image& image : description.images) {
        Plain part = {{"name", image.name},
                      {"file", image.file},
                      {"medium", described_medium_names.word(image.medium)},
                      {"type", type_names.word(image.type)},
                      {"method", "image"},
                      {"anti_rollback", image.has_version}};
        for (const auto& [field, digest] : {std::pair("md5", image.digests.md5), {"sha256", image.digests.sha256}}) {
            digest.empty() ? void() : void(part[field] = digest);
        }
        image.size ? void(part["size"] = *image.size) : void();
        parts.push_back(part);
    }
    return {{"version", description.version},
            {"sec_up_flag", description.sec_up_flag},
            {"nosec_up_flag", description.nosec_up_flag},
            {"partitions", parts}};
}

/** What stands in the text, with what may be left out of it. */
static Plain completed(Plain json) {
    json.emplace("sec_up_flag", 0);
    json.emplace("nosec_up_flag", 0);
    for (Plain& part : json["partitions"]) {
        part.emplace("anti_rollback", false);
        for (const char* field : {"md5", "sha256"}) {
            std::string digest = part.value(field, "");
            std::ranges::transform(digest, digest.begin(), [](unsigned char c) { return std::tolower(c); });
            digest.empty() ? void() : void(part[field] = digest);
        }
    }
    return json;
}

static void hold_for_the_library(const Description& description) {
    const update_info_t info = to_update_info(description);
    must(info.sys_ver == description.version && info.update_size == static_cast<int32_t>(description.images.size()));
    for (size_t i = 0; i < description.images.size(); ++i) {
        const Image& image = description.images[i];
        must(info.update_partition[i] == image.name && info.partition_info[i].part_name == image.name);
        must(info.partition_info[i].part_file == image.file && info.partition_info[i].md5[0] == image.digests.md5);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<Description> whole = parsed(text, false), draft = parsed(text, true);
    must(!whole || (draft && written(*whole) == written(*draft)));
    if (draft) {
        must(written(*draft) == completed(Plain::parse(text)));
        const std::optional<Description> again = parsed(written(*draft).dump(), true);
        must(again && written(*again) == written(*draft));
        hold_for_the_library(*draft);
    }
    return 0;
}
