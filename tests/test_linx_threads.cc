// SPDX-License-Identifier: Apache-2.0
// LINX sockets of one process used from many threads: sends racing with
// the receiver's close.  (Several threads sending within one process are
// the notification threads' suite's; threads sharing one process's ring,
// the suite of LINX between processes.)
#include "test_kit.h"

namespace {

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
