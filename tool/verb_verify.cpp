/** tessera verify: would this package be trusted, is it whole, and does it lower no version? */
#include "image_versions.h"
#include "install_plan.h"
#include "interrupt.h"
#include "text.h"
#include "verb.h"

namespace {

struct Options {
    std::string package;
    TrustOptions trust;
    std::string lock_file = default_lock_file;
};

void check_images(const Package& package, const Description& description) {
    Progress progress(default_progress_mode());
    for (const Image& image : description.images) {
        progress.expect("check", package.at(image.file).size);
    }
    for (const Image& image : description.images) {
        if (!image.matches(digest_entry(package, image, image.all_digests(), progress))) {
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

std::string versions_text(const std::vector<ImageVersion>& versions, const Counters& counters) {
    std::vector<std::vector<std::string>> rows;
    for (const ImageVersion& image : versions) {
        const bool is_secure = image.kind == FirmwareKind::miniboot;
        rows.push_back({image.partition, image.version ? std::to_string(*image.version) : "unknown",
                        std::to_string(is_secure ? counters.secure : counters.non_secure)});
    }
    return rows.empty() ? format("no image shows a version; counters: secure %u, non-secure %u\n", counters.secure,
                                 counters.non_secure)
                        : table({"partition", "version", "counter"}, rows);
}

std::string origin(const std::string& signer) {
    return signer.empty() ? "integrity only, no trusted certificate was named" : "signed by " + signer;
}

void verify(const Context& context, const Options& options) {
    watch_interrupts();
    /* A pass is stored, in the flash block of the status of an update that may be running. */
    const UpdateLock lock(options.lock_file, "tessera verify " + options.package);
    const Package package(options.package);
    std::string signer;
    const Description description = read_description(package, options.trust, signer);
    judge_images(package, description, !options.trust.file.empty());
    check_images(package, description);
    const auto versions = read_image_versions(package, description);
    const Counters counters = read_counters();
    const std::string table = versions_text(versions, counters);
    Json value = {{"passes", true},
                  {"version", description.version},
                  {"signer", signer.empty() ? Json() : Json(signer)},
                  {"images", versions_json(versions)},
                  {"counters", {{"secure", counters.secure}, {"non_secure", counters.non_secure}}}};
    try {
        if (const std::string refusal = refusal_by_versions(versions, counters); !refusal.empty()) {
            throw Failure(ExitCode::refused, refusal);
        }
        stop_if_interrupted();
        verify_versions(package, description);
    } catch (const Failure& failure) {
        if (failure.code == ExitCode::refused) {
            value["passes"] = false;
            context.show(value, table);
        }
        throw;
    }
    context.show(value, table + "the package " + description.version +
                            " passes: every image is whole, no version goes down (" + origin(signer) + ")");
}

} // namespace

void declare_verify(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "PACKAGE", options->package, "The package, a zip file");
    add_trust(verb, options->trust);
    add_lock(verb, options->lock_file);
    on_command(verb, context, [&context, options] { verify(context, *options); });
}
