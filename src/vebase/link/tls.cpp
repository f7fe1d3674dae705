#include "vebase/link/tls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstdlib>
#include <dlfcn.h>
#include <mutex>
#include <netinet/in.h>
#include <new>
#include <string_view>
#include <utility>

// Types and constants alone: every function is looked up in the library that is loaded at run time.
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "platform/ve_log.h"

namespace
{

constexpr char library_name[] = "libssl.so.3";

/// An address in a library, to be taken for what stands there.
struct symbol {
    void *address;

    template <class Function> operator Function *() const { return reinterpret_cast<Function *>(address); }
};

/// The functions of the loaded library.
struct openssl {
    explicit openssl(void *loaded) : library(loaded), complete(loaded != nullptr) {}

    symbol find(const char *name)
    {
        void *const address = library != nullptr ? dlsym(library, name) : nullptr;
        complete = complete && address != nullptr;
        return {address};
    }

    void *library;
    bool complete; // every function was found
    decltype(&::CRYPTO_set_mem_functions) set_mem_functions = find("CRYPTO_set_mem_functions");
    decltype(&::TLS_client_method) client_method = find("TLS_client_method");
    decltype(&::SSL_CTX_new) ctx_new = find("SSL_CTX_new");
    decltype(&::SSL_CTX_free) ctx_free = find("SSL_CTX_free");
    decltype(&::SSL_CTX_ctrl) ctx_ctrl = find("SSL_CTX_ctrl");
    decltype(&::SSL_CTX_set_options) ctx_set_options = find("SSL_CTX_set_options");
    decltype(&::SSL_CTX_set_verify) ctx_set_verify = find("SSL_CTX_set_verify");
    decltype(&::SSL_CTX_set_default_verify_paths) ctx_set_default_verify_paths =
        find("SSL_CTX_set_default_verify_paths");
    decltype(&::SSL_new) ssl_new = find("SSL_new");
    decltype(&::SSL_free) ssl_free = find("SSL_free");
    decltype(&::SSL_ctrl) ssl_ctrl = find("SSL_ctrl");
    decltype(&::SSL_get0_param) get0_param = find("SSL_get0_param");
    decltype(&::SSL_set_bio) set_bio = find("SSL_set_bio");
    decltype(&::SSL_set_connect_state) set_connect_state = find("SSL_set_connect_state");
    decltype(&::SSL_do_handshake) do_handshake = find("SSL_do_handshake");
    decltype(&::SSL_read) read = find("SSL_read");
    decltype(&::SSL_write) write = find("SSL_write");
    decltype(&::SSL_shutdown) shutdown = find("SSL_shutdown");
    decltype(&::SSL_get_error) get_error = find("SSL_get_error");
    decltype(&::SSL_get_verify_result) get_verify_result = find("SSL_get_verify_result");
    decltype(&::X509_VERIFY_PARAM_set1_host) param_set1_host = find("X509_VERIFY_PARAM_set1_host");
    decltype(&::X509_VERIFY_PARAM_set1_ip_asc) param_set1_ip = find("X509_VERIFY_PARAM_set1_ip_asc");
    decltype(&::X509_VERIFY_PARAM_set_hostflags) param_set_hostflags = find("X509_VERIFY_PARAM_set_hostflags");
    decltype(&::X509_verify_cert_error_string) verify_error_string = find("X509_verify_cert_error_string");
    decltype(&::BIO_new) bio_new = find("BIO_new");
    decltype(&::BIO_s_mem) bio_s_mem = find("BIO_s_mem");
    decltype(&::BIO_read) bio_read = find("BIO_read");
    decltype(&::BIO_write) bio_write = find("BIO_write");
    decltype(&::BIO_ctrl_pending) bio_pending = find("BIO_ctrl_pending");
    decltype(&::ERR_clear_error) clear_error = find("ERR_clear_error");
    decltype(&::ERR_get_error) get_queued_error = find("ERR_get_error");
    decltype(&::ERR_reason_error_string) reason_string = find("ERR_reason_error_string");
};

// The library's memory: where there is none the program ends with its text, as everywhere.
void *reallocate(void *memory, size_t size, const char *, int)
{
    if (size > 0)
        return ve_xrealloc(memory, size, "tls", __LINE__, "tls");
    free(memory);
    return nullptr;
}

void *allocate(size_t size, const char *file, int line)
{
    return reallocate(nullptr, size, file, line);
}

void release(void *memory, const char *, int)
{
    free(memory);
}

/// What all sessions of the process share: the library, and the certificates that are trusted. Any thread.
class tls_library
{
public:
    tls_library() : ssl(dlopen(library_name, RTLD_NOW | RTLD_LOCAL))
    {
        if (ssl.library == nullptr) {
            const char *const reason = dlerror();
            failure = reason != nullptr ? reason : library_name;
        } else if (!ssl.complete) {
            failure = std::string(library_name) + ": not the expected library";
        } else {
            ssl.set_mem_functions(allocate, reallocate, release);
            context_ = make_context();
            if (context_ == nullptr)
                failure = "the library cannot be initialised";
        }
    }

    /// A new session; null when there can be none.
    SSL *make_session()
    {
        const std::scoped_lock lock(lock_);
        if (std::exchange(doubted_, false)) {
            if (SSL_CTX *const fresh = make_context()) {
                ssl.ctx_free(context_); // sessions keep it as long as they need it
                context_ = fresh;
            }
        }
        return ssl.ssl_new(context_);
    }

