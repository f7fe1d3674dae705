#include "veld/server/tls.h"

#include "veld/base/log.h"
#include "veld/base/memory.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace veld
{

namespace
{

std::string last_error()
{
    char text[256] = "unknown error";
    if (const unsigned long code = ERR_peek_last_error())
        ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return text;
}

/// One failed allocation in a first handshake can leave the library unable to serve any other: it ends the daemon, as
/// everywhere. Has no effect once the library has allocated.
void let_no_allocation_fail()
{
    CRYPTO_set_mem_functions([](size_t size, const char *, int) { return fatal_realloc(nullptr, size); },
                             [](void *memory, size_t size, const char *, int) { return fatal_realloc(memory, size); },
                             [](void *memory, const char *, int) { free(memory); });
}

int no_passphrase(char *, int, int, void *)
{
    return 0;
}

class tls_transport : public transport
{
public:
    tls_transport(fd_owner fd, SSL *session) : transport(std::move(fd)), session_(session) {}
    ~tls_transport() override
    {
        // The peer learns that the end is the end; it is not waited for.
        if (greeted_ && !broken_) {
            ERR_clear_error();
            SSL_shutdown(session_);
        }
        ERR_clear_error();
        SSL_free(session_);
    }

    io_state greet() override
    {
        ERR_clear_error();
        const int result = SSL_accept(session_);
        greeted_ = result == 1;
        return greeted_ ? io_state::done : state_of(result);
    }

    io_result read(char *into, size_t room) override
    {
        ERR_clear_error();
        size_t count = 0;
        const int result = SSL_read_ex(session_, into, room, &count);
        return result == 1 ? io_result{io_state::done, count} : io_result{state_of(result)};
    }

    io_result write(const char *from, size_t count) override
    {
        ERR_clear_error();
        size_t written = 0;
        const int result = SSL_write_ex(session_, from, count, &written);
        return result == 1 ? io_result{io_state::done, written} : io_result{state_of(result)};
    }

    bool holds_input() const override { return SSL_has_pending(session_) == 1; }

private:
    io_state state_of(int result)
    {
        switch (SSL_get_error(session_, result)) {
        case SSL_ERROR_WANT_READ:
            return io_state::want_read;
        case SSL_ERROR_WANT_WRITE:
            return io_state::want_write;
        case SSL_ERROR_ZERO_RETURN:
            return io_state::closed;
        default:
            broken_ = true;
            if (!greeted_)
                LOG_INFO("TLS: %s", last_error().c_str());
            return io_state::failed;
        }
    }

    SSL *session_;
    bool greeted_ = false;
    bool broken_ = false;
};

} // namespace

std::unique_ptr<tls_identity> tls_identity::load(const std::string &certificate, const std::string &key,
                                                 std::string *error)
{
    let_no_allocation_fail();
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) {
        *error = last_error();
        return nullptr;
    }
    std::unique_ptr<tls_identity> made(new tls_identity(context));
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(context,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    // A key that is locked with a passphrase is refused: nobody is there to type it.
    SSL_CTX_set_default_passwd_cb(context, no_passphrase);
    if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
        *error = certificate + ": " + last_error();
        return nullptr;
    }
    if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        *error = key + ": " + last_error();
        return nullptr;
    }
    return made;
}

tls_identity::~tls_identity()
{
    SSL_CTX_free(context_);
}

std::unique_ptr<transport> tls_identity::accept(fd_owner fd) const
{
    SSL *session = SSL_new(context_);
    if (session == nullptr || SSL_set_fd(session, fd.get()) != 1) {
        LOG_ERROR("TLS: %s", last_error().c_str());
        SSL_free(session);
        return nullptr;
    }
    return std::make_unique<tls_transport>(std::move(fd), session);
}

} // namespace veld
