/**
 * What a package shows by itself, on any machine: who signed it, and whether its images are those that it
 * describes.
 */
#ifndef TOOL_PACKAGE_CHECK_H
#define TOOL_PACKAGE_CHECK_H

#include "description.h"
#include "failure.h"
#include "package.h"
#include "progress.h"
#include "signature.h"

#include <string>
#include <vector>

/** Refuses a time to check at without an authority to check. */
void check_trust_options(const TrustOptions& trust);

/** Checks every signer of every signature in the package; none where it is not signed. */
std::vector<Signer> check_signers(const Package& package, const std::string& text, const Trust* trust);

/** One that was accepted; else null. */
const Signer* find_accepted(const std::vector<Signer>& signers);

/** Names every signer, and why it is not accepted. */
Failure untrusted(const std::vector<Signer>& signers);

/** The description, believed only after one of its signatures where an authority is named. */
Description read_description(const Package& package, const TrustOptions& trust, std::string& signer);

/** Refuses names that mean two things. */
void check_names(const Package& package);

/** Refuses an image whose size is not the described one, and a signed one without SHA-256. */
void check_image(const Package& package, const Image& image, bool is_signed);

/** Checks the names, and all images. */
void judge_images(const Package& package, const Description& description, bool is_signed);

Failure wrong_digest(const Image& image);

/** Digests of an image in the package, with progress of the kind "check". */
Digests digest_entry(const Package& package, const Image& image, Digester::Kind kind, Progress& progress);

#endif
