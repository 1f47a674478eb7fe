// Global-memory blocks behind validated handles.
//
// A handle is an opaque number, never a pointer: each block gets the next
// value of a 64-bit counter, so a freed handle is never handed out again and a
// stale or made-up handle finds nothing in the table instead of touching
// memory. The table maps handles to blocks under one mutex; the pixel work of
// an operation runs between GlobalLock and GlobalUnlock, outside the mutex.
//
// Page-sized blocks come and go once per operation. Fresh memory from the
// system costs a page fault per 4 KiB on first touch, which for a 35 MB
// 32-bit A4 page is far slower than the operation itself, so the memory of a
// few recently freed large blocks is kept and handed to the next allocation
// of about the same size (zero-filled again, as every block is).
#include "quarvel/win32.h"
#include "platform/global_memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace {

struct Block {
    void *data = nullptr;
    std::size_t size = 0;
    std::size_t capacity = 0;
    unsigned lockCount = 0;
};

// Memory kept from freed blocks: at most kCacheSlots buffers of at least
// kCacheMin bytes each, kCacheMax bytes in all. A buffer is reused for a
// request of at least 3/4 of its capacity.
constexpr std::size_t kCacheSlots = 4;
constexpr std::size_t kCacheMin = std::size_t{1} << 20;
constexpr std::size_t kCacheMax = std::size_t{256} << 20;

struct Spare {
    void *data = nullptr;
    std::size_t capacity = 0;
};

// Blocks are 64-byte aligned so that rows of a result block can be read with
// wide loads; the handle value is (serial << 4) | 0x8, non-null and odd-looking
// enough that it is never mistaken for a pointer.
constexpr std::size_t kBlockAlign = 64;

class BlockTable {
public:
    BlockTable() = default;
    BlockTable(const BlockTable &) = delete;
    BlockTable &operator=(const BlockTable &) = delete;
    // Frees whatever the host left allocated and every kept buffer.
    ~BlockTable() {
        for (auto &entry : blocks_) std::free(entry.second.data);
        for (Spare &s : spares_) std::free(s.data);
    }

    HGLOBAL add(void *data, std::size_t size, std::size_t capacity) {
        std::lock_guard<std::mutex> guard(mutex_);
        std::uintptr_t key = (++serial_ << 4) | 0x8;
        blocks_.emplace(key, Block{data, size, capacity, 0});
        return reinterpret_cast<HGLOBAL>(key);
    }

    // A kept buffer that fits `capacity` bytes, or null.
    void *takeSpare(std::size_t capacity, std::size_t *got) {
        if (capacity < kCacheMin) return nullptr;
        std::lock_guard<std::mutex> guard(mutex_);
        for (Spare &s : spares_) {
            if (s.data != nullptr && s.capacity >= capacity && capacity >= s.capacity / 4 * 3) {
                void *data = s.data;
                *got = s.capacity;
                cached_ -= s.capacity;
                s = Spare{};
                return data;
            }
        }
        return nullptr;
    }

    void *lock(HGLOBAL h) {
        std::lock_guard<std::mutex> guard(mutex_);
        Block *b = find(h);
        if (b == nullptr || b->size == 0) return nullptr;
        ++b->lockCount;
        return b->data;
    }

    BOOL unlock(HGLOBAL h) {
        std::lock_guard<std::mutex> guard(mutex_);
        Block *b = find(h);
        if (b == nullptr || b->lockCount == 0) return FALSE;
        --b->lockCount;
        return b->lockCount > 0 ? TRUE : FALSE;
    }

    std::size_t size(HGLOBAL h) {
        std::lock_guard<std::mutex> guard(mutex_);
        Block *b = find(h);
        return b == nullptr ? 0 : b->size;
    }

    std::size_t count() {
        std::lock_guard<std::mutex> guard(mutex_);
        return blocks_.size();
    }

    bool remove(HGLOBAL h) {
        void *data = nullptr;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto it = blocks_.find(reinterpret_cast<std::uintptr_t>(h));
            if (it == blocks_.end()) return false;
            data = keepOrEvict(it->second.data, it->second.capacity);
            blocks_.erase(it);
        }
        std::free(data);
        return true;
    }

