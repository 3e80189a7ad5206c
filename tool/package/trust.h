// SPDX-License-Identifier: Apache-2.0
/**
 * The authorities whose signatures are accepted: a PEM file of their certificates and of the revocation
 * lists that they issued.
 */
#ifndef TOOL_TRUST_H
#define TOOL_TRUST_H

#include "board/openssl_handle.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/** The moment at which a signer's certificates have to be valid. */
enum class TrustTime { now, signing };

struct TrustOptions {
    std::string file; /* empty: no authority is given, and no signature is required */
    TrustTime time = TrustTime::now;
};

/** Why a signer is rejected, and the remedy; the hint may be empty. */
struct Rejection {
    std::string cause;
    std::string hint;
};

class Trust {
public:
    /** Reads the file. Throws Failure when it cannot be read or holds a list that cannot be applied. */
    explicit Trust(const TrustOptions& options);

    /**
     * Checks that `signer` leads to one of the authorities, that all certificates up to there are valid at the
     * requested time, and that none is on a revocation list of its issuer. An issuer without a list in the
     * file revokes nothing. Lists are checked against the clock, whichever time is requested: a list is
     * renewed for as long as packages are installed, and a signer that was revoked since must be rejected.
     * @param others     certificates that may lie in between; may be null
     * @param signed_at  when the signature states that it was made, if it does
     * @return why the signer is rejected, or nothing
     */
    [[nodiscard]] std::optional<Rejection> check(X509* signer, STACK_OF(X509) * others,
                                                 std::optional<time_t> signed_at) const;

private:
    void add_certificate(X509Certificate certificate);
    void add_list(RevocationList list);
    [[nodiscard]] Rejection chain_rejection(X509_STORE_CTX* context, const X509* signer, time_t moment) const;
    [[nodiscard]] std::optional<Rejection> revocation(STACK_OF(X509) * chain, int index, time_t now) const;
    [[nodiscard]] std::optional<Rejection> date_rejection(const X509_CRL* list, time_t now) const;
    [[nodiscard]] bool is_signed(X509_CRL* list, X509* issuer) const;

    std::string file_;
    TrustTime time_;
    X509Store store_;
    std::vector<X509Certificate> certificates_;
    std::vector<RevocationList> lists_;
};

/** A distinguished name on one line. */
std::string name_text(const X509_NAME* name);
std::string subject_of(const X509* certificate);

/** "2026-01-31 12:00:00 UTC" */
std::string date_text(time_t moment);
std::string date_text(const ASN1_TIME* moment);

#endif
