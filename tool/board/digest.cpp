// SPDX-License-Identifier: Apache-2.0
#include "board/digest.h"

#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <array>
#include <climits>

namespace {

void demand(int result) {
    if (result != 1) {
        throw Failure(ExitCode::failed, "OpenSSL cannot compute SHA-256");
    }
}

} // namespace

BlockHasher::BlockHasher() : sha256_(EVP_MD_CTX_new()) {
    demand(sha256_ != nullptr ? EVP_DigestInit_ex(sha256_.get(), EVP_sha256(), nullptr) : 0);
}

block_hash BlockHasher::hash(std::span<const uint8_t> block) {
    std::array<uint8_t, 32> sha256;
    demand(EVP_DigestInit_ex(sha256_.get(), nullptr, nullptr)); /* the algorithm stays: looking it up is slow */
    demand(EVP_DigestUpdate(sha256_.get(), block.data(), block.size()));
    demand(EVP_DigestFinal_ex(sha256_.get(), sha256.data(), nullptr));
    block_hash hash;
    std::copy_n(sha256.begin(), hash.size(), hash.begin());
    return hash;
}

Digester::Digester(Kind kind) : kind_(kind) {
    md5_init(&md5_);
    if (kind != Kind::md5) {
        sha256_.reset(EVP_MD_CTX_new());
        demand(sha256_ != nullptr ? EVP_DigestInit_ex(sha256_.get(), EVP_sha256(), nullptr) : 0);
    }
}

void Digester::add(std::span<const uint8_t> bytes) {
    if (sha256_ != nullptr) {
        demand(EVP_DigestUpdate(sha256_.get(), bytes.data(), bytes.size()));
    }
    if (kind_ == Kind::sha256) {
        return;
    }
    for (; !bytes.empty(); bytes = bytes.subspan(std::min<size_t>(bytes.size(), INT_MAX))) {
        md5_append(&md5_, bytes.data(), static_cast<int>(std::min<size_t>(bytes.size(), INT_MAX)));
    }
}

Digests Digester::finish() {
    Digests digests;
    if (kind_ != Kind::sha256) {
        std::array<uint8_t, 16> md5;
        md5_finish(&md5_, md5.data());
        digests.md5 = to_hex(md5);
    }
    if (sha256_ != nullptr) {
        std::array<uint8_t, 32> sha256;
        demand(EVP_DigestFinal_ex(sha256_.get(), sha256.data(), nullptr));
        digests.sha256 = to_hex(sha256);
    }
    return digests;
}
