/** Owners of what a unit opens or allocates: released when they go out of scope, on every path. */
#ifndef OTA_HANDLE_H
#define OTA_HANDLE_H

/* minizip's header makes 64-bit file calls of plain ones in every system header that follows it. The
 * board knows one kind only, so the system's headers come first. */
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <minizip/unzip.h>
#include <openssl/asn1.h>
#include <openssl/x509.h>
#include <utility>

template <auto Release>
struct ota_releaser {
    template <class T>
    void operator()(T* resource) const {
        Release(resource);
    }
};

using ota_stream = std::unique_ptr<FILE, ota_releaser<std::fclose>>;
using ota_directory = std::unique_ptr<DIR, ota_releaser<closedir>>;
using ota_package = std::unique_ptr<void, ota_releaser<unzClose>>;
using ota_certificate = std::unique_ptr<X509, ota_releaser<X509_free>>;
using ota_asn1_integer = std::unique_ptr<ASN1_INTEGER, ota_releaser<ASN1_INTEGER_free>>;

/** Memory from malloc or calloc: a failed allocation is a null pointer and not an exception. */
template <class T>
using ota_memory = std::unique_ptr<T, ota_releaser<std::free>>;

/** An open file descriptor, or -1. */
class ota_descriptor {
public:
    explicit ota_descriptor(int fd) : fd_(fd) {
    }
    ota_descriptor(const ota_descriptor&) = delete;
    ota_descriptor& operator=(const ota_descriptor&) = delete;
    ~ota_descriptor() {
        reset(-1);
    }

    [[nodiscard]] int get() const {
        return fd_;
    }
    [[nodiscard]] bool is_open() const {
        return fd_ >= 0;
    }
    /** Closes what is held and takes `fd`. */
    void reset(int fd) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }
    /** Hands the descriptor to the caller, who closes it. */
    int release() {
        return std::exchange(fd_, -1);
    }

private:
    int fd_;
};

#endif
