// complete tab|hint|level SOCKET PATH: times the callbacks that the line editor calls, with the daemon at SOCKET and
// without a terminal. Medians, ms of wall time.
// tab: lists, filters and sorts what is below PATH, in the cache already, as Tab does behind "cat PATH"
//     (shell_autocomplete), in turn with a bare sort of the same names. Prints how many they are, both times, and the
//     median of their ratios.
// hint: the hint for the last name of PATH, its level in the cache already (shell_hint). Prints the time.
// level: Tab at a level that was never fetched, below known ones. Prints the number of candidates, the time, and the
//     time that this process computed in it.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cdpath/cdpath.h"
#include "event/request.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_json.h"
#include "platform/ve_log.h"
#include "platform/ve_wait.h"
#include "shell/completion.h"

namespace
{

constexpr int rounds = 15;

double ms(clockid_t clock)
{
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "complete: %s\n", what);
    exit(1);
}

void open_link(const char *socket)
{
    request_ctx = ve_jrpcapi_init();
    ve_jrpcapi_set_destination(request_ctx, nullptr, socket, ve_socket_unix);
    if (ve_jrpcapi_connect(request_ctx) < 0)
        fail("no daemon there");
    dm = std::make_shared<dm_node>();
}

json_ref complete(const std::string &line)
{
    json_ref candidates{json_array()};
    shell_autocomplete(line.c_str(), line.size(), candidates.get());
    return candidates;
}

/// The names below `path`, in the order in which they were fetched.
std::vector<std::string> names_below(const std::string &path)
{
    std::vector<std::string> names;
    const std::shared_ptr<dm_node> node = dm->find(path);
    for (size_t place = 0; node != nullptr && place < node->size(); ++place)
        names.push_back((*node->level)[place].name);
    return names;
}

int measure_tab(const std::string &path)
{
    const std::string line = "cat " + path;
    complete(line);
    const std::vector<std::string> names = names_below(path);
    std::vector<double> completed;
    std::vector<double> sorted;
    std::vector<double> ratios;
    for (int round = -1; round < rounds; ++round) {
        std::vector<const char *> bare;
        bare.reserve(names.size());
        for (const std::string &name : names)
            bare.push_back(name.c_str());
        const double began = ms(CLOCK_MONOTONIC);
        std::sort(bare.begin(), bare.end(), [](const char *a, const char *b) { return strcmp(a, b) < 0; });
        const double between = ms(CLOCK_MONOTONIC);
        const json_ref candidates = complete(line);
        const double ended = ms(CLOCK_MONOTONIC);
        if (json_array_size(candidates.get()) != names.size() || names.empty())
            fail("not every name is a candidate");
        for (size_t i = 1; i < names.size(); ++i) {
            if (strcmp(json_string_value(json_array_get(candidates.get(), i - 1)),
                       json_string_value(json_array_get(candidates.get(), i))) > 0)
                fail("the candidates are not sorted");
        }
        if (round < 0)
            continue;
        completed.push_back(ended - between);
        sorted.push_back(between - began);
        ratios.push_back((ended - between) / (between - began));
    }
    printf("%zu %.1f %.1f %.2f\n", names.size(), median(completed), median(sorted), median(ratios));
    return 0;
}

int measure_hint(const std::string &path)
{
    const std::string line = "cat " + path;
    complete(line.substr(0, line.rfind('.') + 1));
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        const double began = ms(CLOCK_MONOTONIC);
        char *hint = shell_hint(line.c_str());
        times.push_back(ms(CLOCK_MONOTONIC) - began);
        if (hint == nullptr)
            fail("no hint");
        free(hint);
    }
    printf("%.2f\n", median(times));
    return 0;
}

int measure_level(const std::string &path)
{
    const std::string line = "cat " + path;
    const std::string above = line.substr(0, line.rfind('.', line.size() - 2) + 1);
    std::vector<double> walls;
    std::vector<double> own;
    size_t found = 0;
    for (int round = 0; round < rounds; ++round) {
        dm = std::make_shared<dm_node>();
        complete(above);
        const double began = ms(CLOCK_MONOTONIC);
        const double began_own = ms(CLOCK_PROCESS_CPUTIME_ID);
        const json_ref candidates = complete(line);
        own.push_back(ms(CLOCK_PROCESS_CPUTIME_ID) - began_own);
        walls.push_back(ms(CLOCK_MONOTONIC) - began);
        found = json_array_size(candidates.get());
    }
    if (found == 0)
        fail("nothing there");
    printf("%zu %.1f %.1f\n", found, median(walls), median(own));
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    ve_wait_init();
    ve_log_allocations_are_fatal();
    open_link(argv[2]);
    const std::string what = argv[1];
    return what == "tab" ? measure_tab(argv[3]) : what == "hint" ? measure_hint(argv[3]) : measure_level(argv[3]);
}