private:
    // Keeps a large buffer for reuse; returns what must be freed instead (the
    // buffer itself, or an older one it displaces). With every slot taken the
    // next slot in turn is displaced, but only when the new buffer then fits
    // the total; otherwise the kept buffers stay as they are.
    void *keepOrEvict(void *data, std::size_t capacity) {
        if (data == nullptr || capacity < kCacheMin || capacity > kCacheMax) return data;
        Spare *slot = nullptr;
        for (Spare &s : spares_) {
            if (s.data == nullptr) {
                slot = &s;
                break;
            }
        }
        const bool displace = slot == nullptr;
        if (displace) slot = &spares_[next_ % kCacheSlots];
        if (cached_ - slot->capacity + capacity > kCacheMax) return data;
        if (displace) ++next_;
        void *evicted = slot->data;
        cached_ = cached_ - slot->capacity + capacity;
        *slot = Spare{data, capacity};
        return evicted;
    }

    Block *find(HGLOBAL h) {
        auto it = blocks_.find(reinterpret_cast<std::uintptr_t>(h));
        return it == blocks_.end() ? nullptr : &it->second;
    }

    std::mutex mutex_;
    std::unordered_map<std::uintptr_t, Block> blocks_;
    std::uint64_t serial_ = 0;
    Spare spares_[kCacheSlots];
    std::size_t cached_ = 0;
    std::size_t next_ = 0;
};

BlockTable *g_table = nullptr;
bool g_unloaded = false;
std::once_flag g_tableOnce;

// Not a static object: a host's static destructors may still free blocks
// after ours would have run. The table goes when the library is unloaded;
// a call after that finds no table and behaves as for an unknown handle.
BlockTable *table() {
    std::call_once(g_tableOnce, [] {
        if (!g_unloaded) g_table = new BlockTable;
    });
    return g_table;
}

// Runs when the library is unloaded (dlclose) or, at process exit, after every
// C++ static destructor of the host, so no host call can follow it.
__attribute__((destructor)) void ReleaseBlockTable() {
    g_unloaded = true;
    delete g_table;
    g_table = nullptr;
}

}  // namespace

namespace quarvel {

HGLOBAL AllocateBlock(std::size_t bytes, bool zeroed) {
    BlockTable *t = table();
    if (t == nullptr || bytes > SIZE_MAX - kBlockAlign) return nullptr;
    void *data = nullptr;
    std::size_t capacity = 0;
    if (bytes > 0) {
        capacity = (bytes + kBlockAlign - 1) / kBlockAlign * kBlockAlign;
        data = t->takeSpare(capacity, &capacity);
        if (data == nullptr) data = std::aligned_alloc(kBlockAlign, capacity);
        if (data == nullptr) return nullptr;
        if (zeroed) {
            std::memset(data, 0, capacity);
        } else {
            std::memset(static_cast<std::uint8_t *>(data) + bytes, 0, capacity - bytes);  // slack past the end
        }
    }
    try {
        return t->add(data, bytes, capacity);
    } catch (...) {  // the handle table could not grow
        std::free(data);
        return nullptr;
    }
}

std::size_t LiveBlockCount() {
    BlockTable *t = table();
    return t == nullptr ? 0 : t->count();
}

}  // namespace quarvel

extern "C" {

HGLOBAL GlobalAlloc(UINT /*uFlags*/, SIZE_T dwBytes) {
    // Every block starts zero-filled (GHND's promise, kept for all flags).
    return quarvel::AllocateBlock(dwBytes, true);
}

LPVOID GlobalLock(HGLOBAL hMem) {
    BlockTable *t = table();
    return hMem == nullptr || t == nullptr ? nullptr : t->lock(hMem);
}

BOOL GlobalUnlock(HGLOBAL hMem) {
    BlockTable *t = table();
    return hMem == nullptr || t == nullptr ? FALSE : t->unlock(hMem);
}

SIZE_T GlobalSize(HGLOBAL hMem) {
    BlockTable *t = table();
    return hMem == nullptr || t == nullptr ? 0 : t->size(hMem);
}

HGLOBAL GlobalFree(HGLOBAL hMem) {
    BlockTable *t = table();
    if (hMem == nullptr) return nullptr;
    return t != nullptr && t->remove(hMem) ? nullptr : hMem;
}

}  // extern "C"
