// SPDX-License-Identifier: Apache-2.0
/** Single calls of the library and of others that do the same work, in one process and on the same bytes. */
#include "md5.h"
#include "ota_utils.h"

#include <array>
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <random>
#include <vector>

namespace {

constexpr size_t bytes = size_t{256} << 20;

const std::vector<unsigned char>& data() {
    static const auto filled = [] {
        std::vector<unsigned char> random(bytes);
        std::mt19937_64 engine(1);
        for (size_t i = 0; i < bytes; i += sizeof(uint64_t)) {
            *reinterpret_cast<uint64_t*>(&random[i]) = engine();
        }
        return random;
    }();
    return filled;
}

void md5_tessera(benchmark::State& state) {
    md5_byte_t digest[16];
    for ([[maybe_unused]] auto step : state) {
        md5_state_t md5;
        md5_init(&md5);
        md5_append(&md5, data().data(), static_cast<int>(bytes));
        md5_finish(&md5, digest);
        benchmark::DoNotOptimize(digest);
    }
}

void md5_openssl(benchmark::State& state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    for ([[maybe_unused]] auto step : state) {
        if (EVP_Digest(data().data(), bytes, digest, nullptr, EVP_md5(), nullptr) != 1) {
            state.SkipWithError("no MD5 in this OpenSSL");
            break;
        }
        benchmark::DoNotOptimize(digest);
    }
}

void crc32_tessera(benchmark::State& state) {
    for ([[maybe_unused]] auto step : state) {
        benchmark::DoNotOptimize(CRC32(data().data(), bytes));
    }
}

/** One table lookup per byte, without any optimisation. */
[[gnu::noinline]] uint32_t plain_crc32(const std::array<uint32_t, 256>& table, const unsigned char* at, size_t size) {
    uint32_t crc = 0xFFFFFFFF;
    while (size-- > 0) {
        crc = table[(crc ^ *at++) & 0xFF] ^ crc >> 8;
    }
    return ~crc;
}

void crc32_plain(benchmark::State& state) {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        table[i] = i;
        for (int bit = 0; bit < 8; ++bit) {
            table[i] = (table[i] & 1) != 0 ? table[i] >> 1 ^ 0xEDB88320 : table[i] >> 1;
        }
    }
    if (plain_crc32(table, data().data(), 4096) != CRC32(data().data(), 4096)) {
        state.SkipWithError("the two do not agree");
    }
    for ([[maybe_unused]] auto step : state) {
        benchmark::DoNotOptimize(plain_crc32(table, data().data(), bytes));
    }
}

BENCHMARK(md5_tessera)->Iterations(1);
BENCHMARK(md5_openssl)->Iterations(1);
BENCHMARK(crc32_tessera)->Iterations(1);
BENCHMARK(crc32_plain)->Iterations(1);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    (void)data();
    benchmark::RunSpecifiedBenchmarks();
}
