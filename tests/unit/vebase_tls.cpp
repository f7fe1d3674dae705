#include "platform/ve_jrpcapi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <openssl/ssl.h>
#include <poll.h>

#include "interrupts.h"
#include "vebase_scripted_peer.h"

namespace
{

/// Certificates of their own for the life of the test program; the first two are what the system trusts.
class certificates
{
public:
    certificates()
    {
        char name[] = "/tmp/kest-certs-XXXXXX";
        directory_ = mkdtemp(name);
        make("good", "DNS:localhost,IP:127.0.0.1");
        make("elsewhere", "DNS:elsewhere.example");
        make("stranger", "DNS:localhost,IP:127.0.0.1");
        run("cat " + path("good.pem") + " " + path("elsewhere.pem") + " > " + path("store.pem"));
        setenv("SSL_CERT_FILE", path("store.pem").c_str(), 1);
        setenv("SSL_CERT_DIR", "/nonexistent", 1);
    }
    certificates(const certificates &) = delete;
    certificates &operator=(const certificates &) = delete;
    ~certificates() { std::filesystem::remove_all(directory_); }

    std::string path(const std::string &name) const { return directory_ + "/" + name; }

private:
    static void run(const std::string &command) { ASSERT_EQ(system(command.c_str()), 0) << command; }
    void make(const std::string &name, const std::string &names) const
    {
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=" + name +
            " -addext subjectAltName=" + names + " -keyout " + path(name + ".key") + " -out " + path(name + ".pem") +
            " 2>/dev/null");
    }

    std::string directory_;
};

const certificates &store()
{
    static const certificates made;
    return made;
}

struct free_tls {
    void operator()(SSL_CTX *ctx) const { SSL_CTX_free(ctx); }
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};

/// The server's side of a session over an accepted connection.
class tls_server
{
public:
    tls_server(peer_link &link, const std::string &certificate, int max_version = 0)
        : context_(SSL_CTX_new(TLS_server_method()))
    {
        // OpenSSL writes without asking for no SIGPIPE; this thread gets none.
        sigset_t pipe_signal;
        sigemptyset(&pipe_signal);
        sigaddset(&pipe_signal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
        if (max_version != 0) {
            SSL_CTX_set_min_proto_version(context_.get(), 0);
            SSL_CTX_set_max_proto_version(context_.get(), max_version);
            SSL_CTX_set_cipher_list(context_.get(), "ALL:@SECLEVEL=0");
        }
        SSL_CTX_use_certificate_file(context_.get(), store().path(certificate + ".pem").c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(context_.get(), store().path(certificate + ".key").c_str(), SSL_FILETYPE_PEM);
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), link.fd());
    }
    bool accept() { return SSL_accept(ssl_.get()) == 1; }
    /// The id of the next request, 0 at the end.
    long request()
    {
        for (;;) {
            const size_t feed = held_.find('\n');
            if (feed != std::string::npos) {
                const std::string line = held_.substr(0, feed);
                held_.erase(0, feed + 1);
                longest = std::max(longest, line.size());
                const size_t at = line.find("\"id\":");
                return at == std::string::npos ? 0 : strtol(line.c_str() + at + 5, nullptr, 10);
            }
            char bytes[65536];
            const int count = SSL_read(ssl_.get(), bytes, sizeof bytes);
            if (count <= 0) {
                said_goodbye = SSL_get_error(ssl_.get(), count) == SSL_ERROR_ZERO_RETURN;
                return 0;
            }
            held_.append(bytes, static_cast<size_t>(count));
        }
    }
    bool send(const std::string &text)
    {
        return SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size());
    }
    SSL *ssl() { return ssl_.get(); }

    size_t longest = 0;
    bool said_goodbye = false;

private:
    std::unique_ptr<SSL_CTX, free_tls> context_;
    std::unique_ptr<SSL, free_tls> ssl_;
    std::string held_;
};

struct deinit {
    void operator()(ve_jrpcapi *ctx) const { ve_jrpcapi_deinit(ctx); }
};
using context = std::unique_ptr<ve_jrpcapi, deinit>;

context secure_context(const char *destination)
{
    context ctx(ve_jrpcapi_init());
    ve_jrpcapi_set_destination(ctx.get(), destination, nullptr, ve_socket_unix);
    ve_jrpcapi_set_flags(ctx.get(), ve_jrpcapi_flag_ssl);
    ve_jrpcapi_set_timeout(ctx.get(), peer_patience_s * 1000);
    return ctx;
}

void serve(peer_link &link, const std::string &certificate)
{
    tls_server server(link, certificate);
    if (!server.accept())
        return;
    while (const long id = server.request())
        server.send(peer_link::answer_text(id));
}

