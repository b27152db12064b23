// SPDX-License-Identifier: Apache-2.0
// Process identity, read from the kernel's and the program's command lines.
// The test program interposes fopen and open so that each case can feed its
// own command lines while the library keeps reading /proc/cmdline and
// /proc/self/cmdline; each case runs in a fresh child process, since the
// identity is loaded once per process.
#include "test_kit.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <sys/mman.h>

namespace {

const char *gpKernelLine = nullptr;   // null: /proc/cmdline cannot be opened
std::string gSelfLine;                // argv strings, NUL-separated
bool gbSelfUnopenable = false;
std::atomic<int> gKernelOpens{0};

FILE *jFakeKernelFile()
{
    gKernelOpens++;
    if (gpKernelLine == nullptr) {
        errno = EACCES;
        return nullptr;
    }
    return fmemopen((void *)gpKernelLine, strlen(gpKernelLine), "r");
}

int jFakeSelfFile()
{
    if (gbSelfUnopenable) {
        errno = EACCES;
        return -1;
    }
    int Fd = memfd_create("cmdline", 0);
    if (write(Fd, gSelfLine.data(), gSelfLine.size()) != (ssize_t)gSelfLine.size())
        abort();
    lseek(Fd, 0, SEEK_SET);
    return Fd;
}

template <typename Fn> Fn jReal(const char *pName)
{
    return (Fn)dlsym(RTLD_NEXT, pName);
}

} // namespace

extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *pPath, const char *pMode)
{
    static auto pReal = jReal<FILE *(*)(const char *, const char *)>("fopen");
    if (strcmp(pPath, "/proc/cmdline") == 0)
        return jFakeKernelFile();
    return pReal(pPath, pMode);
}

extern "C" __attribute__((visibility("default"))) int open(const char *pPath, int Flags, ...)
{
    static auto pReal = jReal<int (*)(const char *, int, ...)>("open");
    if (strcmp(pPath, "/proc/self/cmdline") == 0)
        return jFakeSelfFile();
    va_list Args;
    va_start(Args, Flags);
    const mode_t Mode = va_arg(Args, mode_t);
    va_end(Args);
    return pReal(pPath, Flags, Mode);
}

namespace {

struct Identity {
    int32_t Halvo = 99;
    uint32_t Pid = 12345;
    std::string ProgName = "?";
};

Identity jRead()
{
    Identity Id;
    const char *pName = nullptr;
    EXPECT_EQ(0u, MSG_GetProcessInfo(&Id.Halvo, &Id.Pid, &pName));
    Id.ProgName = pName;
    return Id;
}

std::string jArgv(const std::string &Argv0)
{
    return Argv0 + std::string("\0--flag\0", 8);
}

// The halvo index is a plain substring test of the kernel's command line;
// the program name is the base name of argv[0], cut to 31 characters, from
// the first 63 bytes of the program's command line.
TEST(Identity, HalvoIndexAndProgramNameFollowTheCommandLines)
{
    const std::string Forty(40, 'n'), Long80 = "/" + std::string(77, 'a') + "/x";
    const struct Case {
        const char *pKernelLine;
        std::string Argv0;
        int32_t Halvo;
        std::string ProgName;
    } Cases[] = {
        {"console=ttyS0 mode=ep0\n", "/system/bin/radiod", 1, "radiod"},
        {"a=ep1 b=ep0\n", "radiod", 1, "radiod"},
        {"x sleep0 y\n", Forty, 1, Forty.substr(0, 31)},
        {"board=ep1\n", Long80, 2, std::string(31, 'a')}, // the '/' before x lies past byte 63
        {"quiet splash\n", "/bin/", 0, ""},
        {"", "/system/bin/radiod", -1, ""},
    };
    for (const Case &C : Cases) {
        gpKernelLine = C.pKernelLine;
        gSelfLine = jArgv(C.Argv0);
        RunInChild([&] {
            const Identity Id = jRead();
            EXPECT_EQ(C.Halvo, Id.Halvo) << C.pKernelLine;
            EXPECT_EQ(C.Halvo >= 0 ? (uint32_t)getpid() : 0u, Id.Pid);
            EXPECT_EQ(C.ProgName, Id.ProgName) << C.Argv0;
        });
    }
}

// Until the kernel's line can be read the identity stays empty and every
// call tries again; the program's line is tried once, with the load.
TEST(Identity, AnUnreadableKernelLineIsRetriedAndAnUnopenableProgramLineIsNot)
{
    gSelfLine = jArgv("/system/bin/radiod");
    gpKernelLine = nullptr;
    gbSelfUnopenable = true;
    RunInChild([] {
        Identity Id = jRead();
        EXPECT_EQ(-1, Id.Halvo);
        EXPECT_EQ(0u, Id.Pid);
        EXPECT_EQ("", Id.ProgName);
        TakeLoggedLines();
        MSG_LogOs(3, "f.c", 1, "fn", "$progname: $halvo: liborvane: hi\n");
        EXPECT_EQ(": hd[-1]: liborvane: hi\n", TakeLoggedText());
        const int OpensSoFar = gKernelOpens;
        EXPECT_GE(OpensSoFar, 2);

        gpKernelLine = "mode=ep0\n";
        Id = jRead();
        EXPECT_EQ(1, Id.Halvo);
        EXPECT_EQ((uint32_t)getpid(), Id.Pid);
        gbSelfUnopenable = false;
        EXPECT_EQ("", jRead().ProgName) << "not read again";
        EXPECT_EQ(OpensSoFar + 1, gKernelOpens) << "a loaded cache is never read again";
    });
    gbSelfUnopenable = false;
}

TEST(IdentityThreaded, ConcurrentFirstCallsLoadOnce)
{
    gpKernelLine = "ep1\n";
    gSelfLine = jArgv("/usr/bin/worker");
    gKernelOpens = 0;
    RunInChild([] {
        std::vector<std::thread> Threads;
        std::atomic<int> Mismatches{0};
        for (int i = 0; i < 8; i++)
            Threads.emplace_back([&] {
                for (int j = 0; j < 100; j++) {
                    int32_t Halvo;
                    uint32_t Pid;
                    const char *pName;
                    MSG_GetProcessInfo(&Halvo, &Pid, &pName);
                    // Once the pid shows, the rest of the cache must be there.
                    if (Pid != 0 && (Halvo != 2 || strcmp(pName, "worker") != 0))
                        Mismatches++;
                }
            });
        for (std::thread &T : Threads)
            T.join();
        EXPECT_EQ(0, Mismatches.load());
        EXPECT_EQ(1, gKernelOpens.load());
    });
}

} // namespace
