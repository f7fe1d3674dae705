// Built into the copies of the programs that hold the mutants. A file "mutants" in the folder of the program, or in one
// above it, says which mutant is in force (four bytes), and takes which are reached (one byte each, from the number 0).
// It is found by where the program lies, since tests choose environments; where they copy the program, by the
// environment. It is mapped, so that what is killed has recorded.

#include "choice.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr size_t room = 65536;
unsigned char nowhere[room];

} // namespace

unsigned char *kest_reached_mutants = nowhere;
unsigned kest_chosen_mutant;

// The file that KEST_MUTANTS names, else the nearest one to the program.
static int open_choice()
{
    if (const char *named = getenv("KEST_MUTANTS"); named != nullptr)
        return open(named, O_RDWR | O_CLOEXEC);
    char own[4096];
    const ssize_t length = readlink("/proc/self/exe", own, sizeof(own));
    std::string place{own, length > 0 ? static_cast<size_t>(length) : 0};
    int file = -1;
    while (file < 0 && !place.empty()) {
        place.resize(place.rfind('/'));
        file = open((place + "/mutants").c_str(), O_RDWR | O_CLOEXEC);
    }
    return file;
}

// Before anything else of the program, whose initial values may hold mutants.
[[gnu::constructor(101)]] static void choose()
{
    const int file = open_choice();
    if (file < 0)
        return;
    struct stat status;
    if (fstat(file, &status) == 0 && status.st_size >= static_cast<off_t>(sizeof(unsigned) + room)) {
        void *mapped = mmap(nullptr, sizeof(unsigned) + room, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (mapped != MAP_FAILED) {
            memcpy(&kest_chosen_mutant, mapped, sizeof(kest_chosen_mutant));
            kest_reached_mutants = static_cast<unsigned char *>(mapped) + sizeof(unsigned);
        }
    }
    close(file);
}
