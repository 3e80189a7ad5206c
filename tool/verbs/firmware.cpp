// SPDX-License-Identifier: Apache-2.0
/** tessera firmware: what the anti-rollback check would read from an image, certificate by certificate. */
#include "console/text.h"
#include "firmware/certificates.h"
#include "firmware/image_versions.h"
#include "verbs/verb.h"

#include <filesystem>

namespace {

struct Options {
    std::string file;
    std::string kind; /* empty: derived from the file name */
};

FirmwareKind kind_of(const Options& options) {
    const std::string name =
        options.kind.empty() ? std::filesystem::path(options.file).filename().string() : options.kind;
    const auto kind = firmware_kind_of(name);
    if (!kind) {
        throw Failure(ExitCode::usage, "cannot determine the kind of image from the name " + options.file,
                      "specify --kind miniboot, uboot or vbmeta");
    }
    return *kind;
}

std::string or_unknown(const std::optional<uint64_t>& version) {
    return version ? std::to_string(*version) : "unknown";
}

std::string problem_of(const Certificate& certificate) {
    return certificate.problem.empty() ? "" : "  (" + certificate.problem + ")";
}

void show_firmware(const Context& context, const Options& options) {
    const FirmwareKind kind = kind_of(options);
    const std::vector<Certificate> found = list_certificates(kind, options.file); /* accepts regular files only */
    ImageVersion whole{options.file, kind, std::nullopt, {}};
    read_image_version(kind, options.file, options.file, whole);
    Json certificates = Json::array();
    std::string text;
    for (const Certificate& certificate : found) {
        certificates.push_back({{"name", certificate.short_name},
                                {"title", certificate.name},
                                {"version", certificate.version ? Json(*certificate.version) : Json()},
                                {"problem", certificate.problem.empty() ? Json() : Json(certificate.problem)}});
        const std::string version = certificate.version ? std::to_string(*certificate.version) : "none";
        text += format("%-18s%-8s%s%s\n", certificate.short_name.c_str(), version.c_str(), certificate.name.c_str(),
                       problem_of(certificate).c_str());
    }
    text += std::string(firmware_name(kind)) + " version: " + or_unknown(whole.version);
    if (kind != FirmwareKind::vbmeta && whole.version && certificates.empty()) {
        text += ", which means that the image has none of the known certificates";
    }
    context.show({{"kind", firmware_name(kind)},
                  {"version", whole.version ? Json(*whole.version) : Json()},
                  {"certificates", certificates}},
                 text);
    if (!whole.version) {
        throw Failure(ExitCode::refused, whole.problem);
    }
}

} // namespace

void declare_firmware(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "FILE", options->file, "Firmware or verified-boot image");
    add_choice(
        verb, "--kind", "KIND", {"miniboot", "uboot", "vbmeta"},
        [options](const std::string& kind) { options->kind = kind; },
        "Kind of image, if the file name does not indicate it: miniboot, uboot or vbmeta");
    on_command(verb, context, [&context, options] { show_firmware(context, *options); });
}
