/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the tests that join linxd instances into nodes: a node run
// by the test (killed when the test ends, however it ends), a pair of
// linked nodes, endpoints on a node, an echo process, and a peer speaking
// the link protocol by hand.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "linx.h"

constexpr uint32_t kPing = 0x70;
constexpr uint32_t kStop = 0x71;
constexpr uint32_t kAnswerOffset = 1000;

struct Node {
    Node() = default;
    Node(const Node &) = delete;
    ~Node();
    std::string Instance;
    std::vector<std::string> Args;
    pid_t Pid = -1;
    std::string LogPath;
    int Starts = 0;
};

// Starts (or starts again) the node's linxd and waits until it serves.
void Start(Node &N);
void Kill(Node &N);

// Two nodes: "a" dials "b" over the transport under test (Unix, or TCP
// with TLS and a secret of its own), each with the arguments it was given.
struct Pair {
    Node A, B;
};
void MakePair(Pair &P, bool bTcp, const std::string &Tag);

// A LINX endpoint of this process on the node's instance.
LINX *OpenOn(const Node &N, const char *pName);

// A process with endpoint Name on the node: answers every ping with the
// ping's value plus kAnswerOffset (a sender that closed gets none), and
// writes in the node's log who the first sender was and, at the stop, how
// many pings came; it ends at the stop or after 20 s without a signal.
pid_t StartEcho(const Node &N, const char *pName);

// A new link secret in a fresh file, made by linxd --make-secret.
std::string MakeSecret(const std::string &Tag);

// A connection to the node's Unix link address, and link frames made by
// hand (the peer's hello first).
int ConnectUnixLink(const std::string &Instance);
std::string Frame(uint32_t Type, const std::string &Body);
std::string Words(std::initializer_list<uint32_t> List);
uint32_t WordOf(const std::string &Bytes, size_t Index);
std::string Hello(const std::string &Node);
// Writes Bytes to a link connection and reads until the node closes it.
void SendAndAwaitClose(int Fd, const std::string &Bytes);
