// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of linxd's request handling, in process: each input is a
// script for up to four clients of a fresh service, which connect, send
// requests (well-formed ones built from the input, or raw datagrams), read
// what comes back and leave in any order.  After each step the service
// runs without waiting.  When every client has left, the service must hold
// nothing of them (no socket, name, hunt, attach, timer, token or queued
// signal) and no descriptor may be left open.
//
// The script, one command after another, each starting with one byte C:
//   C & 3          the client
//   (C >> 2) & 3   0 connect, 1 leave,
//                  2 request: op (1 byte), arg[0] and arg[1] (4 bytes each,
//                    little-endian), name length (1 byte) and name, signal
//                    length (1 byte) and signal,
//                  3 raw datagram: length (2 bytes) and the bytes.
// SPIDs are counted from 0x10001 in the order the clients register.
//
// Built with -DORVANE_FUZZ=ON by clang.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_descriptors.h"
#include "linxd.h"
#include "standin/protocol.h"

namespace {

constexpr int kClients = 4;

struct FuzzClient {
    int Fd = -1;
    std::vector<int> Received; // descriptors linxd handed over
};

// Reads input bytes front to back; past the end it yields zeros.
struct Script {
    const uint8_t *p;
    size_t Left;

    bool AtEnd() const { return Left == 0; }
    std::string Take(size_t Count)
    {
        Count = std::min(Count, Left);
        std::string Bytes((const char *)p, Count);
        p += Count;
        Left -= Count;
        return Bytes;
    }
    uint32_t Number(size_t Bytes)
    {
        uint32_t Value = 0;
        const std::string Raw = Take(Bytes);
        for (size_t i = 0; i < Raw.size(); i++)
            Value |= (uint32_t)(uint8_t)Raw[i] << (8 * i);
        return Value;
    }
};

// Takes every reply waiting for the client, keeping the descriptors they
// carry until the client leaves.
void ReadReplies(FuzzClient &C)
{
    static char Buffer[LINXD_MAX_REQUEST_BYTES];
    for (;;) {
        char Control[CMSG_SPACE(5 * sizeof(int))];
        struct iovec Iov = {Buffer, sizeof Buffer};
        struct msghdr Msg = {};
        Msg.msg_iov = &Iov;
        Msg.msg_iovlen = 1;
        Msg.msg_control = Control;
        Msg.msg_controllen = sizeof Control;
        if (recvmsg(C.Fd, &Msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0)
            return;
        int Fds[5];
        C.Received.insert(C.Received.end(), Fds, Fds + linxd_take_fds(&Msg, Fds, 5));
    }
}

void Connect(LinxdService *pService, FuzzClient &C)
{
    int Pair[2];
    if (C.Fd >= 0 || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, Pair) != 0)
        return;
    C.Fd = Pair[0];
    LinxdAdmit(pService, Pair[1]);
}

void Leave(FuzzClient &C)
{
    if (C.Fd < 0)
        return;
    close(C.Fd);
    for (const int Fd : C.Received)
        close(Fd);
    C = FuzzClient();
}

std::string WellFormedRequest(Script &In)
{
    linxd_request Req = {};
    Req.magic = LINXD_PROTOCOL_MAGIC;
    Req.op = In.Number(1);
    Req.arg[0] = In.Number(4);
    Req.arg[1] = In.Number(4);
    const std::string Name = In.Take(In.Number(1));
    const std::string Signal = In.Take(In.Number(1));
    Req.name_len = (uint32_t)Name.size();
    Req.sig_len = (uint32_t)Signal.size();
    return std::string((const char *)&Req, sizeof Req) + Name + Signal;
}

void Send(FuzzClient &C, const std::string &Datagram)
{
    if (C.Fd >= 0)
        send(C.Fd, Datagram.data(), Datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void RunScript(LinxdService *pService, Script In, FuzzClient (&Clients)[kClients])
{
    while (!In.AtEnd()) {
        const uint32_t Command = In.Number(1);
        FuzzClient &C = Clients[Command & 3];
        switch ((Command >> 2) & 3) {
        case 0:
            Connect(pService, C);
            break;
        case 1:
            Leave(C);
            break;
        case 2:
            Send(C, WellFormedRequest(In));
            break;
        default:
            Send(C, In.Take(In.Number(2)));
            break;
        }
        while (LinxdStep(pService) > 0) {
        }
        for (FuzzClient &Each : Clients)
            if (Each.Fd >= 0)
                ReadReplies(Each);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t Size)
{
    const int Before = OpenDescriptors();
    LinxdOptions Options;
    Options.VersionWord = LINXD_VERSION_WORD;
    Options.QueueBytes = 4096; // small queues: backlogs form after a few signals
    LinxdService *pService = LinxdStart(Options);
    if (pService == nullptr)
        abort();
    FuzzClient Clients[kClients];
    RunScript(pService, Script{pData, Size}, Clients);
    for (FuzzClient &C : Clients)
        Leave(C);
    while (LinxdStep(pService) > 0) {
    }
    if (!LinxdHoldsNothing(pService))
        abort(); // something of a client that left is still held
    LinxdStop(pService);
    if (OpenDescriptors() != Before)
        abort(); // a descriptor leaked
    return 0;
}
