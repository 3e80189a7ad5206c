// SPDX-License-Identifier: Apache-2.0
/**
 * Checks of a package that work on any machine: its signers, and whether its images match the
 * description.
 */
#ifndef TOOL_PACKAGE_CHECK_H
#define TOOL_PACKAGE_CHECK_H

#include "console/failure.h"
#include "console/progress.h"
#include "package/description.h"
#include "package/image_reader.h"
#include "package/package.h"
#include "package/signature.h"

#include <string>
#include <vector>

/** Refuses an empty TESSERA_TRUST, which must not switch the check off. */
void check_trust_options(const TrustOptions& trust);

/** Of one signature. */
inline constexpr size_t signature_limit = size_t{64} << 10;

/** The signatures in the package; none where it is not signed. */
std::vector<std::string> read_signatures(const Package& package);

/** Checks every signer of every signature. */
std::vector<Signer> check_signers(const std::vector<std::string>& signatures, const std::string& text,
                                  const Trust* trust);

/** An accepted signer; null if there is none. */
const Signer* find_accepted(const std::vector<Signer>& signers);

/** Names every signer that is not accepted, and why. */
Failure untrusted(const std::vector<Signer>& signers);

/** The description; if authorities are given, only after one of its signatures was accepted. */
Description accept_description(const std::string& text, const std::vector<std::string>& signatures,
                               const TrustOptions& trust, std::string& signer);
Description read_description(const Package& package, const TrustOptions& trust, std::string& signer);

/** Refuses ambiguous names. */
void check_names(const Package& package);

/** Refuses a signed image without SHA-256. */
void check_cover(const Image& image, bool is_signed);

/** The same, and an image whose size is not the described one. */
void check_image(const Package& package, const Image& image, bool is_signed);

/** Checks the names, and all images. */
void check_contents(const Package& package, const Description& description, bool is_signed);

/** Reads an entry to its end and drops it, with progress of the kind "check". Throws Failure where it is damaged. */
void read_through(const Package& package, const Entry& entry, Progress& progress);

Failure wrong_digest(const Image& image);

/** Digests of an image, with progress of the kind "check". Throws Failure where its entry is damaged. */
Digests digest_image(ImageReader& reader, const Image& image, Digester::Kind kind, Progress& progress);

#endif
