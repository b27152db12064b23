// SPDX-License-Identifier: Apache-2.0
// LINX sockets of one process used from many threads: per-sender order
// with several senders (delivery between threads hands the buffer over, and
// the sink's answers go back the same way), and sends racing with the
// receiver's close.
#include "test_kit.h"

namespace {

TEST(LinxThreads, SeveralSendersKeepTheirOwnOrder)
{
    LINX *pSink = linx_open("sink", 0, nullptr);
    ASSERT_NE(nullptr, pSink);
    const LINX_SPID Sink = linx_get_spid(pSink);
    constexpr int kSenders = 4;
    constexpr uint32_t kEach = 1000;
    std::vector<std::thread> Senders;
    for (int t = 0; t < kSenders; t++)
        Senders.emplace_back([Sink, t] {
            LINX *pLinx = linx_open(("source" + std::to_string(t)).c_str(), 0, nullptr);
            for (uint32_t i = 0; i < kEach; i++) {
                while (SendSignal(pLinx, Sink, 0x100 + t, i) == ENOBUFS)
                    std::this_thread::yield();
            }
            // Stay open until the sink has taken everything we sent.
            union LINX_SIGNAL *pSig = nullptr;
            linx_receive(pLinx, &pSig, nullptr);
            linx_free_buf(pLinx, &pSig);
            linx_close(pLinx);
        });
    uint32_t Next[kSenders] = {};
    std::vector<LINX_SPID> Sources(kSenders);
    for (uint32_t n = 0; n < kSenders * kEach; n++) {
        uint32_t Value = 0;
        LINX_SPID From = 0;
        const uint32_t SigNo = ReceiveOne(pSink, 5000, &Value, &From);
        ASSERT_GE(SigNo, 0x100u);
        ASSERT_LT(SigNo, 0x100u + kSenders);
        ASSERT_EQ(Next[SigNo - 0x100]++, Value);
        Sources[SigNo - 0x100] = From;
    }
    for (LINX_SPID Source : Sources) {
        SendSignal(pSink, Source, 2, 0);
    }
    for (std::thread &T : Senders)
        T.join();
    linx_close(pSink);
}

TEST(LinxThreads, SendsRacingACloseNeverCrash)
{
    for (int Round = 0; Round < 20; Round++) {
        LINX *pTarget = linx_open("target", 0, nullptr);
        ASSERT_NE(nullptr, pTarget);
        const LINX_SPID Target = linx_get_spid(pTarget);
        std::atomic<int> Unexpected{0};
        std::thread Sender([Target, &Unexpected] {
            LINX *pLinx = linx_open("racer", 0, nullptr);
            for (int i = 0; i < 200; i++) {
                if (SendSignal(pLinx, Target, 1, i, 128) != 0 && errno != ECONNRESET && errno != ENOBUFS)
                    Unexpected++;
            }
            linx_close(pLinx);
        });
        std::this_thread::yield();
        linx_close(pTarget); // frees whatever was handed over and not taken
        Sender.join();
        EXPECT_EQ(0, Unexpected.load());
    }
}

} // namespace
