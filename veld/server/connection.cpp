#include "veld/server/connection.h"

#include "base/clock.h"
#include "veld/base/log.h"

#include <algorithm>
#include <sys/epoll.h>

namespace veld
{

namespace
{

constexpr size_t events_limit = size_t{4} << 20;
// What one client may take of a round before the others have theirs.
constexpr int64_t time_at_once_ms = 5;
constexpr int lines_at_once = 64;
// What a client may always send, however much the others hold.
constexpr size_t input_of_everybody = size_t{1} << 20;
constexpr int reads_at_once = 16;
constexpr size_t written_at_once = size_t{4} << 20;
constexpr int64_t greeting_limit_ms = 10000;
constexpr size_t joined_message = 16384;

} // namespace

connection::connection(loop &events, uint64_t id, std::unique_ptr<transport> link, std::string peer,
                       std::optional<peer_identity> identity, connection_owner &owner, held_memory &memory)
    : loop_(events), id_(id), link_(std::move(link)), peer_(std::move(peer)), identity_(identity), owner_(owner),
      memory_(memory), self_(std::make_shared<connection *>(this))
{
    watching_ = EPOLLIN;
    loop_.watch(link_->fd(), watching_, [this](uint32_t bits) { ready(bits); });
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
    if (link_)
        loop_.forget(link_->fd());
}

void connection::greet()
{
    const io_state state = link_->greet();
    if (state == io_state::want_read || state == io_state::want_write) {
        write_wants_read_ = state == io_state::want_read;
        update_watch();
        return;
    }
    loop_.cancel(deadline_);
    deadline_ = 0;
    if (state != io_state::done) {
        close();
        return;
    }
    greeted_ = true;
    write_wants_read_ = false;
    update_watch();
}

void connection::ready(uint32_t events)
{
    if (over_)
        return;
    if (!greeted_) {
        greet();
        if (!greeted_ || over_)
            return;
    }
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLIN) == 0 && !blocked()) {
        close();
        return;
    }
    if ((events & EPOLLHUP) != 0 && blocked()) {
        // Nobody is there any more to read what is queued.
        close();
        return;
    }
    flush();
    if (!over_ && !blocked() && !ended_ && !resuming_)
        receive();
    if (!over_)
        update_watch();
}

void connection::receive()
{
    read_wants_write_ = false;
    for (int i = 0; i < reads_at_once && !blocked() && !over_; ++i) {
        size_t room = 0;
        char *into = reader_.prepare(&room);
        const io_result got = link_->read(into, room);
        if (got.state == io_state::want_read)
            break;
        if (got.state == io_state::want_write) {
            read_wants_write_ = true;
            break;
        }
        if (got.state == io_state::failed) {
            close();
            return;
        }
        if (got.state == io_state::closed) {
            ended_ = true;
            break;
        }
        reader_.commit(got.bytes);
        if (!take_input(got.bytes))
            return;
        take_lines();
        if (resuming_)
            break;
    }
    if (ended_ && !resuming_ && !blocked() && !over_)
        finish(greeting_limit_ms, true);
    else if (!over_ && !blocked() && link_->holds_input())
        resume_later();
}

void connection::account_input(size_t bytes)
{
    memory_.input += bytes - unfinished_;
    unfinished_ = bytes;
}

// Accounts for more input. False when everybody together holds too much, and this link is over.
bool connection::take_input(size_t bytes)
{
    account_input(unfinished_ + bytes);
    if (memory_.input <= held_memory::input_limit || unfinished_ <= input_of_everybody)
        return true;
    LOG_WARNING("%s: too much input is held for all clients together", peer_.c_str());
    close();
    return false;
}

void connection::take_lines()
{
    const int64_t started = monotonic_ms();
    for (int i = 0; !blocked() && !over_; ++i) {
        if (i == lines_at_once || (i > 0 && monotonic_ms() - started >= time_at_once_ms)) {
            resume_later();
            return;
        }
        std::string_view line;
        const wire_reader::state state = reader_.next(&line);
        if (!reader_.pending())
            account_input(0);
        if (state == wire_reader::state::more)
            return;
        if (state == wire_reader::state::too_long) {
            LOG_WARNING("%s: a line over the limit", peer_.c_str());
            close();
            return;
        }
        account_input(unfinished_ - std::min(unfinished_, line.size() + 1));
        owner_.line_received(*this, line);
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
        if (me->over_ || me->blocked())
            return;
        me->take_lines();
        if (!me->resuming_ && !me->over_ && !me->blocked()) {
            if (me->ended_)
                me->finish(greeting_limit_ms, true);
            else
                me->receive();
        }
        if (!me->over_)
            me->update_watch();
    });
}

void connection::release()
{
    if (holds_ > 0 && --holds_ == 0 && !over_)
        resume_later();
}

void connection::answer_given()
{
    if (expected_ == 0)
        return;
    if (--expected_ == 0 && finishing_ && output_.empty() && holds_ == 0)
        close();
}

void connection::send(std::string message)
{
    if (over_)
        return;
    queued_answers_ = std::min(queued_answers_ + message.size(), 2 * wire_line_max);
    enqueue(std::move(message));
}

void connection::enqueue(std::string message)
{
    queued_ += message.size();
    memory_.output += message.size();
    if (!output_.empty() && output_.back().size() + message.size() < joined_message)
        output_.back() += message;
    else
        output_.push_back(std::move(message));
    if (output_.size() == 1)
        flush();
    if (!over_)
        update_watch();
}

void connection::send_event(const std::string &message)
{
    if (over_)
        return;
    if (queued_ > queued_answers_ + events_limit) {
        LOG_WARNING("%s: does not read its events", peer_.c_str());
        close();
        return;
    }
    enqueue(message);
}

void connection::flush()
{
    const bool was_blocked = blocked();
    write_wants_read_ = false;
    size_t budget = written_at_once;
    while (greeted_ && !output_.empty() && budget > 0) {
        std::string &first = output_.front();
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
        queued_ -= put.bytes;
        memory_.output -= put.bytes;
        if (written_ == first.size()) {
            output_.pop_front();
            written_ = 0;
        }
    }
    if (output_.empty())
        queued_answers_ = 0;
    if (output_.empty() && finishing_ && expected_ == 0)
        close();
    else if (was_blocked && !blocked())
        resume_later();
}

void connection::update_watch()
{
    uint32_t wanted = 0;
    if (!greeted_) {
        wanted = write_wants_read_ ? EPOLLIN : EPOLLOUT;
    } else {
        if ((!blocked() && !ended_ && !read_wants_write_) || write_wants_read_)
            wanted |= EPOLLIN;
        if ((!output_.empty() && !write_wants_read_) || read_wants_write_)
            wanted |= EPOLLOUT;
    }
    if (wanted != watching_) {
        watching_ = wanted;
        loop_.change(link_->fd(), wanted);
    }
}

void connection::finish(int64_t within_ms, bool waiting)
{
    if (over_)
        return;
    finishing_ = true;
    if (!waiting)
        expected_ = holds_ = 0;
    if (output_.empty() && holds_ == 0 && expected_ == 0) {
        close();
        return;
    }
    if (deadline_ == 0 && expected_ == 0)
        deadline_ = loop_.after(within_ms, [this] {
            deadline_ = 0;
            close();
        });
}

void connection::close()
{
    if (over_)
        return;
    over_ = true;
    if (link_) {
        loop_.forget(link_->fd());
        link_.reset();
    }
    output_.clear();
    memory_.output -= queued_;
    queued_ = 0;
    account_input(0);
    owner_.connection_over(*this);
}

} // namespace veld
