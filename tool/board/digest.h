// SPDX-License-Identifier: Apache-2.0
/** The digests of an image: MD5 for the board's records, SHA-256 for trust. */
#ifndef TOOL_DIGEST_H
#define TOOL_DIGEST_H

#include "board/openssl_handle.h"
#include "format/block_map.h"
#include "velox_ota_hl.h"

#include <cstdint>
#include <span>
#include <string>

/** Lower-case hexadecimal; a digest that was not requested is empty. */
struct Digests {
    std::string md5;
    std::string sha256;
};

class Digester {
public:
    enum class Kind { md5, sha256, both };

    explicit Digester(Kind kind);
    void add(std::span<const uint8_t> bytes);
    /** Ends the message. */
    Digests finish();

private:
    Kind kind_;
    md5_state_t md5_{};
    DigestContext sha256_; /* null if not requested */
};

/** Hashes the blocks of an image as its block map has them. Each thread needs its own. */
class BlockHasher {
public:
    BlockHasher();
    [[nodiscard]] block_hash hash(std::span<const uint8_t> block);

private:
    DigestContext sha256_;
};

#endif
