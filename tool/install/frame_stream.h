// SPDX-License-Identifier: Apache-2.0
/** The bytes of an image in order, unpacked by several threads. */
#ifndef TOOL_FRAME_STREAM_H
#define TOOL_FRAME_STREAM_H

#include "package/image_reader.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

/**
 * Reads frames and unpacks them ahead of the caller, as far as its buffers reach. A frame without hashes has already
 * been unpacked by its reader, so one thread suffices then.
 */
class FrameStream {
public:
    /**
     * @param reader         has to live as long as the stream, which is its only user
     * @param file           name of the image, for messages
     * @param checks_hashes  whether each block is compared with its hash, where there is one
     */
    FrameStream(ImageReader& reader, std::string file, bool checks_hashes);
    /** Waits for the threads; none of them works on another frame. */
    ~FrameStream();
    FrameStream(const FrameStream&) = delete;
    FrameStream& operator=(const FrameStream&) = delete;

    /**
     * @return the next bytes of the image, valid until the next call; empty at its end
     * Throws Failure: the first in the order of the image, when everything before it has been returned; or if
     * interrupted.
     */
    std::span<const uint8_t> next();

private:
    struct Slot {
        PackedFrame frame{};
        std::vector<uint8_t> memory;
        std::span<const uint8_t> bytes;
        std::exception_ptr failure;
        bool is_ready = false;
    };

    void start(size_t threads);
    void work();
    Slot* take();
    bool read(Slot& slot);
    void unpack(FrameUnpacker& unpacker, Slot& slot) const;
    std::span<const uint8_t> next_without_threads();

    ImageReader& reader_;
    std::string file_;
    bool checks_hashes_;
    std::mutex reading_; /* held by the thread that uses `reader_`; taken before `mutex_` */
    std::mutex mutex_;   /* for everything below */
    std::condition_variable freed_;
    std::condition_variable ready_;
    std::vector<Slot> slots_;
    uint64_t taken_ = 0;   /* frames that a thread has read; frame n is in slot n modulo their number */
    uint64_t given_ = 0;   /* frames that the caller has finished with */
    bool is_held_ = false; /* the caller uses frame `given_` */
    bool has_ended_ = false;
    bool is_stopped_ = false;
    FrameUnpacker unpacker_; /* for a system that has no threads to give */
    std::vector<std::thread> threads_;
};

#endif