scripted_peer::script serving(const std::string &certificate)
{
    store();
    return [certificate](peer_link &link) { serve(link, certificate); };
}

int ask(const context &ctx, json_t *params = nullptr)
{
    const msg_ref message(ve_jrpcmsg_create_new("Ask", params));
    ve_jrpcapi_exec(ctx.get(), message.get());
    return ve_jrpcmsg_error_code(message.get());
}

/// The reason why a connect to a peer with that script fails.
std::string refusal_of(scripted_peer::script play)
{
    store();
    const scripted_peer peer(std::move(play));
    const context ctx = secure_context(peer.destination());
    EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_EQ(ve_jrpcapi_socket(ctx.get()), nullptr);
    EXPECT_TRUE(ve_jrpcapi_connect_error_lasts(ctx.get()));
    const std::string reason = ve_jrpcapi_connect_error(ctx.get());
    const std::string address = std::string(peer.destination()) + ": ";
    EXPECT_TRUE(reason.starts_with(address)) << reason;
    return reason.substr(address.size());
}

} // namespace

TEST(Tls, AsksOverBothKindsOfSockets)
{
    for (const int family : {AF_UNIX, AF_INET}) {
        const scripted_peer peer(serving("good"), family);
        const context ctx = secure_context(peer.destination());
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0) << ve_jrpcapi_connect_error(ctx.get());
        EXPECT_STREQ(ve_jrpcapi_connect_error(ctx.get()), "");
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(ask(ctx), 0);
    }
}

TEST(Tls, ChecksTheNameThatWasAskedFor)
{
    const scripted_peer peer(serving("good"), AF_INET);
    const std::string named = "tcp://localhost:" + std::to_string(peer.port());
    const context ctx = secure_context(named.c_str());
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0) << ve_jrpcapi_connect_error(ctx.get());
    EXPECT_EQ(ask(ctx), 0);
}

TEST(Tls, RefusesAPeerWithAnotherName)
{
    EXPECT_EQ(refusal_of(serving("elsewhere")), "TLS: the peer does not prove to be localhost: hostname mismatch");
}

TEST(Tls, RefusesAPeerWhomNobodyTrusts)
{
    EXPECT_EQ(refusal_of(serving("stranger")), "TLS: the peer does not prove to be localhost: self-signed certificate");
}

TEST(Tls, RefusesAProtocolThatIsTooOld)
{
    EXPECT_TRUE(refusal_of([](peer_link &link) {
                    tls_server(link, "good", TLS1_1_VERSION).accept();
                }).starts_with("TLS: the handshake failed: "));
}

TEST(Tls, RefusesAPeerThatSpeaksInClear)
{
    EXPECT_TRUE(refusal_of([](peer_link &link) {
                    link.send("{\"method\":\"Event\",\"params\":{\"Id\":12}}\n");
                    link.closed();
                }).starts_with("TLS: the handshake failed: "));
    EXPECT_EQ(refusal_of([](peer_link &link) { link.send(""); }), "TLS: the peer closed the link during the handshake");
}

TEST(Tls, ReadsToTheEndOfAPeerThatReadsNoMore)
{
    EXPECT_EQ(refusal_of([](peer_link &link) {
                  char hello[4096];
                  const auto size = static_cast<int>(recv(link.fd(), hello, sizeof hello, 0));
                  shutdown(link.fd(), SHUT_RD);
                  tls_server server(link, "good", TLS1_2_VERSION);
                  BIO *const in = BIO_new(BIO_s_mem());
                  SSL_set0_rbio(server.ssl(), in);
                  EXPECT_EQ(BIO_write(in, hello, size), size);
                  EXPECT_FALSE(server.accept());
              }),
              "TLS: the peer closed the link during the handshake");
}

