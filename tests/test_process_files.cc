// SPDX-License-Identifier: Apache-2.0
// What a process reads once, at its first need, from files: its identity
// (the halvo index from the kernel's command line, the program name from
// its own) and the endpoint configuration of the device file.  The test
// program interposes fopen, open and stat so that each case feeds its own
// files at the fixed paths while the library keeps reading those paths;
// each case runs in a fresh child process, since each is read once per
// process.
#include "test_kit.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/stat.h>

extern "C" MSG_Status MSG_LoadConfigUnconditionally(const char *pPath, void *pCfg);

namespace {

// A fixed path the library reads, the file a case feeds in its place
// (empty: it cannot be opened), and how often it was looked up.
struct Fed {
    explicit Fed(const char *pFixed) : pPath(pFixed) {}
    const char *pPath;
    std::string Feed;
    int Lookups = 0;
};
Fed gKernelLine("/proc/cmdline"), gSelfLine("/proc/self/cmdline"), gDeviceFile("/system/etc/orvane.pb");

const char *jRedirect(const char *pPath)
{
    for (Fed *pFed : {&gKernelLine, &gSelfLine, &gDeviceFile})
        if (strcmp(pPath, pFed->pPath) == 0) {
            pFed->Lookups++;
            return pFed->Feed.empty() ? "/nonexistent/fed" : pFed->Feed.c_str();
        }
    return pPath;
}

template <typename Fn> Fn jReal(const char *pName)
{
    return (Fn)dlsym(RTLD_NEXT, pName);
}

// A file holding Bytes, in place of one the library reads: in memory, so
// that it goes with the process (and the children that read it).
std::string Feed(const std::string &Bytes)
{
    const int Fd = memfd_create("fed", 0);
    EXPECT_EQ((ssize_t)Bytes.size(), write(Fd, Bytes.data(), Bytes.size()));
    return "/proc/self/fd/" + std::to_string(Fd);
}

} // namespace

extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *pPath, const char *pMode)
{
    static auto pReal = jReal<FILE *(*)(const char *, const char *)>("fopen");
    return pReal(jRedirect(pPath), pMode);
}

extern "C" __attribute__((visibility("default"))) int stat(const char *pPath, struct stat *pInfo)
{
    static auto pReal = jReal<int (*)(const char *, struct stat *)>("stat");
    return pReal(jRedirect(pPath), pInfo);
}

extern "C" __attribute__((visibility("default"))) int open(const char *pPath, int Flags, ...)
{
    static auto pReal = jReal<int (*)(const char *, int, ...)>("open");
    va_list Args;
    va_start(Args, Flags);
    const mode_t Mode = va_arg(Args, mode_t);
    va_end(Args);
    return pReal(jRedirect(pPath), Flags, Mode);
}

