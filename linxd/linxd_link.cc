// SPDX-License-Identifier: Apache-2.0
// Link transport: addresses, Unix and TCP connections, TLS with a
// pre-shared key, framing.
#include "linxd_link.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "standin/address.h"

namespace {

// The largest frame: a signal of the largest size and its three words.
constexpr uint32_t kMaxFrameBody = 12 + LINXD_MAX_SIGNAL_BYTES;
// What a connection's buffers keep of their room once they are empty: more
// than a busy link fills them with each turn (the service stops reading
// for a link at 1 MiB), so that they are not grown again every turn; only
// what a burst beyond that took goes back.  The sent part of Out is cut
// off once it is a frame's worth and half of Out, so a link that is never
// quite drained does not grow.
constexpr size_t kBufferKeepBytes = 2u << 20;
constexpr size_t kCutBytes = kMaxFrameBody;

// Gives back the room of an emptied buffer that grew large.
void jShrinkIfEmpty(std::string *pBuffer)
{
    if (pBuffer->empty() && pBuffer->capacity() > kBufferKeepBytes)
        std::string().swap(*pBuffer);
}
// The identity both ends name in the handshake; the key is what counts.
constexpr const char *kPskIdentity = "linxd-link";

void jPutWord(char *p, uint32_t Value)
{
    for (int i = 0; i < 4; i++)
        p[i] = (char)(Value >> (8 * i));
}

uint32_t jGetWord(const char *p)
{
    uint32_t Value = 0;
    for (int i = 0; i < 4; i++)
        Value |= (uint32_t)(uint8_t)p[i] << (8 * i);
    return Value;
}

std::string jTlsError()
{
    const unsigned long Code = ERR_get_error();
    ERR_clear_error();
    if (Code == 0)
        return "the peer closed the connection";
    char Text[256];
    ERR_error_string_n(Code, Text, sizeof Text);
    return Text;
}

const LinkSecret *jSecretOf(SSL *pSsl)
{
    return (const LinkSecret *)SSL_CTX_get_app_data(SSL_get_SSL_CTX(pSsl));
}

unsigned jClientKey(SSL *pSsl, const char *, char *pIdentity, unsigned MaxIdentity, unsigned char *pKey,
                    unsigned MaxKey)
{
    const LinkSecret *pSecret = jSecretOf(pSsl);
    if (strlen(kPskIdentity) + 1 > MaxIdentity || sizeof pSecret->Key > MaxKey)
        return 0;
    strcpy(pIdentity, kPskIdentity);
    memcpy(pKey, pSecret->Key, sizeof pSecret->Key);
    return sizeof pSecret->Key;
}

unsigned jServerKey(SSL *pSsl, const char *pIdentity, unsigned char *pKey, unsigned MaxKey)
{
    const LinkSecret *pSecret = jSecretOf(pSsl);
    if (strcmp(pIdentity, kPskIdentity) != 0 || sizeof pSecret->Key > MaxKey)
        return 0;
    memcpy(pKey, pSecret->Key, sizeof pSecret->Key);
    return sizeof pSecret->Key;
}

struct addrinfo *jResolve(const LinkAddress &Address, bool bPassive, std::string *pWhy)
{
    struct addrinfo Hints = {};
    Hints.ai_family = AF_UNSPEC;
    Hints.ai_socktype = SOCK_STREAM;
    Hints.ai_flags = AI_NUMERICSERV | (bPassive ? AI_PASSIVE : 0);
    struct addrinfo *pList = nullptr;
    const int Error = getaddrinfo(Address.Host.empty() ? nullptr : Address.Host.c_str(), Address.Port.c_str(),
                                  &Hints, &pList);
    if (Error != 0) {
        *pWhy = std::string("cannot resolve ") + LinkAddressText(Address) + ": " + gai_strerror(Error);
        return nullptr;
    }
    return pList;
}

void jNoDelay(int Fd)
{
    const int One = 1;
    setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &One, sizeof One);
}

bool jStartTls(LinkConn *pConn, SSL_CTX *pTls, bool bServer, std::string *pWhy)
{
    pConn->pSsl = SSL_new(pTls);
    if (pConn->pSsl == nullptr || SSL_set_fd(pConn->pSsl, pConn->Fd) != 1) {
        *pWhy = "cannot start TLS: " + jTlsError();
        return false;
    }
    if (bServer)
        SSL_set_accept_state(pConn->pSsl);
    else
        SSL_set_connect_state(pConn->pSsl);
    pConn->State = LinkState::Handshaking;
    return true;
}

