// A shortened soak of a three-party call (sonra-soak call runs the hour):
// Opus in the own packet format over lossy, jittery links, every mixer
// fed every frame and memory flat after the first simulated seconds.
#include "sonrasoak.h"

#include <gtest/gtest.h>

TEST(Soak, ThreePartyCallKeepsMemoryFlatAndNeverMissesAMixerFrame)
{
    sonrasoak::SoakCallConfig config;
    config.frames = 2000;      // 40 s of call
    config.warmupFrames = 500;
    const sonrasoak::SoakCallResult r = sonrasoak::runSoakCall(config);
    EXPECT_EQ(0u, r.missedMixerFrames);
#ifndef __SANITIZE_ADDRESS__ // AddressSanitizer holds freed memory back; it finds leaks itself
    EXPECT_TRUE(sonrasoak::residentFlat(r.residentAfterWarmupKb, r.residentPeakKb))
        << r.residentAfterWarmupKb << " KiB -> " << r.residentPeakKb << " KiB";
#endif
    // Each packet goes to two parties; about 5 % of the copies are lost.
    EXPECT_EQ(6000u, r.sent);
    EXPECT_NEAR(0.95 * 2 * r.sent, double(r.delivered), 0.02 * 2 * r.sent);
    EXPECT_LE(r.played, r.delivered);
    EXPECT_GT(r.played, 0.8 * r.delivered);
}
