// SPDX-License-Identifier: Apache-2.0
/**
 * Reads an image back from its device while later parts of it are still being written, and computes its digest.
 *
 * On a block device a thread of its own reads: it waits until the kernel has written the bytes to the device, drops
 * them from the page cache, and reads with O_DIRECT. Before the device is synced, it may answer from its own volatile
 * cache. Flash devices write through and do one thing at a time, so they are read in the calling thread.
 */
#ifndef TOOL_READ_BACK_H
#define TOOL_READ_BACK_H

#include "board/device.h"
#include "board/digest.h"

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class ReadBack {
public:
    /** Called again and again while the caller has to wait; may throw. */
    using Tick = std::function<void()>;

    /** @param size  bytes of the image */
    ReadBack(const std::string& device, uint64_t size, Digester::Kind kind);
    /** Waits for the thread, which reads no further. */
    ~ReadBack();
    ReadBack(const ReadBack&) = delete;
    ReadBack& operator=(const ReadBack&) = delete;

    /**
     * The bytes before `end` have been written. Waits while more than 16 MiB of them have not been read back, which
     * bounds dirty memory. Throws the failure of the reading.
     */
    void follow(uint64_t end, const Tick& tick);
    /** Reads the rest. To be called when everything has been written and synced. Throws like follow(). */
    Digests finish(const Tick& tick);

    /** Bytes read back so far. */
    [[nodiscard]] uint64_t done();
    /** Whether the ECC could not correct a page that was read. Valid after finish(). */
    [[nodiscard]] bool has_lost_reads() const {
        return has_lost_reads_;
    }

private:
    void start();
    void work();
    void read_step(uint64_t begin);
    void read_up_to(uint64_t limit, const Tick& tick);
    void wait_for(uint64_t done, const Tick& tick);

    Device device_;
    uint64_t size_;
    Digester digester_;
    std::unique_ptr<uint8_t, void (*)(void*)> buffer_;
    bool has_lost_reads_ = false;
    std::mutex mutex_; /* for what is below, except the thread */
    std::condition_variable changed_;
    uint64_t done_ = 0;
    uint64_t limit_ = 0; /* how far may be read */
    std::exception_ptr failure_;
    bool is_stopped_ = false;
    std::thread thread_; /* not started for a short image */
};

#endif
