// ctest-labels: threads
// The universal device: the virtual device's thread, pace, sound files in
// and out, and PortAudio's answers on a machine that may have no sound card.
#include "deviceutil.h"

#include <portaudio.h> // the error codes only

#include <chrono>
#include <mutex>
#include <thread>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned RATE = 16000;
const int BLOCK_SAMPLES = 320; // per channel, 20 ms

SonraStreamConfiguration configuration(const std::string& capture, unsigned captureChannels, const std::string& playback,
                                       unsigned playbackChannels, unsigned rate = RATE, unsigned frameMs = 20)
{
    SonraStreamConfiguration c;
    c.captureDevice = capture;
    c.captureChannels = captureChannels;
    c.playbackDevice = playback;
    c.playbackChannels = playbackChannels;
    c.sampleRate = rate;
    c.frameDuration = frameMs;
    return c;
}

// Collects the blocks a device delivers, plays a rising counter, and ends
// the stream after `stopAfter` blocks when asked to.
struct Recorder {
    SonraDevice::Callback callback(int stopAfter = -1)
    {
        return [this, stopAfter](const char* in, int inLength, char* out, int outLength, int status) {
            std::lock_guard<std::mutex> lock(mutex);
            EXPECT_EQ(0, status);
            lengths.push_back({in ? inLength : -1, out ? outLength : -1});
            if (in)
                captured.insert(captured.end(), (const int16_t*)in, (const int16_t*)in + inLength / 2);
            for (int i = 0; out && i < outLength / 2; ++i)
                reinterpret_cast<int16_t*>(out)[i] = static_cast<int16_t>(++counter);
            return stopAfter < 0 || static_cast<int>(lengths.size()) < stopAfter;
        };
    }
    std::size_t blocks()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lengths.size();
    }
    void waitFor(std::size_t count)
    {
        while (blocks() < count)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    std::mutex mutex;
    int counter = 0;
    std::vector<std::pair<int, int> > lengths; // captured and played bytes of each block, -1 without a buffer
    std::vector<int16_t> captured;
};

} // namespace

TEST(UniversalDevice, RefusesStreamsThatCannotRunWithPortAudiosWords)
{
    const std::string wav = tempPath("8k.wav");
    ASSERT_TRUE(writeWav(wav, std::vector<int16_t>(800, 5), 8000, 1));
    SonraUniversalDevice device(RATE);
    const bool soundCard = device.devices(SonraDeviceInfo::PLAYBACK).size() > 1;
    const struct { SonraStreamConfiguration configuration; int code; std::string messageStart; } cases[] = {
        {configuration("", 0, "no such card", 1), paInvalidDevice,
         "Invalid device: there is no playback device named \"no such card\""},
        {configuration("no such mic", 1, "virtual", 1), paInvalidDevice,
         "Invalid device: there is no capture device named \"no such mic\""},
        {configuration("virtual", 9, "virtual", 1), paInvalidChannelCount,
         "Invalid number of channels: the virtual device has at most 8 channels"},
        {configuration("virtual", 1, "virtual", 1, RATE, 4000000000u), paBufferTooBig, ""}, // must not wrap
        {configuration("virtual:" + wav, 1, "virtual", 1), paInvalidSampleRate,
         "Invalid sample rate: the sound file \"" + wav + "\" has 8000 Hz, the stream 16000 Hz"},
        {configuration("virtual:" + wav + ".missing", 1, "virtual", 1), paInvalidDevice,
         "Invalid device: cannot read the sound file"},
        {configuration("virtual", 1, "virtual:/nonexistent/dir/out.wav", 1), paInvalidDevice,
         "Invalid device: cannot write the sound file"},
        // A virtual side does not run alone when the sound card side fails.
        {configuration(soundCard ? "no such mic" : "virtual", 1, "", 1), soundCard ? paInvalidDevice : paDeviceUnavailable,
         soundCard ? "" : "Device unavailable"},
    };
    Recorder recorder;
    for (const auto& c : cases) {
        std::string message;
        EXPECT_EQ(c.code, device.start(c.configuration, recorder.callback(), &message)) << message;
        EXPECT_EQ(0u, message.find(c.messageStart)) << message;
        EXPECT_FALSE(device.isRunning());
    }
    std::string message;
    EXPECT_EQ(paNullCallback, device.start(configuration("virtual", 1, "virtual", 1), SonraDevice::Callback(), &message));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, recorder.blocks());
    std::remove(wav.c_str());
}

