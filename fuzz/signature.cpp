/** Whatever the signature: none vouches for a text that was not signed, and a refusal is a Failure. */
#include "signature.h"

#include "box.h"
#include "failure.h"
#include "openssl_handle.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/pem.h>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

/* A signature that is refused early leaves a BIO of CMS_verify's own behind, once in the life of the command. */
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libcrypto.so";
}

static const std::string text = "the description";
static std::string sound; /* the signature of the text */

/* Keys and certificates are the same each time, so that what was found before keeps its meaning. */

/** The key whose private number is 1: its point is the generator of the curve. */
static Key signer_key() {
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

/** Writes a certificate for `key`, by the authority, to the file `name`. */
static void certify(const char* name, EVP_PKEY* key, EVP_PKEY* authority) {
    const X509Certificate certificate(X509_new());
    X509* const x = certificate.get();
    const auto call = [](X509_NAME* of, const char* text) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(text);
        return X509_NAME_add_entry_by_txt(of, "CN", MBSTRING_ASC, bytes, -1, -1, 0) == 1;
    };
    must(ASN1_INTEGER_set(X509_get_serialNumber(x), 1) == 1 && X509_set_pubkey(x, key) == 1 &&
         ASN1_TIME_set_string_X509(X509_getm_notBefore(x), "20000101000000Z") == 1 &&
         ASN1_TIME_set_string_X509(X509_getm_notAfter(x), "20991231235959Z") == 1 &&
         call(X509_get_subject_name(x), name) && call(X509_get_issuer_name(x), "trust") &&
         X509_sign(x, authority, nullptr) > 0 && PEM_write_bio_X509(Bio(BIO_new_file(name, "w")).get(), x) == 1);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    put_input(nullptr, 0); /* enters the box */
    const uint8_t seed[32] = {1};
    const Key key = signer_key(), authority(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof seed));
    certify("trust", authority.get(), authority.get());
    certify("signer", key.get(), authority.get());
    must(PEM_write_bio_PrivateKey(Bio(BIO_new_file("key", "w")).get(), key.get(), nullptr, nullptr, 0, nullptr,
                                  nullptr) == 1);
    sound = sign(text, "key", "signer");
    must(verify_signature(text, sound, "trust") == "CN = signer");
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
