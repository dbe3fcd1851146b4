// ctest-labels: threads
// Thread stress, shortened (sonra-soak devices and graphs run it longer):
// device containers started and stopped while their devices call back, and
// call graphs on several threads giving what they give one by one.
#include "sonrasoak.h"

#include <gtest/gtest.h>

TEST(Stress, DeviceContainersStartAndStopWhileTheirDevicesCallBack)
{
    sonrasoak::DeviceStressConfig config;
    config.cycles = 50;
    config.captureFile = ::testing::TempDir() + "sonra_stress_" + std::to_string(::getpid()) + ".wav";
    const sonrasoak::DeviceStressResult r = sonrasoak::runDeviceStress(config);
    EXPECT_FALSE(r.deadlocked);
    EXPECT_EQ(100u, r.cycles);
    EXPECT_EQ(0u, r.failedStarts);
    EXPECT_EQ(0u, r.silentCycles);
    EXPECT_EQ(r.threadsBefore, r.threadsAfter);
}

TEST(Stress, GraphsOnSeveralThreadsGiveWhatTheyGiveOneByOne)
{
    sonrasoak::GraphsConfig config;
    config.graphs = 16;
    config.threads = 4;
    config.frames = 5;
    const sonrasoak::GraphsResult r = sonrasoak::runGraphs(config);
    EXPECT_EQ(0u, r.differing);
}
