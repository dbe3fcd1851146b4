// ctest-labels: threads
// The universal device: the virtual device's thread, pace, sound files in
// and out, PortAudio's answers on a machine that may have no sound card,
// and the whole monitor loop (capture node, volume, mixer, playback node)
// on the virtual devices in real time.
#include "deviceutil.h"
#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonravolumenode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <boost/asio/steady_timer.hpp>

#include <portaudio.h> // the error codes only

#include <chrono>
#include <mutex>
#include <thread>

using namespace ombrel;
using sonratest::readWav;
using sonratest::tempPath;
using sonratest::writeWav;

namespace {

const unsigned RATE = 16000;
const unsigned FRAME_MS = 20;
const unsigned BLOCK_SAMPLES = 320; // per channel

SonraStreamConfiguration configuration(const std::string& capture, unsigned captureChannels,
                                       const std::string& playback, unsigned playbackChannels)
{
    SonraStreamConfiguration c;
    c.captureDevice = capture;
    c.captureChannels = captureChannels;
    c.playbackDevice = playback;
    c.playbackChannels = playbackChannels;
    return c;
}

// Collects the blocks a device delivers; plays a rising counter.
class Recorder {
public:
    SonraDevice::Callback callback(int stopAfter = -1)
    {
        return [this, stopAfter](const char* in, int inLength, char* out, int outLength, int status) {
            std::lock_guard<std::mutex> lock(m_mutex);
            EXPECT_EQ(0, status);
            inLengths.push_back(in ? inLength : -1);
            outLengths.push_back(out ? outLength : -1);
            if (in)
                captured.insert(captured.end(), reinterpret_cast<const int16_t*>(in),
                                reinterpret_cast<const int16_t*>(in) + inLength / 2);
            if (out) {
                int16_t* samples = reinterpret_cast<int16_t*>(out);
                for (int i = 0; i < outLength / 2; ++i)
                    samples[i] = static_cast<int16_t>(++m_counter);
            }
            return stopAfter < 0 || static_cast<int>(inLengths.size()) < stopAfter;
        };
    }
    std::size_t blocks()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return inLengths.size();
    }

    std::vector<int> inLengths, outLengths;
    std::vector<int16_t> captured;

private:
    std::mutex m_mutex;
    int m_counter = 0;
};

bool hasSoundCard(SonraUniversalDevice& device, SonraDeviceInfo::DeviceType type)
{
    return device.devices(type).size() > 1;
}

} // namespace

TEST(UniversalDevice, ListsTheVirtualDeviceFirstAndQuietly)
{
    SonraUniversalDevice device(RATE);
    testing::internal::CaptureStderr();
    const auto capture = device.devices(SonraDeviceInfo::CAPTURE);
    const auto playback = device.devices(SonraDeviceInfo::PLAYBACK);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string::npos, printed.find("ALSA lib")) << printed;
    for (const auto* list : {&capture, &playback}) {
        ASSERT_FALSE(list->empty());
        EXPECT_EQ("virtual", (*list)[0]->name());
        EXPECT_TRUE((*list)[0]->isVirtual());
        EXPECT_EQ(double(RATE), (*list)[0]->defaultSampleRate());
        for (std::size_t i = 1; i < list->size(); ++i) {
            EXPECT_FALSE((*list)[i]->isVirtual());
            EXPECT_GT((*list)[i]->maxChannels(), 0u);
        }
    }
}

TEST(UniversalDevice, UnknownDeviceFailsWithPortAudiosWords)
{
    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message;
    EXPECT_EQ(paInvalidDevice, device.start(configuration("", 0, "no such card", 1), recorder.callback(), &message));
    EXPECT_EQ("Invalid device: there is no playback device named \"no such card\"", message);
    EXPECT_EQ(paInvalidDevice, device.start(configuration("no such mic", 1, "virtual", 1), recorder.callback(), &message));
    EXPECT_EQ(0u, message.find("Invalid device: there is no capture device named \"no such mic\""));
    EXPECT_FALSE(device.isRunning());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, recorder.blocks());
}

TEST(UniversalDevice, WithoutSoundCardTheDefaultDeviceIsUnavailable)
{
    SonraUniversalDevice device(RATE);
    if (hasSoundCard(device, SonraDeviceInfo::PLAYBACK))
        GTEST_SKIP() << "this machine has a sound card";
    Recorder recorder;
    std::string message;
    EXPECT_EQ(paDeviceUnavailable, device.start(configuration("", 0, "", 1), recorder.callback(), &message));
    EXPECT_EQ(0, message.find("Device unavailable")) << message;
    // A virtual side does not run alone when the sound card side fails.
    EXPECT_EQ(paDeviceUnavailable, device.start(configuration("virtual", 1, "", 1), recorder.callback(), &message));
    EXPECT_FALSE(device.isRunning());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, recorder.blocks());
}

