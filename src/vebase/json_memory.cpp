// Memory of JSON values. A large answer becomes hundreds of thousands of blocks of a few small sizes, and most of them
// go again right after: the C library spends more time on joining and splitting these than their parsing takes. So the
// main thread, once it has made more values than a single request does, takes small blocks from pages of one block size
// each. A page whose blocks are all free goes back to the system.
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <jansson.h>

#include "platform/ve_log.h"

namespace
{

void *allocate_plainly(size_t size)
{
    return ve_xmalloc(size, "json", __LINE__, "json");
}

// The sanitizers see every block by itself.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

constexpr size_t grain = 16;
constexpr size_t largest = 256;
constexpr size_t page_size = size_t{64} << 10;
constexpr size_t page_count = sizeof(void *) >= 8 ? 16384 : 2048;
constexpr uint32_t empty_pages_kept = 128;
/// A program that asks for one thing and ends makes fewer values than this: it needs no pages.
constexpr unsigned plain_allocations = 2048;

struct block {
    block *next;
};

struct page {
    block *freed;
    uint32_t used;  ///< blocks that are in use
    uint32_t fresh; ///< bytes from the start that were ever given out
    uint32_t size;  ///< of a block; 0 while the page has none
    bool listed;    ///< among the pages of its size that have room
    page *previous;
    page *next;
};

std::byte *memory = nullptr; // this and the next: set before there are other threads
size_t reserved = 0;
page pages[page_count];
uint32_t pages_begun = 0;
page *empty_pages = nullptr;  // linked by next; their memory is kept for the next page of any size
page *unused_pages = nullptr; // linked by next; given back to the system
uint32_t empty_count = 0;
std::array<page *, largest / grain> with_room;
unsigned plain_left = plain_allocations;
thread_local bool is_owner = false;
/// Blocks that other threads released; the owner takes them back when a size runs out of room.
std::atomic<block *> released_elsewhere = nullptr;

size_t class_of(size_t size)
{
    return (size - 1) / grain;
}

std::byte *start_of(const page *of)
{
    return memory + static_cast<size_t>(of - pages) * page_size;
}

void enlist(page *entry)
{
    page *&first = with_room[class_of(entry->size)];
    entry->listed = true;
    entry->previous = nullptr;
    entry->next = first;
    if (first != nullptr)
        first->previous = entry;
    first = entry;
}

void delist(page *entry)
{
    (entry->previous != nullptr ? entry->previous->next : with_room[class_of(entry->size)]) = entry->next;
    if (entry->next != nullptr)
        entry->next->previous = entry->previous;
    entry->listed = false;
}

void put_back(void *pointer)
{
    page *of = &pages[static_cast<size_t>(static_cast<std::byte *>(pointer) - memory) / page_size];
    auto *freed = static_cast<block *>(pointer);
    freed->next = of->freed;
    of->freed = freed;
    if (!of->listed)
        enlist(of);
    if (--of->used > 0)
        return;
    delist(of);
    page *&pool = empty_count < empty_pages_kept ? empty_pages : unused_pages;
    if (&pool == &unused_pages)
        madvise(start_of(of), page_size, MADV_DONTNEED);
    else
        ++empty_count;
    *of = page{};
    of->next = pool;
    pool = of;
}

void take_released()
{
    for (block *each = released_elsewhere.exchange(nullptr, std::memory_order_acquire); each != nullptr;) {
        block *next = each->next;
        put_back(each);
        each = next;
    }
}

/// Address space only: pages become memory as they are begun.
void reserve()
{
    if (memory != nullptr)
        return;
    void *space = mmap(nullptr, page_count * page_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (space == MAP_FAILED)
        return;
    memory = static_cast<std::byte *>(space);
    reserved = page_count * page_size;
}

/// A page for blocks of `size`, listed; null when there is none.
page *begin_page(size_t size)
{
    page *fresh = nullptr;
    if (empty_pages != nullptr) {
        fresh = empty_pages;
        empty_pages = fresh->next;
        --empty_count;
    } else if (unused_pages != nullptr) {
        fresh = unused_pages;
        unused_pages = fresh->next;
    } else {
        if (pages_begun >= reserved / page_size)
            return nullptr;
        fresh = &pages[pages_begun];
        if (mprotect(start_of(fresh), page_size, PROT_READ | PROT_WRITE) != 0)
            return nullptr;
        ++pages_begun;
    }
    *fresh = page{};
    fresh->size = static_cast<uint32_t>(size);
    enlist(fresh);
    return fresh;
}

void *take(page *from)
{
    ++from->used;
    void *taken = from->freed;
    if (taken != nullptr) {
        from->freed = from->freed->next;
        __builtin_prefetch(from->freed);
    } else {
        taken = start_of(from) + from->fresh;
        from->fresh += from->size;
    }
    if (from->freed == nullptr && from->fresh + from->size > page_size)
        delist(from);
    return taken;
}

void *allocate(size_t size)
{
    if (!is_owner || size > largest || size == 0)
        return allocate_plainly(size);
    if (plain_left > 0) {
        --plain_left;
        return allocate_plainly(size);
    }
    const size_t index = class_of(size);
    page *from = with_room[index];
    if (from == nullptr) {
        take_released();
        from = with_room[index] != nullptr ? with_room[index] : begin_page((index + 1) * grain);
        if (from == nullptr)
            return allocate_plainly(size);
    }
    return take(from);
}

void release(void *pointer)
{
    if (reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(memory) >= reserved) {
        free(pointer);
    } else if (is_owner) {
        put_back(pointer);
    } else {
        auto *freed = static_cast<block *>(pointer);
        freed->next = released_elsewhere.load(std::memory_order_relaxed);
        while (!released_elsewhere.compare_exchange_weak(freed->next, freed, std::memory_order_release,
                                                         std::memory_order_relaxed)) {
        }
    }
}

#endif

} // namespace

void ve_json_own_memory()
{
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    reserve();
    is_owner = true;
    json_set_alloc_funcs(allocate, release);
#else
    json_set_alloc_funcs(allocate_plainly, free);
#endif
}

void ve_json_free(void *pointer)
{
    json_free_t free_json = nullptr;
    json_get_alloc_funcs(nullptr, &free_json);
    free_json(pointer);
}
