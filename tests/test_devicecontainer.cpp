// ctest-labels: threads
// The device nodes container: device choice, the stream's lifecycle on the
// pipe's signals, and the data path between the device's callback and the
// graph, driven frame by frame.
#include "deviceutil.h"

#include <atomic>
#include <thread>

using namespace ombrel;
using namespace sonratest;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 16000;
const unsigned FRAME_BYTES = 640;  // one channel's 20 ms at 16 kHz
const unsigned RING_BYTES = 11520; // 360 ms of one channel at 16 kHz
const std::string FAILED = "Failed to open audio device stream in audio device container, code=";

std::string textOf(const Frame& frame) { return frame ? std::string(frame->begin(), frame->end()) : "<none>"; }
std::string zeros(std::size_t n) { return std::string(n, '\0'); }

// A container on a fake device, its playback node fed by `source` in
// `pipe`. Playback-only devices come from the builder, so build with
// capture first, then again without it (which keeps the capture node).
struct Fixture {
    explicit Fixture(bool withCapture = true, unsigned frameMs = FRAME_MS, unsigned ringMs = 360, unsigned rate = RATE)
        : container(boost::make_shared<SonraDevNodesContainer>(ioService(), frameMs, ringMs, rate))
    {
        container->setPlaybackDeviceBuilder(device);
        if (withCapture)
            container->create(true, false);
        container->create(false, false);
        pipe->connect(source.node(FRAME_MS, RATE), container->playback());
    }
    // The callback shares the container's record, which holds the device.
    ~Fixture() { pipe->clear(), device->forget(); }
    // Plays the device's thread: one block captured and one played.
    std::string block(const std::string& captured, unsigned playLength, int status = 0)
    {
        std::string played(playLength, '?');
        EXPECT_TRUE(device->callback(captured.data(), static_cast<int>(captured.size()),
                                     playLength ? &played[0] : nullptr, static_cast<int>(playLength), status));
        return played;
    }
    void play(const Frame& frame) { source.push(frame), pipe->processFrame(); }

    boost::shared_ptr<FakeDevice> device = boost::make_shared<FakeDevice>();
    boost::shared_ptr<SonraDevNodesContainer> container;
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    QueueSource source;
};

} // namespace

TEST(DeviceContainer, BuilderIsAskedOnlyForPlaybackOnlyDevices)
{
    Fixture f(false);
    f.container->create(false, true);
    EXPECT_EQ((std::vector<std::pair<bool, unsigned> >(2, {false, RATE})), f.device->builds);
    EXPECT_EQ(f.device, f.container->device());
    EXPECT_TRUE(f.device->aecEnabled);
    EXPECT_FALSE(f.container->capture());
    f.device->preprocessor = true;
    EXPECT_TRUE(f.container->hasVoicePreprocessor());
    EXPECT_EQ("fake", f.container->devices(SonraDeviceInfo::PLAYBACK).at(0)->name()); // on a temporary device

    f.container->create(true, true);
    EXPECT_EQ("virtual", f.container->devices(SonraDeviceInfo::CAPTURE).at(0)->name());
    EXPECT_EQ(3u, f.device->builds.size()); // the playback list only
    EXPECT_TRUE(f.container->capture());
    EXPECT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(f.container->device()));
    EXPECT_EQ(0, f.device->stops); // the earlier device is released, not stopped

    f.device->buildable = false; // a builder without a device: the universal one
    f.container->create(false, false);
    EXPECT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(f.container->device()));
    EXPECT_FALSE(f.container->device()->aecEnabled);
    EXPECT_FALSE(f.container->hasVoicePreprocessor());
}

TEST(DeviceContainerDeathTest, VoicePreprocessorNeedsADevice)
{
    SonraDevNodesContainer container(ioService(), FRAME_MS, 360, RATE);
    EXPECT_DEATH(container.hasVoicePreprocessor(), "d->m_devicePtr");
}