// Whether the last TLS call only waits for the socket; sets bWantWrite.
bool jTlsWaits(LinkConn *pConn, int Result)
{
    const int Error = SSL_get_error(pConn->pSsl, Result);
    pConn->bWantWrite = Error == SSL_ERROR_WANT_WRITE;
    return Error == SSL_ERROR_WANT_READ || Error == SSL_ERROR_WANT_WRITE;
}

// Finishes a TCP connect: the socket turned writable.
bool jFinishConnect(LinkConn *pConn, std::string *pWhy)
{
    int Error = 0;
    socklen_t Len = sizeof Error;
    if (getsockopt(pConn->Fd, SOL_SOCKET, SO_ERROR, &Error, &Len) != 0 || Error != 0) {
        *pWhy = std::string("cannot connect: ") + strerror(Error != 0 ? Error : errno);
        return false;
    }
    pConn->State = LinkState::Handshaking;
    return true;
}

bool jHandshake(LinkConn *pConn, std::string *pWhy)
{
    const int Result = SSL_do_handshake(pConn->pSsl);
    if (Result == 1) {
        pConn->State = LinkState::Open;
        pConn->bWantWrite = false;
        return true;
    }
    if (jTlsWaits(pConn, Result))
        return true;
    *pWhy = "TLS handshake failed (not the same link secret?): " + jTlsError();
    return false;
}

// Cuts the sent part off a partly sent Out once it is large.  SSL_write
// may be given a moved buffer (SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER).
void jCutSent(LinkConn *pConn)
{
    if (pConn->OutSent >= kCutBytes && 2 * pConn->OutSent >= pConn->Out.size()) {
        pConn->Out.erase(0, pConn->OutSent);
        pConn->OutSent = 0;
    }
}

// Reads everything the connection holds into In.
bool jReadAll(LinkConn *pConn, std::string *pWhy)
{
    char Buffer[65536];
    for (;;) {
        ssize_t Got;
        if (pConn->pSsl != nullptr) {
            Got = SSL_read(pConn->pSsl, Buffer, sizeof Buffer);
            if (Got <= 0) {
                if (jTlsWaits(pConn, (int)Got))
                    return true;
                *pWhy = SSL_get_error(pConn->pSsl, (int)Got) == SSL_ERROR_ZERO_RETURN
                            ? "the peer closed the link"
                            : "TLS: " + jTlsError();
                return false;
            }
        } else {
            Got = recv(pConn->Fd, Buffer, sizeof Buffer, MSG_DONTWAIT);
            if (Got < 0 && (errno == EAGAIN || errno == EINTR))
                return true;
            if (Got <= 0) {
                *pWhy = Got == 0 ? "the peer closed the link" : std::string("cannot read: ") + strerror(errno);
                return false;
            }
        }
        pConn->In.erase(0, pConn->InTaken); // at most a part of one frame stays
        pConn->InTaken = 0;
        jShrinkIfEmpty(&pConn->In);
        pConn->In.append(Buffer, (size_t)Got);
        if (pConn->pSsl == nullptr && (size_t)Got < sizeof Buffer)
            return true; // the socket is empty; epoll says when more comes
    }
}

} // namespace

bool LinkParseAddress(const std::string &Text, LinkAddress *pAddress, std::string *pWhy)
{
    LinkAddress A;
    if (Text.compare(0, 5, "unix:") == 0) {
        A.Instance = Text.substr(5);
        if (!linxd_instance_valid(A.Instance.c_str())) {
            *pWhy = "\"" + Text + "\": not an instance name after unix:";
            return false;
        }
    } else if (Text.compare(0, 4, "tcp:") == 0 && Text.rfind(':') > 3) {
        const size_t Colon = Text.rfind(':');
        A.bTcp = true;
        A.Host = Text.substr(4, Colon - 4);
        A.Port = Text.substr(Colon + 1);
        if (A.Host.size() > 2 && A.Host.front() == '[' && A.Host.back() == ']')
            A.Host = A.Host.substr(1, A.Host.size() - 2); // [::1]
        char *pEnd = nullptr;
        const long Port = strtol(A.Port.c_str(), &pEnd, 10);
        if (A.Port.empty() || *pEnd != '\0' || Port < 0 || Port > 65535) {
            *pWhy = "\"" + Text + "\": not a port after the last colon";
            return false;
        }
    } else {
        *pWhy = "\"" + Text + "\": addresses are unix:INSTANCE or tcp:HOST:PORT";
        return false;
    }
    *pAddress = A;
    return true;
}

