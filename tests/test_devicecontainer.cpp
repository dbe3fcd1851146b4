// ctest-labels: threads
// The device node and the device nodes container: device choice, the
// stream's lifecycle on the pipe's signals, and the data path between the
// device's callback and the graph, driven frame by frame.
#include "deviceutil.h"
#include "sonradevnode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

using namespace ombrel;
using sonratest::FakeBuilder;
using sonratest::FakeDevice;
using sonratest::Frame;
using sonratest::LogCapture;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 16000;
const unsigned FRAME_BYTES = 640; // one channel's 20 ms at 16 kHz
const unsigned RING_BYTES = 11520; // 360 ms of one channel at 16 kHz

boost::shared_ptr<SonraDevNodesContainer> newContainer(unsigned ringMs = SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION)
{
    return boost::make_shared<SonraDevNodesContainer>(sonratest::ioService(), FRAME_MS, ringMs, RATE);
}

std::string pattern(std::size_t length, unsigned seed = 0)
{
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>('A' + (i * 7 + seed) % 50);
    return bytes;
}

std::string textOf(const Frame& frame)
{
    return frame ? std::string(frame->begin(), frame->end()) : std::string();
}

// A container whose device is a fake one: playback-only devices come from
// the builder, so build with capture first, then again without it (which
// keeps the capture node and asks the builder).
struct FakeDeviceContainer {
    explicit FakeDeviceContainer(bool withCapture = true)
        : device(boost::make_shared<FakeDevice>()), builder(boost::make_shared<FakeBuilder>()), container(newContainer())
    {
        builder->device = device;
        container->setPlaybackDeviceBuilder(builder);
        if (withCapture)
            container->create(true, false);
        container->create(false, false);
    }
    // The device's callback shares the container's record, which holds
    // the device: a device must let go of its callback.
    ~FakeDeviceContainer() { device->forget(); }

    // Plays the device's thread: one block captured and one played.
    std::string block(const std::string& captured, unsigned playLength, int status = 0)
    {
        std::string played(playLength, '?');
        EXPECT_TRUE(device->callback(captured.data(), static_cast<int>(captured.size()),
                                     playLength ? &played[0] : nullptr, static_cast<int>(playLength), status));
        return played;
    }

    boost::shared_ptr<FakeDevice> device;
    boost::shared_ptr<FakeBuilder> builder;
    boost::shared_ptr<SonraDevNodesContainer> container;
};

} // namespace

// ------------------------------------------------------------- device node

TEST(DevNode, EmptyCallableGivesNoFrame)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    auto node = boost::make_shared<SonraDevNode>(SonraDevNode::Source(), sonratest::ioService(), FRAME_MS, RATE);
    pipe->addNode(node);
    pipe->processFrame();
    EXPECT_FALSE(node->outputData());
    EXPECT_FALSE(node->doProcess());
    pipe->clear();
}

TEST(DevNode, PublishesTheCallablesFrameItself)
{
    Frame given = sonratest::frameOf({1, 2, 3});
    bool giveFrame = true;
    auto node = boost::make_shared<SonraDevNode>([&]() { return giveFrame ? given : Frame(); },
                                                 sonratest::ioService(), FRAME_MS, RATE);
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    pipe->addNode(node);
    pipe->processFrame();
    EXPECT_EQ(given.get(), node->outputData().get());
    giveFrame = false;
    pipe->processFrame();
    EXPECT_FALSE(node->outputData());

    // Nothing else touches it.
    giveFrame = true;
    node->reset(40);
    node->timerTick();
    node->setOutputChannels(2);
    EXPECT_EQ(given.get(), node->doProcess().get());
    EXPECT_EQ((std::vector<int16_t>{1, 2, 3}), sonratest::samplesOf(given));
    pipe->clear();
}

// ------------------------------------------------------ choice of devices

