// Linked into the programs of make coverage. What they did is written down by exit() alone: here, by what else ends a
// program (_exit, abort, a signal that it raises) as well.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
void __gcov_dump();
void __gcov_reset();
}

namespace
{

bool watched; // by the torture, which looks what calls there are: there shall be none but the program's own

// Called before what is loaded ahead takes these out of the environment.
void look(int, char **, char **environment)
{
    const auto has = [environment](std::string_view name) {
        for (char **entry = environment; *entry != nullptr; entry++) {
            if (std::string_view(*entry).starts_with(name))
                return true;
        }
        return false;
    };
    watched = has("TORTURE_COUNTERS=") && !has("TORTURE_ALLOCATION=") && !has("TORTURE_SHORT=");
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const before_libraries)(int, char **, char **) = look;

// No signal, and no other thread that ends the program as well, may come in between: the counts of many runs are in one
// file.
class undisturbed
{
public:
    undisturbed()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
        pthread_mutex_lock(&lock_);
    }
    ~undisturbed()
    {
        pthread_mutex_unlock(&lock_);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    static inline pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    sigset_t before_;
};

void write_down()
{
    if (watched)
        return;
    const undisturbed alone;
    if (void *const ended = dlsym(RTLD_DEFAULT, "torture_ended"))
        reinterpret_cast<void (*)()>(ended)();
    // The limits of the program are not those of its counts, to which programs of other users add; what becomes of
    // these is no output of the program.
    for (const auto resource : {RLIMIT_AS, RLIMIT_DATA, RLIMIT_FSIZE, RLIMIT_NOFILE}) {
        rlimit limit{};
        getrlimit(resource, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(resource, &limit);
    }
    const mode_t before = umask(0);
    const int errors = dup(STDERR_FILENO), nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
    __gcov_dump();
    dup2(errors, STDERR_FILENO);
    close(errors);
    close(nowhere);
    umask(before);
}

[[noreturn]] void end(int status)
{
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

void at_exit(int status, void *)
{
    write_down();
    if (!watched)
        return;
    fflush(stdout);
    fflush(stderr);
    end(status);
}

// After the loader has said what it wants done at the end, so that this is done before.
[[gnu::constructor(101)]] void begin()
{
    on_exit(at_exit, nullptr);
}

} // namespace

extern "C" {

void _exit(int status)
{
    write_down();
    end(status);
}

int raise(int number) noexcept
{
    struct sigaction now {
    };
    sigaction(number, nullptr, &now);
    if (now.sa_handler == SIG_DFL && number != SIGTSTP) {
        write_down();
        __gcov_reset(); // it may be blocked, and come later; what is done until then is written once more
    }
    return pthread_kill(pthread_self(), number);
}

void abort() noexcept
{
    raise(SIGABRT);
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);
    end(127);
}
}
