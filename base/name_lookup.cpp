#include "base/name_lookup.h"

#include <atomic>
#include <map>
#include <mutex>
#include <netdb.h>
#include <sys/eventfd.h>
#include <utility>

#include "base/fd.h"
#include "base/thread.h"

namespace
{

constexpr int most_lookups = 128;
constexpr long most_of_an_asker = 16;
constexpr size_t stack_size = size_t{512} << 10;
std::atomic<int> lookups{0}; // threads under way; written by those who start them and by them

// What the look-ups of one asker hold together: so many there are.
using asker_share = std::shared_ptr<const bool>;

std::mutex askers_lock;
std::map<std::string, std::weak_ptr<const bool>> askers; // guarded by it; those who have look-ups

// The share of one more look-up; null when the asker has too many.
asker_share share_of(const std::string &asker)
{
    const std::lock_guard guard(askers_lock);
    std::erase_if(askers, [](const auto &one) { return one.second.expired(); });
    std::weak_ptr<const bool> &known = askers[asker];
    asker_share share = known.lock();
    if (!share)
        known = share = std::make_shared<const bool>(true);
    return known.use_count() > most_of_an_asker ? nullptr : share;
}

} // namespace

struct name_lookup::shared {
    std::string host;
    int family;
    fd_owner done;
    std::atomic<bool> ended{false};
    std::vector<host_address> found; // these two are the thread's until `ended`, then nobody writes them
    int outcome = 0;
    asker_share share; // the thread's
};

void name_lookup::run(std::shared_ptr<shared> of)
{
    of->outcome = addresses_of(of->host, of->family, &of->found);
    of->share.reset();
    of->ended = true;
    eventfd_write(of->done.get(), 1);
    of.reset();
    lookups--;
}

std::unique_ptr<name_lookup> name_lookup::start(const std::string &host, int family, const std::string &asker)
{
    asker_share share = share_of(asker);
    if (lookups >= most_lookups || !share)
        return nullptr;
    auto state = std::make_shared<shared>();
    state->share = std::move(share);
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
