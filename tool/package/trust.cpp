// SPDX-License-Identifier: Apache-2.0
#include "package/trust.h"

#include "console/failure.h"
#include "console/text.h"
#include "package/pem.h"

#include <algorithm>
#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace {

constexpr char clock_hint[] = "set the clock, or use the time of signing: --trust-time signing";

/**
 * Whether a list covers all certificates of its issuer and nothing else. A delta list, one for some of the
 * certificates and one on behalf of other issuers do not, nor does one with a critical extension unknown here.
 */
bool is_complete(const X509_CRL* list) {
    for (int i = 0; i < X509_CRL_get_ext_count(list); ++i) {
        X509_EXTENSION* extension = X509_CRL_get_ext(list, i);
        const int kind = OBJ_obj2nid(X509_EXTENSION_get_object(extension));
        const bool is_partial = kind == NID_delta_crl || kind == NID_issuing_distribution_point;
        const bool is_harmless = kind == NID_authority_key_identifier || kind == NID_crl_number;
        if (is_partial || (!is_harmless && X509_EXTENSION_get_critical(extension) != 0)) {
            return false;
        }
    }
    return true;
}

bool has_signed(X509* issuer, X509_CRL* list) {
    const bool may_sign = (X509_get_key_usage(issuer) & KU_CRL_SIGN) != 0;
    const bool is_genuine = may_sign && X509_CRL_verify(list, X509_get0_pubkey(issuer)) == 1;
    ERR_clear_error();
    return is_genuine;
}

bool is_without_issuer(int error) {
    return error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT || error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
           error == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE || error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
           error == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
}

} // namespace

std::string name_text(const X509_NAME* name) {
    const Bio text(BIO_new(BIO_s_mem()));
    if (text == nullptr || X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) < 0) {
        return "unknown";
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(text.get(), &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : "without a name";
}

std::string subject_of(const X509* certificate) {
    return name_text(X509_get_subject_name(certificate));
}

std::string date_text(time_t moment) {
    std::tm parts{};
    char text[64];
    const bool is_date = gmtime_r(&moment, &parts) != nullptr;
    return is_date && std::strftime(text, sizeof text, "%F %T UTC", &parts) > 0 ? text : "an unknown date";
}

std::string date_text(const ASN1_TIME* moment) {
    std::tm parts{};
    return moment != nullptr && ASN1_TIME_to_tm(moment, &parts) == 1 ? date_text(timegm(&parts)) : "an unknown date";
}

Trust::Trust(const TrustOptions& options) : file_(options.file), time_(options.time), store_(X509_STORE_new()) {
    for (const PemBlock& block : read_pem(file_)) {
        if (block.is_certificate()) {
            add_certificate(parse_certificate(block));
        } else if (block.is_revocation_list()) {
            add_list(parse_revocation_list(block));
        } else {
            throw Failure(ExitCode::failed,
                          file_ + ": " + block.kind + " is neither a certificate nor a revocation list");
        }
    }
    if (certificates_.empty()) {
        throw Failure(ExitCode::failed, file_ + " contains no certificate in PEM format");
    }
    /* The authority decides who may sign updates; the purposes in a certificate are for mail. */
    X509_STORE_set_purpose(store_.get(), X509_PURPOSE_ANY);
}

void Trust::add_certificate(X509Certificate certificate) {
    if (certificate == nullptr || X509_STORE_add_cert(store_.get(), certificate.get()) != 1) {
        throw Failure(ExitCode::failed, file_ + ": a certificate is damaged");
    }
    certificates_.push_back(std::move(certificate));
}

void Trust::add_list(RevocationList list) {
    if (list == nullptr) {
        throw Failure(ExitCode::failed, file_ + ": a revocation list is damaged");
    }
    if (!is_complete(list.get())) {
        throw Failure(ExitCode::refused, file_ + ": the revocation list of " +
                                             name_text(X509_CRL_get_issuer(list.get())) +
                                             " is a delta or indirect list; only complete lists can be used");
    }
    lists_.push_back(std::move(list));
}

std::optional<Rejection> Trust::check(X509* signer, STACK_OF(X509) * others, std::optional<time_t> signed_at) const {
    if (time_ == TrustTime::signing && !signed_at) {
        return Rejection{"its signature does not state when it was made", ""};
    }
    const time_t now = std::time(nullptr);
    const time_t moment = time_ == TrustTime::signing ? *signed_at : now;
    const X509StoreContext context(X509_STORE_CTX_new());
    if (context == nullptr || X509_STORE_CTX_init(context.get(), store_.get(), signer, others) != 1) {
        throw Failure(ExitCode::failed, "cannot check the signer " + subject_of(signer) + ": out of memory");
    }
    X509_STORE_CTX_set_time(context.get(), 0, moment);
    const bool is_issued = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();
    if (!is_issued) {
        return chain_rejection(context.get(), signer, moment);
    }
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        if (auto rejection = revocation(chain, i, now)) {
            return rejection;
        }
    }
    return std::nullopt;
}

