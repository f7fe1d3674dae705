// Fetching a file without blocking anybody: from the file system, from a bare TCP connection, over HTTP.
#pragma once

#include "base/name_lookup.h"
#include "veld/base/fault.h"
#include "veld/base/loop.h"
#include "veld/base/worker.h"
#include "veld/firmware/source_url.h"
#include "veld/firmware/spool.h"

#include <functional>
#include <memory>
#include <optional>
#include <sys/types.h>

namespace veld
{

/// What a fetch keeps within.
struct fetch_bounds {
    int64_t stall_ms;            ///< how long a connect, and every wait for more, may take
    std::optional<uid_t> reader; ///< whose files of this machine it may read; nothing: those of everybody alone
    std::string account = {};    ///< whose limits count
};

class fetch
{
public:
    using done_handler = std::function<void(const fault &)>;

    /// Starts to fetch `url` into `into`, which must outlive the fetch. `done` is called once, never before start()
    /// returns, and may destroy the fetch. What arrives drop by drop ends like what does not arrive.
    /// `disk` reads files of this machine; it outlives the fetch.
    fetch(loop &events, worker &disk, source_url url, spool &into, fetch_bounds bounds, done_handler done);
    fetch(const fetch &) = delete;
    fetch &operator=(const fetch &) = delete;
    /// Gives up what is under way.
    ~fetch();

    void start();
    /// Whether what was fetched is a file of this machine that not everybody may read.
    bool confidential() const { return confidential_; }

private:
    enum class stage { looking_up, connecting, asking, header, body };

    struct file_reading;

    void open_file();
    void take_block();
    void look_up();
    void looked_up();
    void connect_next();
    void connected();
    void ready();
    void send_request();
    bool receive();
    bool take_header();
    void received_all();
    void progress();
    bool arrived(size_t bytes);
    void stalled();
    void watch(int fd, uint32_t bits);
    void forget();
    void end(const fault &result);
    void fail(code why, const std::string &what) { end({why, what}); }

    loop &loop_;
    worker &disk_;
    source_url url_;
    spool &into_;
    fetch_bounds bounds_;
    bool confidential_ = false;
    std::shared_ptr<file_reading> file_; // shared with the thread that reads
    int64_t pace_began_ = 0;             // of the time over which the pace is judged
    size_t pace_bytes_ = 0;              // that arrived in it
    done_handler done_;
    stage stage_ = stage::looking_up;
    std::unique_ptr<name_lookup> lookup_;
    std::vector<host_address> addresses_;
    size_t next_address_ = 0;
    fd_owner fd_;
    loop::watch_id watch_ = 0;
    loop::timer_id timer_ = 0;
    std::string request_;    // what is still to be sent
    std::string header_;     // an HTTP header under way
    int64_t remaining_ = -1; // bytes that the server announced; -1: up to the end
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace veld
