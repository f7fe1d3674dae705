// Questions about the model. Few are asked of so much that others would notice: those are answered in slices, between
// which the loop does what else there is to do. The client that asked waits for its answer, as it would anyway: until
// then its next requests are not looked at. One such answer is made at a time; the next query of the kind, of which
// each account has one in its turn, begins when that is done, so that what is held for answers under way is bounded by
// the longest message.
//
// What an answer tells is the model as it was when its first slice was begun, whatever is set, added, deleted or moved
// before its last: the tree keeps that past (veld/model/past.h). A set between two slices is answered at once, and what
// is answered later tells nothing of it. Nobody could tell this from an answer that was made in one go and took its
// time on the way. What cannot be kept waits until the answer is made whole: a configuration or a reset, which replaces
// all of the model, and a set on which something behind the model acts, which shows in values that are only asked for.
// What the device itself does meanwhile shows in live values, as it always has: each is told when it is come upon.
#include "base/clock.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/service.h"

#include <algorithm>
#include <utility>

namespace veld
{

namespace
{

constexpr int64_t slice_us = 1000;
// What a query gets at once when others had the slice of this round of the loop: as many as ask at once.
constexpr int64_t least_slice_us = 50;
constexpr unsigned entries_unwatched = 16; // between two looks at the clock

} // namespace

void service::get_names(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ParameterPath");
    const bool next_level = reader.boolean("NextLevel", false);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_query(from, to, query::of_names(&tree_, from.who.rights, path, next_level));
}

void service::get_values(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *names = reader.texts("ParameterNames");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_query(from, to, query::of_values(&tree_, from.who.rights, names));
}

void service::get_attributes(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *names = reader.texts("ParameterNames");
    const int64_t depth = reader.integer("Depth", -1, 0);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_query(from, to, query::of_attributes(&tree_, from.who.rights, names, depth));
}

void service::answer_query(client &from, const ticket &to, std::unique_ptr<query> asked)
{
    long_query one{to, std::move(asked), {}, 0};
    const bool first = long_queries_.empty();
    if (first)
        tree_.begin_past();
    if (write_slice(&one, false)) {
        if (first)
            tree_.end_past();
        answer_written(&one);
        return;
    }
    if (!first) { // no past is kept for it yet
        one.asked->begin_again();
        one.pieces.clear();
        one.size = 0;
    }
    from.link->hold();
    wait_for_turn(from, std::move(one));
    go_on_soon();
}

// However many queries one account has, another's does not wait behind all of them.
void service::wait_for_turn(client &from, long_query one)
{
    uint64_t &last = turns_[from.account()];
    one.turn = last = std::max(last, turn_) + 1;
    if (long_queries_.empty())
        turn_ = one.turn;
    const auto behind_the_first = long_queries_.begin() + (long_queries_.empty() ? 0 : 1);
    const auto later = std::upper_bound(behind_the_first, long_queries_.end(), one.turn,
                                        [](uint64_t turn, const long_query &other) { return turn < other.turn; });
    long_queries_.insert(later, std::move(one));
}

// Writes more of an answer, all that is left of it when it is to be `whole`. Returns whether it has come to its end.
bool service::write_slice(long_query *of, bool whole)
{
    std::string text;
    if (of->pieces.empty())
        text = "{\"jsonrpc\":\"2.0\",\"id\":" + of->to.id + ",\"result\":";
    if (std::exchange(sliced_round_, loop_.round()) != loop_.round())
        sliced_us_ = 0;
    // The one that is under way gets its slice however many ask.
    const bool goes_on = !long_queries_.empty() && of == &long_queries_.front();
    const int64_t budget = goes_on ? slice_us : std::max(slice_us - sliced_us_, least_slice_us);
    const int64_t began = monotonic_us();
    unsigned entries = 0;
    // One byte is left for the brace that ends the message.
    tree_.look_back(tree_.has_past() && (long_queries_.empty() || goes_on));
    const bool over = of->asked->proceed({&text, wire_line_max - 1 - of->size}, [&] {
        return !whole && ++entries % entries_unwatched == 0 && monotonic_us() - began >= budget;
    });
    sliced_us_ += monotonic_us() - began;
    tree_.look_back(false);
    if (over)
        text += "}\n";
    of->size += text.size();
    of->pieces.push_back(std::move(text));
    return over;
}

void service::answer_written(long_query *of)
{
    if (of->asked->problem())
        return answer_fault(of->to, of->asked->problem());
    const bool large = of->size > answer_of_everybody;
    const client *asking = find(of->to.client);
    if (large && asking != nullptr && !make_room_to_read(asking->account(), of->size, false))
        return answer_fault(of->to, {code::resources, "too many answers wait to be read", ""});
    send_to(of->to, std::move(of->pieces));
}

void service::go_on_soon()
{
    if (!std::exchange(going_on_, true))
        loop_.post([this] {
            going_on_ = false;
            go_on();
        });
}

void service::go_on()
{
    if (long_queries_.empty())
        return;
    long_query &first = long_queries_.front();
    if (find(first.to.client) != nullptr) {
        begin_reading();
        if (!write_slice(&first, false))
            return go_on_soon();
    }
    answer_first();
}

// Ends the query that is under way, there is one, here and now.
void service::end_query()
{
    long_query &first = long_queries_.front();
    if (find(first.to.client) != nullptr) {
        begin_reading();
        write_slice(&first, true);
    }
    answer_first();
}

void service::begin_reading()
{
    if (tree_.has_past())
        return;
    tree_.begin_request();
    tree_.begin_past();
}

// The query that was under way has come to its end, or nobody waits for it any more.
void service::answer_first()
{
    tree_.end_past();
    long_query done = std::move(long_queries_.front());
    long_queries_.pop_front();
    if (!long_queries_.empty()) {
        turn_ = long_queries_.front().turn;
        go_on_soon();
    }
    std::erase_if(turns_, [this](const auto &one) { return one.second <= turn_; });
    if (find(done.to.client) == nullptr)
        return;
    answer_written(&done);
    if (client *asking = find(done.to.client))
        asking->link->release();
}

} // namespace veld
