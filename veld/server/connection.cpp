#include "veld/server/connection.h"

#include "base/clock.h"
#include "veld/base/log.h"

#include <algorithm>
#include <sys/epoll.h>
#include <utility>

namespace veld
{

namespace
{

// How much of events may pile up unread. What comes in one round of the loop counts for less: nobody could have read
// it.
constexpr size_t events_limit = size_t{4} << 20;
constexpr size_t events_of_a_round = size_t{256} << 10;
// What one client may take of a round before the others have theirs.
constexpr int64_t time_at_once_us = 1000;
constexpr int lines_at_once = 64;
// What a client may always send, however much the others hold.
constexpr size_t input_of_everybody = size_t{64} << 10;
constexpr int reads_at_once = 16;
constexpr size_t written_at_once = size_t{4} << 20;
constexpr int64_t greeting_limit_ms = 10000;
constexpr size_t joined_message = 16384;

} // namespace

connection::connection(loop &events, uint64_t id, std::unique_ptr<transport> link, std::string peer,
                       std::optional<peer_identity> identity, connection_owner &owner, held_memory &memory)
    : loop_(events), id_(id), link_(std::move(link)), peer_(std::move(peer)), identity_(identity), owner_(owner),
      memory_(memory), last_line_(monotonic_ms()), self_(std::make_shared<connection *>(this))
{
    watching_ = EPOLLIN;
    watch_ = loop_.watch(link_->fd(), watching_, [this](uint32_t bits) { ready(bits); });
    if (watch_ == 0) {
        unwatchable();
        return;
    }
    deadline_ = loop_.after(greeting_limit_ms, [this] {
        deadline_ = 0;
        LOG_INFO("%s: no handshake in time", peer_.c_str());
        close();
    });
    greet();
}

connection::~connection()
{
    *self_ = nullptr;
    if (deadline_ != 0)
        loop_.cancel(deadline_);
    loop_.forget(watch_);
}

void connection::greet()
{
    const io_state met = link_->greet();
    if (met == io_state::want_read || met == io_state::want_write) {
        write_wants_read_ = met == io_state::want_read;
        update_watch();
        return;
    }
    loop_.cancel(deadline_);
    deadline_ = 0;
    if (met != io_state::done) {
        close();
        return;
    }
    state_ = state::open;
    write_wants_read_ = false;
    update_watch();
}

void connection::ready(uint32_t events)
{
    if (state_ == state::greeting)
        greet();
    if (state_ == state::greeting || over())
        return;
    // Without EPOLLIN, or behind what it would not read: nobody is there any more to read what is queued.
    if (((events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLIN) == 0 && !blocked()) ||
        ((events & EPOLLHUP) != 0 && blocked())) {
        close();
        return;
    }
    flush();
    if (reads() && !resuming_)
        receive();
    if (!over())
        update_watch();
}

void connection::receive()
{
    read_wants_write_ = false;
    for (int i = 0; i < reads_at_once && reads(); ++i) {
        size_t room = 0;
        char *into = reader_.prepare(&room);
        const io_result got = link_->read(into, room);
        // What is held inside then is the beginning of something: the rest of it is waited for.
        if (got.state == io_state::want_read || got.state == io_state::want_write) {
            read_wants_write_ = got.state == io_state::want_write;
            return;
        }
        if (got.state == io_state::failed) {
            close();
            return;
        }
        if (got.state == io_state::closed) { // what came before it has been worked on
            finish(greeting_limit_ms, true);
            return;
        }
        reader_.commit(got.bytes);
        if (!take_input(got.bytes))
            return;
        take_lines();
        if (resuming_)
            break;
    }
    if (reads() && link_->holds_input())
        resume_later();
}

void connection::account_input(size_t bytes)
{
    memory_.input += bytes - unfinished_;
    if (!known_)
        memory_.anonymous_input += bytes - unfinished_;
    unfinished_ = bytes;
}

void connection::known(bool known)
{
    const size_t held = unfinished_;
    account_input(0);
    known_ = known;
    account_input(held);
}

// Accounts for more input. False when everybody together holds too much, and this link is over.
bool connection::take_input(size_t bytes)
{
    account_input(unfinished_ + bytes);
    const bool fits = memory_.input <= held_memory::input_limit &&
                      (known_ || memory_.anonymous_input <= held_memory::anonymous_input_limit);
    if (fits || unfinished_ <= input_of_everybody)
        return true;
    LOG_WARNING("%s: too much input is held for all clients together", peer_.c_str());
    close();
    return false;
}

void connection::take_lines()
{
    const int64_t started = monotonic_us();
    for (int i = 0; !blocked(); ++i) {
        if (i == lines_at_once || (i > 0 && monotonic_us() - started >= time_at_once_us)) {
            resume_later();
            return;
        }
        std::string_view line;
        const wire_reader::state found = reader_.next(&line);
        if (found == wire_reader::state::more) {
            if (!reader_.pending())
                account_input(0);
            return;
        }
        if (found == wire_reader::state::too_long) {
            LOG_WARNING("%s: a line over the limit", peer_.c_str());
            close();
            return;
        }
        last_line_ = started / 1000;
        const size_t size = line.size() + 1;
        owner_.line_received(*this, line);
        // What is worked on elsewhere stays accounted for until the hold is over.
        if (holds_ > 0)
            held_line_ = size;
        else
            account_input(unfinished_ - std::min(unfinished_, size));
    }
}

void connection::resume_later()
{
    if (resuming_)
        return;
    resuming_ = true;
    loop_.post([self = self_] {
        connection *me = *self;
        if (me == nullptr)
            return;
        me->resuming_ = false;
        if (me->blocked())
            return;
        me->take_lines();
        if (!me->resuming_ && !me->blocked())
            me->receive();
        if (!me->over())
            me->update_watch();
    });
}

void connection::release()
{
    if (holds_ == 0 || --holds_ > 0 || over())
        return;
    account_input(unfinished_ - std::min(unfinished_, std::exchange(held_line_, 0)));
    if (state_ == state::finishing && all_answered())
        close();
    else
        resume_later();
}

void connection::answer_given()
{
    if (expected_ == 0)
        return;
    --expected_;
    if (state_ == state::finishing && all_answered())
        close();
}

void connection::send(std::string message)
{
    if (!over())
        enqueue({std::move(message), nullptr});
}

void connection::enqueue(outgoing message)
{
    const size_t size = message.text().size();
    queued_ += size;
    // What many get is accounted for by whoever made it.
    if (!output_.empty() && !output_.back().shared && output_.back().own.size() + size < joined_message) {
        memory_.output += size;
        output_.back().own += message.text();
    } else {
        memory_.output += message.own.size();
        output_.push_back(std::move(message));
    }
    if (output_.size() == 1)
        flush();
    if (!over())
        update_watch();
}

void connection::send_event(const std::shared_ptr<const std::string> &message)
{
    if (over())
        return;
    if (unread_ > events_limit || (memory_.output_full() && queued_ > high_water)) {
        LOG_WARNING("%s: does not read its events", peer_.c_str());
        close();
        return;
    }
    if (round_ != loop_.round())
        this_round_ = 0;
    round_ = loop_.round();
    const size_t counted = std::min(message->size(), events_of_a_round - this_round_);
    this_round_ += counted;
    unread_ += counted;
    enqueue({{}, message});
}

size_t connection::unread_output() const
{
    size_t bytes = 0;
    for (const outgoing &message : output_)
        bytes += message.text().size() / static_cast<size_t>(std::max(message.shared.use_count(), 1L));
    return bytes;
}

void connection::flush()
{
    const bool was_blocked = blocked();
    write_wants_read_ = false;
    size_t budget = written_at_once;
    while (state_ != state::greeting && !output_.empty() && budget > 0) {
        const std::string &first = output_.front().text();
        const io_result put = link_->write(first.data() + written_, first.size() - written_);
        if (put.state == io_state::want_write)
            break;
        if (put.state == io_state::want_read) {
            write_wants_read_ = true;
            break;
        }
        if (put.state != io_state::done) {
            close();
            return;
        }
        budget -= std::min(budget, put.bytes);
        written_ += put.bytes;
        sent_ += put.bytes;
        queued_ -= put.bytes;
        memory_.output -= output_.front().shared ? 0 : put.bytes;
        unread_ -= std::min(unread_, put.bytes);
        if (written_ == first.size()) {
            output_.pop_front();
            written_ = 0;
        }
    }
    if (state_ == state::finishing && all_answered())
        close();
    else if (was_blocked && !blocked())
        resume_later();
}

void connection::update_watch()
{
    uint32_t wanted = 0;
    if (state_ == state::greeting) {
        wanted = write_wants_read_ ? EPOLLIN : EPOLLOUT;
    } else {
        if ((reads() && !read_wants_write_) || write_wants_read_)
            wanted |= EPOLLIN;
        if ((!output_.empty() && !write_wants_read_) || read_wants_write_)
            wanted |= EPOLLOUT;
    }
    if (wanted == watching_)
        return;
    watching_ = wanted;
    if (!loop_.change(watch_, wanted))
        unwatchable();
}

// Without being told what happens on it the link would hang for ever.
void connection::unwatchable()
{
    LOG_ERROR("%s: the link cannot be waited for: %m", peer_.c_str());
    close();
}

void connection::finish(int64_t within_ms, bool waiting)
{
    if (over())
        return;
    state_ = state::finishing;
    if (!waiting)
        expected_ = holds_ = 0;
    if (all_answered()) {
        close();
        return;
    }
    if (deadline_ == 0 && expected_ == 0)
        limit_parting(within_ms, parting_spans);
}

void connection::limit_parting(int64_t span_ms, int spans)
{
    deadline_ = loop_.after(span_ms, [this, span_ms, spans, before = sent_] {
        deadline_ = 0;
        flush(); // the loop may have done something else for as long
        if (over())
            return;
        if (sent_ == before || spans == 1)
            close();
        else
            limit_parting(span_ms, spans - 1);
    });
}

void connection::close()
{
    if (over())
        return;
    state_ = state::over;
    loop_.forget(watch_);
    link_.reset();
    for (const outgoing &message : output_)
        memory_.output -= message.own.size();
    memory_.output += std::min(written_, output_.empty() ? 0 : output_.front().own.size());
    output_.clear();
    queued_ = 0;
    account_input(0);
    owner_.connection_over(*this);
}

} // namespace veld
