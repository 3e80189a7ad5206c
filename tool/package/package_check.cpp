// SPDX-License-Identifier: Apache-2.0
#include "package/package_check.h"

#include "console/interrupt.h"
#include "console/json.h"
#include "console/text.h"
#include "package/image_reader.h"

#include <algorithm>
#include <cstdlib>
#include <set>

void check_trust_options(const TrustOptions& trust) {
    if (trust.file.empty() && std::getenv("TESSERA_TRUST") != nullptr) {
        throw Failure(ExitCode::usage, "TESSERA_TRUST is empty",
                      "unset it, or set it to the file of trusted certificates");
    }
}

std::vector<std::string> read_signatures(const Package& package) {
    std::vector<std::string> signatures;
    for (size_t i = 0; i < signature_count; ++i) {
        if (const std::string name = signature_name(i); package.has(name)) {
            signatures.push_back(package.text(name, signature_limit));
        }
    }
    return signatures;
}

std::vector<Signer> check_signers(const std::vector<std::string>& signatures, const std::string& text,
                                  const Trust* trust) {
    std::vector<Signer> signers;
    for (const std::string& signature : signatures) {
        const auto found = check_signature(text, signature, trust);
        signers.insert(signers.end(), found.begin(), found.end());
    }
    return signers;
}

const Signer* find_accepted(const std::vector<Signer>& signers) {
    const auto found = std::ranges::find_if(signers, [](const Signer& signer) { return !signer.problem; });
    return found != signers.end() ? &*found : nullptr;
}

Failure untrusted(const std::vector<Signer>& signers) {
    std::string causes;
    std::string hint;
    for (const Signer& signer : signers) {
        if (!signer.problem) {
            continue;
        }
        causes += (causes.empty() ? "signer " : "; signer ") + signer.name + ": " + signer.problem->cause;
        hint = hint.empty() ? signer.problem->hint : hint;
    }
    return {ExitCode::refused, signers.empty() ? "the package is not signed" : "the package is not trusted: " + causes,
            hint};
}

Description accept_description(const std::string& text, const std::vector<std::string>& signatures,
                               const TrustOptions& trust, std::string& signer) {
    check_trust_options(trust);
    if (!trust.file.empty()) {
        const Trust authorities(trust);
        const auto signers = check_signers(signatures, text, &authorities);
        const Signer* accepted = find_accepted(signers);
        if (accepted == nullptr) {
            throw untrusted(signers);
        }
        signer = accepted->name;
    }
    return parse_description(parse_json(text, description_entry));
}

Description read_description(const Package& package, const TrustOptions& trust, std::string& signer) {
    const std::string text = package.text(description_entry, description_limit);
    const bool is_needed = !trust.file.empty();
    return accept_description(text, is_needed ? read_signatures(package) : std::vector<std::string>{}, trust, signer);
}

/**
 * The library looks entries up by the C string of their name: a second entry could hide
 * after a null character, and the entry written would not be the one that was checked.
 */
void check_names(const Package& package) {
    std::set<std::string_view> names;
    for (const Entry& entry : package.entries()) {
        if (entry.name.find('\0') != std::string::npos) {
            throw Failure(ExitCode::refused, std::string("the name of the entry ") + entry.name.c_str() +
                                                 " continues after a null character");
        }
        if (!names.insert(entry.name).second) {
            throw Failure(ExitCode::refused, "the package has more than one entry " + entry.name);
        }
    }
}

void check_cover(const Image& image, bool is_signed) {
    if (is_signed && image.digests.sha256.empty()) {
        throw Failure(ExitCode::refused,
                      "the description gives no SHA-256 of " + image.file + ", so the signature does not cover it");
    }
}

void check_image(const Package& package, const Image& image, bool is_signed) {
    const Entry& entry = package.at(image.file);
    if (entry.kind != zip_kind::file || entry.size == 0) {
        throw Failure(ExitCode::refused, image.file + " is empty or not a regular file");
    }
    if (image.size.value_or(entry.size) != entry.size) {
        throw Failure(ExitCode::refused, format("%s has %llu bytes, but the description states %llu",
                                                image.file.c_str(), static_cast<unsigned long long>(entry.size),
                                                static_cast<unsigned long long>(*image.size)));
    }
    if (image.blocks) {
        (void)package.at(image.blocks->file);
    }
    check_cover(image, is_signed);
}

void check_contents(const Package& package, const Description& description, bool is_signed) {
    check_names(package);
    for (const Image& image : description.images) {
        check_image(package, image, is_signed);
    }
}

void read_through(const Package& package, const Entry& entry, Progress& progress) {
    progress.begin("check", entry.name);
    package.read(entry, [&](std::span<const uint8_t> piece) {
        stop_if_interrupted();
        progress.advance("check", piece.size());
        return true;
    });
}

Failure wrong_digest(const Image& image) {
    return {ExitCode::refused, image.file + ": digest mismatch"};
}

Digests digest_image(ImageReader& reader, const Image& image, Digester::Kind kind, Progress& progress) {
    const Entry& entry = reader.entry();
    Digester digester(kind);
    progress.begin("check", image.file);
    FrameUnpacker unpacker(image.file);
    PackedFrame frame{};
    std::vector<uint8_t> memory;
    uint32_t crc = 0;
    while (reader.next(frame)) {
        stop_if_interrupted();
        const auto bytes = unpacker.unpack(frame, memory);
        digester.add(bytes);
        crc = reader.has_hashes() ? libdeflate_crc32(crc, bytes.data(), bytes.size()) : entry.crc;
        progress.advance("check", bytes.size());
    }
    if (crc != entry.crc) {
        throw damaged_entry(entry, ": checksum mismatch");
    }
    return digester.finish();
}
