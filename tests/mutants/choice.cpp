// Built into the copies of the programs that hold the mutants. The file "mutants" in the folder of the program, or in
// one above it, says which mutant is in force (four bytes), and takes which are reached (one byte each, from the number
// 0). It is found by where the program lies, since the tests choose environment, directory and descriptors; it is
// mapped, so that what is killed has recorded.

#include "choice.h"

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

// Before anything else of the program, whose initial values may hold mutants.
[[gnu::constructor(101)]] static void choose()
{
    char own[4096];
    ssize_t length = readlink("/proc/self/exe", own, sizeof(own));
    int file = -1;
    while (file < 0 && length > 0) {
        while (length > 0 && own[length - 1] != '/')
            length--;
        std::string name{own, length > 0 ? static_cast<size_t>(length--) : 0};
        file = open((name + "mutants").c_str(), O_RDWR | O_CLOEXEC);
    }
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
