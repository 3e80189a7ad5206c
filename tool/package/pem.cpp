// SPDX-License-Identifier: Apache-2.0
#include "package/pem.h"

#include "console/failure.h"
#include "console/text.h"
#include "internal/ota_owner.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t largest_file = size_t{64} << 20; /* with lists of a million certificates */

template <class T>
T* whole(T* thing, const unsigned char* end, const PemBlock& block, void (*release)(T*)) {
    ERR_clear_error();
    if (thing != nullptr && end != block.der.data() + block.der.size()) {
        release(thing);
        return nullptr;
    }
    return thing;
}

std::string read_text(const std::string& path) {
    const Bio file = open_pem(path);
    std::string text;
    std::array<char, 4096> piece;
    for (int got = 0; (got = BIO_read(file.get(), piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<size_t>(got));
        if (text.size() > largest_file) {
            throw Failure(ExitCode::failed, path + " is larger than " + human_bytes(largest_file));
        }
    }
    if (text.find('\0') != std::string::npos) {
        throw Failure(ExitCode::failed, path + " contains binary data; only PEM can be read");
    }
    return text;
}

ptrdiff_t count(const std::string& text, std::string_view word) {
    ptrdiff_t found = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        ++found;
    }
    return found;
}

} // namespace

bool PemBlock::is_certificate() const {
    return kind == PEM_STRING_X509 || kind == PEM_STRING_X509_OLD || kind == PEM_STRING_X509_TRUSTED;
}

bool PemBlock::is_revocation_list() const {
    return kind == PEM_STRING_X509_CRL;
}

/** A pipe is accepted like a file, but opening a FIFO does not wait for a writer. */
Bio open_pem(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        throw Failure(ExitCode::failed, "cannot open " + path + because(errno));
    }
    (void)fcntl(fd, F_SETFL, 0);
    struct stat status {};
    const bool is_directory = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    ota_stream stream(is_directory ? nullptr : fdopen(fd, "r"));
    if (stream == nullptr) {
        close(fd);
        throw Failure(ExitCode::failed, "cannot open " + path + because(is_directory ? EISDIR : ENOMEM));
    }
    Bio file(BIO_new_fp(stream.get(), BIO_CLOSE));
    if (file == nullptr) {
        throw Failure(ExitCode::failed, "cannot open " + path + because(ENOMEM));
    }
    (void)stream.release(); /* closed with `file` */
    return file;
}

std::vector<PemBlock> read_pem(const std::string& path) {
    const std::string text = read_text(path);
    const Bio file(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    std::vector<PemBlock> blocks;
    char* kind = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (PEM_read_bio(file.get(), &kind, &header, &data, &length) == 1) {
        blocks.push_back({kind, {data, data + length}});
        OPENSSL_free(kind);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    const bool is_at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    /* A skipped list would revoke nothing, so every block that may be one has to be read. */
    const auto lists = std::ranges::count_if(blocks, &PemBlock::is_revocation_list);
    if (!is_at_end || count(text, "BEGIN " PEM_STRING_X509_CRL) != lists) {
        throw Failure(ExitCode::failed, path + ": a PEM block is damaged");
    }
    return blocks;
}

X509Certificate parse_certificate(const PemBlock& block) {
    const unsigned char* at = block.der.data();
    const auto length = static_cast<long>(block.der.size());
    const bool has_settings = block.kind == PEM_STRING_X509_TRUSTED;
    X509* parsed = has_settings ? d2i_X509_AUX(nullptr, &at, length) : d2i_X509(nullptr, &at, length);
    return X509Certificate(whole(parsed, at, block, X509_free));
}

RevocationList parse_revocation_list(const PemBlock& block) {
    const unsigned char* at = block.der.data();
    X509_CRL* parsed = d2i_X509_CRL(nullptr, &at, static_cast<long>(block.der.size()));
    return RevocationList(whole(parsed, at, block, X509_CRL_free));
}
