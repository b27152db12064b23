/* SPDX-License-Identifier: Apache-2.0 */
/*
 * linxd_link.h - the transport of links between linxd nodes: addresses,
 * connections, TLS, framing.
 *
 * A link is one byte stream between two linxd instances: a Unix stream
 * socket between instances of one host (the kernel vouches for the peer's
 * user, as for clients), or TCP between hosts, where TLS 1.3 with a
 * pre-shared key authenticates both ends and encrypts everything.  The key
 * is a random 256-bit secret in a file only its user may read; the
 * handshake (OpenSSL's, with ephemeral Diffie-Hellman on top of the key)
 * proves to each end that the other holds the same secret, so no peer
 * without it gets a single frame through.
 *
 * On the stream travel frames: an 8-byte header (type and body length,
 * little-endian 32-bit words) and the body.  What the frames mean is the
 * service's business (linxd.cc); this module only moves them, and refuses
 * a stream whose framing is broken.  It keeps no state of its own: one
 * LinkConn per connection, driven by the service's single thread.
 */
#ifndef LINXD_LINK_H
#define LINXD_LINK_H

#include <stdint.h>

#include <initializer_list>
#include <string>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

enum class LinkFrame : uint32_t {
    Hello = 1, // magic, version, the sender's node name
    Hunt,      // a name the sender waits for
    Endpoint,  // spid, owner, largest signal, name: an endpoint of the sender's node, by its SPID
               // there; the owner (its process, or a group of the endpoints one process of a
               // node further has) shares one window of signals in flight
    Gone,      // spid: that endpoint closed
    Signal,    // from, to, attributes, payload: to is an endpoint announced to the sender
    Heartbeat, // nothing: the sender is alive
    Credit,    // spid, bytes: that many bytes of signals for the sender's endpoint left it
    GoneSeen,  // spid: the sender knows that the receiver's endpoint closed
    Unhunt,    // a name the sender no longer waits for
};

constexpr uint32_t kLinkMagic = 0x4B4E4C31u; // "1LNK"
constexpr uint32_t kLinkVersion = 3;
constexpr uint32_t kLinkFrameHeaderBytes = 8;

// "unix:INSTANCE" (an instance of this host, this user) or "tcp:HOST:PORT".
struct LinkAddress {
    bool bTcp = false;
    std::string Instance;
    std::string Host;
    std::string Port;
};

bool LinkParseAddress(const std::string &Text, LinkAddress *pAddress, std::string *pWhy);
std::string LinkAddressText(const LinkAddress &Address);

// The link secret: 32 random bytes, kept as 64 hex digits in a file of
// mode 0600.  LinkMakeSecret never overwrites a file; LinkLoadSecret
// refuses one that others may read or that is not its user's.
struct LinkSecret {
    uint8_t Key[32];
};
bool LinkMakeSecret(const std::string &Path, std::string *pWhy);
bool LinkLoadSecret(const std::string &Path, LinkSecret *pSecret, std::string *pWhy);

// A TLS 1.3 context that authenticates both ends with the secret (no
// certificates).  The secret must outlive the context.
SSL_CTX *LinkTlsContext(const LinkSecret *pSecret);
void LinkTlsFree(SSL_CTX *pTls);

enum class LinkState { Connecting, Handshaking, Open };

struct LinkConn {
    int Fd = -1;
    SSL *pSsl = nullptr;        // null on Unix links
    LinkState State = LinkState::Open;
    bool bWantWrite = false;    // the connection waits to be writable
    std::string In;             // received, not yet framed
    size_t InTaken = 0;         // bytes of In already framed
    std::string Out;            // framed, not yet sent
    size_t OutSent = 0;
    std::string Peer;           // for log lines: the address or the peer's process
};

// A listening socket for links (Unix: this instance's link address).
int LinkListen(const LinkAddress &Address, std::string *pWhy);
// The instance's Unix link address; every linxd listens there.
LinkAddress LinkUnixAddress(const std::string &Instance);

// Starts a connection; it is Open (or Handshaking over TCP) once LinkPump
// says so.  false with *pWhy when it could not even start.
bool LinkDial(const LinkAddress &Address, SSL_CTX *pTls, LinkConn *pConn, std::string *pWhy);
// Takes a connection from a listener: a Unix peer must be of this user.
// false with *pWhy for a connection that was refused (and closed); false
// with an empty *pWhy when none was waiting.
bool LinkAccept(int ListenFd, bool bTcp, SSL_CTX *pTls, LinkConn *pConn, std::string *pWhy);

// Moves the connection on: finishes its connect and handshake, reads what
// arrived into In and writes what Out holds.  false with *pWhy when the
// connection failed or the peer closed it.
bool LinkPump(LinkConn *pConn, std::string *pWhy);
// Writes what Out holds, as far as the socket takes it.
bool LinkFlush(LinkConn *pConn, std::string *pWhy);

void LinkPutFrame(LinkConn *pConn, LinkFrame Type, const void *pHead, size_t HeadBytes, const void *pTail = nullptr,
                  size_t TailBytes = 0);
// The next whole frame of In: 1 (type and body set), 0 when none is whole
// yet, -1 with *pWhy when the stream is broken.
int LinkTakeFrame(LinkConn *pConn, uint32_t *pType, std::string *pBody, std::string *pWhy);
// The Index-th little-endian word of a body (the caller checked its size),
// and words put the same way.
uint32_t LinkWord(const std::string &Body, size_t Index);
std::string LinkWords(std::initializer_list<uint32_t> Words);
size_t LinkOutBytes(const LinkConn &Conn);
void LinkClose(LinkConn *pConn);

#endif /* LINXD_LINK_H */