TEST(DeviceContainer, StartFillsTheStreamConfigurationOfferingCaptureOnlyWithACaptureNode)
{
    Fixture f, playOnly(false);
    f.container->create(false, true);
    f.container->setPlaybackDevice("speaker");
    for (Fixture* g : {&f, &playOnly})
        g->container->setCaptureDevice("mic");
    LogCapture debug("audio2");
    std::string message = "untouched";
    EXPECT_EQ(0, f.container->start(2, 3, &message));
    EXPECT_EQ("Device not ready", message); // the device left it alone
    const SonraStreamConfiguration& c = f.device->lastConfiguration;
    EXPECT_EQ((std::vector<unsigned>{FRAME_MS, RATE, 2, 3}),
              (std::vector<unsigned>{c.frameDuration, c.sampleRate, c.playbackChannels, c.captureChannels}));
    EXPECT_EQ("speaker mic", c.playbackDevice + " " + c.captureDevice);
    EXPECT_EQ(ioService(), c.ioService);
    EXPECT_EQ(0, playOnly.container->start(1, 2, nullptr));
    EXPECT_EQ(0u, playOnly.device->lastConfiguration.captureChannels);
    EXPECT_EQ("", playOnly.device->lastConfiguration.captureDevice);
    EXPECT_EQ(std::vector<std::string>{"Capture, channels=3 aec enabled=true"}, debug.texts()); // none for playOnly
    playOnly.play(frameOf({0x3031}));
    EXPECT_EQ(std::string("10\0\0", 4), playOnly.block("captured", 4)); // playback still filled
    EXPECT_TRUE(playOnly.device->callback("in", 2, nullptr, 4, 0)); // no playback buffer: nothing is written
    EXPECT_FALSE(playOnly.container->processCapture());
}

TEST(DeviceContainer, FailedStartsReportCodeAndText)
{
    SonraDevNodesContainer noDevice(ioService(), FRAME_MS, 360, RATE);
    Fixture f;
    f.device->startResult = -9985;
    f.device->messageToWrite = "Device unavailable";
    LogCapture log("audio2");
    std::string message;
    EXPECT_EQ(-6, noDevice.start(1, 1, &message));
    EXPECT_EQ("Device not ready", message);
    EXPECT_EQ(-9985, f.container->start(1, 1, &message));
    EXPECT_EQ("Device unavailable", message);
    EXPECT_EQ((std::vector<std::string>{FAILED + "-6", FAILED + "-9985"}), log.texts(LogSeverity::Warning));
    noDevice.resetDevice();        // without a device: only the rings
}

TEST(DeviceContainer, SlotsFollowThePipesSignals)
{
    Fixture f;
    f.container->setPipe(f.pipe);
    f.pipe->processFrame();
    EXPECT_EQ(0, f.device->workCycles); // not connected before start
    for (int start = 0; start < 2; ++start) { // a second start stops first and connects afresh
        EXPECT_EQ(0, f.container->start(1, 1, nullptr));
        f.play(frameOf({1, 2, 3}));
        f.block("captured", 0);
        f.pipe->reset(0); // empties both rings
        EXPECT_EQ(zeros(6), f.block("", 6));
        EXPECT_EQ(zeros(FRAME_BYTES), textOf(f.container->processCapture()));
        EXPECT_EQ((std::vector<int>{start + 1, start, start + 1, start + 1}), f.device->counts());
    }
    f.container->stop();
    f.pipe->processFrame();
    f.pipe->reset(0);
    EXPECT_EQ((std::vector<int>{2, 2, 2, 2}), f.device->counts());

    f.device->startResult = -1; // a failed start keeps its connections, made once, and needs no stop
    EXPECT_EQ(-1, f.container->start(1, 1, nullptr));
    EXPECT_EQ(-1, f.container->start(1, 1, nullptr));
    f.pipe->processFrame();
    EXPECT_EQ((std::vector<int>{4, 2, 3, 2}), f.device->counts());
}

TEST(DeviceContainer, PipeSignalsOwnTheStartedContainer)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    boost::weak_ptr<SonraDevNodesContainer> watched;
    boost::shared_ptr<FakeDevice> device;
    {
        Fixture f;
        device = f.device;
        f.container->setPipe(pipe);
        f.container->start(1, 1, nullptr);
        watched = f.container;
    }
    pipe->processFrame();
    EXPECT_EQ(1, device->workCycles);
    ASSERT_FALSE(watched.expired());
    watched.lock()->stop(); // cuts the connections, and with them the last owner
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(2, device->stops); // stop(), then the destructor's
}

