// Global-memory blocks behind validated handles.
//
// A handle is an opaque number, never a pointer: each block gets the next
// value of a 64-bit counter, so a freed handle is never handed out again and a
// stale or made-up handle finds nothing in the table instead of touching
// memory. The table maps handles to blocks under one mutex; the pixel work of
// an operation runs between GlobalLock and GlobalUnlock, outside the mutex.
#include "quarvel/win32.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace {

struct Block {
    void *data = nullptr;
    std::size_t size = 0;
    unsigned lockCount = 0;
};

// Blocks are 64-byte aligned so that rows of a result block can be read with
// wide loads; the handle value is (serial << 4) | 0x8, non-null and odd-looking
// enough that it is never mistaken for a pointer.
constexpr std::size_t kBlockAlign = 64;

class BlockTable {
public:
    HGLOBAL add(void *data, std::size_t size) {
        std::lock_guard<std::mutex> guard(mutex_);
        std::uintptr_t key = (++serial_ << 4) | 0x8;
        blocks_.emplace(key, Block{data, size, 0});
        return reinterpret_cast<HGLOBAL>(key);
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

    bool remove(HGLOBAL h) {
        void *data = nullptr;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto it = blocks_.find(reinterpret_cast<std::uintptr_t>(h));
            if (it == blocks_.end()) return false;
            data = it->second.data;
            blocks_.erase(it);
        }
        std::free(data);
        return true;
    }

private:
    Block *find(HGLOBAL h) {
        auto it = blocks_.find(reinterpret_cast<std::uintptr_t>(h));
        return it == blocks_.end() ? nullptr : &it->second;
    }

    std::mutex mutex_;
    std::unordered_map<std::uintptr_t, Block> blocks_;
    std::uint64_t serial_ = 0;
};

BlockTable &table() {
    // Never destroyed: blocks may be freed by a host's static destructors.
    static BlockTable *t = new BlockTable;
    return *t;
}

}  // namespace

extern "C" {

HGLOBAL GlobalAlloc(UINT /*uFlags*/, SIZE_T dwBytes) {
    void *data = nullptr;
    if (dwBytes > 0) {
        if (dwBytes > SIZE_MAX - kBlockAlign) return nullptr;
        std::size_t rounded = (dwBytes + kBlockAlign - 1) / kBlockAlign * kBlockAlign;
        data = std::aligned_alloc(kBlockAlign, rounded);
        if (data == nullptr) return nullptr;
        // Every block starts zero-filled (GHND's promise, kept for all flags).
        std::memset(data, 0, rounded);
    }
    return table().add(data, dwBytes);
}

LPVOID GlobalLock(HGLOBAL hMem) {
    if (hMem == nullptr) return nullptr;
    return table().lock(hMem);
}

BOOL GlobalUnlock(HGLOBAL hMem) {
    if (hMem == nullptr) return FALSE;
    return table().unlock(hMem);
}

SIZE_T GlobalSize(HGLOBAL hMem) {
    if (hMem == nullptr) return 0;
    return table().size(hMem);
}

HGLOBAL GlobalFree(HGLOBAL hMem) {
    if (hMem == nullptr) return nullptr;
    return table().remove(hMem) ? nullptr : hMem;
}

}  // extern "C"
