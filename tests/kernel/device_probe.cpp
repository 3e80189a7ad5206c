// SPDX-License-Identifier: Apache-2.0
/**
 * Sends requests to a device and prints each result. The output for the kernel's devices and for the
 * simulated ones has to be the same.
 *
 * usage: device_probe mtd|ubi DEVICE
 */
#include "device_request.h"
#include "flash_model.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t page_size = 2048;
const bytes page = random_bytes(page_size, 1), other_page = random_bytes(page_size, 3), erased(page_size, 0xff);
int fd, read_only; /* the device, opened twice */

void report(const char* question, long answer) {
    std::printf("probe %s: %ld %s\n", question, answer, answer < 0 ? strerrorname_np(errno) : "");
}

long put(off_t at, const bytes& data, int by = fd) {
    return pwrite(by, data.data(), data.size(), at);
}

long get(off_t at, size_t count) {
    return pread(fd, bytes(count).data(), count, at);
}

bool holds(off_t at, const bytes& data) {
    bytes found(data.size());
    return pread(fd, found.data(), found.size(), at) == ssize(data) && found == data;
}

template <class Argument>
int ask(unsigned long request, Argument argument, int by = fd) {
    return ioctl(by, request, &argument);
}

/** Block 0 is good and erased. */
void probe_transfers(off_t size) {
    report("read what is erased", holds(0, erased));
    report("write 100 bytes", put(0, bytes(100)));
    report("write at 100", put(100, page));
    report("write read-only", put(0, page, read_only));
    report("write", put(0, page));
    report("read what was written", holds(0, page));
    report("write the same", put(0, page));
    report("read what was written twice", holds(0, page));
    report("write something else", put(0, other_page));
    report("read that", get(0, page_size));
    report("read after that", get(page_size, page_size));
    report("read across the end", get(size - 100, page_size));
    report("read at the end", get(size, 100));
    report("write across the end", put(size - 100, page));
    report("write at the end", put(size, page));
    report("sync", fsync(fd));
}

/** Block 1 is bad. */
void probe_mtd() {
    mtd_info_user info{};
    report("MEMGETINFO", ioctl(fd, MEMGETINFO, &info));
    std::printf("probe type %u flags %x size %u erase %u write %u oob %u\n", info.type, info.flags, info.size,
                info.erasesize, info.writesize, info.oobsize);
    const auto block = loff_t{info.erasesize};
    const auto erase = [](loff_t start, loff_t length, int by = fd) {
        return ask(MEMERASE64, erase_info_user64{static_cast<uint64_t>(start), static_cast<uint64_t>(length)}, by);
    };
    report("ask for a good block", ask(MEMGETBADBLOCK, loff_t{0}));
    report("ask for a bad block", ask(MEMGETBADBLOCK, block + 100));
    report("ask past the end", ask(MEMGETBADBLOCK, loff_t{info.size}));
    report("erase a bad block", erase(block, block));
    report("erase half a block", erase(0, block / 2));
    report("erase past the end", erase(info.size, block));
    report("erase read-only", erase(0, block, read_only));
    report("erase", erase(0, block));
    probe_transfers(info.size);
    mtd_ecc_stats stats{};
    report("ECCGETSTATS", ioctl(fd, ECCGETSTATS, &stats));
    report("the ECC failed", stats.failed > 0);
    report("write ones and zeros", put(block / 2, bytes(page_size, 0xf1)));
    report("write others over them", put(block / 2, bytes(page_size, 0x3f)));
    report("read both", holds(block / 2, bytes(page_size, 0x31)));
    report("write to a bad block", put(block, page));
    report("read a bad block", get(block, page_size));
    report("read past the end", get(info.size + block, 100));
    report("mark a block bad", ask(MEMSETBADBLOCK, 2 * block));
    report("ask for the marked block", ask(MEMGETBADBLOCK, 2 * block));
    report("erase the marked block", erase(2 * block, block));
}

void probe_ubi() {
    ubi_geometry info{};
    report("UBI_IOCVOLINFO", ubi_get_geometry(fd, &info));
    report("write before it is allowed", put(0, page));
    report("set an unknown property", ask(UBI_IOCSETVOLPROP, ubi_set_vol_prop_req{77, {}, 1}));
    report("allow direct writes", ask(UBI_IOCSETVOLPROP, ubi_set_vol_prop_req{UBI_VOL_PROP_DIRECT_WRITE, {}, 1}));
    report("erase LEB -1", ask(UBI_IOCEBER, int32_t{-1}));
    report("erase past the end", ask(UBI_IOCEBER, static_cast<int32_t>(info.used_size / info.leb_size)));
    report("erase read-only", ask(UBI_IOCEBER, int32_t{0}, read_only));
    report("erase", ask(UBI_IOCEBER, int32_t{0}));
    report("ask for an erased LEB", ask(UBI_IOCEBISMAP, int32_t{0}));
    probe_transfers(info.used_size);
    report("ask for a written LEB", ask(UBI_IOCEBISMAP, int32_t{0}));
    report("read the whole LEB", get(0, static_cast<size_t>(info.leb_size)));
    report("unmap", ask(UBI_IOCEBUNMAP, int32_t{0}));
    report("read what is unmapped", holds(0, erased));
}

} // namespace

int main(int /*count*/, char** words) {
    fd = open(words[2], O_RDWR);
    read_only = open(words[2], O_RDONLY);
    if (fd < 0 || read_only < 0) {
        std::perror(words[2]);
        return 1;
    }
    (std::strcmp(words[1], "mtd") == 0 ? probe_mtd : probe_ubi)();
    return 0;
}
