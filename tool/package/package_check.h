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
#include "package/package.h"
#include "package/signature.h"

#include <string>
#include <vector>

/** Refuses an empty TESSERA_TRUST, which must not switch the check off. */
void check_trust_options(const TrustOptions& trust);

/** Checks every signer of every signature in the package; none where it is not signed. */
std::vector<Signer> check_signers(const Package& package, const std::string& text, const Trust* trust);

/** An accepted signer; null if there is none. */
const Signer* find_accepted(const std::vector<Signer>& signers);

/** Names every signer that is not accepted, and why. */
Failure untrusted(const std::vector<Signer>& signers);

/** The description; if authorities are given, only after one of its signatures was accepted. */
Description read_description(const Package& package, const TrustOptions& trust, std::string& signer);

/** Refuses ambiguous names. */
void check_names(const Package& package);

/** Refuses an image whose size is not the described one, and a signed one without SHA-256. */
void check_image(const Package& package, const Image& image, bool is_signed);

/** Checks the names, and all images. */
void check_contents(const Package& package, const Description& description, bool is_signed);

/** Reads an entry to its end and drops it, with progress of the kind "check". Throws Failure where it is damaged. */
void read_through(const Package& package, const Entry& entry, Progress& progress);

Failure wrong_digest(const Image& image);

/** Digests of an image in the package, with progress of the kind "check". */
Digests digest_entry(const Package& package, const Image& image, Digester::Kind kind, Progress& progress);

#endif
