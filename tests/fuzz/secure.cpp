// The two sides of TLS: what is written arrives in order and whole; behind a byte that somebody has changed on the way
// nothing arrives that was not written.
#include "base/fd.h"
#include "vebase/link/tls.h"
#include "veld/base/log.h"
#include "veld/server/tls.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{

/// A certificate that the client trusts, for the life of the program.
std::unique_ptr<veld::tls_identity> make_identity()
{
    char folder[] = "/tmp/kest-fuzz.XXXXXX";
    if (mkdtemp(folder) == nullptr)
        abort();
    const std::string path = folder;
    const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 9 "
                                "-subj /CN=localhost -addext subjectAltName=DNS:localhost -keyout " +
                                path + "/key -out " + path + "/certificate 2>/dev/null";
    std::string error;
    if (system(command.c_str()) != 0)
        abort();
    setenv("SSL_CERT_FILE", (path + "/certificate").c_str(), 1);
    veld::log_open("error", &error);
    auto identity = veld::tls_identity::load(path + "/certificate", path + "/key", &error);
    const auto first = ve_tls::make("localhost", &error); // reads what it trusts
    if (!identity || !first)
        abort();
    unlink((path + "/key").c_str());
    unlink((path + "/certificate").c_str());
    rmdir(folder);
    return identity;
}

/// A session between a client and a daemon. The byte `at` of what goes from one to the other is changed by `by`.
class session
{
public:
    session(const veld::tls_identity &identity, bool upwards, size_t at, char by) : upwards_(upwards), at_(at), by_(by)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
            abort();
        near_ = fd_owner(ends[0]);
        daemon_ = identity.accept(fd_owner(ends[1]));
        std::string error;
        client_ = ve_tls::make("localhost", &error);
        if (!daemon_ || !client_)
            abort();
    }

    /// Whether both sides trust each other, in pieces of `chunk` bytes.
    bool greet(size_t chunk)
    {
        chunk_ = chunk;
        auto state = ve_tls::step::more;
        auto greeted = veld::io_state::want_read;
        for (int turns = 0; turns < 20 && (state != ve_tls::step::done || greeted != veld::io_state::done); ++turns) {
            std::string error;
            if (state == ve_tls::step::more)
                state = client_->handshake(&error);
            send();
            if (greeted != veld::io_state::done)
                greeted = daemon_->greet();
            if (state == ve_tls::step::failed || greeted == veld::io_state::failed)
                return false;
            receive();
        }
        return state == ve_tls::step::done && greeted == veld::io_state::done;
    }

    /// Whether `text` arrives on the other side, each way and in pieces of `chunk` bytes, as it must.
    bool carry(const std::string &text, size_t chunk)
    {
        chunk_ = chunk;
        for (const std::string &arrived : {up(text), down(text)})
            if (by_ == 0 ? arrived != text : text.compare(0, arrived.size(), arrived) != 0)
                return false;
        return true;
    }

private:
    std::string up(const std::string &text)
    {
        size_t taken = 0;
        std::string arrived;
        char buffer[1000];
        for (int turns = 0; turns < 100 && arrived.size() < text.size(); ++turns) {
            const ssize_t count = client_->write(text.data() + taken, std::min(chunk_, text.size() - taken));
            taken += static_cast<size_t>(std::max<ssize_t>(count, 0));
            send();
            const veld::io_result result = daemon_->read(buffer, sizeof buffer);
            if (result.state == veld::io_state::failed || result.state == veld::io_state::closed)
                break;
            arrived.append(buffer, result.bytes);
        }
        return arrived;
    }

    std::string down(const std::string &text)
    {
        size_t taken = 0;
        std::string arrived;
        char buffer[1000];
        for (int turns = 0; turns < 100 && arrived.size() < text.size(); ++turns) {
            if (taken < text.size())
                taken += daemon_->write(text.data() + taken, std::min(chunk_, text.size() - taken)).bytes;
            receive();
            const ssize_t count = client_->read(buffer, sizeof buffer);
            if (count < 0)
                break;
            arrived.append(buffer, static_cast<size_t>(count));
        }
        return arrived;
    }

    void change(char *data, size_t size, bool up)
    {
        if (up != upwards_)
            return;
        if (at_ >= passed_ && at_ - passed_ < size)
            data[at_ - passed_] = static_cast<char>(data[at_ - passed_] ^ by_);
        passed_ += size;
    }
    void send()
    {
        std::string out;
        client_->take_output(&out);
        change(out.data(), out.size(), true);
        if (::send(near_.get(), out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size()))
            abort();
    }
    void receive()
    {
        char buffer[4096];
        ssize_t count;
        while ((count = ::recv(near_.get(), buffer, std::min(chunk_, sizeof buffer), 0)) > 0) {
            change(buffer, static_cast<size_t>(count), false);
            client_->feed(buffer, static_cast<size_t>(count));
        }
    }

    fd_owner near_;
    std::unique_ptr<veld::transport> daemon_;
    std::unique_ptr<ve_tls> client_;
    size_t chunk_ = 0;
    bool upwards_;
    size_t at_;
    char by_;
    size_t passed_ = 0;
};

} // namespace

// A handshake takes far longer than what follows. One input of 32 has a session of its own, in which a byte is
// changed...
static bool has_own_session(const uint8_t *data, size_t size)
{
    uint32_t digest = 2166136261U; // FNV-1a
    for (size_t i = 0; i < size; ++i)
        digest = (digest ^ data[i]) * 16777619U;
    return (digest >> 16) % 32 == 0;
}

// ... the others share one, through which everything comes whole.
static session *sound_session(const veld::tls_identity &identity, size_t chunk)
{
    static std::unique_ptr<session> current;
    static int uses = 0;
    if (uses++ % 10000 == 0) {
        current = std::make_unique<session>(identity, false, 0, 0);
        if (!current->greet(chunk))
            abort();
    }
    return current.get();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t head = 5; // size of the pieces, which way and by what a byte is changed, where
    if (size <= head)
        return 0;
    static const std::unique_ptr<veld::tls_identity> identity = make_identity();
    const size_t chunk = 40 + data[0] * 8U;
    const auto by = static_cast<char>(has_own_session(data, size) ? data[2] : 0); // 0: nothing is changed
    const std::string text(reinterpret_cast<const char *>(data) + head, std::min<size_t>(size - head, 3000));
    if (by == 0) {
        if (!sound_session(*identity, chunk)->carry(text, chunk))
            abort();
        return 0;
    }
    session link(*identity, (data[1] & 1) != 0, data[3] * 16U + data[4], by);
    if (link.greet(chunk) && !link.carry(text, chunk))
        abort();
    return 0;
}