TEST(DeviceContainer, RingsHoldTheirDurationOfOneChannel)
{
    Fixture f;
    ASSERT_EQ(0, f.container->start(1, 20, nullptr)); // 20 channels: 12800-byte capture frames
    const std::string captured = textOf(frameOf(noise(6000, 1))), toPlay = textOf(frameOf(noise(6000, 3)));
    f.block(captured, 0);
    EXPECT_TRUE(captured.substr(12000 - RING_BYTES) + zeros(12800 - RING_BYTES) == textOf(f.container->processCapture()));
    f.play(boost::make_shared<std::vector<char> >(toPlay.begin(), toPlay.end()));
    EXPECT_FALSE(f.container->playback()->outputData());
    EXPECT_TRUE(toPlay.substr(12000 - RING_BYTES) + zeros(12800 - RING_BYTES) == f.block("", 12800));

    Fixture g(true, 10, 100, 44100); // 2 x floor(100 ms x 44100 / 1000) = 8820 bytes
    ASSERT_EQ(0, g.container->start(1, 10, nullptr)); // 10 x 882 = 8820-byte frames
    g.block(captured.substr(0, 9000), 0);
    EXPECT_TRUE(captured.substr(180, 8820) == textOf(g.container->processCapture()));
}

TEST(DeviceContainer, CaptureFramesAreFullAndZeroFilled)
{
    Fixture f;
    EXPECT_EQ(zeros(FRAME_BYTES), textOf(f.container->processCapture())); // 1 channel before start
    ASSERT_EQ(0, f.container->start(1, 2, nullptr));
    EXPECT_EQ(zeros(1), f.block("f", 1)); // a single byte each way
    EXPECT_EQ(std::string(8, '?'), f.block("second", 8, 1)); // a flagged block is left alone
    EXPECT_EQ("f" + zeros(2 * FRAME_BYTES - 1), textOf(f.container->processCapture()));

    ASSERT_EQ(0, f.container->start(-1, -2, nullptr)); // negative counts are 0
    EXPECT_EQ(0u, f.device->lastConfiguration.playbackChannels);
    EXPECT_EQ(0u, f.device->lastConfiguration.captureChannels);
    f.block("0 channels", 0);
    EXPECT_EQ("", textOf(f.container->processCapture())); // present, empty, nothing taken
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    EXPECT_EQ("0 channels", textOf(f.container->processCapture()).substr(0, 10));
}

// A device whose thread keeps calling back while the container goes away,
// as a sound card's thread may until its stream has wound down; after it,
// the callback's share of the record still serves it.
TEST(DeviceContainer, DeviceThreadCallsBackWhileTheContainerIsDestroyed)
{
    std::atomic<bool> running(true);
    std::atomic<int> blocks(0);
    std::thread deviceThread;
    SonraDevice::Callback late;
    {
        Fixture f;
        ASSERT_EQ(0, f.container->start(1, 1, nullptr));
        late = f.device->callback;
        deviceThread = std::thread([late, &running, &blocks] {
            std::string in(FRAME_BYTES, 'x'), out(FRAME_BYTES, '\0');
            for (; running || blocks < 200; ++blocks)
                late(in.data(), FRAME_BYTES, &out[0], FRAME_BYTES, 0);
        });
        f.container->setPipe(f.pipe);
        f.pipe->connect(f.container->capture(), f.container->playback());
        for (int i = 0; i < 50; ++i)
            f.pipe->processFrame();
    }
    running = false;
    deviceThread.join();
    EXPECT_GE(blocks.load(), 200);
    std::string played(RING_BYTES + 4, '?');
    EXPECT_TRUE(late("late", 4, &played[0], RING_BYTES + 4, 0));
    EXPECT_EQ(zeros(4), played.substr(RING_BYTES));
}
