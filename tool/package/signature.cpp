// SPDX-License-Identifier: Apache-2.0
#include "package/signature.h"

#include "console/failure.h"
#include "console/text.h"
#include "package/pem.h"

#include <array>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace {

constexpr int days_of_warning = 90;

Bio memory(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Signer unknown_signer(const std::string& cause) {
    ERR_clear_error();
    return {"unknown", std::nullopt, Rejection{cause, ""}};
}

/** Runs `text` through the digests that the signers used. @return null when one of them is not known */
Bio digested(CMS_ContentInfo* cms, const std::string& text) {
    Bio content = memory(text);
    Bio digests(CMS_dataInit(cms, content.get()));
    if (digests == nullptr) {
        return nullptr;
    }
    (void)content.release(); /* the digests' chain ends in it */
    std::array<char, 4096> piece;
    while (BIO_read(digests.get(), piece.data(), piece.size()) > 0) {
    }
    return digests;
}

/** The time of signing among the signed attributes, when there is exactly one. */
std::optional<time_t> signing_time(const CMS_SignerInfo* info) {
    constexpr int only_one = -3;
    for (const int type : {V_ASN1_UTCTIME, V_ASN1_GENERALIZEDTIME}) {
        const auto* time = static_cast<const ASN1_TIME*>(
            CMS_signed_get0_data_by_OBJ(info, OBJ_nid2obj(NID_pkcs9_signingTime), only_one, type));
        ERR_clear_error(); /* it is of the other type */
        std::tm parts{};
        if (time != nullptr && ASN1_TIME_to_tm(time, &parts) == 1) {
            return timegm(&parts);
        }
    }
    return std::nullopt;
}

/** Whether a signer's signature is one of the text that went through `digests`, and its attributes are intact. */
bool has_signed(CMS_SignerInfo* info, BIO* digests) {
    const bool has_attributes = CMS_signed_get_attr_count(info) >= 0;
    const bool is_genuine =
        (!has_attributes || CMS_SignerInfo_verify(info) == 1) && CMS_SignerInfo_verify_content(info, digests) == 1;
    ERR_clear_error();
    return is_genuine;
}

/** How a signature identifies a signer whose certificate it does not include. */
std::string name_without_certificate(CMS_SignerInfo* info) {
    ASN1_OCTET_STRING* key = nullptr;
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    if (CMS_SignerInfo_get0_signer_id(info, &key, &issuer, &serial) != 1) {
        return "unknown";
    }
    if (issuer == nullptr) {
        return "with key " + to_hex({ASN1_STRING_get0_data(key), static_cast<size_t>(ASN1_STRING_length(key))});
    }
    return "number " + to_hex({ASN1_STRING_get0_data(serial), static_cast<size_t>(ASN1_STRING_length(serial))}) +
           " of " + name_text(issuer);
}

Signer check_signer(CMS_ContentInfo* cms, CMS_SignerInfo* info, BIO* digests, const Trust* trust) {
    X509* certificate = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, &certificate, nullptr, nullptr);
    if (certificate == nullptr) {
        return {name_without_certificate(info), std::nullopt, Rejection{"the signature lacks its certificate", ""}};
    }
    Signer signer{subject_of(certificate), std::nullopt, std::nullopt};
    if (!has_signed(info, digests)) {
        signer.problem = Rejection{"its signature does not match the description", ""};
        return signer;
    }
    signer.signed_at = signing_time(info);
    if (trust != nullptr) {
        const X509Chain others(CMS_get1_certs(cms));
        signer.problem = trust->check(certificate, others.get(), signer.signed_at);
    }
    return signer;
}

} // namespace

std::vector<Signer> check_signature(const std::string& text, const std::string& signature, const Trust* trust) {
    const Cms cms(d2i_CMS_bio(memory(signature).get(), nullptr));
    /* A signature with embedded content covers that content and not the description. */
    if (cms == nullptr || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
        CMS_is_detached(cms.get()) != 1) {
        return {unknown_signer("the signature is not a detached CMS signature")};
    }
    STACK_OF(CMS_SignerInfo)* infos = CMS_get0_SignerInfos(cms.get());
    if (sk_CMS_SignerInfo_num(infos) <= 0) {
        return {unknown_signer("the signature has no signer")};
    }
    const Bio digests = digested(cms.get(), text);
    if (digests == nullptr) {
        return {unknown_signer("the signature uses an unknown digest")};
    }
    (void)CMS_set1_signers_certs(cms.get(), nullptr, 0);
    std::vector<Signer> signers;
    signers.reserve(static_cast<size_t>(sk_CMS_SignerInfo_num(infos)));
    for (int i = 0; i < sk_CMS_SignerInfo_num(infos); ++i) {
        signers.push_back(check_signer(cms.get(), sk_CMS_SignerInfo_value(infos, i), digests.get(), trust));
    }
    ERR_clear_error();
    return signers;
}

SigningKey::SigningKey(const std::string& key_file, const std::string& certificate_file)
    : certificate_file_(certificate_file),
      key_(PEM_read_bio_PrivateKey(open_pem(key_file).get(), nullptr, nullptr, nullptr)), others_(sk_X509_new_null()) {
    ERR_clear_error();
    if (key_ == nullptr) {
        throw Failure(ExitCode::failed,
                      key_file + " contains no private key in PEM format, or its passphrase is wrong");
    }
    for (const PemBlock& block : read_pem(certificate_file)) {
        X509Certificate certificate = block.is_certificate() ? parse_certificate(block) : nullptr;
        if (certificate_ == nullptr) {
            certificate_ = std::move(certificate);
        } else if (certificate != nullptr && sk_X509_push(others_.get(), certificate.get()) > 0) {
            (void)certificate.release();
        }
    }
    if (certificate_ == nullptr) {
        throw Failure(ExitCode::failed, certificate_file + " contains no certificate in PEM format");
    }
    const bool is_pair = X509_check_private_key(certificate_.get(), key_.get()) == 1;
    ERR_clear_error();
    if (!is_pair) {
        throw Failure(ExitCode::failed, key_file + " is not the key of the certificate in " + certificate_file);
    }
}

std::string SigningKey::sign(const std::string& text) const {
    const Bio content = memory(text);
    const Bio out(BIO_new(BIO_s_mem()));
    const Cms cms(CMS_sign(certificate_.get(), key_.get(), others_.get(), content.get(), CMS_BINARY | CMS_DETACHED));
    if (cms == nullptr || i2d_CMS_bio(out.get(), cms.get()) != 1) {
        const char* reason = ERR_reason_error_string(ERR_peek_error());
        ERR_clear_error();
        throw Failure(ExitCode::failed, "cannot sign with the key of " + certificate_file_ + ": " +
                                            (reason != nullptr ? reason : "out of memory"));
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(out.get(), &data);
    return {data, static_cast<size_t>(length)};
}

std::string SigningKey::warning() const {
    const std::string whose = "the certificate of " + subject_of(certificate_.get()) + " in " + certificate_file_;
    const ASN1_TIME* start = X509_get0_notBefore(certificate_.get());
    const ASN1_TIME* end = X509_get0_notAfter(certificate_.get());
    time_t soon = std::time(nullptr) + time_t{days_of_warning} * 24 * 60 * 60;
    if (X509_cmp_current_time(start) >= 0) {
        return whose + " is not valid before " + date_text(start);
    }
    if (X509_cmp_current_time(end) <= 0) {
        return whose + " expired at " + date_text(end);
    }
    return X509_cmp_time(end, &soon) <= 0 ? whose + " expires at " + date_text(end) : "";
}