Rejection Trust::chain_rejection(X509_STORE_CTX* context, const X509* signer, time_t moment) const {
    const int error = X509_STORE_CTX_get_error(context);
    const X509* found = X509_STORE_CTX_get_current_cert(context);
    const X509* certificate = found != nullptr ? found : signer;
    const std::string whose =
        certificate == signer ? "its certificate" : "the certificate of " + subject_of(certificate);
    const bool is_by_clock = time_ == TrustTime::now;
    const std::string when = (is_by_clock ? "the clock shows " : "it was signed at ") + date_text(moment);
    if (error == X509_V_ERR_CERT_NOT_YET_VALID) {
        return {when + ", before the start of " + whose + " at " + date_text(X509_get0_notBefore(certificate)),
                is_by_clock ? clock_hint : ""};
    }
    if (error == X509_V_ERR_CERT_HAS_EXPIRED) {
        return {when + ", after the end of " + whose + " at " + date_text(X509_get0_notAfter(certificate)),
                is_by_clock ? clock_hint : ""};
    }
    if (is_without_issuer(error)) {
        return {"no authority in " + file_ + " issued " + whose, ""};
    }
    return {whose + " is not valid: " + X509_verify_cert_error_string(error), ""};
}

/** Lists are an issuer's by name: one that renewed its key signs with the new one for certificates of both. */
bool Trust::is_signed(X509_CRL* list, X509* issuer) const {
    return has_signed(issuer, list) || std::ranges::any_of(certificates_, [&](const X509Certificate& other) {
               return X509_NAME_cmp(X509_get_subject_name(other.get()), X509_CRL_get_issuer(list)) == 0 &&
                      has_signed(other.get(), list);
           });
}

/** Every list of the issuer revokes, and one of them has to be up to date. */
std::optional<Rejection> Trust::revocation(STACK_OF(X509) * chain, int index, time_t now) const {
    const X509* certificate = sk_X509_value(chain, index);
    X509* issuer = sk_X509_value(chain, std::min(index + 1, sk_X509_num(chain) - 1));
    std::optional<Rejection> outdated;
    bool is_current = false;
    for (const RevocationList& list : lists_) {
        if (X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_subject_name(issuer)) != 0) {
            continue;
        }
        if (!is_signed(list.get(), issuer)) {
            return Rejection{"the revocation list of " + subject_of(issuer) + " in " + file_ +
                                 " is not signed by it, or by a certificate that may not sign lists",
                             ""};
        }
        X509_REVOKED* entry = nullptr;
        if (X509_CRL_get0_by_serial(list.get(), &entry, X509_get0_serialNumber(certificate)) != 0) {
            return Rejection{"certificate revoked" + (index == 0 ? "" : ": " + subject_of(certificate)), ""};
        }
        const auto rejection = date_rejection(list.get(), now);
        is_current = is_current || !rejection;
        outdated = rejection;
    }
    return is_current ? std::nullopt : outdated;
}

std::optional<Rejection> Trust::date_rejection(const X509_CRL* list, time_t now) const {
    const ASN1_TIME* start = X509_CRL_get0_lastUpdate(list);
    const ASN1_TIME* end = X509_CRL_get0_nextUpdate(list);
    const std::string name = "the revocation list of " + name_text(X509_CRL_get_issuer(list));
    const int starts = X509_cmp_time(start, &now); /* 0 is a date that cannot be read */
    const int ends = end != nullptr ? X509_cmp_time(end, &now) : 1;
    ERR_clear_error();
    if (starts == 0 || ends == 0) {
        return Rejection{name + " has a date that cannot be read", ""};
    }
    if (starts > 0 && time_ == TrustTime::now) {
        return Rejection{"the clock shows " + date_text(now) + ", before the start of " + name + " at " +
                             date_text(start),
                         clock_hint};
    }
    if (starts < 0 && ends < 0) {
        return Rejection{name + " is out of date: it expired at " + date_text(end), "add a newer list to " + file_};
    }
    return std::nullopt;
}
