/** Whatever the signature: none vouches for a text that was not signed, and a refusal is a Failure. */
#include "signature.h"

#include "box.h"
#include "failure.h"
#include "openssl_handle.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/pem.h>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

static const std::string text = "the description";
static std::string sound; /* the signature of the text */

/** The key whose private number is 1, so that what was found before keeps its meaning: its point is the generator. */
static Key well_known_key() {
    const std::unique_ptr<EC_GROUP, OpensslReleaser<EC_GROUP_free>> group(
        EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    unsigned char number[32] = {1}, point[65];
    char curve[] = "P-256";
    must(EC_POINT_point2oct(group.get(), EC_GROUP_get0_generator(group.get()), POINT_CONVERSION_UNCOMPRESSED, point,
                            sizeof point, nullptr) == sizeof point);
    OSSL_PARAM params[] = {OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, curve, 0),
                           OSSL_PARAM_BN(OSSL_PKEY_PARAM_PRIV_KEY, number, sizeof number),
                           OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point), OSSL_PARAM_END};
    const std::unique_ptr<EVP_PKEY_CTX, OpensslReleaser<EVP_PKEY_CTX_free>> context(
        EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    must(EVP_PKEY_fromdata_init(context.get()) == 1 &&
         EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, params) == 1);
    return Key(key);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    put_input(nullptr, 0); /* enters the box */
    const Key key = well_known_key();
    const X509Certificate certificate(X509_new());
    X509* const x = certificate.get();
    X509_NAME* const name = X509_get_subject_name(x);
    const auto* common_name = reinterpret_cast<const unsigned char*>("fuzz");
    must(ASN1_INTEGER_set(X509_get_serialNumber(x), 1) == 1 &&
         ASN1_TIME_set_string_X509(X509_getm_notBefore(x), "20000101000000Z") == 1 &&
         ASN1_TIME_set_string_X509(X509_getm_notAfter(x), "20991231235959Z") == 1 &&
         X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common_name, -1, -1, 0) == 1 &&
         X509_set_issuer_name(x, name) == 1 && X509_set_pubkey(x, key.get()) == 1 &&
         X509_sign(x, key.get(), EVP_sha256()) > 0);
    must(PEM_write_bio_PrivateKey(Bio(BIO_new_file("key", "w")).get(), key.get(), nullptr, nullptr, 0, nullptr,
                                  nullptr) == 1 &&
         PEM_write_bio_X509(Bio(BIO_new_file("trust", "w")).get(), x) == 1);
    sound = sign(text, "key", "trust");
    must(verify_signature(text, sound, "trust") == "CN = fuzz");
    return 0;
}

/* Bytes out of nothing are never a signature, so what is mutated is now and then a sound one. */
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    if (seed % 16 == 0 && sound.size() <= max_size) {
        size = sound.copy(reinterpret_cast<char*>(data), sound.size());
    }
    return LLVMFuzzerMutate(data, size, max_size);
}

static bool is_vouched_for(const std::string& described, const std::string& signature) {
    try {
        return !verify_signature(described, signature, "trust").empty();
    } catch (const Failure& failure) {
        must(failure.code == ExitCode::refused);
        return false;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string signature(reinterpret_cast<const char*>(data), size);
    must(!is_vouched_for("the descriptioN", signature));
    (void)is_vouched_for(text, signature);
    return 0;
}
