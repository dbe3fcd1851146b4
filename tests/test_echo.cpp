// ctest-labels: threads
// Echo control in the universal device: the default canceller's figures in
// the simulated room, driven block by block, and the virtual device running
// it on its own thread while the controlling thread moves the echo path.
#include "sonraechocontrol.h"
#include "sonrauniversaldev.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <chrono>
#include <thread>

using namespace ombrel;

namespace {

const unsigned RATE = 16000, CALL_MS = 10000;
const std::vector<short> farVoice = SonraEchoRoom::speechLike(RATE, CALL_MS, 1);
const std::vector<short> nearVoice = SonraEchoRoom::speechLike(RATE, CALL_MS, 2);

std::size_t at(unsigned ms) { return std::size_t(RATE) * ms / 1000; }

} // namespace

// The far end talks through the whole call; the near end over [nearFromMs, nearToMs).
TEST(Echo, DefaultCancellerMeetsItsFiguresInTheSimulatedRoom)
{
    const struct { const char* name; bool room; unsigned nearFromMs, nearToMs, changeAtMs; double levelDb, correlation; } calls[] = {
        {"far-end single talk", true, 0, 0, 0, 0, 0},
        {"echo path 40 ms longer at 5 s", true, 0, 0, 5000, 0, 0},
        {"double talk from 5 to 9 s", true, 5000, 9000, 0, 3.0, 0.9},
        {"no echo path, near end from 2 s", false, 2000, CALL_MS, 0, 1.0, 0.99},
    };
    // Blocks of whole 10 ms chunks go straight through; others lag one chunk.
    EXPECT_EQ(0u, SonraEchoCanceller(SonraEchoCanceller::WEBRTC, 16000, 1, 1, 320).latencyFrames());
    EXPECT_EQ(160u, SonraEchoCanceller(SonraEchoCanceller::SPEEX, 16000, 1, 1, 100).latencyFrames());
    for (const auto& call : calls) {
        SCOPED_TRACE(call.name);
        SonraEchoTrial trial;
        trial.room = call.room;
        trial.farEnd = farVoice;
        trial.nearEnd.assign(farVoice.size(), 0);
        std::copy(nearVoice.begin() + at(call.nearFromMs), nearVoice.begin() + at(call.nearToMs),
                  trial.nearEnd.begin() + at(call.nearFromMs));
        trial.changeAtMs = call.changeAtMs;
        trial.changedPath.delayMs = trial.path.delayMs + 40;
        const SonraEchoTrial::Result result = trial.run();
        ASSERT_EQ(SonraEchoCanceller::DEFAULT_ENGINE, result.engine);
        if (call.nearToMs) {
            // Judged at the canceller's own latency, up to 20 ms.
            const short* clean = trial.nearEnd.data() + at(call.nearFromMs);
            const std::size_t count = at(call.nearToMs - call.nearFromMs - 20);
            const short* kept = result.cleaned.data() + at(call.nearFromMs);
            kept += SonraEchoMeter::bestLag(kept, clean, count, at(20));
            EXPECT_NEAR(SonraEchoMeter::levelDb(clean, count), SonraEchoMeter::levelDb(kept, count), call.levelDb);
            EXPECT_GE(SonraEchoMeter::correlation(kept, clean, count), call.correlation);
        } else if (call.changeAtMs) {
            // Back to 20 dB within 1 s; holding it from the far end's next
            // phrase on, 2.64 s after the jump (-1: never).
            EXPECT_LE(unsigned(result.meter.convergenceMs(20, call.changeAtMs)), 1000u);
            EXPECT_LE(unsigned(result.meter.settledMs(20, call.changeAtMs)), 3000u);
        } else {
            EXPECT_GE(result.meter.erleDb(2000, 4000), 25.0);
            EXPECT_LE(unsigned(result.meter.convergenceMs(20)), 1000u);
            EXPECT_LE(unsigned(result.meter.settledMs(20)), 1000u);
        }
    }
}