TEST(DeviceContainer, PlaybackOnlyCreateAsksTheBuilder)
{
    auto builder = boost::make_shared<FakeBuilder>();
    auto device = boost::make_shared<FakeDevice>();
    builder->device = device;
    auto container = newContainer();
    container->setPlaybackDeviceBuilder(builder);
    container->create(false, true);

    EXPECT_TRUE(container->playback());
    EXPECT_FALSE(container->capture());
    EXPECT_EQ(1, builder->calls);
    EXPECT_FALSE(builder->lastCapture);
    EXPECT_EQ(RATE, builder->lastSampleRate);
    EXPECT_EQ(device, container->device());
    EXPECT_TRUE(device->aecEnabled);
}

TEST(DeviceContainer, CaptureNeverAsksTheBuilder)
{
    auto builder = boost::make_shared<FakeBuilder>();
    builder->device = boost::make_shared<FakeDevice>();
    auto container = newContainer();
    container->setPlaybackDeviceBuilder(builder);
    container->create(true, true);

    EXPECT_EQ(0, builder->calls);
    EXPECT_TRUE(container->capture());
    EXPECT_TRUE(container->playback());
    ASSERT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(container->device()));
    EXPECT_TRUE(container->device()->aecEnabled);
}

TEST(DeviceContainer, BuilderWithoutDeviceLeadsToTheUniversalDevice)
{
    auto builder = boost::make_shared<FakeBuilder>();
    auto container = newContainer();
    container->setPlaybackDeviceBuilder(builder);
    container->create(false, false);
    EXPECT_EQ(1, builder->calls);
    EXPECT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(container->device()));
    EXPECT_FALSE(container->device()->aecEnabled);
}

TEST(DeviceContainer, CreateAgainReplacesNodesAndDevice)
{
    FakeDeviceContainer f; // create(true), then create(false)
    auto firstCapture = f.container->capture();
    auto firstPlayback = f.container->playback();
    ASSERT_TRUE(firstCapture);
    f.container->create(false, false);
    EXPECT_EQ(firstCapture, f.container->capture()); // kept without capture
    EXPECT_NE(firstPlayback, f.container->playback());
    f.container->create(true, false);
    EXPECT_NE(firstCapture, f.container->capture());
    EXPECT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(f.container->device()));
    EXPECT_EQ(0, f.device->stops); // the earlier device is released, not stopped
}

TEST(DeviceContainer, RawDevicesAndEnumerationUseATemporaryDevice)
{
    FakeDeviceContainer f;
    f.container->create(false, true);
    const int callsBefore = f.builder->calls;

    auto other = boost::make_shared<FakeDevice>();
    f.builder->device = other;
    EXPECT_EQ(other, f.container->createRawDevice(8000, false));
    EXPECT_EQ(8000u, f.builder->lastSampleRate);
    EXPECT_FALSE(other->aecEnabled);
    EXPECT_EQ(f.device, f.container->device());
    EXPECT_TRUE(boost::dynamic_pointer_cast<SonraUniversalDevice>(f.container->createRawDevice(8000, true)));

    auto list = f.container->devices(SonraDeviceInfo::PLAYBACK);
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ("fake", list[0]->name());
    ASSERT_EQ(1u, other->askedTypes.size());
    EXPECT_EQ(SonraDeviceInfo::PLAYBACK, other->askedTypes[0]);
    EXPECT_EQ(+SonraNode::DEFAULT_SAMPLE_RATE, f.builder->lastSampleRate); // declared, not defined, in the base
    EXPECT_EQ(callsBefore + 2, f.builder->calls);

    // Capture enumeration goes to the universal device, never the builder.
    list = f.container->devices(SonraDeviceInfo::CAPTURE);
    EXPECT_EQ(callsBefore + 2, f.builder->calls);
    ASSERT_FALSE(list.empty());
    EXPECT_EQ("virtual", list[0]->name());
    EXPECT_TRUE(f.device->askedTypes.empty());
}

TEST(DeviceContainer, VoicePreprocessorIsTheDevicesAnswer)
{
    FakeDeviceContainer f;
    EXPECT_FALSE(f.container->hasVoicePreprocessor());
    f.device->preprocessor = true;
    EXPECT_TRUE(f.container->hasVoicePreprocessor());
}

TEST(DeviceContainerDeathTest, VoicePreprocessorNeedsADevice)
{
    auto container = newContainer();
    EXPECT_DEATH(container->hasVoicePreprocessor(), "d->m_devicePtr");
}

