// SPDX-License-Identifier: Apache-2.0
#include "verbs/package_info.h"

#include "board/names.h"
#include "console/interrupt.h"
#include "console/text.h"

#include <algorithm>

namespace {

struct Info {
    Description description;
    std::vector<Signer> signers;
    bool is_trust_checked;
    std::vector<std::string> problems;
};

/** The cause of a refusal, or nothing. */
template <class Check>
std::string problem_of(Check check) {
    try {
        check();
    } catch (const Failure& failure) {
        if (failure.code != ExitCode::refused) {
            throw;
        }
        return failure.what();
    }
    return {};
}

void check_digest(const Package& package, const Image& image, Progress& progress) {
    if (!image.matches(digest_image(*open_image(package, image), image, image.all_digests(), progress))) {
        throw wrong_digest(image);
    }
}

/** Reads every entry: an image for its digest, any other for its checksum. */
std::vector<std::string> find_damage(const Package& package, const Description& description, bool is_signed) {
    Progress progress(default_progress_mode());
    for (const Entry& entry : package.entries()) {
        progress.expect("check", entry.size);
    }
    std::vector<std::string> problems = {problem_of([&] { check_names(package); })};
    std::vector<std::string_view> described;
    for (const Image& image : description.images) {
        described.push_back(image.file);
        problems.push_back(problem_of([&] {
            check_image(package, image, is_signed);
            check_digest(package, image, progress);
        }));
    }
    for (const Entry& entry : package.entries()) {
        if (std::ranges::find(described, entry.name) == described.end()) {
            problems.push_back(problem_of([&] { read_through(package, entry, progress); }));
        }
    }
    progress.finish();
    std::erase(problems, "");
    return problems;
}

/** Even without an authority, a signature that does not match is an error. */
bool is_untrusted(const Info& info) {
    return info.is_trust_checked
               ? find_accepted(info.signers) == nullptr
               : std::ranges::any_of(info.signers, [](const Signer& signer) { return signer.problem.has_value(); });
}

std::optional<uint64_t> size_in(const Package& package, const Image& image) {
    const auto found =
        std::ranges::find_if(package.entries(), [&](const Entry& entry) { return entry.name == image.file; });
    return found != package.entries().end() ? std::optional(found->size) : std::nullopt;
}

std::string state_of(const Signer& signer, bool is_trust_checked) {
    if (signer.problem) {
        return signer.problem->cause;
    }
    return is_trust_checked ? "accepted" : "the signature matches; no --trust given, so the signer is not checked";
}

Json signers_json(const Info& info) {
    Json json = Json::array();
    for (const Signer& signer : info.signers) {
        const bool is_known = info.is_trust_checked || signer.problem;
        json.push_back({{"signer", signer.name},
                        {"signed_at", signer.signed_at ? Json(date_text(*signer.signed_at)) : Json()},
                        {"accepted", is_known ? Json(!signer.problem) : Json()},
                        {"problem", signer.problem ? Json(signer.problem->cause) : Json()}});
    }
    return json;
}

Json to_json(const Info& info, const Package& package) {
    Json images = Json::array();
    for (const Image& image : info.description.images) {
        const auto size = size_in(package, image);
        images.push_back({{"partition", image.name},
                          {"file", image.file},
                          {"type", type_names.word(image.type)},
                          {"medium", described_medium_names.word(image.medium)},
                          {"bytes", size ? Json(*size) : Json()},
                          {"anti_rollback", image.has_version}});
    }
    return {{"version", info.description.version},
            {"boards", info.description.boards},
            {"signers", signers_json(info)},
            {"images", images},
            {"problems", info.problems}};
}

std::string describe(const Info& info, const Package& package) {
    const Description& description = info.description;
    std::string text = "version  " + description.version + "\nboards   " +
                       (description.boards.empty() ? "not named" : joined(description.boards)) + "\n";
    for (const Signer& signer : info.signers) {
        const std::string when = signer.signed_at ? ", signed at " + date_text(*signer.signed_at) : "";
        text += "signer   " + signer.name + when + ": " + state_of(signer, info.is_trust_checked) + "\n";
    }
    text += info.signers.empty() ? "signer   none\n" : "";
    std::vector<std::vector<std::string>> rows;
    for (const Image& image : description.images) {
        const auto size = size_in(package, image);
        rows.push_back({image.name, image.file, type_names.word(image.type), described_medium_names.word(image.medium),
                        size ? human_bytes(*size) : "missing"});
    }
    text += "\n" + table({"partition", "file", "type", "medium", "size"}, rows) + "\n";
    for (const std::string& problem : info.problems) {
        text += problem + "\n";
    }
    return text + (info.problems.empty() ? "no problems found" : "");
}

} // namespace

void show_package_info(const Context& context, const std::string& file, const TrustOptions& trust) {
    watch_interrupts();
    check_trust_options(trust);
    const Package package(file);
    const std::string text = package.text(description_entry, description_limit);
    const auto authorities = trust.file.empty() ? std::nullopt : std::optional<Trust>(std::in_place, trust);
    Info info{parse_description(parse_json(text, description_entry)),
              check_signers(read_signatures(package), text, authorities ? &*authorities : nullptr),
              authorities.has_value(),
              {}};
    info.problems = find_damage(package, info.description, !info.signers.empty());
    const bool is_refused = is_untrusted(info);
    const Failure refusal = untrusted(info.signers);
    if (is_refused) {
        info.problems.insert(info.problems.begin(), refusal.what());
    }
    context.show(to_json(info, package), describe(info, package));
    if (is_refused) {
        throw Failure(refusal);
    }
    if (!info.problems.empty()) {
        throw Failure(ExitCode::refused, info.problems.size() == 1
                                             ? info.problems.front()
                                             : format("%zu problems in ", info.problems.size()) + file);
    }
}
