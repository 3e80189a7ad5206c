// SPDX-License-Identifier: Apache-2.0
/** tessera pack: builds a package from a description and a directory of images. */
#include "board/small_file.h"
#include "console/interrupt.h"
#include "console/progress.h"
#include "console/text.h"
#include "package/description.h"
#include "package/image_packer.h"
#include "package/signature.h"
#include "verbs/verb.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>

namespace {

constexpr char map_suffix[] = ".blocks";

struct Options {
    std::string description;
    std::string directory;
    std::string output;
    std::vector<std::string> keys;
    std::vector<std::string> certificates; /* of the keys, in the same order */
    bool plain = false;
};

/** A digest may be stated in upper case. */
Json in_lower_case(const Json& value) {
    if (!value.is_string()) {
        return value;
    }
    std::string text = value.text();
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

using PackedImages = std::map<std::string, PackedImage>; /* by file: an image for two partitions is packed once */

/** Fills in what a draft omits, and refuses wrong values in it. */
void complete(Json& partition, const PackedImage& image) {
    const std::string file = partition["file"].text();
    const Json found = {{"md5", image.digests.md5}, {"sha256", image.digests.sha256}, {"size", image.data.size}};
    for (const auto& [key, value] : found.fields()) {
        const Json* stated = partition.find(key);
        if (stated != nullptr && in_lower_case(*stated) != value) {
            throw Failure(ExitCode::failed, format("%s: %s differs from the description", file.c_str(), key.c_str()),
                          "omit it: tessera pack fills it in");
        }
        partition[key] = value;
    }
    partition.erase("blocks"); /* of an earlier package */
    if (!image.map.empty()) {
        Digester digester(Digester::Kind::sha256);
        digester.add(image.map);
        partition["blocks"] = {{"file", file + map_suffix}, {"sha256", digester.finish().sha256}};
    }
}

uint64_t size_of_image(const Options& options, const std::string& file) {
    std::error_code error;
    const uint64_t size = std::filesystem::file_size(options.directory + "/" + file, error);
    if (error) {
        throw Failure(ExitCode::failed, "cannot read " + options.directory + "/" + file + ": " + error.message());
    }
    if (size == 0) {
        throw Failure(ExitCode::failed, file + " is empty and cannot be installed");
    }
    return size;
}

/** From a pipe, such an image is installed only with a block map. */
bool exists_once(const Description& description, const std::string& file) {
    return std::ranges::any_of(description.images,
                               [&](const Image& image) { return image.file == file && !image.is_ab(); });
}

PackedImages pack_images(const Options& options, const Description& draft, ImagePacker& packer, Progress& progress) {
    std::map<std::string, uint64_t> sizes;
    for (const Image& image : draft.images) {
        if (sizes.emplace(image.file, 0).second) {
            sizes[image.file] = size_of_image(options, image.file);
            progress.expect("pack", sizes[image.file]);
        }
    }
    PackedImages images;
    for (const auto& [file, size] : sizes) {
        progress.begin("pack", file);
        const bool is_framed = !options.plain && (size >= framed_image_size || exists_once(draft, file));
        images.emplace(file, packer.pack(options.directory + "/" + file, is_framed,
                                         [&](size_t bytes) { progress.advance("pack", bytes); }));
    }
    return images;
}

void add_text(PackageWriter& package, const std::string& name, const std::string& text) {
    PackedData data{};
    const std::vector<uint8_t> packed = deflate_text(text, data);
    package.begin_entry(name, data);
    package.add(packed);
}

/** In the order in which a reader that cannot go back needs it: the description, what covers it, each map, its image.
 */
void write_package(const std::string& output, const std::vector<SigningKey>& keys, const std::string& text,
                   const PackedImages& images, const ImagePacker& packer) {
    PackageWriter package(output);
    add_text(package, description_entry, text);
    for (size_t i = 0; i < keys.size(); ++i) {
        add_text(package, signature_name(i), keys[i].sign(text));
    }
    for (const std::string& file : files_in_order(parse_description(parse_json(text, description_entry)))) {
        const PackedImage& image = images.at(file);
        if (!image.map.empty()) {
            package.begin_entry(file + map_suffix, describe_stored(image.map));
            package.add(image.map);
        }
        package.begin_entry(file, image.data);
        packer.copy(image, package);
    }
    package.finish();
}

/** Before the images are read, which takes longer. */
std::vector<SigningKey> read_keys(const Options& options) {
    if (options.keys.size() != options.certificates.size()) {
        throw Failure(ExitCode::usage, "each --sign requires a --cert", "tessera pack --help");
    }
    if (options.keys.size() > signature_count) {
        throw Failure(ExitCode::usage, format("a package has at most %zu signatures", signature_count));
    }
    std::vector<SigningKey> keys;
    for (size_t i = 0; i < options.keys.size(); ++i) {
        keys.emplace_back(options.keys[i], options.certificates[i]);
        if (const std::string warning = keys.back().warning(); !warning.empty()) {
            console::note(warning);
        }
    }
    return keys;
}

void pack(const Context& context, const Options& options) {
    watch_interrupts();
    if (options.output == "-") {
        throw Failure(ExitCode::usage, "a package cannot be written to standard output",
                      "tessera pack ... -o update.zip");
    }
    const std::vector<SigningKey> keys = read_keys(options);
    Json json = parse_json(read_small_file(options.description, description_limit), options.description);
    const Description description = parse_description(json, true);
    ImagePacker packer(options.output);
    Progress progress(default_progress_mode());
    const PackedImages images = pack_images(options, description, packer, progress);
    for (Json& partition : json["partitions"]) {
        complete(partition, images.at(partition["file"].text()));
    }
    write_package(options.output, keys, to_text(json, 2) + "\n", images, packer);
    progress.finish();
    Json signers = Json::array();
    std::string names;
    for (const SigningKey& key : keys) {
        signers.push_back(key.name());
        names += (names.empty() ? "signed by " : " and ") + key.name();
    }
    context.show({{"package", options.output},
                  {"version", description.version},
                  {"signed", !keys.empty()},
                  {"signers", signers}},
                 "packed " + description.version + " into " + options.output + ", " +
                     (keys.empty() ? "not signed" : names));
}

} // namespace

void declare_pack(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "DESCRIPTION", options->description,
             "Description (JSON file); missing digests and sizes are filled in");
    add_word(verb, "DIR", options->directory, "Directory with the images");
    add_text(verb, "-o,--output", "PACKAGE", options->output, "Package to create")->is_required = true;
    add_texts(verb, "--sign", "KEY", options->keys, "PEM file of a signing key; may be repeated");
    add_texts(verb, "--cert", "CERT", options->certificates, "PEM file of its certificate, one for each --sign");
    add_flag(verb, "--plain", options->plain, "Pack without block maps");
    on_command(verb, context, [&context, options] { pack(context, *options); });
}
