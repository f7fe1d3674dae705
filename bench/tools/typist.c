/* typist tabs LINES KEST [ARGUMENT...]
 *     runs KEST on a terminal, types every line of the file LINES and Tab, and prints how many they were, the longest
 * and the median time in ms, the client's peak memory in KiB, and the line that took longest. The time of a line runs
 * from its first key to the moment when a key typed behind the Tab is seen: what a user waits for, drawing included.
 * typist count SOCKET LINES HINTS KEST [ARGUMENT...]
 *     the same through a relay to the daemon at SOCKET that counts requests. Prints how many the first Tabs at all
 * LINES made; then how many Tabs and hints followed (every line of LINES once more, and a pause behind every line of
 * HINTS until its hint is seen), and how many requests these made. KEST gets "-u" and the relay's path before its
 * arguments. The line editor draws only what changes, so that the key behind a Tab is another one each time. */
#include "link.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdbool.h>
#include <sys/wait.h>
#include <time.h>

enum { LINKS = 8, PATIENCE_MS = 20000 };

static const char *const markers[] = {"~", "@"};
/* Of the hint and nothing else on the screen, once the configuration says "color hint 300 100 100". */
static const char hint_color[] = "38;2;255;0;255";

static int terminal = -1, listener = -1, links;
static pid_t kest;
static struct {
    int client, daemon;
} relayed[LINKS];
static const char *daemon_path;
static long requests;

static char seen[1 << 20];
static size_t seen_size;

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec * 1e3 + (double)time.tv_nsec / 1e6;
}

static void fail(const char *what)
{
    fprintf(stderr, "typist: %s; the last that was seen: %.*s\n", what, (int)(seen_size < 400 ? seen_size : 400),
            seen + (seen_size < 400 ? 0 : seen_size - 400));
    kill(kest, SIGKILL);
    exit(1);
}

static void put(int fd, const char *data, size_t size)
{
    while (size > 0) {
        ssize_t count = write(fd, data, size);
        if (count < 0)
            fail("write");
        data += count;
        size -= (size_t)count;
    }
}

static bool pass(int from, int to, bool counted)
{
    static char buffer[1 << 16];
    ssize_t count = read(from, buffer, sizeof buffer);
    if (count <= 0)
        return false;
    for (ssize_t i = 0; counted && i < count; i++)
        requests += buffer[i] == '\n';
    put(to, buffer, (size_t)count);
    return true;
}

/* Serves relay and terminal once. */
static void serve(int timeout_ms)
{
    struct pollfd fds[2 + 2 * LINKS] = {{terminal, POLLIN, 0}, {listener, POLLIN, 0}};
    nfds_t count = 2;
    for (int i = 0; i < links; i++) {
        fds[count++] = (struct pollfd){relayed[i].client, POLLIN, 0};
        fds[count++] = (struct pollfd){relayed[i].daemon, POLLIN, 0};
    }
    if (poll(fds, count, timeout_ms) <= 0)
        return;
    if (fds[0].revents) {
        if (seen_size > sizeof seen / 2)
            seen_size = 0;
        ssize_t got = read(terminal, seen + seen_size, sizeof seen - 1 - seen_size);
        if (got <= 0)
            fail("the shell is gone");
        seen_size += (size_t)got;
        seen[seen_size] = '\0';
    }
    for (nfds_t i = 2; i < count; i++) {
        int link = (int)(i - 2) / 2;
        bool from_client = i % 2 == 0;
        if (fds[i].revents && !pass(fds[i].fd, from_client ? relayed[link].daemon : relayed[link].client, from_client))
            fail("a link ended");
    }
    if (fds[1].revents && links < LINKS) {
        relayed[links].client = accept(listener, NULL, NULL);
        relayed[links++].daemon = link_open(daemon_path);
    }
}

static void wait_for(const char *what)
{
    double deadline = now() + PATIENCE_MS;
    while (!memmem(seen, seen_size, what, strlen(what))) {
        double left = deadline - now();
        if (left <= 0)
            fail(what);
        serve((int)left + 1);
    }
}

