/* SPDX-License-Identifier: Apache-2.0 */
// The iceoryx peer of bench_large: its RouDi daemon, started with memory
// pools for every size the benchmark sends and stopped at the end; the
// receiving side, a fresh process (bench_large itself, run again with
// --iceoryx-receiver SIZE, since one process holds one iceoryx runtime);
// and the sending side.  Both sides poll (take() in a loop), as iceoryx's
// fastest setting does (yielding between looks, so that two on one core
// take turns).  Included by bench_large.cc alone.
#pragma once

#include <spawn.h>

#include <fstream>

extern char **environ;

namespace {

iox::capro::ServiceDescription IceoryxTopic(const char *pEvent, uint32_t Size)
{
    const std::string Instance = "size" + std::to_string(Size);
    return {"OrvaneBenchLarge", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, Instance.c_str()),
            iox::capro::IdString_t(iox::cxx::TruncateToCapacity, pEvent)};
}

void IceoryxRuntime(const std::string &Name)
{
    iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kWarn);
    iox::runtime::PoshRuntime::initRuntime(iox::RuntimeName_t(iox::cxx::TruncateToCapacity, Name.c_str()));
}

template <typename Port> void AwaitPartner(const Port &P)
{
    for (int i = 0; i < 10000 && !P.hasSubscribers(); i++)
        usleep(1000);
    if (!P.hasSubscribers())
        Fail("iceoryx: no subscriber came");
}

// Loans a chunk of Bytes, waiting while the pool is empty.
void *IceoryxLoan(iox::popo::UntypedPublisher &Publisher, uint32_t Bytes)
{
    for (;;) {
        auto Loaned = Publisher.loan(Bytes);
        if (!Loaned.has_error())
            return Loaned.value();
        sched_yield();
    }
}

int IceoryxReceive(uint32_t Size)
{
    IceoryxRuntime("bench-large-rx-" + std::to_string(getpid()));
    iox::popo::UntypedSubscriber Data(IceoryxTopic("data", Size));
    iox::popo::UntypedPublisher Acks(IceoryxTopic("ack", Size));
    AwaitPartner(Acks);
    for (;;) {
        auto Taken = Data.take();
        if (Taken.has_error()) {
            sched_yield(); // polling, and letting a sender on the same core run
            continue;
        }
        Head H;
        const double Latency = Consume((const uint8_t *)Taken.value(), Size, &H);
        Data.release(Taken.value());
        if (H.Flags & kStop)
            return 0; // leaves RouDi as an application should
        if (H.Flags & kAckNow) {
            void *pAck = IceoryxLoan(Acks, sizeof Latency);
            memcpy(pAck, &Latency, sizeof Latency);
            Acks.publish(pAck);
        }
    }
}

struct IceoryxSender : Sender {
    std::unique_ptr<iox::popo::UntypedPublisher> Data;
    std::unique_ptr<iox::popo::UntypedSubscriber> Acks;
    uint32_t Size = 0;
    ~IceoryxSender() override
    {
        Send({NowUs(), kStop, Size});
        Reap(Pid);
    }
    bool Send(const Head &H) override
    {
        void *pChunk = IceoryxLoan(*Data, H.Size);
        memcpy(pChunk, &H, sizeof H);
        Data->publish(pChunk);
        return true;
    }
    double Ack() override
    {
        for (;;) {
            auto Taken = Acks->take();
            if (Taken.has_error()) {
                sched_yield();
                continue;
            }
            double Latency;
            memcpy(&Latency, Taken.value(), sizeof Latency);
            Acks->release(Taken.value());
            return Latency;
        }
    }
};

std::unique_ptr<Sender> StartIceoryx(uint32_t Size, const char *pSelf)
{
    static bool bRuntime = false;
    if (!bRuntime)
        IceoryxRuntime("bench-large-tx-" + std::to_string(getpid()));
    bRuntime = true;
    auto S = std::make_unique<IceoryxSender>();
    S->Data = std::make_unique<iox::popo::UntypedPublisher>(IceoryxTopic("data", Size));
    S->Acks = std::make_unique<iox::popo::UntypedSubscriber>(IceoryxTopic("ack", Size));
    S->Size = Size;
    const std::string Bytes = std::to_string(Size);
    S->Pid = StartPeer([&] {
        execl("/proc/self/exe", pSelf, "--iceoryx-receiver", Bytes.c_str(), (char *)nullptr);
        return 127;
    });
    AwaitPartner(*S->Data);
    return S;
}

// iox-roudi with a pool for each size (the payload and iceoryx's chunk
// header), enough chunks for a window in flight and one held on each side.
struct IceoryxRouDi {
    pid_t Pid = -1;
    std::string Config = "/tmp/bench-large-roudi-" + std::to_string(getpid()) + ".toml";
    IceoryxRouDi()
    {
        std::ofstream Out(Config);
        Out << "[general]\nversion = 1\n\n[[segment]]\n";
        for (const uint32_t Size : {1024u, (64u << 10) + 1024, (1u << 20) + 1024, (16u << 20) + 1024,
                                    (64u << 20) + 1024})
            Out << "\n[[segment.mempool]]\nsize = " << Size << "\ncount = " << (Size < 4096 ? 256 : 3 * kWindow)
                << "\n";
        Out.close();
        char *const Argv[] = {(char *)"iox-roudi", (char *)"-c", (char *)Config.c_str(), (char *)"-l",
                              (char *)"off", nullptr};
        posix_spawn_file_actions_t Quiet; // its start-up report on stdout
        posix_spawn_file_actions_init(&Quiet);
        posix_spawn_file_actions_addopen(&Quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        const int Spawned = posix_spawnp(&Pid, "iox-roudi", &Quiet, nullptr, Argv, environ);
        posix_spawn_file_actions_destroy(&Quiet);
        if (Spawned != 0)
            Fail("iox-roudi");
    }
    ~IceoryxRouDi()
    {
        kill(Pid, SIGTERM);
        waitpid(Pid, nullptr, 0);
        unlink(Config.c_str());
    }
};

} // namespace
