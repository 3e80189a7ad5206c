// SPDX-License-Identifier: Apache-2.0
/** Owners of OpenSSL's objects. */
#ifndef TOOL_OPENSSL_HANDLE_H
#define TOOL_OPENSSL_HANDLE_H

#include <memory>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

template <auto Release>
struct OpensslReleaser {
    template <class T>
    void operator()(T* thing) const {
        Release(thing);
    }
};

/** A list that owns its certificates; their release is a macro to OpenSSL. */
struct X509ChainReleaser {
    void operator()(STACK_OF(X509) * chain) const {
        sk_X509_pop_free(chain, X509_free);
    }
};

using Asn1Integer = std::unique_ptr<ASN1_INTEGER, OpensslReleaser<ASN1_INTEGER_free>>;
using Bio = std::unique_ptr<BIO, OpensslReleaser<BIO_free_all>>;
using Cms = std::unique_ptr<CMS_ContentInfo, OpensslReleaser<CMS_ContentInfo_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, OpensslReleaser<EVP_MD_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, OpensslReleaser<EVP_PKEY_free>>;
using RevocationList = std::unique_ptr<X509_CRL, OpensslReleaser<X509_CRL_free>>;
using X509Certificate = std::unique_ptr<X509, OpensslReleaser<X509_free>>;
using X509Chain = std::unique_ptr<STACK_OF(X509), X509ChainReleaser>;
using X509Store = std::unique_ptr<X509_STORE, OpensslReleaser<X509_STORE_free>>;
using X509StoreContext = std::unique_ptr<X509_STORE_CTX, OpensslReleaser<X509_STORE_CTX_free>>;

#endif
