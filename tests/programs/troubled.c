// A machine in trouble, for a program that is started with this library preloaded: calls that fail, kill, or take long.
//
//   TROUBLE_FAIL=N:ERRNO   the Nth system call that changes a file below TROUBLE_BELOW fails with that error
//   TROUBLE_KILL=N         the process is killed at the Nth such call, before it is made
//   TROUBLE_COUNT=FILE     how many such calls were made is written there, as a number
//   TROUBLE_BELOW=DIR      what counts: files below that directory
//   TROUBLE_FSYNC_MS=MS    every fsync takes so long
//   TROUBLE_NAMES_MS=MS    looking up a user of the machine, or a host, takes so long
//   TROUBLE_DUP2=N:ERRNO   the Nth dup2 fails with that error
//   TROUBLE_TYPED=N:FILE   when the terminal's Ctrl-C becomes a signal for the Nth time that file is made, and a key
//                          awaited
//   TROUBLE_STRUCK=N:FILE  when it becomes a key again for the Nth time that file is made, and a Ctrl-C awaited, and
//                          what is typed behind it
//   TROUBLE_ARMED=FILE     nothing counts, fails or takes long before that file exists
//
// Both names of open() are defined here, so that neither may stand for the other.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

static atomic_int calls;

static const char *variable(const char *name)
{
    const char *value = getenv(name);
    return value != NULL ? value : "";
}

static int armed(void)
{
    const char *file = variable("TROUBLE_ARMED");
    return *file == '\0' || access(file, F_OK) == 0;
}

static void wait_as_said(const char *name)
{
    const long ms = strtol(variable(name), NULL, 10);
    if (ms <= 0 || !armed())
        return;
    const struct timespec span = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&span, NULL);
}

static int below(const char *path)
{
    const char *place = variable("TROUBLE_BELOW");
    return *place != '\0' && strncmp(path, place, strlen(place)) == 0;
}

static int descriptor_below(int fd)
{
    char name[64];
    char path[PATH_MAX];
    snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
    const ssize_t size = readlink(name, path, sizeof path - 1);
    if (size <= 0)
        return 0;
    path[size] = '\0';
    return below(path);
}

// Counts a call; whether it is to fail, with errno set.
static int fails(int counts)
{
    if (!counts || !armed())
        return 0;
    const int number = ++calls;
    const char *file = variable("TROUBLE_COUNT");
    if (*file != '\0') {
        int (*open_file)(const char *, int, ...) = (int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open");
        const int fd = open_file(file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dprintf(fd, "%d", number);
        close(fd);
    }
    if (atoi(variable("TROUBLE_KILL")) == number)
        raise(SIGKILL);
    const char *failure = variable("TROUBLE_FAIL");
    const char *error = strchr(failure, ':');
    if (error == NULL || atoi(failure) != number)
        return 0;
    errno = atoi(error + 1);
    return 1;
}

#define REAL(type, name, ...) ((type(*)(__VA_ARGS__))dlsym(RTLD_NEXT, #name))

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (fails((flags & (O_CREAT | O_WRONLY | O_RDWR)) != 0 && below(path)))
        return -1;
    return REAL(int, open, const char *, int, ...)(path, flags, mode);
}

#ifndef open64 // a name of open in other C libraries than GNU's
int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return open(path, flags | O_LARGEFILE, mode);
}
#endif

ssize_t write(int fd, const void *bytes, size_t count)
{
    if (fails(descriptor_below(fd)))
        return -1;
    return REAL(ssize_t, write, int, const void *, size_t)(fd, bytes, count);
}

int fsync(int fd)
{
    wait_as_said("TROUBLE_FSYNC_MS");
    return fails(descriptor_below(fd)) ? -1 : REAL(int, fsync, int)(fd);
}

int fchmod(int fd, mode_t mode)
{
    return fails(descriptor_below(fd)) ? -1 : REAL(int, fchmod, int, mode_t)(fd, mode);
}

int rename(const char *from, const char *to)
{
    return fails(below(to)) ? -1 : REAL(int, rename, const char *, const char *)(from, to);
}

int unlink(const char *path)
{
    return fails(below(path)) ? -1 : REAL(int, unlink, const char *)(path);
}

int close(int fd)
{
    const int counts = descriptor_below(fd);
    const int result = REAL(int, close, int)(fd);
    return fails(counts) ? -1 : result;
}

int dup2(int from, int to)
{
    static atomic_int times;
    const char *which = variable("TROUBLE_DUP2");
    const char *error = strchr(which, ':');
    if (error != NULL && ++times == atoi(which)) {
        errno = atoi(error + 1);
        return -1;
    }
    return REAL(int, dup2, int, int)(from, to);
}

static int is_moment(const char *which, int *times)
{
    const char *file = strchr(which, ':');
    if (file == NULL || ++*times != atoi(which))
        return 0;
    close(open(file + 1, O_WRONLY | O_CREAT, 0600));
    return 1;
}

static void await_interrupt(void)
{
    sigset_t pending;
    const struct timespec moment = {0, 1000000};
    do {
        nanosleep(&moment, NULL);
        sigpending(&pending);
    } while (!sigismember(&pending, SIGINT));
    const struct timespec behind = {0, 200000000};
    nanosleep(&behind, NULL);
}

int tcsetattr(int fd, int when, const struct termios *modes)
{
    static int signals_times;
    static int keys_times;
    struct termios now;
    const int signals_now = tcgetattr(fd, &now) == 0 && (now.c_lflag & ISIG) != 0;
    const int signals = (modes->c_lflag & ISIG) != 0;
    if (signals && is_moment(variable("TROUBLE_TYPED"), &signals_times)) {
        struct pollfd input = {fd, POLLIN, 0};
        poll(&input, 1, signals_now ? 300 : -1); // the signal may have come already
    } else if (!signals && signals_now && is_moment(variable("TROUBLE_STRUCK"), &keys_times)) {
        await_interrupt();
    }
    return REAL(int, tcsetattr, int, int, const struct termios *)(fd, when, modes);
}

int getpwnam_r(const char *name, struct passwd *entry, char *buffer, size_t size, struct passwd **found)
{
    if (strcmp(name, "root") != 0)
        wait_as_said("TROUBLE_NAMES_MS");
    return REAL(int, getpwnam_r, const char *, struct passwd *, char *, size_t, struct passwd **)(name, entry, buffer,
                                                                                                  size, found);
}

int getaddrinfo(const char *node, const char *service, const struct addrinfo *hints, struct addrinfo **found)
{
    wait_as_said("TROUBLE_NAMES_MS");
    return REAL(int, getaddrinfo, const char *, const char *, const struct addrinfo *,
                struct addrinfo **)(node, service, hints, found);
}
