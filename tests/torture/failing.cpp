// Preloaded into a program under torture: one call of the C library fails, or moves one byte only.
//
//   TORTURE_ALLOCATION=N   the N-th malloc, calloc or realloc finds no memory
//   TORTURE_SHORT=N        the N-th transfer of more than one byte (read, write, send, recv) is of one byte
//   TORTURE_COUNTERS=FILE  where the calls are counted: three 64-bit numbers (allocations, transfers, failed), to be
//                          read even when the program was killed
//
// What the program starts itself is spared, and so is the C library: its name service ends by a signal when it has no
// memory.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
}

namespace
{

struct counters {
    std::atomic<uint64_t> allocations, transfers, failed;
};

counters own;
counters *counted = &own;
uint64_t failing_allocation, short_transfer;
bool running;

uint64_t number_in(const char *name)
{
    const char *text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 10) : 0;
}

/// Where the code of the C library is.
struct {
    uintptr_t begin, end;
} c_library;

int find_c_library(dl_phdr_info *object, size_t, void *)
{
    for (int i = 0; i < object->dlpi_phnum; i++) {
        const ElfW(Phdr) &part = object->dlpi_phdr[i];
        const uintptr_t begin = object->dlpi_addr + part.p_vaddr;
        if (part.p_type == PT_LOAD && reinterpret_cast<uintptr_t>(&getenv) - begin < part.p_memsz) {
            c_library = {begin, begin + part.p_memsz};
            return 1;
        }
    }
    return 0;
}

bool of_c_library(void *caller)
{
    const uintptr_t address = reinterpret_cast<uintptr_t>(caller);
    return c_library.begin <= address && address < c_library.end;
}

__attribute__((constructor)) void begin()
{
    failing_allocation = number_in("TORTURE_ALLOCATION");
    short_transfer = number_in("TORTURE_SHORT");
    if (const char *path = getenv("TORTURE_COUNTERS")) {
        const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0 && ftruncate(fd, sizeof(counters)) == 0) {
            void *shared = mmap(nullptr, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (shared != MAP_FAILED)
                counted = static_cast<counters *>(shared);
        }
        close(fd);
    }
    for (const char *name : {"LD_PRELOAD", "TORTURE_ALLOCATION", "TORTURE_SHORT", "TORTURE_COUNTERS"})
        unsetenv(name);
    dl_iterate_phdr(find_c_library, nullptr);
    running = true;
}

bool no_memory(void *caller)
{
    if (!running || of_c_library(caller) || counted->allocations.fetch_add(1) + 1 != failing_allocation)
        return false;
    counted->failed.fetch_add(1);
    errno = ENOMEM;
    return true;
}

/// How much of `size` bytes this transfer may move.
size_t share(size_t size)
{
    if (!running || size <= 1 || counted->transfers.fetch_add(1) + 1 != short_transfer)
        return size;
    counted->failed.fetch_add(1);
    return 1;
}

template <class function> function *real(const char *name)
{
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

/// Called by what is linked into the program to count what it did: no call fails any more.
void torture_ended()
{
    running = false;
}

void *malloc(size_t size)
{
    return no_memory(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return no_memory(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size)
{
    return no_memory(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}

ssize_t read(int fd, void *data, size_t size)
{
    static auto *const next = real<ssize_t(int, void *, size_t)>("read");
    return next(fd, data, share(size));
}

ssize_t write(int fd, const void *data, size_t size)
{
    static auto *const next = real<ssize_t(int, const void *, size_t)>("write");
    return next(fd, data, share(size));
}

ssize_t send(int fd, const void *data, size_t size, int flags)
{
    static auto *const next = real<ssize_t(int, const void *, size_t, int)>("send");
    return next(fd, data, share(size), flags);
}

ssize_t recv(int fd, void *data, size_t size, int flags)
{
    static auto *const next = real<ssize_t(int, void *, size_t, int)>("recv");
    return next(fd, data, share(size), flags);
}
}