    /// A peer was refused. What is trusted may be about to change, or could not be read: the next session reads it
    /// again.
    void doubt()
    {
        const std::scoped_lock lock(lock_);
        doubted_ = true;
    }

    const openssl ssl;
    std::string failure; ///< why there can be no session at all

private:
    SSL_CTX *make_context() const
    {
        SSL_CTX *const context = ssl.ctx_new(ssl.client_method());
        if (context == nullptr)
            return nullptr;
        if (ssl.ctx_ctrl(context, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr) != 1 ||
            ssl.ctx_set_default_verify_paths(context) != 1) {
            ssl.ctx_free(context);
            return nullptr;
        }
        ssl.ctx_set_options(context, SSL_OP_NO_RENEGOTIATION);
        ssl.ctx_ctrl(context, SSL_CTRL_MODE, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER,
                     nullptr);
        ssl.ctx_set_verify(context, SSL_VERIFY_PEER, nullptr);
        return context;
    }

    std::mutex lock_;
    SSL_CTX *context_ = nullptr;
    bool doubted_ = false;
};

// Never destroyed: another thread may still talk while the program exits.
tls_library &library()
{
    alignas(tls_library) static char place[sizeof(tls_library)];
    static tls_library &loaded = *new (place) tls_library;
    return loaded;
}

/// True when `name` is an IPv4 or IPv6 address.
bool is_address(const std::string &name)
{
    in6_addr place;
    return inet_pton(AF_INET, name.c_str(), &place) == 1 || inet_pton(AF_INET6, name.c_str(), &place) == 1;
}

class session final : public ve_tls
{
public:
    session(tls_library &library, std::string peer) : library_(library), ssl_(library.ssl), peer_(std::move(peer)) {}
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session() override { ssl_.ssl_free(link_); }

    bool begin()
    {
        link_ = library_.make_session();
        if (link_ == nullptr)
            return false;
        // The session owns both from here on.
        in_ = ssl_.bio_new(ssl_.bio_s_mem());
        out_ = ssl_.bio_new(ssl_.bio_s_mem());
        ssl_.set_bio(link_, in_, out_);
        // The scope of a link-local address is nobody's name.
        const std::string name = peer_.substr(0, peer_.find('%'));
        X509_VERIFY_PARAM *const param = ssl_.get0_param(link_);
        int named;
        if (is_address(name)) {
            named = ssl_.param_set1_ip(param, name.c_str());
        } else {
            ssl_.param_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
            named = ssl_.param_set1_host(param, peer_.c_str(), 0);
            ssl_.ssl_ctrl(link_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, peer_.data());
        }
        ssl_.set_connect_state(link_);
        return in_ != nullptr && out_ != nullptr && named == 1;
    }

    step handshake(std::string *error) override
    {
        ssl_.clear_error();
        const int result = ssl_.do_handshake(link_);
        if (result == 1)
            return step::done;
        if (ssl_.get_error(link_, result) == SSL_ERROR_WANT_READ)
            return step::more;
        if (const long verified = ssl_.get_verify_result(link_); verified != X509_V_OK) {
            library_.doubt();
            *error = "the peer does not prove to be " + peer_ + ": " + ssl_.verify_error_string(verified);
        } else {
            const char *const reason = ssl_.reason_string(ssl_.get_queued_error());
            *error = std::string("the handshake failed: ") + (reason != nullptr ? reason : "no reason given");
        }
        return step::failed;
    }

    void feed(const char *data, size_t size) override
    {
        // A memory buffer takes everything; without memory the process ends elsewhere.
        ssl_.bio_write(in_, data, static_cast<int>(size));
    }

    ssize_t read(char *data, size_t room) override
    {
        ssl_.clear_error();
        const int count = ssl_.read(link_, data, static_cast<int>(std::min<size_t>(room, INT_MAX)));
        if (count > 0)
            return count;
        return ssl_.get_error(link_, count) == SSL_ERROR_WANT_READ ? 0 : -1;
    }

    ssize_t write(const char *data, size_t size) override
    {
        ssl_.clear_error();
        // Without renegotiation it never has to wait for something to read.
        const int count = ssl_.write(link_, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
        return count > 0 ? count : -1;
    }

    void finish() override
    {
        ssl_.clear_error();
        ssl_.shutdown(link_);
    }

    void take_output(std::string *out) override
    {
        const size_t pending = ssl_.bio_pending(out_);
        if (pending == 0)
            return;
        const size_t before = out->size();
        out->resize(before + pending);
        const int count = ssl_.bio_read(out_, out->data() + before, static_cast<int>(pending));
        out->resize(before + static_cast<size_t>(std::max(count, 0)));
    }

private:
    tls_library &library_;
    const openssl &ssl_;
    std::string peer_;
    SSL *link_ = nullptr;
    BIO *in_ = nullptr;  // what the peer sent
    BIO *out_ = nullptr; // what the peer is to be sent
};

} // namespace

std::string ve_tls::problem()
{
    return library().failure;
}

std::unique_ptr<ve_tls> ve_tls::make(const std::string &name, std::string *error)
{
    tls_library &tls = library();
    if (!tls.failure.empty()) {
        *error = tls.failure;
        return nullptr;
    }
    auto made = std::make_unique<session>(tls, name);
    if (!made->begin()) {
        *error = "no session can be made for " + name;
        return nullptr;
    }
    return made;
}