namespace {

// ---- Identity ----------------------------------------------------------------

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

// Feeds the kernel's command line (nullptr: it cannot be opened) and the
// program's, whose argv[0] is Argv0 (nullptr: it cannot be opened).
void FeedCommandLines(const char *pKernelLine, const char *pArgv0)
{
    gKernelLine.Feed = pKernelLine ? Feed(pKernelLine) : "";
    gSelfLine.Feed = pArgv0 ? Feed(pArgv0 + std::string("\0--flag\0", 8)) : "";
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
        FeedCommandLines(C.pKernelLine, C.Argv0.c_str());
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
    FeedCommandLines(nullptr, nullptr);
    RunInChild([] {
        Identity Id = jRead();
        EXPECT_EQ(-1, Id.Halvo);
        EXPECT_EQ(0u, Id.Pid);
        EXPECT_EQ("", Id.ProgName);
        TakeLoggedLines();
        MSG_LogOs(3, "f.c", 1, "fn", "$progname: $halvo: liborvane: hi\n");
        EXPECT_EQ(": hd[-1]: liborvane: hi\n", TakeLoggedText());
        const int OpensSoFar = gKernelLine.Lookups;
        EXPECT_GE(OpensSoFar, 2);

        FeedCommandLines("mode=ep0\n", nullptr);
        Id = jRead();
        EXPECT_EQ(1, Id.Halvo);
        EXPECT_EQ((uint32_t)getpid(), Id.Pid);
        FeedCommandLines("mode=ep0\n", "/system/bin/radiod");
        EXPECT_EQ("", jRead().ProgName) << "not read again";
        EXPECT_EQ(OpensSoFar + 1, gKernelLine.Lookups) << "a loaded cache is never read again";
    });
}

// ---- Endpoint configuration --------------------------------------------------

// Protobuf wire bytes of one Endpoint entry of OrvaneCfg.
std::string Entry(const std::string &Name, const char *pLink = nullptr)
{
    std::string Body;
    if (!Name.empty())
        Body += std::string("\x0a", 1) + (char)Name.size() + Name;
    if (pLink != nullptr)
        Body += std::string("\x12", 1) + (char)strlen(pLink) + pLink;
    return std::string("\x0a", 1) + (char)Body.size() + Body;
}

std::string Lookup(const char *pName)
{
    char Out[128] = {};
    EXPECT_EQ(0u, MSG_GetFullEndpointPath(pName, Out, sizeof Out));
    return Out;
}

TEST(Config, MissingFileIsTriedOnceAndNamesMapToThemselves)
{
    gDeviceFile.Feed.clear();
    RunInChild([] {
        TakeLoggedLines(); // what the parent logged before the fork
        EXPECT_EQ("alpha", Lookup("alpha"));
        EXPECT_EQ("beta", Lookup("beta"));
        EXPECT_EQ(1, gDeviceFile.Lookups);
        std::vector<LoggedLine> Lines = TakeLoggedLines();
        ASSERT_EQ(2u, Lines.size()) << "the stat line and the load's outcome, once";
        EXPECT_NE(std::string::npos,
                  Lines[0].Text.find("system function error: stat(\"/system/etc/orvane.pb\") errno=2\n"));
        EXPECT_NE(std::string::npos, Lines[1].Text.find("result 203/system error: file /system/etc/orvane.pb, cfg addr"));
    });
    EXPECT_EQ(203u, MSG_LoadConfigUnconditionally("/nonexistent/cfg.pb", nullptr));
    EXPECT_EQ(1, Occurrences(TakeLoggedText(), "stat(\"/nonexistent/cfg.pb\") errno=2\n"));
}

TEST(Config, LinkSubstitutionFirstMatchWinsAndBadFilesFallBack)
{
    gDeviceFile.Feed = Feed(Entry("alpha", "lnk1") + Entry("plain") + Entry("alpha", "lnk2") +
                          Entry(std::string(200, 'n'), "l"));
    RunInChild([] {
        MSG_DebugSetFlag(MSG_DEBUG_LOG_SUCCESS);
        EXPECT_EQ("lnk1/alpha", Lookup("alpha"));
        EXPECT_EQ(1, Occurrences(TakeLoggedText(), "subst remote ep \"lnk1/alpha\"\n"));
        EXPECT_EQ("alph", Lookup("alph"));
        EXPECT_EQ("alphaX", Lookup("alphaX"));
        EXPECT_EQ("plain", Lookup("plain"));
        EXPECT_EQ(127u, Lookup(std::string(200, 'n').c_str()).size()) << "cut to the caller's buffer";
    });
    // A file that does not parse: names map to themselves.
    gDeviceFile.Feed = Feed(Entry("", "lnk1")); // an Endpoint without its required name
    RunInChild([] {
        EXPECT_EQ("alpha", Lookup("alpha"));
        const std::string Said = TakeLoggedText();
        EXPECT_EQ(1, Occurrences(Said, "system function error: ParseFromArray, buf addr 0x"));
        EXPECT_EQ(1, Occurrences(Said, "MSG_LoadConfigUnconditionally: result 203/system error: file /system/etc/orvane.pb"));
    });
    gDeviceFile.Feed = Feed("\xff\xff\xff garbage");
    RunInChild([] { EXPECT_EQ("alpha", Lookup("alpha")); });
}

} // namespace
