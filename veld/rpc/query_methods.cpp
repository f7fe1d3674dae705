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
    long_query one{to, std::move(asked), {}};
    const bool first = !query_under_way_;
    if (first)
        tree_.begin_past();
    if (write_slice(&one, false)) {
        if (first)
            tree_.end_past();
        answer_written(&one);
        return;
    }
    from.link->hold();
    if (first) {
        query_under_way_ = std::move(one);
    } else { // no past is kept for it yet
        one.asked->begin_again();
        one.pieces.clear();
        one.size = 0;
        queries_waiting_.push(from.account(), std::move(one));
    }
    go_on_soon();
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
    const bool goes_on = query_under_way_ && of == &*query_under_way_;
    const int64_t budget = goes_on ? slice_us : std::max(slice_us - sliced_us_, least_slice_us);
    const int64_t began = monotonic_us();
    unsigned entries = 0;
    // One byte is left for the brace that ends the message.
    tree_.look_back(tree_.has_past() && (!query_under_way_ || goes_on));
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
    if (!query_under_way_)
        return;
    if (find(query_under_way_->to.client) != nullptr) {
        begin_reading();
        if (!write_slice(&*query_under_way_, false))
            return go_on_soon();
    }
    query_over();
}

// Ends the query that is under way, there is one, here and now.
void service::end_query()
{
    if (find(query_under_way_->to.client) != nullptr) {
        begin_reading();
        write_slice(&*query_under_way_, true);
    }
    query_over();
}

void service::begin_reading()
{
    if (tree_.has_past())
        return;
    tree_.begin_request();
    tree_.begin_past();
}

// The query that was under way has come to its end, or nobody waits for it any more.
void service::query_over()
{
    tree_.end_past();
    long_query done = std::move(*query_under_way_);
    query_under_way_.reset();
    if (!queries_waiting_.empty()) {
        query_under_way_ = queries_waiting_.take();
        go_on_soon();
    }
    if (find(done.to.client) == nullptr)
        return;
    answer_written(&done);
    if (client *asking = find(done.to.client))
        asking->link->release();
}

} // namespace veld