// ---------------------------------------------------------------- start/stop

TEST(DeviceContainer, StartFillsTheStreamConfiguration)
{
    FakeDeviceContainer f;
    f.container->create(false, true);
    f.container->setCaptureDevice("mic");
    f.container->setPlaybackDevice("speaker");
    LogCapture log;
    std::string message = "untouched";
    EXPECT_EQ(0, f.container->start(2, 3, &message));

    EXPECT_EQ("Device not ready", f.device->messageOnEntry);
    EXPECT_EQ("Device not ready", message); // the device left it alone
    const SonraStreamConfiguration& c = f.device->lastConfiguration;
    EXPECT_EQ(FRAME_MS, c.frameDuration);
    EXPECT_EQ(RATE, c.sampleRate);
    EXPECT_EQ(2u, c.playbackChannels);
    EXPECT_EQ(3u, c.captureChannels);
    EXPECT_EQ("speaker", c.playbackDevice);
    EXPECT_EQ("mic", c.captureDevice);
    EXPECT_EQ(sonratest::ioService(), c.ioService);
    EXPECT_EQ(std::vector<std::string>{"Capture, channels=3 aec enabled=true"}, log.texts(LogSeverity::Debug));
    EXPECT_TRUE(log.texts(LogSeverity::Warning).empty());
}

TEST(DeviceContainer, StartWithoutCaptureNodeOffersNoCapture)
{
    FakeDeviceContainer f(false);
    f.container->setCaptureDevice("mic");
    LogCapture log;
    EXPECT_EQ(0, f.container->start(1, 2, nullptr));
    EXPECT_EQ(0u, f.device->lastConfiguration.captureChannels);
    EXPECT_EQ("", f.device->lastConfiguration.captureDevice);
    EXPECT_TRUE(log.records.empty());
    EXPECT_FALSE(f.container->processCapture());
}

TEST(DeviceContainer, StartWithoutDeviceFailsWithMinusSix)
{
    auto container = newContainer();
    LogCapture log;
    std::string message;
    EXPECT_EQ(-6, container->start(1, 1, &message));
    EXPECT_EQ("Device not ready", message);
    EXPECT_EQ(std::vector<std::string>{"Failed to open audio device stream in audio device container, code=-6"},
              log.texts(LogSeverity::Warning));
}

TEST(DeviceContainer, RefusedStartPassesCodeAndTextOn)
{
    FakeDeviceContainer f;
    f.device->startResult = -9985;
    f.device->messageToWrite = "Device unavailable";
    LogCapture log;
    std::string message;
    EXPECT_EQ(-9985, f.container->start(1, 1, &message));
    EXPECT_EQ("Device unavailable", message);
    EXPECT_EQ(std::vector<std::string>{"Failed to open audio device stream in audio device container, code=-9985"},
              log.texts(LogSeverity::Warning));
    // Not started: the next start does not stop first.
    f.device->startResult = 0;
    EXPECT_EQ(0, f.container->start(1, 1, &message));
    EXPECT_EQ(0, f.device->stops);
}

TEST(DeviceContainer, SlotsFollowThePipesSignals)
{
    FakeDeviceContainer f;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    f.container->setPipe(pipe);
    pipe->processFrame();
    EXPECT_EQ(0, f.device->workCycles); // not connected before start

    EXPECT_EQ(0, f.container->start(1, 1, nullptr));
    pipe->processFrame();
    pipe->processFrame();
    EXPECT_EQ(2, f.device->workCycles);
    pipe->reset(0);
    EXPECT_EQ(1, f.device->resets);

    // A second start stops first and connects afresh: still one call each.
    EXPECT_EQ(0, f.container->start(1, 1, nullptr));
    EXPECT_EQ(1, f.device->stops);
    pipe->processFrame();
    EXPECT_EQ(3, f.device->workCycles);
    pipe->reset(0);
    EXPECT_EQ(2, f.device->resets);

    f.container->stop();
    EXPECT_EQ(2, f.device->stops);
    pipe->processFrame();
    pipe->reset(0);
    EXPECT_EQ(3, f.device->workCycles);
    EXPECT_EQ(2, f.device->resets);
}

