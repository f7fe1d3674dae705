#include "veld/firmware/fetch.h"

#include "base/clock.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace veld
{

namespace
{

constexpr size_t block = size_t{256} << 10;
constexpr size_t block_of_file = size_t{1} << 20;
constexpr int blocks_at_once = 4;
constexpr int64_t least_per_second = 256;
constexpr size_t header_limit = size_t{64} << 10;

// Whether a file of this machine is one that `reader`, who is neither root nor this daemon, could read as well.
bool may_read(const struct stat &file, const std::string &path, std::optional<uid_t> reader)
{
    if (reader && *reader == file.st_uid)
        return true;
    if ((file.st_mode & S_IROTH) == 0 || path.empty())
        return false;
    // What stands in a directory that only some may enter is for those.
    for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0; slash = path.rfind('/', slash - 1)) {
        struct stat above {
        };
        if (stat(path.substr(0, slash).c_str(), &above) != 0 || (above.st_mode & S_IXOTH) == 0)
            return false;
    }
    return true;
}

// Where a link leads; empty where that cannot be told, which is a path that nobody may enter.
std::string target_of(const std::string &link)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return {target, length > 0 && length < static_cast<ssize_t>(sizeof target) ? static_cast<size_t>(length) : 0};
}

// One for all fetches: each uses it within one call only.
char *buffer()
{
    static char bytes[block];
    return bytes;
}

} // namespace

fetch::fetch(loop &events, worker &disk, source_url url, spool &into, fetch_bounds bounds, done_handler done)
    : loop_(events), disk_(disk), url_(std::move(url)), into_(into), bounds_(std::move(bounds)), done_(std::move(done))
{
}

fetch::~fetch()
{
    *alive_ = false;
    forget();
    if (timer_ != 0)
        loop_.cancel(timer_);
}

void fetch::start()
{
    // Posted, so that the result never comes before the caller is ready for it.
    loop_.post([this, alive = alive_] {
        if (!*alive)
            return;
        if (url_.scheme == source_scheme::file)
            open_file();
        else
            look_up();
    });
}

// Where that is not possible everything is over (the object may then be gone).
void fetch::watch(int fd, uint32_t bits)
{
    forget();
    watch_ = loop_.watch(fd, bits, [this](uint32_t) { ready(); });
    if (watch_ == 0)
        fail(code::resources, url_.host + ": " + strerror(errno));
}

void fetch::forget()
{
    loop_.forget(watch_);
    watch_ = 0;
}

void fetch::progress()
{
    if (timer_ != 0)
        loop_.cancel(timer_);
    timer_ = loop_.after(bounds_.stall_ms, [this] {
        timer_ = 0;
        stalled();
    });
}

// More arrived. False when it is so little that it would never end.
bool fetch::arrived(size_t bytes)
{
    progress();
    const int64_t now = monotonic_ms();
    if (pace_began_ == 0)
        pace_began_ = now;
    pace_bytes_ += bytes;
    const int64_t passed = now - pace_began_;
    if (passed < bounds_.stall_ms)
        return true;
    const bool enough = static_cast<int64_t>(pace_bytes_) * 1000 >= least_per_second * passed;
    pace_began_ = now;
    pace_bytes_ = 0;
    return enough;
}

void fetch::stalled()
{
    if (stage_ == stage::looking_up)
        fail(code::unreachable, url_.host + ": the name is not resolved in time");
    else if (stage_ == stage::connecting)
        connect_next();
    else
        fail(code::transfer_failed, "nothing arrived for too long");
}

void fetch::end(const fault &result)
{
    forget();
    if (timer_ != 0)
        loop_.cancel(timer_);
    timer_ = 0;
    fd_.reset();
    // The handler may destroy this object, and the function with it.
    const done_handler done = std::move(done_);
    done(result);
}

// --- files ---

struct fetch::file_reading {
    std::string path;
    std::optional<uid_t> reader;
    fd_owner fd;
    std::string block; // what was read last; empty at the end
    std::string error;
    bool confidential = false;

    void open();
    void read();
};

