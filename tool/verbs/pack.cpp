// SPDX-License-Identifier: Apache-2.0
/** tessera pack: builds a package from a description and a directory of images. */
#include "board/small_file.h"
#include "console/interrupt.h"
#include "console/progress.h"
#include "console/text.h"
#include "format/zip_entry.h"
#include "package/description.h"
#include "package/package_writer.h"
#include "package/signature.h"
#include "verbs/verb.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

namespace {

constexpr size_t piece_size = size_t{1} << 20;

struct Options {
    std::string description;
    std::string directory;
    std::string output;
    std::vector<std::string> keys;
    std::vector<std::string> certificates; /* of the keys, in the same order */
};

/** Reads a file piece by piece. */
template <class Take>
uint64_t read_pieces(const std::string& path, Take take) {
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> piece(piece_size);
    uint64_t size = 0;
    while (file) {
        stop_if_interrupted();
        file.read(reinterpret_cast<char*>(piece.data()), static_cast<std::streamsize>(piece.size()));
        const auto got = static_cast<size_t>(file.gcount());
        size += got;
        take(std::span<const uint8_t>(piece).first(got));
    }
    if (!file.eof()) {
        throw Failure(ExitCode::failed, "cannot read " + path + because(errno));
    }
    return size;
}

/** A digest may be stated in upper case. */
Json in_lower_case(const Json& value) {
    if (!value.is_string()) {
        return value;
    }
    std::string text = value.text();
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

/** Fills in what a draft omits, and refuses wrong values in it. */
void complete(Json& partition, const Options& options) {
    const std::string file = partition["file"].text();
    Digester digester(Digester::Kind::both);
    const uint64_t size =
        read_pieces(options.directory + "/" + file, [&](std::span<const uint8_t> piece) { digester.add(piece); });
    if (size == 0 || size > zip_largest_size) {
        throw Failure(ExitCode::failed, file + " of " + human_bytes(size) + " cannot be installed");
    }
    const Digests digests = digester.finish();
    const Json found = {{"md5", digests.md5}, {"sha256", digests.sha256}, {"size", size}};
    for (const auto& [key, value] : found.fields()) {
        const Json* stated = partition.find(key);
        if (stated != nullptr && in_lower_case(*stated) != value) {
            throw Failure(ExitCode::failed, format("%s: %s differs from the description", file.c_str(), key.c_str()),
                          "omit it: tessera pack fills it in");
        }
        partition[key] = value;
    }
}

std::string completed_description(const Options& options) {
    Json json = parse_json(read_small_file(options.description, description_limit), options.description);
    (void)parse_description(json, true);
    for (Json& partition : json["partitions"]) {
        complete(partition, options);
    }
    return to_text(json, 2) + "\n";
}

void add_text(PackageWriter& package, const std::string& name, const std::string& text) {
    package.begin_entry(name);
    package.add({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    package.end_entry();
}

/** The description first, so that a reader finds it at once; an image for two partitions only once. */
void write_package(const Options& options, const std::vector<SigningKey>& keys, const std::string& text,
                   const Description& description) {
    PackageWriter package(options.output);
    add_text(package, description_entry, text);
    for (size_t i = 0; i < keys.size(); ++i) {
        add_text(package, signature_name(i), keys[i].sign(text));
    }
    Progress progress(default_progress_mode());
    std::map<std::string, uint64_t> files;
    for (const Image& image : description.images) {
        files.emplace(image.file, image.size.value_or(0));
    }
    for (const auto& [file, size] : files) {
        progress.expect("pack", size);
    }
    for (const auto& [file, size] : files) {
        progress.begin("pack", file);
        package.begin_entry(file);
        read_pieces(options.directory + "/" + file, [&](std::span<const uint8_t> piece) {
            package.add(piece);
            progress.advance("pack", piece.size());
        });
        package.end_entry();
    }
    package.finish();
    progress.finish();
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
    const std::vector<SigningKey> keys = read_keys(options);
    const std::string text = completed_description(options);
    const Description description = parse_description(parse_json(text, description_entry));
    write_package(options, keys, text, description);
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
    add_word(verb, "-o,--output", options->output, "Package to create");
    add_texts(verb, "--sign", options->keys, "PEM file of a signing key; may be repeated");
    add_texts(verb, "--cert", options->certificates, "PEM file of its certificate, one for each --sign");
    on_command(verb, context, [&context, options] { pack(context, *options); });
}