TEST(DeviceContainer, FailedStartKeepsItsConnections)
{
    FakeDeviceContainer f;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    f.container->setPipe(pipe);
    f.device->startResult = -1;
    LogCapture log;
    EXPECT_EQ(-1, f.container->start(1, 1, nullptr));
    pipe->processFrame();
    EXPECT_EQ(1, f.device->workCycles);
    EXPECT_EQ(-1, f.container->start(1, 1, nullptr)); // does not connect twice
    pipe->processFrame();
    EXPECT_EQ(2, f.device->workCycles);
    EXPECT_EQ(0, f.device->stops);
}

TEST(DeviceContainer, StartWithoutLivePipeConnectsNothing)
{
    FakeDeviceContainer f;
    {
        auto gone = boost::make_shared<SonraPipe>(FRAME_MS);
        f.container->setPipe(gone);
    }
    EXPECT_EQ(0, f.container->start(1, 1, nullptr));
    // A pipe given later is connected by the next start.
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    f.container->setPipe(pipe);
    pipe->processFrame();
    EXPECT_EQ(0, f.device->workCycles);
    EXPECT_EQ(0, f.container->start(1, 1, nullptr));
    pipe->processFrame();
    EXPECT_EQ(1, f.device->workCycles);
    f.container->stop();
}

TEST(DeviceContainer, StopOfANeverStartedContainerOnlyStopsTheDevice)
{
    FakeDeviceContainer f;
    f.container->stop();
    EXPECT_EQ(1, f.device->stops);
    EXPECT_EQ(0, f.device->starts);
    newContainer()->stop(); // no device: nothing to do
}

TEST(DeviceContainer, PipeSignalsOwnTheStartedContainer)
{
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    boost::weak_ptr<SonraDevNodesContainer> watched;
    boost::shared_ptr<FakeDevice> device;
    {
        FakeDeviceContainer f;
        device = f.device;
        f.container->setPipe(pipe);
        f.container->start(1, 1, nullptr);
        watched = f.container;
    }
    ASSERT_FALSE(watched.expired());
    pipe->processFrame();
    EXPECT_EQ(1, device->workCycles);
    watched.lock()->stop(); // cuts the connections, and with them the last owner
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(2, device->stops); // stop(), then the destructor's
}

TEST(DeviceContainer, StartWithLivePipeNeedsSharedOwnership)
{
    auto device = boost::make_shared<FakeDevice>();
    auto builder = boost::make_shared<FakeBuilder>();
    builder->device = device;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    {
        SonraDevNodesContainer container(sonratest::ioService(), FRAME_MS, 360, RATE);
        container.setPlaybackDeviceBuilder(builder);
        container.create(false, false);
        container.setPipe(pipe);
        EXPECT_THROW(container.start(1, 1, nullptr), boost::bad_weak_ptr);
        EXPECT_EQ(0, device->starts);
    }
    pipe->processFrame();
    EXPECT_EQ(0, device->workCycles);
}

// ----------------------------------------------------------------- data path

TEST(DeviceContainer, RingsHold360MsOfOneChannel)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(1, 20, nullptr)); // 20 channels: 12800-byte capture frames
    const std::string captured = pattern(12000);
    f.block(captured, 0);
    const Frame frame = f.container->processCapture();
    ASSERT_EQ(12800u, frame->size());
    EXPECT_EQ(captured.substr(12000 - RING_BYTES), textOf(frame).substr(0, RING_BYTES));
    EXPECT_EQ(std::string(12800 - RING_BYTES, '\0'), textOf(frame).substr(RING_BYTES));

    // The playback ring, through the playback node's input.
    sonratest::QueueSource source;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    pipe->connect(source.node(FRAME_MS, RATE), f.container->playback());
    const std::string toPlay = pattern(12000, 3);
    source.push(boost::make_shared<std::vector<char> >(toPlay.begin(), toPlay.end()));
    pipe->processFrame();
    EXPECT_FALSE(f.container->playback()->outputData());
    const std::string played = f.block("", 12800);
    EXPECT_EQ(toPlay.substr(12000 - RING_BYTES), played.substr(0, RING_BYTES));
    EXPECT_EQ(std::string(12800 - RING_BYTES, '\0'), played.substr(RING_BYTES));
    pipe->clear();
}

