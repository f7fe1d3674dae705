// Runs every target on its corpus, without a fuzzer: on each file as it is, then on what a few changes of bytes make of
// it. replay CORPUS ROUNDS
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#define TARGET(name) extern "C" int fuzz_##name(const uint8_t *data, size_t size);
#include "targets.inc"
#undef TARGET

namespace
{

struct target {
    const char *name;
    int (*run)(const uint8_t *data, size_t size);
};

const target targets[] = {
#define TARGET(name) {#name, fuzz_##name},
#include "targets.inc"
#undef TARGET
};

using bytes = std::vector<uint8_t>;

bytes changed(bytes data, std::minstd_rand &random)
{
    for (unsigned changes = 1 + random() % 3; changes > 0; --changes) {
        const size_t place = data.empty() ? 0 : random() % data.size();
        const auto at = data.begin() + static_cast<ptrdiff_t>(place);
        switch (data.empty() ? 0 : random() % 4) {
        case 0:
            data.insert(at, static_cast<uint8_t>(random()));
            break;
        case 1:
            data[place] ^= static_cast<uint8_t>(1U << random() % 8);
            break;
        case 2:
            data.erase(at, at + static_cast<ptrdiff_t>(std::min<size_t>(1 + random() % 8, data.size() - place)));
            break;
        default:
            data.resize(place);
        }
    }
    return data;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    const unsigned long rounds = strtoul(argv[2], nullptr, 10);
    for (const target &each : targets) {
        std::minstd_rand random;
        std::vector<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::path(argv[1]) / each.name))
            files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        if (files.empty()) {
            fprintf(stderr, "%s has no corpus\n", each.name);
            return 1;
        }
        for (const auto &file : files) {
            std::ifstream stream(file, std::ios::binary);
            const bytes data{std::istreambuf_iterator<char>(stream), {}};
            each.run(data.data(), data.size());
            for (unsigned long i = 0; i < rounds; ++i) {
                const bytes other = changed(data, random);
                each.run(other.data(), other.size());
            }
        }
        printf("%s: %zu files\n", each.name, files.size());
    }
    return 0;
}