TEST(Echo, VirtualDeviceCancelsInItsRoomWhileThePathMoves)
{
    SonraUniversalDevice device(RATE);
    EXPECT_FALSE(device.hasVoicePreprocessor());
    device.aecEnabled = true;
    EXPECT_TRUE(device.hasVoicePreprocessor());
    device.setEchoPath(SonraEchoPath());
    SonraStreamConfiguration stereoIn;
    stereoIn.captureDevice = stereoIn.playbackDevice = SonraUniversalDevice::VIRTUAL_DEVICE;
    stereoIn.captureChannels = 2;
    const unsigned blockFrames = RATE / 50, blocks = 75;
    std::atomic<unsigned> played(0);
    const auto playFarVoice = [&](const char*, int, char* out, int outLength, int) {
        std::copy_n(farVoice.begin() + played * blockFrames, outLength / 2, reinterpret_cast<short*>(out));
        return ++played < blocks;
    };
    std::string message;
    ASSERT_EQ(0, device.start(stereoIn, playFarVoice, &message)) << message;
    while (played < 50)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    SonraEchoPath moved;
    moved.delayMs += 40;
    device.setEchoPath(moved);
    while (played < blocks)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    device.stop();
    const SonraEchoMeter meter = device.echoMeter();
    ASSERT_EQ(blocks, meter.blocks().size());
    EXPECT_GE(meter.erleDb(600, 1000), 20.0); // blocks played before the move
    EXPECT_EQ(SonraEchoCanceller::DEFAULT_ENGINE, device.echoMeterEngine());
    // Without the canceller and the room, nothing is measured nor touched.
    device.aecEnabled = false;
    device.removeEchoPath();
    ASSERT_EQ(0, device.start(stereoIn, [](const char*, int, char*, int, int) { return false; }, &message));
    device.stop();
    EXPECT_TRUE(device.echoMeter().blocks().empty());
}

// The room's impulse response: the direct path at its delay and gain, then
// within the tail's length a tail whose energy lies tailDb below it.
TEST(Echo, RoomImpulseResponseAndMicrophoneNoiseAreAsAsked)
{
    const SonraEchoPath path; // 40 ms at -6 dB; a 300 ms tail at -6 dB
    const std::vector<std::pair<unsigned, float> > taps = SonraEchoRoom(16000, 1, path).impulseResponse(0);
    ASSERT_GT(taps.size(), 100u);
    EXPECT_EQ(640u, taps[0].first);
    EXPECT_NEAR(std::pow(10.0, -6 / 20.0), taps[0].second, 1e-6);
    double tail = 0;
    for (std::size_t i = 1; i < taps.size(); ++i) {
        EXPECT_GT(taps[i].first, 640u);
        EXPECT_LT(taps[i].first, 640u + 4800u);
        tail += double(taps[i].second) * taps[i].second;
    }
    EXPECT_NEAR(-6.0, 10 * std::log10(tail / (double(taps[0].second) * taps[0].second)), 0.01);

    // What the microphone takes from a silent room: its noise, at noiseDb.
    SonraEchoRoom quiet(16000, 1, path);
    std::vector<short> silence(16000, 0), captured(16000, 0);
    quiet.play(silence.data(), 16000, 1);
    quiet.capture(captured.data(), 16000);
    EXPECT_NEAR(path.noiseDb, SonraEchoMeter::levelDb(captured.data(), captured.size()), 1.0);
}

// Quiet echo is measured too: a block is active against the loudest so far, not against full scale.
TEST(Echo, MeterJudgesActivityAgainstTheLoudestBlock)
{
    SonraEchoMeter meter(20);
    const std::vector<short> played(320, 1000), echo(320, 100), cleaned(320, 10); // about -30, -50 and -70 dBFS
    for (int block = 0; block < 20; ++block)
        meter.add(played.data(), played.size(), echo.data(), cleaned.data(), echo.size());
    EXPECT_NEAR(20.0, meter.erleCurve(200).back(), 1e-9);
    EXPECT_NEAR(std::pow(1000 / 32768.0, 2), meter.blocks()[0].played, 1e-12); // mean square, full scale 1
    const short a[] = {1, 2, 3, 100}, b[] = {2, 4, 6, -7};
    EXPECT_NEAR(1.0, SonraEchoMeter::correlation(a, b, 3), 1e-12); // the first three alone
}

// A path set while the stream runs reaches the room: 40 dB quieter, so is the echo.
TEST(Echo, ControlHandsAPathChangeToItsRoom)
{
    const SonraEchoPath loud;
    SonraEchoControl control(RATE, 320, 20, 1, 1, false, SonraEchoCanceller::DEFAULT_ENGINE, &loud);
    const std::vector<short> microphone(320, 0);
    std::vector<short> loudspeaker(320);
    for (unsigned block = 0; block < 100; ++block) {
        if (block == 50) {
            SonraEchoPath quiet = loud;
            quiet.gainDb -= 40, quiet.tailDb = -100;
            control.setEchoPath(quiet);
        }
        control.processBlock(reinterpret_cast<const char*>(microphone.data()), 640,
                             reinterpret_cast<char*>(loudspeaker.data()), 640, 0, [&](const char*, int, char* out, int, int) {
                                 std::copy_n(farVoice.begin() + at(20 * block), 320, reinterpret_cast<short*>(out));
                                 return true;
                             });
    }
    const SonraEchoMeter meter = control.meter();
    const auto echoDb = [&](unsigned from, unsigned to) { // captured over played
        double captured = 0, played = 0;
        for (unsigned b = from; b < to; ++b)
            captured += meter.blocks()[b].captured, played += meter.blocks()[b].played;
        return 10 * std::log10(captured / played);
    };
    EXPECT_LT(echoDb(55, 100), echoDb(5, 50) - 30);
}