TEST(UniversalDevice, RefusesStreamsThatCannotRun)
{
    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message;
    EXPECT_EQ(paInvalidChannelCount, device.start(configuration("virtual", 0, "virtual", 0), recorder.callback(), &message));
    EXPECT_EQ(paInvalidChannelCount, device.start(configuration("virtual", 9, "virtual", 1), recorder.callback(), &message));
    EXPECT_EQ("Invalid number of channels: the virtual device has at most 8 channels", message);
    SonraStreamConfiguration noRate = configuration("virtual", 1, "virtual", 1);
    noRate.sampleRate = 0;
    EXPECT_EQ(paInvalidSampleRate, device.start(noRate, recorder.callback(), &message));
    SonraStreamConfiguration tinyBlock = configuration("virtual", 1, "virtual", 1);
    tinyBlock.frameDuration = 0;
    EXPECT_EQ(paBufferTooSmall, device.start(tinyBlock, recorder.callback(), &message));
    SonraStreamConfiguration hugeBlock = configuration("virtual", 1, "virtual", 1);
    hugeBlock.frameDuration = 4000000000u; // the block size must not wrap
    EXPECT_EQ(paBufferTooBig, device.start(hugeBlock, recorder.callback(), &message));
    EXPECT_EQ(paNullCallback, device.start(configuration("virtual", 1, "virtual", 1), SonraDevice::Callback(), &message));
    EXPECT_FALSE(device.isRunning());
}

TEST(UniversalDevice, VirtualDeviceKeepsTheStreamsPace)
{
    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message = "Device not ready";
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(0, device.start(configuration("virtual", 2, "virtual", 1), recorder.callback(), &message)) << message;
    EXPECT_TRUE(device.isRunning());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    device.stop();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const std::size_t blocks = recorder.blocks();
    EXPECT_FALSE(device.isRunning());

    // One block per 20 ms, loosely: the machine may be busy.
    EXPECT_GE(blocks, 10u);
    EXPECT_LE(double(blocks), seconds / 0.020 + 1);
    for (std::size_t i = 0; i < blocks; ++i) {
        EXPECT_EQ(int(BLOCK_SAMPLES * 2 * 2), recorder.inLengths[i]);
        EXPECT_EQ(int(BLOCK_SAMPLES * 2), recorder.outLengths[i]);
    }
    EXPECT_EQ(sonratest::rms(recorder.captured), 0.0); // "virtual" captures silence
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(blocks, recorder.blocks()); // nothing after stop
}