TEST(Tls, NoticesAPeerThatLeavesRightBehindTheHandshake)
{
    store();
    const scripted_peer peer(
        [](peer_link &link) {
            // What ends the handshake goes out along with what ends the link, in one piece.
            tls_server server(link, "good", TLS1_2_VERSION);
            BIO *const out = BIO_new(BIO_s_mem());
            SSL_set0_wbio(server.ssl(), out);
            fcntl(link.fd(), F_SETFL, O_NONBLOCK);
            const auto send_out = [&] {
                char *bytes = nullptr;
                const auto size = static_cast<size_t>(BIO_get_mem_data(out, &bytes));
                EXPECT_EQ(::send(link.fd(), bytes, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
                (void)BIO_reset(out);
            };
            for (int result; (result = SSL_accept(server.ssl())) != 1;) {
                ASSERT_EQ(SSL_get_error(server.ssl(), result), SSL_ERROR_WANT_READ);
                send_out();
                pollfd in{link.fd(), POLLIN, 0};
                ASSERT_EQ(poll(&in, 1, 10000), 1);
            }
            SSL_shutdown(server.ssl());
            send_out();
        },
        AF_INET);
    const context ctx = secure_context(peer.destination());
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0) << ve_jrpcapi_connect_error(ctx.get());
    EXPECT_EQ(ve_socket_state(ve_jrpcapi_socket(ctx.get())), ve_socket_closed);
    EXPECT_EQ(ask(ctx), -32002);
}

TEST(Tls, IsLeftByCtrlCInTheHandshake)
{
    const interrupts handling([](int) { ve_wait_note_interrupt(); });
    const scripted_peer peer([](peer_link &link) { link.closed(); });
    const context ctx = secure_context(peer.destination());
    ve_wait_note_interrupt();
    EXPECT_LT(ve_jrpcapi_connect(ctx.get()), 0);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_interrupted);
    EXPECT_STREQ(ve_jrpcapi_connect_error(ctx.get()), "");
}

TEST(Tls, MovesLargeMessagesBothWays)
{
    constexpr size_t large = size_t{6} << 20;
    std::atomic<size_t> longest{0};
    store();
    {
        const scripted_peer peer([&](peer_link &link) {
            tls_server server(link, "good");
            if (!server.accept())
                return;
            while (const long id = server.request()) {
                longest = server.longest;
                server.send(peer_link::answer_text(id, R"({"Text":")" + std::string(large, 'y') + "\"}"));
            }
        });
        const context ctx = secure_context(peer.destination());
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
        const msg_ref message(
            ve_jrpcmsg_create_new("Ask", json_pack("{s:s}", "Text", std::string(large, 'x').c_str())));
        ASSERT_EQ(ve_jrpcapi_exec(ctx.get(), message.get()), 0);
        EXPECT_EQ(json_string_length(json_object_get(ve_jrpcmsg_result(message.get()), "Text")), large);
    }
    EXPECT_GT(longest, large);
}

TEST(Tls, HearsWhatThePeerSaysRightBehindTheHandshake)
{
    store();
    const scripted_peer peer([](peer_link &link) {
        tls_server server(link, "good");
        if (server.accept())
            server.send("{\"method\":\"Event\",\"params\":{\"Id\":12}}\n");
        server.request();
    });
    const context ctx = secure_context(peer.destination());
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    const msg_ref event(ve_jrpcapi_recv(ctx.get()));
    ASSERT_TRUE(event);
    EXPECT_EQ(ve_jrpcmsg_event_id(event.get()), 12U);
}

TEST(Tls, LivesThroughANewKeyAndNoticesTheEnd)
{
    store();
    const scripted_peer peer([](peer_link &link) {
        tls_server server(link, "good");
        if (!server.accept())
            return;
        for (int i = 0; i < 3; ++i) {
            const long id = server.request();
            SSL_key_update(server.ssl(), SSL_KEY_UPDATE_REQUESTED);
            server.send(peer_link::answer_text(id));
        }
        SSL_shutdown(server.ssl());
        link.closed();
    });
    const context ctx = secure_context(peer.destination());
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ask(ctx), 0);
    EXPECT_EQ(ask(ctx), -32002);
    EXPECT_EQ(ve_jrpcapi_get_socket_err(ctx.get()), ve_socket_err_closed);
}

TEST(Tls, SaysGoodbye)
{
    std::atomic<bool> goodbye{false};
    store();
    {
        const scripted_peer peer([&](peer_link &link) {
            tls_server server(link, "good");
            if (server.accept())
                server.request();
            goodbye = server.said_goodbye;
        });
        const context ctx = secure_context(peer.destination());
        ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    }
    EXPECT_TRUE(goodbye);
}

TEST(Tls, SendsWhileAnotherThreadReceives)
{
    constexpr int rounds = 200;
    store();
    const scripted_peer peer([](peer_link &link) {
        tls_server server(link, "good");
        if (!server.accept())
            return;
        while (const long id = server.request())
            server.send(peer_link::answer_text(id));
    });
    const context ctx = secure_context(peer.destination());
    ve_jrpcapi_set_flags(ctx.get(), ve_jrpcapi_flag_ssl | ve_jrpcapi_flag_events);
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    std::thread receiver([&] {
        for (int i = 0; i < rounds; ++i)
            EXPECT_TRUE(msg_ref(ve_jrpcapi_recv(ctx.get())));
    });
    for (int i = 0; i < rounds; ++i) {
        const msg_ref message(ve_jrpcmsg_create_new("Ask", nullptr));
        EXPECT_EQ(ve_jrpcapi_send(ctx.get(), message.get()), 0);
    }
    receiver.join();
}