TEST(UniversalDevice, VirtualDeviceKeepsTheStreamsPace)
{
    SonraUniversalDevice device(RATE);
    Recorder recorder, first;
    std::string message;
    ASSERT_EQ(0, device.start(configuration("virtual", 1, "virtual", 1), first.callback(), &message));
    first.waitFor(1);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(0, device.start(configuration("virtual", 2, "virtual", 1), recorder.callback(), &message)) << message;
    const std::size_t firstBlocks = first.blocks(); // a start while running restarts
    EXPECT_TRUE(device.isRunning());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    device.stop();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const std::size_t blocks = recorder.blocks();
    EXPECT_FALSE(device.isRunning());
    EXPECT_EQ(firstBlocks, first.blocks());

    EXPECT_GE(blocks, 10u); // one block per 20 ms, loosely: the machine may be busy
    EXPECT_LE(double(blocks), seconds / 0.020 + 1);
    const std::pair<int, int> stereoInMonoOut(BLOCK_SAMPLES * 2 * 2, BLOCK_SAMPLES * 2); // bytes
    EXPECT_EQ((std::vector<std::pair<int, int> >(blocks, stereoInMonoOut)), recorder.lengths);
    EXPECT_EQ(rms(recorder.captured), 0.0); // "virtual" captures silence
    ASSERT_EQ(0, device.start(configuration("virtual", 1, "", 0, RATE, 5000), first.callback(), &message));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(blocks, recorder.blocks()); // nothing after stop
    const auto stopping = std::chrono::steady_clock::now();
    device.stop(); // wakes the stream's thread, which would otherwise wait out its 5 s block
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - stopping).count(), 2.0);
}

// A stereo file captured into one channel (mixed), and what is played
// written to a stereo file.
TEST(UniversalDevice, VirtualDevicesReadAndWriteSoundFiles)
{
    const std::string in = tempPath("stereo.wav"), out = tempPath("played.wav");
    std::vector<int16_t> stereo;
    for (int i = 0; i < 500; ++i)
        stereo.insert(stereo.end(), {int16_t(50 * i), int16_t(50 * i + 20)});
    ASSERT_TRUE(writeWav(in, stereo, RATE, 2));
    SonraUniversalDevice device(RATE);
    Recorder mono;
    std::string message;
    ASSERT_EQ(0, device.start(configuration("virtual:" + in, 1, "virtual:" + out, 2), mono.callback(3), &message)) << message;
    mono.waitFor(3);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    device.stop(); // closes the file
    ASSERT_EQ(3u, mono.blocks()); // the callback's false ended the stream
    ASSERT_EQ(3u * BLOCK_SAMPLES, mono.captured.size());
    for (std::size_t i = 0; i < mono.captured.size(); ++i)
        ASSERT_EQ(50 * int(i % 500) + 10, mono.captured[i]) << i;
    const auto played = readWav(out);
    EXPECT_EQ(int(RATE), played.sampleRate);
    EXPECT_EQ(2, played.channels);
    ASSERT_EQ(3u * BLOCK_SAMPLES * 2, played.samples.size());
    for (std::size_t i = 0; i < played.samples.size(); ++i)
        ASSERT_EQ(int16_t(i + 1), played.samples[i]) << i;
    // A callback that leaves the block alone plays silence.
    ASSERT_EQ(0, device.start(configuration("", 0, "virtual:" + out, 1), [](const char*, int, char*, int, int) { return false; },
                              &message)) << message;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    device.stop();
    EXPECT_EQ(std::vector<int16_t>(BLOCK_SAMPLES, 0), readWav(out).samples);

    std::remove(in.c_str());
    std::remove(out.c_str());
}
