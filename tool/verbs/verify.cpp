// SPDX-License-Identifier: Apache-2.0
/** tessera verify: whether a package is trusted and intact, and no version is below its counter. Changes nothing. */
#include "board/partition.h"
#include "console/interrupt.h"
#include "console/text.h"
#include "firmware/image_versions.h"
#include "install/install_plan.h"
#include "internal/ota_paths.h"
#include "package/board_identity.h"
#include "verbs/verb.h"

namespace {

struct Options {
    std::string package;
    TrustOptions trust;
    std::string board; /* replaces the board's own names; empty: keep them */
};

void check_images(const Package& package, const Description& description) {
    Progress progress(default_progress_mode());
    for (const Image& image : description.images) {
        progress.expect("check", package.at(image.file).size);
    }
    for (const Image& image : description.images) {
        if (!image.matches(digest_image(*open_image(package, image), image, image.all_digests(), progress))) {
            throw wrong_digest(image);
        }
    }
    progress.finish();
}

Json versions_json(const std::vector<ImageVersion>& versions) {
    Json json = Json::array();
    for (const ImageVersion& image : versions) {
        json.push_back({{"partition", image.partition},
                        {"kind", firmware_name(image.kind)},
                        {"version", image.version ? Json(*image.version) : Json()}});
    }
    return json;
}

Json counters_json(const std::optional<Counters>& counters) {
    return counters ? Json{{"secure", counters->secure}, {"non_secure", counters->non_secure}} : Json();
}

std::string no_versions_text(const std::optional<Counters>& counters) {
    return "no image has a version" +
           (counters ? format("; counters: secure %u, non-secure %u\n", counters->secure, counters->non_secure) : "\n");
}

std::string versions_text(const std::vector<ImageVersion>& versions, const std::optional<Counters>& counters) {
    std::vector<std::vector<std::string>> rows;
    for (const ImageVersion& image : versions) {
        const bool is_secure = image.kind == FirmwareKind::miniboot;
        rows.push_back({image.partition, image.version ? std::to_string(*image.version) : "unknown",
                        counters ? std::to_string(is_secure ? counters->secure : counters->non_secure) : "unknown"});
    }
    return rows.empty() ? no_versions_text(counters) : table({"partition", "version", "counter"}, rows);
}

/** The board's counters; off a board a stand-in for the eFuse library means nothing. */
std::optional<Counters> counters_of_board() {
    if (is_board()) {
        return read_counters();
    }
    console::note(std::string("this machine is not a board (no ") + ota_partition_dir +
                  "): the package's versions were not compared with anti-rollback counters");
    return std::nullopt;
}

std::string origin(const std::string& signer) {
    return signer.empty() ? "integrity only, no --trust given" : "signed by " + signer;
}

void verify(const Context& context, const Options& options) {
    watch_interrupts();
    const Package package(options.package);
    std::string signer;
    const Description description = read_description(package, options.trust, signer);
    check_board_name(description, options.board);
    if (description.boards.empty()) {
        console::note(no_boards_remark);
    }
    check_contents(package, description, !options.trust.file.empty());
    check_images(package, description);
    const auto versions = read_image_versions(FileImages(package), description);
    const std::optional<Counters> counters = counters_of_board();
    const std::string table = versions_text(versions, counters);
    Json value = {{"passes", true},
                  {"version", description.version},
                  {"signer", signer.empty() ? Json() : Json(signer)},
                  {"images", versions_json(versions)},
                  {"counters", counters_json(counters)}};
    if (const std::string refusal = compare_versions(versions, counters).refusal; !refusal.empty()) {
        value["passes"] = false;
        context.show(value, table);
        throw Failure(ExitCode::refused, refusal);
    }
    context.show(value, table + "the package " + description.version + " passes: every image is intact" +
                            (counters ? ", no version is below its counter (" : " (") + origin(signer) + ")");
}

} // namespace

void declare_verify(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "PACKAGE", options->package, "Package (zip file)");
    add_trust(verb, options->trust);
    add_board(verb, options->board);
    on_command(verb, context, [&context, options] { verify(context, *options); });
}
