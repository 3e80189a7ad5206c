// SPDX-License-Identifier: Apache-2.0
/** Owners of those of libcrypto's objects that only the command uses, and its names for the others. */
#ifndef TOOL_OPENSSL_HANDLE_H
#define TOOL_OPENSSL_HANDLE_H

#include "internal/openssl_owner.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>

/** A list that owns its certificates; their release is a macro to OpenSSL. */
struct X509ChainReleaser {
    void operator()(STACK_OF(X509) * chain) const {
        sk_X509_pop_free(chain, X509_free);
    }
};

using Bio = std::unique_ptr<BIO, ota_releaser<BIO_free_all>>;
using Cms = std::unique_ptr<CMS_ContentInfo, ota_releaser<CMS_ContentInfo_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, ota_releaser<EVP_MD_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, ota_releaser<EVP_PKEY_free>>;
using RevocationList = std::unique_ptr<X509_CRL, ota_releaser<X509_CRL_free>>;
using X509Certificate = ota_certificate;
using X509Chain = std::unique_ptr<STACK_OF(X509), X509ChainReleaser>;
using X509Store = std::unique_ptr<X509_STORE, ota_releaser<X509_STORE_free>>;
using X509StoreContext = std::unique_ptr<X509_STORE_CTX, ota_releaser<X509_STORE_CTX_free>>;

#endif
