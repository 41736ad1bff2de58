// Allocation hooks that count what the library takes and gives back, for the
// leak tests and for the build benchmark's peak memory, and that can refuse
// one chosen allocation for the fault-injection tests. Every block carries
// its size in a 16-byte prefix, so a release knows how much it returns.
#ifndef KEL_SUPPORT_ALLOC_COUNT_H
#define KEL_SUPPORT_ALLOC_COUNT_H

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "kelr.h"

namespace kelt {

// Installs the counting hooks until it goes out of scope; one at a time.
class AllocationCount {
  public:
    AllocationCount() : malloc_(i_malloc), free_(i_free) {
        blocks_ = bytes_ = peak_ = calls_ = failAt_ = lastRequest_ = 0;
        i_malloc = &countedMalloc;
        i_free = &countedFree;
    }
    ~AllocationCount() { i_malloc = malloc_, i_free = free_; }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    long long liveBlocks() const { return blocks_; }
    long long peakBytes() const { return peak_; }
    long long allocations() const { return calls_; }        // refused ones included
    long long lastRequest() const { return lastRequest_; }  // bytes, refused or not

    // The n-th allocation from now on (1: the next one) returns null.
    void refuseAllocation(long long n) {
        calls_ = 0;
        failAt_ = n;
    }

  private:
    static constexpr size_t kPrefix = 16;
    static inline std::atomic<long long> blocks_{0}, bytes_{0}, peak_{0}, calls_{0}, failAt_{0},
        lastRequest_{0};
    static void* countedMalloc(size_t size) {
        lastRequest_ = (long long)size;
        if (++calls_ == failAt_) return nullptr;
        auto* raw = static_cast<char*>(std::malloc(size + kPrefix));
        if (!raw) return nullptr;
        *reinterpret_cast<size_t*>(raw) = size;
        ++blocks_;
        const long long now = bytes_ += (long long)size;
        long long seen = peak_;
        while (now > seen && !peak_.compare_exchange_weak(seen, now)) {
        }
        return raw + kPrefix;
    }
    static void countedFree(void* block) {
        if (!block) return;
        char* raw = static_cast<char*>(block) - kPrefix;
        --blocks_;
        bytes_ -= (long long)*reinterpret_cast<size_t*>(raw);
        std::free(raw);
    }

    void* (*malloc_)(size_t);
    void (*free_)(void*);
};

}  // namespace kelt

#endif