/* Types `line` in the place of what stands there, then `keys`, and waits until `expected` is seen. Returns the ms. */
static double type(const char *line, const char *keys, const char *expected)
{
    char text[4096];
    int size = snprintf(text, sizeof text, "\025%s%s", line, keys);
    if (size < 0 || size >= (int)sizeof text)
        fail("a line is too long");
    seen_size = 0;
    double began = now();
    put(terminal, text, (size_t)size);
    wait_for(expected);
    return now() - began;
}

static double tab(const char *line)
{
    static size_t turn;
    const char *marker = markers[turn++ % 2];
    char keys[8];
    snprintf(keys, sizeof keys, "\t%s", marker);
    return type(line, keys, marker);
}

static char **read_lines(const char *path, size_t *count)
{
    FILE *file = fopen(path, "r");
    char **lines = NULL, *line = NULL;
    size_t room = 0;
    ssize_t size;
    if (!file)
        die(path);
    for (*count = 0; (size = getline(&line, &room, file)) > 0; ++*count) {
        line[strcspn(line, "\n")] = '\0';
        if (!(lines = realloc(lines, (*count + 1) * sizeof *lines)) || !(lines[*count] = strdup(line)))
            die("memory");
    }
    fclose(file);
    return lines;
}

static void start(char **argv)
{
    struct winsize size = {.ws_row = 24, .ws_col = 80};
    kest = forkpty(&terminal, NULL, NULL, &size);
    if (kest < 0)
        die("forkpty");
    if (kest == 0) {
        setenv("TERM", "xterm-256color", 1);
        setenv("COLORTERM", "truecolor", 1);
        execv(argv[0], argv);
        _exit(127);
    }
    wait_for("> ");
}

static long peak_memory(void)
{
    char path[64], line[256];
    long size = 0;
    snprintf(path, sizeof path, "/proc/%d/status", (int)kest);
    FILE *file = fopen(path, "r");
    while (file && fgets(line, sizeof line, file))
        sscanf(line, "VmHWM: %ld", &size);
    if (file)
        fclose(file);
    return size;
}

static int ascending(const void *left, const void *right)
{
    double a = *(const double *)left, b = *(const double *)right;
    return (a > b) - (a < b);
}

static void measure_tabs(char **lines, size_t count)
{
    double *times = calloc(count, sizeof *times);
    size_t longest = 0;
    if (!times || count == 0)
        fail("no lines");
    for (size_t i = 0; i < count; i++) {
        times[i] = tab(lines[i]);
        if (times[i] > times[longest])
            longest = i;
    }
    double most = times[longest];
    qsort(times, count, sizeof *times, ascending);
    printf("%zu %.1f %.2f %ld %s\n", count, most, times[count / 2], peak_memory(), lines[longest]);
    free(times);
}

static void count_requests(char **lines, size_t count, char **hints, size_t hint_count)
{
    requests = 0;
    for (size_t i = 0; i < count; i++)
        tab(lines[i]);
    long first = requests;
    requests = 0;
    for (size_t i = 0; i < count; i++)
        tab(lines[i]);
    for (size_t i = 0; i < hint_count; i++)
        type(hints[i], "", hint_color);
    printf("%ld %zu %zu %ld\n", first, count, hint_count, requests);
}

int main(int argc, char **argv)
{
    bool tabs = argc > 3 && !strcmp(argv[1], "tabs");
    if (!tabs && (argc < 6 || strcmp(argv[1], "count")))
        return 2;
    signal(SIGPIPE, SIG_IGN);
    size_t count, hint_count = 0;
    if (tabs) {
        char **lines = read_lines(argv[2], &count);
        start(argv + 3);
        measure_tabs(lines, count);
    } else {
        struct sockaddr_un address = {.sun_family = AF_UNIX};
        char *words[32] = {argv[5], "-u", address.sun_path};
        daemon_path = argv[2];
        snprintf(address.sun_path, sizeof address.sun_path, "%s.relay", daemon_path);
        unlink(address.sun_path);
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) || listen(listener, LINKS))
            die(address.sun_path);
        for (int i = 6; i < argc && i < 30; i++)
            words[i - 3] = argv[i];
        char **lines = read_lines(argv[3], &count), **hints = read_lines(argv[4], &hint_count);
        start(words);
        count_requests(lines, count, hints, hint_count);
    }
    kill(kest, SIGKILL);
    waitpid(kest, NULL, 0);
    return 0;
}
