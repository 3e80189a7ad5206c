// SPDX-License-Identifier: Apache-2.0
#include "install/frame_stream.h"

#include "console/interrupt.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr unsigned most_threads = 8;
constexpr size_t frames_ahead = 4; /* besides those that the threads are unpacking */
constexpr auto interrupt_interval = 100ms;

} // namespace

FrameStream::FrameStream(ImageReader& reader, std::string file, bool checks_hashes)
    : reader_(reader), file_(std::move(file)), checks_hashes_(checks_hashes), unpacker_(file_) {
    const unsigned processors = std::clamp(std::thread::hardware_concurrency(), 1U, most_threads);
    const size_t threads = reader.has_hashes() ? processors : 1;
    slots_.resize(threads + frames_ahead);
    start(threads);
}

FrameStream::~FrameStream() {
    {
        const std::lock_guard lock(mutex_);
        is_stopped_ = true;
    }
    reader_.abandon();
    freed_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

/** Starts as many as the system allows. */
void FrameStream::start(size_t threads) {
    try {
        threads_.reserve(threads);
        while (threads_.size() < threads) {
            threads_.emplace_back([this] { work(); });
        }
    } catch (const std::system_error&) { /* those that were started do the work; without any, next() does it */
    }
}

/* ---- in the threads ---- */

/** @return false at the end of the image. A failure is that of the frame. */
bool FrameStream::read(Slot& slot) {
    slot.failure = nullptr;
    try {
        return reader_.next(slot.frame);
    } catch (...) {
        slot.failure = std::current_exception();
        return true;
    }
}

void FrameStream::unpack(FrameUnpacker& unpacker, Slot& slot) const {
    if (slot.failure != nullptr) {
        return;
    }
    if (!checks_hashes_) {
        slot.frame.hashes.clear();
    }
    try {
        slot.bytes = unpacker.unpack(slot.frame, slot.memory);
    } catch (...) {
        slot.failure = std::current_exception();
    }
}

/** Reads the next frame. @return null when there is nothing left to do */
FrameStream::Slot* FrameStream::take() {
    const std::lock_guard reading(reading_);
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [this] { return is_stopped_ || has_ended_ || taken_ - given_ < slots_.size(); });
    if (is_stopped_ || has_ended_) {
        return nullptr;
    }
    Slot& slot = slots_[taken_ % slots_.size()];
    lock.unlock();
    const bool has_frame = read(slot);
    lock.lock();
    has_ended_ = !has_frame || slot.failure != nullptr;
    taken_ += has_frame ? 1 : 0;
    if (!has_frame) {
        ready_.notify_one();
    }
    return has_frame ? &slot : nullptr;
}

void FrameStream::work() {
    FrameUnpacker unpacker(file_);
    while (Slot* slot = take()) {
        unpack(unpacker, *slot);
        {
            const std::lock_guard lock(mutex_);
            slot->is_ready = true;
        }
        ready_.notify_one();
    }
}

/* ---- for the caller ---- */

std::span<const uint8_t> FrameStream::next_without_threads() {
    Slot& slot = slots_.front();
    if (!read(slot)) {
        return {};
    }
    unpack(unpacker_, slot);
    if (slot.failure != nullptr) {
        std::rethrow_exception(slot.failure);
    }
    return slot.bytes;
}

std::span<const uint8_t> FrameStream::next() {
    if (threads_.empty()) {
        stop_if_interrupted();
        return next_without_threads();
    }
    std::unique_lock lock(mutex_);
    if (std::exchange(is_held_, false)) {
        slots_[given_++ % slots_.size()].is_ready = false;
        freed_.notify_one();
    }
    Slot& slot = slots_[given_ % slots_.size()];
    const auto is_decided = [&] { return given_ < taken_ ? slot.is_ready : has_ended_; };
    while (!ready_.wait_for(lock, interrupt_interval, is_decided)) {
        stop_if_interrupted();
    }
    stop_if_interrupted();
    if (given_ == taken_) {
        return {};
    }
    if (slot.failure != nullptr) {
        std::rethrow_exception(slot.failure);
    }
    is_held_ = true;
    return slot.bytes;
}
