// SPDX-License-Identifier: Apache-2.0
/** The expected result of a write to flash, by the simplest possible model. */
#ifndef FLASH_MODEL_H
#define FLASH_MODEL_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes random_bytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    bytes data(size);
    std::ranges::generate(data, [&] { return static_cast<uint8_t>(random()); });
    return data;
}

/** Writes `data` at a logical offset, which does not count bad blocks. */
inline void put_logical(bytes& device, const bytes& data, size_t offset, const std::set<size_t>& bad, size_t block) {
    std::vector<size_t> good;
    for (size_t at = 0; at < device.size(); at += block) {
        if (!bad.contains(at / block)) {
            good.push_back(at);
        }
    }
    for (size_t i = 0; i < data.size(); ++i) {
        device[good[(offset + i) / block] + (offset + i) % block] = data[i];
    }
}

#endif
