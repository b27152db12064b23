// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of linxd's link frames, in process: each input is the byte
// stream a peer node sends over a link to a fresh service, after a valid
// hello when the first byte is odd (so that the frames past the hello are
// reached).  The stream arrives in pieces whose sizes the input's first
// byte sets, the service runs without waiting after each, and what it
// sends back is read and dropped.  When the peer has closed the link the
// service must hold nothing of it (no link, phantom, name or signal) and
// no descriptor may be left open.
//
// Built with -DORVANE_FUZZ=ON by clang.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "fuzz_descriptors.h"
#include "linxd.h"
#include "linxd_link.h"
#include "standin/protocol.h"

namespace {

void Settle(LinxdService *pService, int Fd)
{
    char Buffer[4096];
    do {
        while (recv(Fd, Buffer, sizeof Buffer, MSG_DONTWAIT) > 0) {
        }
    } while (LinxdStep(pService) > 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t Size)
{
    if (Size == 0)
        return 0;
    const int Before = OpenDescriptors();
    LinxdOptions Options;
    Options.VersionWord = LINXD_VERSION_WORD;
    Options.QueueBytes = 4096;
    Options.Node = "fuzzed";
    LinxdService *pService = LinxdStart(Options);
    int Pair[2];
    if (pService == nullptr || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, Pair) != 0)
        abort();
    LinxdAdmitLink(pService, Pair[0]);
    std::string Stream;
    if (pData[0] & 1) {
        const std::string Head = LinkWords({kLinkMagic, kLinkVersion}) + "peer";
        Stream = LinkWords({(uint32_t)LinkFrame::Hello, (uint32_t)Head.size()}) + Head;
    }
    Stream.append((const char *)pData + 1, Size - 1);
    const size_t Piece = 1 + pData[0] / 2;
    for (size_t At = 0; At < Stream.size(); At += Piece) {
        if (send(Pair[1], Stream.data() + At, std::min(Piece, Stream.size() - At), MSG_NOSIGNAL) < 0)
            break; // the service dropped the link
        Settle(pService, Pair[1]);
    }
    close(Pair[1]);
    Settle(pService, -1);
    if (!LinxdHoldsNothing(pService))
        abort(); // something of the link is still held
    LinxdStop(pService);
    if (OpenDescriptors() != Before)
        abort(); // a descriptor leaked
    return 0;
}
