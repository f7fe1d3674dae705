// The client's side of TLS over bytes in memory: whoever uses it moves them to and from the socket. OpenSSL is loaded
// when the first session is made, so that nobody else pays for it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

class ve_tls
{
public:
    enum class step { done, more, failed };

    /// Why this process can have no session at all; empty when it can.
    static std::string problem();
    /// A new session with a peer that must prove to be `name` (a host name or an address); null when there can be none
    /// (`*error` says why).
    static std::unique_ptr<ve_tls> make(const std::string &name, std::string *error);
    virtual ~ve_tls() = default;

    /// Goes on with the handshake: `more` once what was fed is used up, `failed` with the reason in `*error`.
    virtual step handshake(std::string *error) = 0;
    /// Takes bytes that came from the peer.
    virtual void feed(const char *data, size_t size) = 0;
    /// Decrypted bytes into `data`: how many, 0 when there are none yet, -1 when the peer has ended the session or
    /// broken it.
    virtual ssize_t read(char *data, size_t room) = 0;
    /// Encrypts `data`: how many bytes were taken, one at least; -1 when the session is broken.
    virtual ssize_t write(const char *data, size_t size) = 0;
    /// Says good-bye to the peer.
    virtual void finish() = 0;
    /// Appends to `*out` what is to be sent to the peer.
    virtual void take_output(std::string *out) = 0;
};
