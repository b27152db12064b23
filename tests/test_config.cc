// SPDX-License-Identifier: Apache-2.0
// Endpoint configuration: lookups through the device file.  The test
// program interposes stat and open so that each case feeds its own file at
// the fixed path; each case runs in a fresh child process because the file
// is read once per process.
#include "test_kit.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <sys/stat.h>

extern "C" MSG_Status MSG_LoadConfigUnconditionally(const char *pPath, void *pCfg);

namespace {

const char kDevicePath[] = "/system/etc/orvane.pb";
std::string gFeedPath;            // what the device path reads; empty: no file
std::atomic<int> gStats{0};

const char *jRedirect(const char *pPath)
{
    if (strcmp(pPath, kDevicePath) != 0)
        return pPath;
    gStats++;
    return gFeedPath.empty() ? "/nonexistent/orvane.pb" : gFeedPath.c_str();
}

} // namespace

extern "C" __attribute__((visibility("default"))) int stat(const char *pPath, struct stat *pInfo)
{
    static auto pReal = (int (*)(const char *, struct stat *))dlsym(RTLD_NEXT, "stat");
    return pReal(jRedirect(pPath), pInfo);
}

extern "C" __attribute__((visibility("default"))) int open(const char *pPath, int Flags, ...)
{
    static auto pReal = (int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open");
    va_list Args;
    va_start(Args, Flags);
    const mode_t Mode = va_arg(Args, mode_t);
    va_end(Args);
    return pReal(strcmp(pPath, kDevicePath) == 0 ? (gFeedPath.empty() ? "/nonexistent/orvane.pb" : gFeedPath.c_str()) : pPath,
                 Flags, Mode);
}

namespace {

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

std::string WriteFeed(const std::string &Bytes)
{
    char Path[] = "/tmp/orvane-cfg-XXXXXX";
    const int Fd = mkstemp(Path);
    EXPECT_EQ((ssize_t)Bytes.size(), write(Fd, Bytes.data(), Bytes.size()));
    close(Fd);
    return Path;
}

std::string Lookup(const char *pName)
{
    char Out[128] = {};
    EXPECT_EQ(0u, MSG_GetFullEndpointPath(pName, Out, sizeof Out));
    return Out;
}

TEST(Config, MissingFileIsTriedOnceAndNamesMapToThemselves)
{
    gFeedPath.clear();
    RunInChild([] {
        TakeLoggedLines(); // what the parent logged before the fork
        EXPECT_EQ("alpha", Lookup("alpha"));
        EXPECT_EQ("beta", Lookup("beta"));
        EXPECT_EQ(1, gStats.load());
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
    gFeedPath = WriteFeed(Entry("alpha", "lnk1") + Entry("plain") + Entry("alpha", "lnk2") +
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
    unlink(gFeedPath.c_str());
    // A file that does not parse: names map to themselves.
    gFeedPath = WriteFeed(Entry("", "lnk1")); // an Endpoint without its required name
    RunInChild([] {
        EXPECT_EQ("alpha", Lookup("alpha"));
        const std::string Said = TakeLoggedText();
        EXPECT_EQ(1, Occurrences(Said, "system function error: ParseFromArray, buf addr 0x"));
        EXPECT_EQ(1, Occurrences(Said, "MSG_LoadConfigUnconditionally: result 203/system error: file /system/etc/orvane.pb"));
    });
    unlink(gFeedPath.c_str());
    gFeedPath = WriteFeed("\xff\xff\xff garbage");
    RunInChild([] { EXPECT_EQ("alpha", Lookup("alpha")); });
    unlink(gFeedPath.c_str());
}

TEST(ConfigThreaded, FirstLookupsRacingSeeTheWholeFile)
{
    std::string Bytes;
    for (int i = 0; i < 500; i++)
        Bytes += Entry("ep" + std::to_string(i), "link");
    gFeedPath = WriteFeed(Bytes);
    RunInChild([] {
        std::vector<std::thread> Threads;
        std::atomic<int> Wrong{0};
        for (int t = 0; t < 6; t++)
            Threads.emplace_back([&Wrong] {
                char Out[128] = {};
                MSG_GetFullEndpointPath("ep499", Out, sizeof Out);
                Wrong += strcmp(Out, "link/ep499") != 0;
            });
        for (std::thread &T : Threads)
            T.join();
        EXPECT_EQ(0, Wrong.load());
        EXPECT_EQ(1, gStats.load());
    });
    unlink(gFeedPath.c_str());
}

} // namespace