TEST(UniversalDevice, VirtualCaptureLoopsASoundFileAndMixesItsChannels)
{
    const std::string path = tempPath("stereo.wav");
    std::vector<int16_t> stereo;
    for (int i = 0; i < 500; ++i) {
        stereo.push_back(static_cast<int16_t>(50 * i));
        stereo.push_back(static_cast<int16_t>(50 * i + 20));
    }
    ASSERT_TRUE(writeWav(path, stereo, RATE, 2));

    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message;
    ASSERT_EQ(0, device.start(configuration("virtual:" + path, 1, "", 0), recorder.callback(3), &message)) << message;
    while (recorder.blocks() < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    device.stop();
    ASSERT_EQ(3u, recorder.blocks()); // the callback's false ended the stream
    EXPECT_EQ(-1, recorder.outLengths[0]);
    ASSERT_EQ(3 * BLOCK_SAMPLES, recorder.captured.size());
    for (std::size_t i = 0; i < recorder.captured.size(); ++i)
        ASSERT_EQ(50 * int(i % 500) + 10, recorder.captured[i]) << i;

    // A stereo stream takes the file's channels as they are.
    Recorder stereoRecorder;
    ASSERT_EQ(0, device.start(configuration("virtual:" + path, 2, "", 0), stereoRecorder.callback(1), &message));
    while (stereoRecorder.blocks() < 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    device.stop();
    EXPECT_EQ(std::vector<int16_t>(stereo.begin(), stereo.begin() + 2 * BLOCK_SAMPLES), stereoRecorder.captured);
    std::remove(path.c_str());
}

TEST(UniversalDevice, VirtualCaptureRefusesAnUnusableFile)
{
    const std::string path = tempPath("8k.wav");
    ASSERT_TRUE(writeWav(path, std::vector<int16_t>(800, 5), 8000, 1));
    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message;
    EXPECT_EQ(paInvalidSampleRate, device.start(configuration("virtual:" + path, 1, "virtual", 1), recorder.callback(), &message));
    EXPECT_EQ("Invalid sample rate: the sound file \"" + path + "\" has 8000 Hz, the stream 16000 Hz", message);
    EXPECT_EQ(paInvalidDevice,
              device.start(configuration("virtual:" + path + ".missing", 1, "virtual", 1), recorder.callback(), &message));
    EXPECT_EQ(0, message.find("Invalid device: cannot read the sound file")) << message;
    EXPECT_EQ(paInvalidDevice,
              device.start(configuration("virtual", 1, "virtual:/nonexistent/dir/out.wav", 1), recorder.callback(), &message));
    EXPECT_EQ(0, message.find("Invalid device: cannot write the sound file")) << message;
    EXPECT_FALSE(device.isRunning());
    std::remove(path.c_str());
}

TEST(UniversalDevice, VirtualPlaybackWritesWhatItPlays)
{
    const std::string path = tempPath("played.wav");
    SonraUniversalDevice device(RATE);
    Recorder recorder;
    std::string message;
    ASSERT_EQ(0, device.start(configuration("", 0, "virtual:" + path, 2), recorder.callback(4), &message)) << message;
    while (recorder.blocks() < 4)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    device.stop(); // closes the file
    const auto played = readWav(path);
    ASSERT_TRUE(played.ok);
    EXPECT_EQ(int(RATE), played.sampleRate);
    EXPECT_EQ(2, played.channels);
    ASSERT_EQ(4u * BLOCK_SAMPLES * 2, played.samples.size());
    for (std::size_t i = 0; i < played.samples.size(); ++i)
        ASSERT_EQ(int16_t(i + 1), played.samples[i]) << i;
    std::remove(path.c_str());
}

TEST(UniversalDevice, StartWhileRunningRestarts)
{
    SonraUniversalDevice device(RATE);
    Recorder first, second;
    std::string message;
    ASSERT_EQ(0, device.start(configuration("virtual", 1, "virtual", 1), first.callback(), &message));
    while (first.blocks() < 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(0, device.start(configuration("virtual", 1, "virtual", 1), second.callback(), &message));
    const std::size_t firstBlocks = first.blocks();
    while (second.blocks() < 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(firstBlocks, first.blocks());
    device.stop();
    device.stop();
}

// The monitor loop of a voice client, in real time on the virtual devices:
// a sound file is captured, goes through the graph and is played into a
// WAV file, the same samples after the pipeline's delay.
TEST(UniversalDevice, MonitorLoopPlaysWhatItCaptures)
{
    const std::string inPath = tempPath("loop_in.wav");
    const std::string outPath = tempPath("loop_out.wav");
    std::vector<int16_t> input(RATE / 2); // 0.5 s, never 0 so that gaps would show
    for (std::size_t i = 0; i < input.size(); ++i)
        input[i] = static_cast<int16_t>(1 + (i * 37) % 20000);
    ASSERT_TRUE(writeWav(inPath, input, RATE, 1));

    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto container = boost::make_shared<SonraDevNodesContainer>(io, FRAME_MS, 360, RATE);
    container->create(true, false);
    container->setPipe(pipe);
    container->setCaptureDevice("virtual:" + inPath);
    container->setPlaybackDevice("virtual:" + outPath);
    auto volume = boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE);
    auto mixer = boost::make_shared<SonraMixerNode>(io, FRAME_MS, RATE);
    pipe->connect(container->capture(), volume);
    pipe->connect(volume, mixer);
    pipe->connect(mixer, container->playback());

    std::string message;
    ASSERT_EQ(0, container->start(1, 1, &message)) << message;
    // Half a frame after the device, so that the two clocks never race.
    std::this_thread::sleep_for(std::chrono::milliseconds(FRAME_MS / 2));
    pipe->start(io);
    boost::asio::steady_timer end(*io, std::chrono::milliseconds(700));
    end.async_wait([&](const boost::system::error_code&) { pipe->stop(); });
    io->run();
    container->stop();
    pipe->clear();

    const auto played = readWav(outPath);
    ASSERT_TRUE(played.ok);
    ASSERT_GE(played.samples.size(), 20 * BLOCK_SAMPLES);
    // Silence first (the blocks played before the graph's first frame),
    // then the input, looping, with no gap while the machine keeps up.
    std::size_t delay = 0;
    while (delay < played.samples.size() && played.samples[delay] == 0)
        ++delay;
    EXPECT_EQ(0u, delay % BLOCK_SAMPLES);
    EXPECT_GE(delay, BLOCK_SAMPLES);
    EXPECT_LE(delay, 10 * BLOCK_SAMPLES);
    std::vector<int16_t> heard;
    for (std::size_t i = delay; i < played.samples.size(); ++i)
        if (played.samples[i] != 0)
            heard.push_back(played.samples[i]);
    ASSERT_GE(heard.size(), input.size());
    for (std::size_t i = 0; i < heard.size(); ++i)
        ASSERT_EQ(input[i % input.size()], heard[i]) << "sample " << i;
    std::remove(inPath.c_str());
    std::remove(outPath.c_str());
}