std::string LinkAddressText(const LinkAddress &Address)
{
    if (!Address.bTcp)
        return "unix:" + Address.Instance;
    return "tcp:" + Address.Host + ":" + Address.Port;
}

LinkAddress LinkUnixAddress(const std::string &Instance)
{
    LinkAddress A;
    A.Instance = Instance;
    return A;
}

bool LinkMakeSecret(const std::string &Path, std::string *pWhy)
{
    LinkSecret Secret;
    if (getrandom(Secret.Key, sizeof Secret.Key, 0) != (ssize_t)sizeof Secret.Key) {
        *pWhy = std::string("no random bytes: ") + strerror(errno);
        return false;
    }
    char Text[2 * sizeof Secret.Key + 2];
    for (size_t i = 0; i < sizeof Secret.Key; i++)
        snprintf(Text + 2 * i, 3, "%02x", Secret.Key[i]);
    strcat(Text, "\n");
    const int Fd = open(Path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (Fd < 0) {
        *pWhy = "cannot create " + Path + ": " + strerror(errno);
        return false;
    }
    const bool bWritten = write(Fd, Text, strlen(Text)) == (ssize_t)strlen(Text);
    if (close(Fd) != 0 || !bWritten) {
        *pWhy = "cannot write " + Path;
        unlink(Path.c_str());
        return false;
    }
    return true;
}

bool LinkLoadSecret(const std::string &Path, LinkSecret *pSecret, std::string *pWhy)
{
    const int Fd = open(Path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (Fd < 0) {
        *pWhy = "cannot open the link secret " + Path + ": " + strerror(errno) + " (make one with linxd --make-secret)";
        return false;
    }
    struct stat Stat;
    char Text[2 * sizeof pSecret->Key + 2] = {};
    const bool bRead = fstat(Fd, &Stat) == 0 && read(Fd, Text, sizeof Text - 1) >= 64;
    close(Fd);
    if (!bRead || Stat.st_uid != geteuid() || (Stat.st_mode & 077) != 0) {
        *pWhy = "the link secret " + Path + " must be this user's file, readable by nobody else (chmod 600)";
        return false;
    }
    for (size_t i = 0; i < sizeof pSecret->Key; i++) {
        const char Pair[3] = {Text[2 * i], Text[2 * i + 1], '\0'};
        if (!isxdigit((unsigned char)Pair[0]) || !isxdigit((unsigned char)Pair[1])) {
            *pWhy = "the link secret " + Path + " is not 64 hex digits";
            return false;
        }
        pSecret->Key[i] = (uint8_t)strtoul(Pair, nullptr, 16);
    }
    return true;
}

SSL_CTX *LinkTlsContext(const LinkSecret *pSecret)
{
    SSL_CTX *pTls = SSL_CTX_new(TLS_method());
    if (pTls == nullptr)
        return nullptr;
    SSL_CTX_set_min_proto_version(pTls, TLS1_3_VERSION);
    // The key is used with a SHA-256 suite and, on top of it, an ephemeral
    // key exchange (psk_dhe_ke): a stolen secret does not open old traffic.
    SSL_CTX_set_ciphersuites(pTls, "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256");
    // Partial writes, from an Out that moves when its sent part is cut.
    SSL_CTX_set_mode(pTls, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_app_data(pTls, (void *)pSecret);
    SSL_CTX_set_psk_client_callback(pTls, jClientKey);
    SSL_CTX_set_psk_server_callback(pTls, jServerKey);
    return pTls;
}

void LinkTlsFree(SSL_CTX *pTls)
{
    SSL_CTX_free(pTls);
}

int LinkListen(const LinkAddress &Address, std::string *pWhy)
{
    if (!Address.bTcp) {
        const int Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        struct sockaddr_un Addr;
        const socklen_t Len = linxd_link_address(Address.Instance.c_str(), &Addr);
        if (Fd >= 0 && bind(Fd, (struct sockaddr *)&Addr, Len) == 0 && listen(Fd, SOMAXCONN) == 0)
            return Fd;
        *pWhy = "cannot listen on " + LinkAddressText(Address) + ": " + strerror(errno);
        if (Fd >= 0)
            close(Fd);
        return -1;
    }
    struct addrinfo *pList = jResolve(Address, true, pWhy);
    if (pList == nullptr)
        return -1;
    int Fd = -1;
    for (struct addrinfo *p = pList; p != nullptr && Fd < 0; p = p->ai_next) {
        Fd = socket(p->ai_family, p->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, p->ai_protocol);
        const int One = 1;
        if (Fd >= 0)
            setsockopt(Fd, SOL_SOCKET, SO_REUSEADDR, &One, sizeof One);
        if (Fd >= 0 && (bind(Fd, p->ai_addr, p->ai_addrlen) != 0 || listen(Fd, SOMAXCONN) != 0)) {
            *pWhy = "cannot listen on " + LinkAddressText(Address) + ": " + strerror(errno);
            close(Fd);
            Fd = -1;
        }
    }
    freeaddrinfo(pList);
    return Fd;
}

bool LinkDial(const LinkAddress &Address, SSL_CTX *pTls, LinkConn *pConn, std::string *pWhy)
{
    *pConn = LinkConn();
    pConn->Peer = LinkAddressText(Address);
    if (!Address.bTcp) {
        pConn->Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        struct sockaddr_un Addr;
        const socklen_t Len = linxd_link_address(Address.Instance.c_str(), &Addr);
        struct ucred Peer = {};
        socklen_t CredLen = sizeof Peer;
        if (pConn->Fd < 0 || connect(pConn->Fd, (struct sockaddr *)&Addr, Len) != 0) {
            *pWhy = std::string("cannot connect: ") + strerror(errno);
        } else if (getsockopt(pConn->Fd, SOL_SOCKET, SO_PEERCRED, &Peer, &CredLen) != 0 || Peer.uid != geteuid()) {
            *pWhy = "the process listening there is not of this user";
        } else {
            pConn->State = LinkState::Open;
            return true;
        }
        LinkClose(pConn);
        return false;
    }
    struct addrinfo *pList = jResolve(Address, false, pWhy);
    if (pList == nullptr)
        return false;
    const struct addrinfo &First = *pList;
    pConn->Fd = socket(First.ai_family, First.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, First.ai_protocol);
    const bool bStarted =
        pConn->Fd >= 0 && (connect(pConn->Fd, First.ai_addr, First.ai_addrlen) == 0 || errno == EINPROGRESS);
    freeaddrinfo(pList);
    if (!bStarted) {
        *pWhy = std::string("cannot connect: ") + strerror(errno);
        LinkClose(pConn);
        return false;
    }
    jNoDelay(pConn->Fd);
    if (!jStartTls(pConn, pTls, false, pWhy)) {
        LinkClose(pConn);
        return false;
    }
    pConn->State = LinkState::Connecting;
    pConn->bWantWrite = true;
    return true;
}

bool LinkAccept(int ListenFd, bool bTcp, SSL_CTX *pTls, LinkConn *pConn, std::string *pWhy)
{
    *pConn = LinkConn();
    pWhy->clear();
    struct sockaddr_storage From;
    socklen_t FromLen = sizeof From;
    pConn->Fd = accept4(ListenFd, (struct sockaddr *)&From, &FromLen, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (pConn->Fd < 0)
        return false;
    if (!bTcp) {
        struct ucred Peer = {};
        socklen_t Len = sizeof Peer;
        pConn->Peer = "process ?";
        if (getsockopt(pConn->Fd, SOL_SOCKET, SO_PEERCRED, &Peer, &Len) == 0)
            pConn->Peer = "process " + std::to_string(Peer.pid);
        if (Peer.uid != geteuid()) {
            *pWhy = "its process is not of this user";
            LinkClose(pConn);
            return false;
        }
        pConn->State = LinkState::Open;
        return true;
    }
    char Host[NI_MAXHOST] = "?", Port[NI_MAXSERV] = "?";
    getnameinfo((struct sockaddr *)&From, FromLen, Host, sizeof Host, Port, sizeof Port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    pConn->Peer = std::string("tcp:") + Host + ":" + Port;
    jNoDelay(pConn->Fd);
    if (!jStartTls(pConn, pTls, true, pWhy)) {
        LinkClose(pConn);
        return false;
    }
    return true;
}

bool LinkFlush(LinkConn *pConn, std::string *pWhy)
{
    if (pConn->State != LinkState::Open)
        return true;
    pConn->bWantWrite = false;
    while (pConn->OutSent < pConn->Out.size()) {
        const char *p = pConn->Out.data() + pConn->OutSent;
        const size_t Left = pConn->Out.size() - pConn->OutSent;
        ssize_t Sent;
        if (pConn->pSsl != nullptr) {
            Sent = SSL_write(pConn->pSsl, p, (int)std::min<size_t>(Left, 1 << 20));
            if (Sent <= 0) {
                if (jTlsWaits(pConn, (int)Sent)) {
                    jCutSent(pConn);
                    return true;
                }
                *pWhy = "TLS: " + jTlsError();
                return false;
            }
        } else {
            Sent = send(pConn->Fd, p, Left, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (Sent < 0 && (errno == EAGAIN || errno == EINTR)) {
                pConn->bWantWrite = true;
                jCutSent(pConn);
                return true;
            }
            if (Sent < 0) {
                *pWhy = std::string("cannot write: ") + strerror(errno);
                return false;
            }
        }
        pConn->OutSent += (size_t)Sent;
    }
    pConn->Out.clear();
    pConn->OutSent = 0;
    jShrinkIfEmpty(&pConn->Out);
    return true;
}

bool LinkPump(LinkConn *pConn, std::string *pWhy)
{
    if (pConn->State == LinkState::Connecting && !jFinishConnect(pConn, pWhy))
        return false;
    if (pConn->State == LinkState::Handshaking && !jHandshake(pConn, pWhy))
        return false;
    if (pConn->State != LinkState::Open)
        return true;
    return jReadAll(pConn, pWhy) && LinkFlush(pConn, pWhy);
}

void LinkPutFrame(LinkConn *pConn, LinkFrame Type, const void *pHead, size_t HeadBytes, const void *pTail,
                  size_t TailBytes)
{
    char Header[kLinkFrameHeaderBytes];
    jPutWord(Header, (uint32_t)Type);
    jPutWord(Header + 4, (uint32_t)(HeadBytes + TailBytes));
    pConn->Out.append(Header, sizeof Header);
    pConn->Out.append((const char *)pHead, HeadBytes);
    if (TailBytes != 0)
        pConn->Out.append((const char *)pTail, TailBytes);
}

int LinkTakeFrame(LinkConn *pConn, uint32_t *pType, std::string *pBody, std::string *pWhy)
{
    const size_t Left = pConn->In.size() - pConn->InTaken;
    if (Left < kLinkFrameHeaderBytes)
        return 0;
    const char *p = pConn->In.data() + pConn->InTaken;
    const uint32_t Bytes = jGetWord(p + 4);
    if (Bytes > kMaxFrameBody) {
        *pWhy = "a frame of " + std::to_string(Bytes) + " bytes, more than any frame holds";
        return -1;
    }
    if (Left < kLinkFrameHeaderBytes + Bytes)
        return 0;
    *pType = jGetWord(p);
    pBody->assign(p + kLinkFrameHeaderBytes, Bytes);
    pConn->InTaken += kLinkFrameHeaderBytes + Bytes;
    return 1;
}

uint32_t LinkWord(const std::string &Body, size_t Index)
{
    return jGetWord(Body.data() + 4 * Index);
}

std::string LinkWords(std::initializer_list<uint32_t> Words)
{
    std::string Text(4 * Words.size(), '\0');
    size_t i = 0;
    for (const uint32_t Word : Words)
        jPutWord(&Text[4 * i++], Word);
    return Text;
}

size_t LinkOutBytes(const LinkConn &Conn)
{
    return Conn.Out.size() - Conn.OutSent;
}

void LinkClose(LinkConn *pConn)
{
    if (pConn->pSsl != nullptr)
        SSL_free(pConn->pSsl);
    if (pConn->Fd >= 0)
        close(pConn->Fd);
    pConn->pSsl = nullptr;
    pConn->Fd = -1;
}