TEST(DeviceContainer, RingCapacityIsComputedIn32Bits)
{
    // 2 x floor(100 x 44100 / 1000) = 8820 bytes.
    auto container = boost::make_shared<SonraDevNodesContainer>(sonratest::ioService(), 10, 100, 44100);
    auto device = boost::make_shared<FakeDevice>();
    auto builder = boost::make_shared<FakeBuilder>();
    builder->device = device;
    container->setPlaybackDeviceBuilder(builder);
    container->create(true, false);
    container->create(false, false);
    ASSERT_EQ(0, container->start(1, 10, nullptr)); // 10 x 882 = 8820-byte frames
    const std::string captured = pattern(9000);
    device->callback(captured.data(), 9000, nullptr, 0, 0);
    EXPECT_EQ(captured.substr(180), textOf(container->processCapture()));
    device->forget();
}

TEST(DeviceContainer, CaptureFramesAreFullAndZeroFilled)
{
    FakeDeviceContainer f;
    EXPECT_EQ(std::string(FRAME_BYTES, '\0'), textOf(f.container->processCapture())); // 1 channel before start
    ASSERT_EQ(0, f.container->start(1, 2, nullptr));
    const std::string captured = pattern(100);
    f.block(captured, 0);
    const Frame frame = f.container->processCapture();
    ASSERT_EQ(2 * FRAME_BYTES, frame->size());
    EXPECT_EQ(captured, textOf(frame).substr(0, 100));
    EXPECT_EQ(std::string(2 * FRAME_BYTES - 100, '\0'), textOf(frame).substr(100));
    EXPECT_EQ(std::string(2 * FRAME_BYTES, '\0'), textOf(f.container->processCapture()));
}

TEST(DeviceContainer, ZeroCaptureChannelsGiveAPresentEmptyFrame)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(1, 0, nullptr));
    f.block(pattern(10), 0);
    const Frame frame = f.container->processCapture();
    ASSERT_TRUE(frame);
    EXPECT_TRUE(frame->empty());
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    EXPECT_EQ(pattern(10), textOf(f.container->processCapture()).substr(0, 10)); // nothing was taken
}

TEST(DeviceContainer, NegativeChannelCountsCountAsZero)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(-1, -2, nullptr));
    EXPECT_EQ(0u, f.device->lastConfiguration.playbackChannels);
    EXPECT_EQ(0u, f.device->lastConfiguration.captureChannels);
    EXPECT_TRUE(f.container->processCapture()->empty());
}

TEST(DeviceContainer, CallbackLeavesAFlaggedBlockAlone)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    f.block("first", 0);
    EXPECT_EQ(std::string(8, '?'), f.block("second", 8, 1)); // out untouched, nothing stored
    EXPECT_EQ(std::string("first") + std::string(FRAME_BYTES - 5, '\0'), textOf(f.container->processCapture()));
}

TEST(DeviceContainer, CallbackSkipsEmptyOrMissingBuffers)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    const std::string bytes = "abc";
    EXPECT_TRUE(f.device->callback(bytes.data(), 0, nullptr, 0, 0));
    EXPECT_TRUE(f.device->callback(nullptr, 3, nullptr, 0, 0));
    EXPECT_EQ(std::string(FRAME_BYTES, '\0'), textOf(f.container->processCapture()));

    // Queue playback bytes, then ask with no room: they stay queued.
    sonratest::QueueSource source;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    pipe->connect(source.node(FRAME_MS, RATE), f.container->playback());
    source.push(sonratest::frameOf({0x4142, 0x4344}));
    pipe->processFrame();
    char untouched = '?';
    EXPECT_TRUE(f.device->callback(nullptr, 0, &untouched, 0, 0));
    EXPECT_TRUE(f.device->callback(nullptr, 0, nullptr, 4, 0));
    EXPECT_EQ('?', untouched);
    EXPECT_EQ(textOf(sonratest::frameOf({0x4142, 0x4344})) + std::string(2, '\0'), f.block("", 6));
    pipe->clear();
}