void fetch::file_reading::open()
{
    // It is asked where the file stands that was found: a link or a folder that is swapped meanwhile leads nowhere
    // else. Nothing is opened for reading but a file that may be read.
    const fd_owner at(::open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat found {
    };
    bool opened = at && fstat(at.get(), &found) == 0;
    int problem = errno;
    const std::string link = "/proc/self/fd/" + std::to_string(at.get());
    // Who may not look there learns nothing, not even whether it is there.
    const bool trusted = reader && (*reader == 0 || *reader == geteuid());
    const bool allowed = trusted || (opened && may_read(found, target_of(link), reader));
    if (opened && allowed && S_ISREG(found.st_mode)) {
        fd.reset(::open(link.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        opened = static_cast<bool>(fd);
        problem = errno;
    }
    confidential = opened && (found.st_mode & S_IROTH) == 0;
    if (!trusted && !(opened && allowed))
        error = path + ": cannot be read";
    else if (!opened)
        error = path + ": " + strerror(problem);
    else if (!S_ISREG(found.st_mode))
        error = path + ": not a regular file";
}

void fetch::file_reading::read()
{
    block.resize(block_of_file);
    ssize_t count = 0;
    do
        count = ::read(fd.get(), block.data(), block.size());
    while (count < 0 && errno == EINTR);
    if (count < 0)
        error = path + ": " + strerror(errno);
    block.resize(count > 0 ? static_cast<size_t>(count) : 0);
}

// The disk may be slow, or on another machine: it is waited for beside the loop.
void fetch::open_file()
{
    file_ = std::make_shared<file_reading>();
    file_->path = url_.path;
    file_->reader = bounds_.reader;
    disk_.run(
        [file = file_] {
            file->open();
            if (file->error.empty())
                file->read();
        },
        [this, alive = alive_] {
            if (*alive)
                take_block();
        });
}

void fetch::take_block()
{
    confidential_ = file_->confidential;
    if (!file_->error.empty())
        return fail(code::transfer_failed, file_->error);
    if (file_->block.empty())
        return end({});
    if (!into_.append(file_->block))
        return fail(code::transfer_failed, into_.error());
    disk_.run([file = file_] { file->read(); },
              [this, alive = alive_] {
                  if (*alive)
                      take_block();
              });
}

// --- the network ---

void fetch::look_up()
{
    progress();
    host_address address;
    if (address_parse(url_.host, AF_UNSPEC, &address)) {
        addresses_.push_back(address);
        connect_next();
        return;
    }
    lookup_ = name_lookup::start(url_.host, AF_UNSPEC, bounds_.account);
    if (!lookup_)
        return fail(code::resources, "too many names are being resolved");
    watch(lookup_->fd(), EPOLLIN);
}

void fetch::looked_up()
{
    addresses_ = lookup_->found();
    forget();
    lookup_.reset();
    if (addresses_.empty())
        return fail(code::unreachable, url_.host + ": no such host");
    connect_next();
}

void fetch::connect_next()
{
    stage_ = stage::connecting;
    int problem = ETIMEDOUT;
    while (next_address_ < addresses_.size()) {
        host_address &address = addresses_[next_address_++];
        address.set_port(url_.port);
        forget();
        fd_.reset(socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (fd_ && (connect(fd_.get(), reinterpret_cast<sockaddr *>(&address.bytes), address.length) == 0 ||
                    errno == EINPROGRESS)) {
            progress();
            watch(fd_.get(), EPOLLOUT);
            return;
        }
        problem = errno;
    }
    fail(code::unreachable, url_.host + ": " + strerror(problem));
}

void fetch::connected()
{
    int problem = 0;
    socklen_t size = sizeof problem;
    getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &problem, &size);
    if (problem != 0) {
        if (next_address_ < addresses_.size())
            connect_next();
        else
            fail(code::unreachable, url_.host + ": " + strerror(problem));
        return;
    }
    progress();
    if (url_.scheme == source_scheme::netcat) {
        stage_ = stage::body;
        watch(fd_.get(), EPOLLIN);
        return;
    }
    const std::string place = host_port_text({url_.host, url_.port});
    request_ = "GET " + url_.path +
               " HTTP/1.0\r\nHost: " + place.substr(0, url_.port == 80 ? place.rfind(':') : std::string::npos) +
               "\r\nUser-Agent: veld\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    stage_ = stage::asking;
    send_request();
}

void fetch::send_request()
{
    while (!request_.empty()) {
        const ssize_t count = send(fd_.get(), request_.data(), request_.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        if (count < 0)
            return fail(code::transfer_failed, url_.host + ": " + strerror(errno));
        request_.erase(0, static_cast<size_t>(count));
        progress();
    }
    stage_ = stage::header;
    watch(fd_.get(), EPOLLIN);
}

void fetch::ready()
{
    switch (stage_) {
    case stage::looking_up:
        looked_up();
        break;
    case stage::connecting:
        connected();
        break;
    case stage::asking:
        send_request();
        break;
    default:
        for (int i = 0; i < blocks_at_once && receive(); ++i)
            continue;
    }
}

// Returns false when nothing more is there, or everything is over (the object may then be gone).
bool fetch::receive()
{
    const ssize_t count = recv(fd_.get(), buffer(), block, 0);
    if (count < 0 && errno == EINTR)
        return true;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return false;
    if (count < 0) {
        fail(code::transfer_failed, url_.host + ": " + strerror(errno));
        return false;
    }
    if (count == 0) {
        received_all();
        return false;
    }
    if (!arrived(static_cast<size_t>(count))) {
        fail(code::transfer_failed, "what arrives is too little for too long");
        return false;
    }
    std::string_view bytes{buffer(), static_cast<size_t>(count)};
    std::string rest;
    if (stage_ == stage::header) {
        header_ += bytes;
        if (!take_header())
            return false;
        if (stage_ == stage::header)
            return true;
        rest.swap(header_);
        bytes = rest;
    }
    if (remaining_ >= 0)
        bytes = bytes.substr(0, static_cast<size_t>(std::min<int64_t>(remaining_, static_cast<int64_t>(bytes.size()))));
    if (!into_.append(bytes)) {
        fail(code::transfer_failed, into_.error());
        return false;
    }
    if (remaining_ >= 0) {
        remaining_ -= static_cast<int64_t>(bytes.size());
        if (remaining_ == 0) {
            received_all();
            return false;
        }
    }
    return true;
}

// False when the answer is refused. Otherwise, once the header is whole, what follows it stays in `header_` and the
// stage is the body's.
bool fetch::take_header()
{
    // What is sent may hold an empty line of the other kind.
    size_t end_of_header = header_.find("\r\n\r\n");
    size_t gap = 4;
    if (const size_t other = header_.find("\n\n"); other < end_of_header) {
        end_of_header = other;
        gap = 2;
    }
    if (end_of_header == std::string::npos) {
        if (header_.size() <= header_limit)
            return true;
        fail(code::transfer_failed, url_.host + ": the header of the answer is too long");
        return false;
    }
    std::string_view lines = std::string_view(header_).substr(0, end_of_header);
    const std::string_view status = lines.substr(0, lines.find_first_of("\r\n"));
    if (!status.starts_with("HTTP/1.") || status.size() < 12 || status.substr(8, 4) != " 200") {
        fail(code::transfer_failed, url_.host + ": the server answered \"" + std::string(status.substr(0, 100)) + "\"");
        return false;
    }
    for (size_t at = 0; at < lines.size();) {
        const size_t feed = std::min(lines.find('\n', at), lines.size());
        std::string line(lines.substr(at, feed - at));
        std::transform(line.begin(), line.end(), line.begin(), [](unsigned char c) { return tolower(c); });
        at = feed + 1;
        static constexpr std::string_view length = "content-length:";
        if (line.starts_with(length)) {
            const size_t digits = line.find_first_not_of(" \t", length.size());
            std::from_chars(line.data() + std::min(digits, line.size()), line.data() + line.size(), remaining_);
            remaining_ = std::max<int64_t>(remaining_, -1);
        } else if (line.starts_with("transfer-encoding:")) {
            fail(code::transfer_failed, url_.host + ": the server encodes what it was asked to send as it is");
            return false;
        }
    }
    header_.erase(0, end_of_header + gap);
    stage_ = stage::body;
    if (remaining_ == 0) {
        received_all();
        return false;
    }
    return true;
}

void fetch::received_all()
{
    if (stage_ == stage::header)
        fail(code::transfer_failed, url_.host + ": the server sent no answer");
    else if (remaining_ > 0)
        fail(code::transfer_failed, url_.host + ": the transfer broke off");
    else
        end({});
}

} // namespace veld
