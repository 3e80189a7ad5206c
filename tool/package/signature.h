// SPDX-License-Identifier: Apache-2.0
/**
 * Signatures over a description: CMS, detached, DER, as `openssl cms -sign -binary` makes and
 * `openssl cms -verify` checks them.
 */
#ifndef TOOL_SIGNATURE_H
#define TOOL_SIGNATURE_H

#include "package/trust.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/** One signer of a description. */
struct Signer {
    std::string name;                /* the subject of its certificate */
    std::optional<time_t> signed_at; /* as stated in its signed attributes */
    std::optional<Rejection> problem;
};

/**
 * Checks every signer in a signature.
 * @param text       what has to be signed
 * @param signature  DER
 * @param trust      the authorities; null to check only that the signature is one of `text`
 * @return one record per signer, at least one; a signature that cannot be read counts as one signer
 */
std::vector<Signer> check_signature(const std::string& text, const std::string& signature, const Trust* trust);

/** A key and its certificate. */
class SigningKey {
public:
    /**
     * Reads PEM files. Further certificates after the key's own in its file are those of the authorities
     * between it and a trusted one: they go into the signature. Throws Failure that names the file.
     */
    SigningKey(const std::string& key_file, const std::string& certificate_file);

    /** The subject of the certificate. */
    [[nodiscard]] std::string name() const {
        return subject_of(certificate_.get());
    }

    /** @return a signature of `text`, DER, with the present time as the time of signing */
    [[nodiscard]] std::string sign(const std::string& text) const;

    /** Why the certificate is or soon will be rejected; empty if there is no reason. */
    [[nodiscard]] std::string warning() const;

private:
    std::string certificate_file_;
    Key key_;
    X509Certificate certificate_;
    X509Chain others_;
};

#endif