TEST(DeviceContainer, WithoutCaptureNodeCapturedBytesAreDropped)
{
    FakeDeviceContainer f(false);
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    sonratest::QueueSource source;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    pipe->connect(source.node(FRAME_MS, RATE), f.container->playback());
    source.push(sonratest::frameOf({0x3031}));
    pipe->processFrame();
    EXPECT_EQ(std::string("10\0\0", 4), f.block("captured", 4)); // out still filled
    EXPECT_FALSE(f.container->processCapture());
    pipe->clear();
}

TEST(DeviceContainer, PlaybackTakesOnlyTheFirstInput)
{
    FakeDeviceContainer f;
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    sonratest::QueueSource first, second;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    pipe->connect(first.node(FRAME_MS, RATE), f.container->playback());
    pipe->connect(second.node(FRAME_MS, RATE), f.container->playback());
    second.push(sonratest::frameOf({7}));
    pipe->processFrame(); // first input empty: nothing queued
    EXPECT_EQ(std::string(4, '\0'), f.block("", 4));
    first.push(sonratest::frameOf({0x6162}));
    second.push(sonratest::frameOf({0x6364}));
    pipe->processFrame();
    EXPECT_EQ(std::string("ba\0\0", 4), f.block("", 4));
    pipe->clear();

    // No input at all: nothing queued, nothing returned.
    EXPECT_FALSE(f.container->processPlayback());
    EXPECT_EQ(std::string(2, '\0'), f.block("", 2));
}

TEST(DeviceContainer, ResetEmptiesBothRings)
{
    FakeDeviceContainer f;
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    f.container->setPipe(pipe);
    ASSERT_EQ(0, f.container->start(1, 1, nullptr));
    sonratest::QueueSource source;
    pipe->connect(source.node(FRAME_MS, RATE), f.container->playback());
    source.push(sonratest::frameOf({1, 2, 3}));
    pipe->processFrame();
    f.block("captured", 0);
    pipe->reset(0);
    EXPECT_EQ(1, f.device->resets);
    EXPECT_EQ(std::string(6, '\0'), f.block("", 6));
    EXPECT_EQ(std::string(FRAME_BYTES, '\0'), textOf(f.container->processCapture()));
    f.container->stop();
    pipe->clear();

    newContainer()->resetDevice(); // without a device: only the rings
}

// ------------------------------------------------------------------ lifetime

TEST(DeviceContainer, CallbackOutlivesTheContainer)
{
    SonraDevice::Callback late;
    {
        FakeDeviceContainer f;
        ASSERT_EQ(0, f.container->start(1, 1, nullptr));
        late = f.device->callback;
    } // the container is gone; its record lives in the callback
    const std::string captured = "late";
    char played[4] = {'?', '?', '?', '?'};
    EXPECT_TRUE(late(captured.data(), 4, played, 4, 0));
    EXPECT_EQ(std::string(4, '\0'), std::string(played, 4));
}

// A device whose thread keeps calling back while the container goes away,
// as a sound card's thread may until its stream has wound down.
TEST(DeviceContainer, DeviceThreadCallsBackWhileTheContainerIsDestroyed)
{
    boost::shared_ptr<FakeDevice> device;
    std::atomic<bool> running(true);
    std::atomic<int> blocks(0);
    std::thread deviceThread;
    {
        FakeDeviceContainer f;
        device = f.device;
        ASSERT_EQ(0, f.container->start(1, 1, nullptr));
        const SonraDevice::Callback callback = device->callback;
        deviceThread = std::thread([callback, &running, &blocks] {
            std::string in(FRAME_BYTES, 'x');
            std::string out(FRAME_BYTES, '\0');
            while (running || blocks < 200) {
                callback(in.data(), FRAME_BYTES, &out[0], FRAME_BYTES, 0);
                ++blocks;
            }
        });
        auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);
        f.container->setPipe(pipe);
        pipe->connect(f.container->capture(), f.container->playback());
        for (int i = 0; i < 50; ++i)
            pipe->processFrame();
        pipe->clear();
    }
    running = false;
    deviceThread.join();
    EXPECT_GE(blocks.load(), 200);
}
