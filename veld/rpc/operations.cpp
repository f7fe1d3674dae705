#include "veld/rpc/operations.h"

#include <utility>

namespace veld
{

namespace
{

struct limit {
    size_t of_account;
    size_t of_most; // the others are kept for those to whom the device belongs
    size_t of_all;
};

constexpr limit of_operations = {16, 96, 128};
constexpr limit of_transfers = {2, 6, 8}; // of them: each may fill a disk

const char *text_of(operation_kind kind)
{
    switch (kind) {
    case operation_kind::method:
        return "too many methods are running";
    case operation_kind::transfer:
        return "too many transfers are under way";
    case operation_kind::work:
        break;
    }
    return "too many operations are under way";
}

} // namespace

fault operations::admits(operation_kind kind, const operation_asker &asker) const
{
    size_t own = 0;
    size_t transfers = 0;
    size_t own_transfers = 0;
    for (const auto &[id, one] : each_) {
        const bool same = one.account == asker.account;
        const bool transfer = one.kind == operation_kind::transfer;
        own += same ? 1 : 0;
        transfers += transfer ? 1 : 0;
        own_transfers += same && transfer ? 1 : 0;
    }
    const auto full = [](const limit &of, size_t count, size_t count_of_account, bool favoured) {
        return count_of_account >= of.of_account || count >= (favoured ? of.of_all : of.of_most);
    };
    const bool no_room =
        full(of_operations, each_.size(), own, asker.administrator) ||
        (kind == operation_kind::transfer && full(of_transfers, transfers, own_transfers, asker.owner));
    return no_room ? fault{code::resources, text_of(kind)} : fault{};
}

void operations::run(operation_kind kind, const operation_asker &asker, std::unique_ptr<job> what,
                     job::ended_handler ended)
{
    const uint64_t id = next_++;
    job *const begun = what.get();
    each_.emplace(id, operation{kind, asker.client, asker.account, std::move(what), std::move(ended)});
    begun->begin(
        loop_, [this, id](job_outcome &outcome) { over(id, outcome); }, asker.account);
}

void operations::over(uint64_t id, job_outcome &outcome)
{
    // Nothing of it is left when the client hears of it.
    auto ended = each_.extract(id);
    ended.mapped().what.reset();
    ended.mapped().ended(outcome);
}

void operations::end(uint64_t client)
{
    std::erase_if(
        each_, [client](const auto &one) { return one.second.client == client && one.second.what->can_be_cut_off(); });
}

void operations::end_all()
{
    std::erase_if(each_, [](const auto &one) { return one.second.what->can_be_cut_off(); });
}

} // namespace veld
