#include "base/name_lookup.h"

#include <atomic>
#include <netdb.h>
#include <sys/eventfd.h>
#include <utility>

#include "base/fd.h"
#include "base/thread.h"

namespace
{

constexpr int most_lookups = 16;
constexpr size_t stack_size = size_t{512} << 10;
std::atomic<int> lookups{0}; // threads under way; written by those who start them and by them

} // namespace

struct name_lookup::shared {
    std::string host;
    int family;
    fd_owner done;
    std::atomic<bool> ended{false};
    std::vector<host_address> found; // these two are the thread's until `ended`, then nobody writes them
    int outcome = 0;
};

void name_lookup::run(std::shared_ptr<shared> of)
{
    of->outcome = addresses_of(of->host, of->family, &of->found);
    of->ended = true;
    eventfd_write(of->done.get(), 1);
    of.reset();
    lookups--;
}

std::unique_ptr<name_lookup> name_lookup::start(const std::string &host, int family)
{
    if (lookups >= most_lookups)
        return nullptr;
    auto state = std::make_shared<shared>();
    state->host = host;
    state->family = family;
    state->done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state->done)
        return nullptr;

    lookups++;
    if (!thread_start(stack_size, [state]() mutable { run(std::move(state)); })) {
        lookups--;
        return nullptr;
    }
    return std::unique_ptr<name_lookup>(new name_lookup(std::move(state)));
}

name_lookup::name_lookup(std::shared_ptr<shared> state) : state_(std::move(state)) {}

name_lookup::~name_lookup() = default;

int name_lookup::fd() const
{
    return state_->done.get();
}

bool name_lookup::ended() const
{
    return state_->ended;
}

std::vector<host_address> name_lookup::found() const
{
    return state_->ended ? state_->found : std::vector<host_address>{};
}

const char *name_lookup::error() const
{
    return gai_strerror(state_->outcome);
}
