#include "signature.h"

#include "failure.h"
#include "openssl_handle.h"
#include "text.h"

#include <cerrno>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace {

using Signers = std::unique_ptr<STACK_OF(X509), decltype([](STACK_OF(X509) * stack) { sk_X509_free(stack); })>;

/** The reason in OpenSSL's own words; the first error is the one behind all others. */
std::string openssl_cause() {
    const char* data = nullptr;
    int flags = 0;
    const unsigned long error = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
    const char* reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
    std::string cause = reason != nullptr ? ": " + std::string(reason) : "";
    if ((flags & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
        cause += " (" + std::string(data) + ")";
    }
    ERR_clear_error();
    return cause;
}

Bio memory(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Bio open_pem(const std::string& path) {
    Bio file(BIO_new_file(path.c_str(), "r"));
    if (file == nullptr) {
        ERR_clear_error();
        throw Failure(ExitCode::failed, "cannot open " + path + because(errno));
    }
    return file;
}

X509Store load_trust(const std::string& path) {
    X509Store store(X509_STORE_new());
    if (store == nullptr || X509_STORE_load_file(store.get(), path.c_str()) != 1) {
        throw Failure(ExitCode::failed, "cannot read the trusted certificates in " + path + openssl_cause());
    }
    /* The authority decides who signs updates; mail, which OpenSSL asks about otherwise, is not the matter. */
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    return store;
}

/** The subject of the one who signed, once the signature has been verified. */
std::string signer_of(CMS_ContentInfo* cms) {
    const Signers signers(CMS_get0_signers(cms));
    const Bio text(BIO_new(BIO_s_mem()));
    X509* first = signers != nullptr ? sk_X509_value(signers.get(), 0) : nullptr;
    if (first == nullptr || text == nullptr ||
        X509_NAME_print_ex(text.get(), X509_get_subject_name(first), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) < 0) {
        return "unknown";
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<size_t>(length)};
}

} // namespace

std::string verify_signature(const std::string& text, const std::string& signature, const std::string& trust) {
    const X509Store store = load_trust(trust);
    const Bio der = memory(signature);
    const Cms cms(d2i_CMS_bio(der.get(), nullptr));
    /* A signature that brings a content of its own vouches for that and not for the description. */
    if (cms == nullptr || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
        CMS_is_detached(cms.get()) != 1) {
        ERR_clear_error();
        throw Failure(ExitCode::refused, "the package's signature is not a detached CMS signature");
    }
    const Bio content = memory(text);
    if (CMS_verify(cms.get(), nullptr, store.get(), content.get(), nullptr, CMS_BINARY) != 1) {
        throw Failure(ExitCode::refused, "the package's signature is not valid" + openssl_cause());
    }
    return signer_of(cms.get());
}

std::string sign(const std::string& text, const std::string& key_file, const std::string& certificate_file) {
    const Key key(PEM_read_bio_PrivateKey(open_pem(key_file).get(), nullptr, nullptr, nullptr));
    if (key == nullptr) {
        throw Failure(ExitCode::failed, "cannot read the key in " + key_file + openssl_cause());
    }
    const X509Certificate certificate(PEM_read_bio_X509(open_pem(certificate_file).get(), nullptr, nullptr, nullptr));
    if (certificate == nullptr) {
        throw Failure(ExitCode::failed, "cannot read the certificate in " + certificate_file + openssl_cause());
    }
    const Bio content = memory(text);
    const Bio out(BIO_new(BIO_s_mem()));
    const Cms cms(CMS_sign(certificate.get(), key.get(), nullptr, content.get(), CMS_BINARY | CMS_DETACHED));
    if (cms == nullptr || i2d_CMS_bio(out.get(), cms.get()) != 1) {
        throw Failure(ExitCode::failed, "cannot sign" + openssl_cause());
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(out.get(), &data);
    return {data, static_cast<size_t>(length)};
}
