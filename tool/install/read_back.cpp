// SPDX-License-Identifier: Apache-2.0
#include "install/read_back.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <system_error>

namespace {

using namespace std::chrono_literals;

constexpr uint64_t step = uint64_t{1} << 20;
constexpr uint64_t distance = 4 * step; /* so that the kernel can store much at once */
constexpr uint64_t window = 16 * step;  /* at most so much waits to be stored and read */
constexpr auto tick_interval = 100ms;

static_assert(step % direct_alignment == 0 && distance + step < window);

uint64_t rounded_up(uint64_t bytes) {
    return (bytes + direct_alignment - 1) / direct_alignment * direct_alignment;
}

} // namespace

ReadBack::ReadBack(const std::string& device, uint64_t size, Digester::Kind kind)
    : device_(device), size_(size), digester_(kind),
      buffer_(static_cast<uint8_t*>(std::aligned_alloc(direct_alignment, std::min(step, rounded_up(size)))),
              std::free) {
    if (buffer_ == nullptr) {
        throw std::bad_alloc();
    }
}

ReadBack::~ReadBack() {
    {
        const std::lock_guard lock(mutex_);
        is_stopped_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

/** A direct read needs whole blocks, so the last one is read past the end of the image where the device is larger. */
void ReadBack::read_step(uint64_t begin) {
    const size_t length = std::min(step, size_ - begin);
    const size_t padded = rounded_up(length);
    const bool fits = !device_.is_flash() && padded <= device_.raw_size() - begin;
    const std::span<uint8_t> bytes(buffer_.get(), fits ? padded : length);
    if (!device_.is_flash()) {
        device_.pass_on(begin, begin + bytes.size());
    }
    const auto lost = device_.uncorrectable_reads();
    device_.read_stored(begin, bytes);
    has_lost_reads_ = has_lost_reads_ || device_.lost_reads_since(lost);
    digester_.add(bytes.first(length));
}

void ReadBack::work() {
    std::unique_lock lock(mutex_);
    while (done_ < size_) {
        const uint64_t end = std::min(size_, done_ + step);
        changed_.wait(lock, [&] { return is_stopped_ || end <= limit_; });
        if (is_stopped_) {
            return;
        }
        const uint64_t begin = done_;
        lock.unlock();
        std::exception_ptr failure;
        try {
            read_step(begin);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        failure_ = failure;
        is_stopped_ = is_stopped_ || failure != nullptr;
        done_ = end;
        changed_.notify_all();
    }
}

void ReadBack::start() {
    try {
        thread_ = std::thread([this] { work(); });
    } catch (const std::system_error&) { /* the caller's thread reads */
    }
}

/** In the calling thread. */
void ReadBack::read_up_to(uint64_t limit, const Tick& tick) {
    while (done_ < size_ && std::min(size_, done_ + step) <= limit) {
        tick();
        read_step(done_);
        done_ = std::min(size_, done_ + step);
    }
}

void ReadBack::wait_for(uint64_t done, const Tick& tick) {
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            const auto is_decided = [&] { return failure_ != nullptr || done_ >= done; };
            const bool decided = changed_.wait_for(lock, tick_interval, is_decided);
            if (failure_ != nullptr) {
                std::rethrow_exception(failure_);
            }
            if (decided) {
                return;
            }
        }
        tick();
    }
}

void ReadBack::follow(uint64_t end, const Tick& tick) {
    if (end < distance + step) {
        return;
    }
    const uint64_t limit = end - distance;
    if (!device_.is_flash() && !thread_.joinable()) {
        start();
    }
    if (!thread_.joinable()) {
        read_up_to(limit, tick);
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        limit_ = limit;
    }
    changed_.notify_all();
    wait_for(end > window ? end - window : 0, tick);
}

Digests ReadBack::finish(const Tick& tick) {
    if (thread_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            limit_ = size_;
        }
        changed_.notify_all();
        wait_for(size_, tick);
        thread_.join();
    } else {
        read_up_to(size_, tick);
    }
    tick();
    return digester_.finish();
}

uint64_t ReadBack::done() {
    const std::lock_guard lock(mutex_);
    return done_;
}
