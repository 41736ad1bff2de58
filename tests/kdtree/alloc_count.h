// Allocation hooks that count what the library takes and gives back, for the
// leak tests and for the build benchmark's peak memory. Every block carries
// its size in a 16-byte prefix, so a release knows how much it returns.
#ifndef KEL_TEST_ALLOC_COUNT_H
#define KEL_TEST_ALLOC_COUNT_H

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "kelr.h"

namespace kelt {

class AllocationCount {
  public:
    // Installs the counting hooks until the object goes out of scope. Only
    // one may exist at a time.
    AllocationCount() : malloc_(i_malloc), free_(i_free) {
        blocks() = 0;
        bytes() = 0;
        peak() = 0;
        i_malloc = &countedMalloc;
        i_free = &countedFree;
    }
    ~AllocationCount() {
        i_malloc = malloc_;
        i_free = free_;
    }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    long long liveBlocks() const { return blocks(); }
    long long liveBytes() const { return bytes(); }
    long long peakBytes() const { return peak(); }
    void resetPeak() { peak() = bytes().load(); }

  private:
    static constexpr size_t kPrefix = 16;
    static std::atomic<long long>& blocks() {
        static std::atomic<long long> n{0};
        return n;
    }
    static std::atomic<long long>& bytes() {
        static std::atomic<long long> n{0};
        return n;
    }
    static std::atomic<long long>& peak() {
        static std::atomic<long long> n{0};
        return n;
    }
    static void* countedMalloc(size_t size) {
        auto* raw = static_cast<char*>(std::malloc(size + kPrefix));
        if (!raw) return nullptr;
        *reinterpret_cast<size_t*>(raw) = size;
        ++blocks();
        const long long now = bytes() += (long long)size;
        long long seen = peak();
        while (now > seen && !peak().compare_exchange_weak(seen, now)) {
        }
        return raw + kPrefix;
    }
    static void countedFree(void* block) {
        if (!block) return;
        char* raw = static_cast<char*>(block) - kPrefix;
        --blocks();
        bytes() -= (long long)*reinterpret_cast<size_t*>(raw);
        std::free(raw);
    }

    void* (*malloc_)(size_t);
    void (*free_)(void*);
};

}  // namespace kelt

#endif
