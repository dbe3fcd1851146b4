#include "sonrasoak.h"

#include "sonraclientpath.h"
#include "sonralink.h"
#include "sonranetsim.h"
#include "sonrasignal.h"
#include "sonrasoundfile.h"

#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"
#include "sonravolumenode.h"

#include <boost/asio/io_service.hpp>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace sonrasoak {

using sonratool::speechLike;
typedef boost::shared_ptr<std::vector<char> > Frame;
typedef std::chrono::steady_clock Clock;

namespace {

// Resident set size of this process, KiB.
long residentKb()
{
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

unsigned threadCount()
{
    unsigned count = 0;
    for (boost::filesystem::directory_iterator it("/proc/self/task"), end; it != end; ++it)
        ++count;
    return count;
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// One direction between two parties: the link without records (a soak
// of hours would keep one per packet) and the receiving path.
struct Leg {
    explicit Leg(const sonranetsim::NetworkModel& model)
        : link(sonranetsim::Network(model), sonranetsim::Link::NO_RECORDS)
    {
    }
    sonranetsim::Link link;
    boost::shared_ptr<ombrel::SonraReceiverNode> receiver;
};

// Every party's looped voice, send half and, per peer, a receive half into
// the peer's mixer, on one pipe.
struct SoakGraph {
    boost::shared_ptr<boost::asio::io_service> io = boost::make_shared<boost::asio::io_service>();
    boost::shared_ptr<ombrel::SonraPipe> pipe;
    std::vector<boost::shared_ptr<ombrel::SonraMixerNode> > mixers;
    std::vector<std::unique_ptr<Leg> > legs;
    std::size_t frameSamples = 0; // samples per channel
};

// A second of party `p`'s voice, over and over.
boost::shared_ptr<ombrel::SonraDevNode> loopedVoice(const SoakCallConfig& config, const SoakGraph& graph, unsigned p)
{
    const std::size_t frameSamples = graph.frameSamples;
    const auto speech = std::make_shared<std::vector<int16_t> >(speechLike(config.sampleRate, config.sampleRate, 110.0 + 40 * p));
    auto position = std::make_shared<std::size_t>(0);
    return boost::make_shared<ombrel::SonraDevNode>(
        [speech, position, frameSamples]() {
            auto frame = boost::make_shared<std::vector<char> >(frameSamples * 2);
            for (std::size_t i = 0; i < frameSamples; ++i, *position = (*position + 1) % speech->size())
                std::memcpy(frame->data() + 2 * i, &(*speech)[*position], 2);
            return frame;
        },
        graph.io, config.frameDuration, config.sampleRate);
}

sonranetsim::NetworkModel legModel(const SoakCallConfig& config, unsigned from, unsigned to)
{
    sonranetsim::NetworkModel model;
    model.seed = config.seed * 1000 + from * config.parties + to;
    model.lossRate = config.lossRate;
    model.baseDelay = config.baseDelay;
    model.jitterKind = sonranetsim::JitterKind::Normal;
    model.jitter = config.jitter;
    return model;
}

void buildSoakGraph(const SoakCallConfig& config, SoakGraph& graph, SoakCallResult& result)
{
    sonranetsim::PathSettings settings;
    settings.frameDuration = config.frameDuration;
    settings.sampleRate = config.sampleRate;
    settings.jitterBuffer.recovery = false; // the receiver as the library ships it
    graph.frameSamples = ombrel::SonraNode::frameSize(config.frameDuration, config.sampleRate) / 2;
    graph.pipe = boost::make_shared<ombrel::SonraPipe>(config.frameDuration);
    const sonranetsim::ClientPathBuilder build(settings, graph.io, *graph.pipe);
    for (unsigned p = 0; p < config.parties; ++p)
        graph.mixers.push_back(boost::make_shared<ombrel::SonraMixerNode>(graph.io, config.frameDuration, config.sampleRate));
    for (unsigned p = 0; p < config.parties; ++p) {
        const auto sender = build.sendHalf(loopedVoice(config, graph, p));
        std::vector<Leg*> outgoing;
        for (unsigned q = 0; q < config.parties; ++q) {
            if (q == p)
                continue;
            graph.legs.emplace_back(new Leg(legModel(config, p, q)));
            const sonranetsim::ClientPathBuilder::ReceiveHalf half = build.receiveHalf();
            graph.legs.back()->receiver = half.receiver;
            graph.pipe->connect(half.output, graph.mixers[q]);
            outgoing.push_back(graph.legs.back().get());
        }
        sender->setSendHandler([outgoing, &result](Frame packet) {
            ++result.sent;
            for (Leg* leg : outgoing)
                leg->link.send(packet);
        });
    }
}

// One graph frame: the datagrams due, the pipe, and the mixers' output checked.
void runSoakFrame(SoakGraph& graph, SoakCallResult& result)
{
    const unsigned now = graph.pipe->elapsedTime(); // ms
    for (const auto& leg : graph.legs)
        result.delivered += leg->link.deliverDue(now, *leg->receiver);
    graph.pipe->processFrame();
    for (const auto& mixer : graph.mixers) {
        const Frame out = mixer->outputData();
        if (!out || out->size() != graph.frameSamples * 2)
            ++result.missedMixerFrames;
    }
}

} // namespace

bool residentFlat(long beforeKb, long afterKb)
{
    return afterKb - beforeKb <= 2048 + beforeKb / 20;
}

SoakCallResult runSoakCall(const SoakCallConfig& config)
{
    const unsigned MEMORY_READING_FRAMES = 500; // between readings of the peak
    SoakCallResult result;
    SoakGraph graph;
    buildSoakGraph(config, graph, result);
    const Clock::time_point start = Clock::now();
    const std::clock_t cpuStart = std::clock();
    for (unsigned frame = 0; frame < config.frames; ++frame) {
        runSoakFrame(graph, result);
        if (frame + 1 == config.warmupFrames)
            result.residentAfterWarmupKb = residentKb();
        if (frame + 1 >= config.warmupFrames && frame % MEMORY_READING_FRAMES == 0)
            result.residentPeakKb = std::max(result.residentPeakKb, residentKb());
    }
    result.seconds = secondsSince(start);
    result.cpuSeconds = double(std::clock() - cpuStart) / CLOCKS_PER_SEC;
    result.frames = config.frames;
    result.residentEndKb = residentKb();
    result.residentPeakKb = std::max(result.residentPeakKb, result.residentEndKb);
    result.realTimeFraction = result.cpuSeconds / (double(config.frames) * config.frameDuration / 1000.0);
    for (const auto& leg : graph.legs)
        result.played += leg->receiver->statistics().framesPlayed;
    graph.pipe->clear(); // the receivers hold the pipe as their clock
    return result;
}

namespace {

// A container on the virtual device with its pipe running in real time on
// its own thread. Every control call is posted to that thread, the one
// that emits the pipe's signals, as the container requires.
class DeviceRig {
public:
    explicit DeviceRig(const DeviceStressConfig& config)
        : m_io(boost::make_shared<boost::asio::io_service>()),
          m_work(new boost::asio::io_service::work(*m_io)),
          m_pipe(boost::make_shared<ombrel::SonraPipe>(config.frameDuration)),
          m_container(boost::make_shared<ombrel::SonraDevNodesContainer>(
              m_io, config.frameDuration, ombrel::SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION,
              config.sampleRate)),
          m_timeout(config.timeout)
    {
        m_container->create(true, false);
        m_container->setPipe(m_pipe);
        m_container->setCaptureDevice("virtual:" + config.captureFile);
        m_container->setPlaybackDevice("virtual");
        auto volume = boost::make_shared<ombrel::SonraVolumeNode>(m_io, config.frameDuration, config.sampleRate);
        m_pipe->connect(m_container->capture(), volume);
        m_pipe->connect(volume, m_container->playback());
        const boost::shared_ptr<ombrel::SonraNode> capture = m_container->capture();
        m_pipe->workCycleSignal.connect([capture, this]() {
            const Frame frame = capture->outputData();
            if (frame && std::any_of(frame->begin(), frame->end(), [](char byte) { return byte != 0; }))
                ++m_soundFrames;
        });
        m_thread = std::thread([this]() { m_io->run(); });
        m_ok = onPipeThread([this]() { m_pipe->start(m_io); });
    }
    ~DeviceRig()
    {
        onPipeThread([this]() { m_container->stop(), m_pipe->stop(), m_pipe->clear(); });
        m_work.reset();
        m_io->stop();
        m_thread.join();
    }

    // One start, sound from the device in the graph, one stop. False when a
    // step outlived the timeout.
    bool cycle(DeviceStressResult& result)
    {
        int started = -1;
        const unsigned before = m_soundFrames;
        if (!onPipeThread([&]() { started = m_container->start(1, 1, nullptr); }))
            return false;
        if (started != 0)
            ++result.failedStarts;
        const Clock::time_point start = Clock::now();
        while (m_soundFrames == before && started == 0 && secondsSince(start) < 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (m_soundFrames == before)
            ++result.silentCycles;
        // Stopped rings are emptied, so sound in the next cycle is new.
        return onPipeThread([this]() { m_container->stop(), m_container->resetDevice(); });
    }
    bool ok() const { return m_ok; }

private:
    bool onPipeThread(std::function<void ()> call)
    {
        auto done = std::make_shared<std::promise<void> >();
        std::future<void> finished = done->get_future();
        m_io->post([call, done]() { call(), done->set_value(); });
        return finished.wait_for(std::chrono::duration<double>(m_timeout)) == std::future_status::ready;
    }

    boost::shared_ptr<boost::asio::io_service> m_io;
    std::unique_ptr<boost::asio::io_service::work> m_work;
    boost::shared_ptr<ombrel::SonraPipe> m_pipe;
    boost::shared_ptr<ombrel::SonraDevNodesContainer> m_container;
    std::atomic<unsigned> m_soundFrames{0}; // captured frames with sound, counted on the pipe's thread
    double m_timeout;                        // s
    std::thread m_thread;
    bool m_ok = false;
};

// One second of a steady voice as a 16-bit mono WAV file.
bool writeTone(const std::string& path, unsigned sampleRate)
{
    try {
        sonratool::writeWav(path, speechLike(sampleRate, sampleRate, 200), sampleRate);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

DeviceStressResult runDeviceStress(const DeviceStressConfig& config)
{
    DeviceStressResult result;
    if (!writeTone(config.captureFile, config.sampleRate))
        return result.failedStarts = config.cycles * config.containers, result;
    // The first thread of a process may start the runtime's own helpers
    // (ThreadSanitizer's background thread): they are not ours.
    std::thread([]() {}).join();
    result.threadsBefore = threadCount();
    const Clock::time_point start = Clock::now();
    std::vector<DeviceStressResult> perRig(config.containers);
    std::atomic<unsigned> cyclesDone{0};
    std::atomic<bool> deadlocked{false};
    std::vector<std::thread> controllers;
    for (unsigned r = 0; r < config.containers; ++r) {
        controllers.emplace_back([&, r]() {
            DeviceRig rig(config);
            deadlocked = deadlocked || !rig.ok();
            for (unsigned c = 0; c < config.cycles && !deadlocked; ++c) {
                if (!rig.cycle(perRig[r]))
                    deadlocked = true;
                else if (++cyclesDone == config.cycles * config.containers / 10)
                    perRig[r].residentAfterFirstKb = residentKb();
                ++perRig[r].cycles;
            }
        });
    }
    for (std::thread& controller : controllers)
        controller.join();
    for (const DeviceStressResult& rig : perRig) {
        result.cycles += rig.cycles;
        result.silentCycles += rig.silentCycles;
        result.failedStarts += rig.failedStarts;
        result.residentAfterFirstKb = std::max(result.residentAfterFirstKb, rig.residentAfterFirstKb);
    }
    result.deadlocked = deadlocked;
    result.threadsAfter = threadCount();
    result.residentEndKb = residentKb();
    result.seconds = secondsSince(start);
    std::remove(config.captureFile.c_str());
    return result;
}

namespace {

// The i-th graph's path: rates, frame durations, codecs and network draws differ.
sonranetsim::Config graphConfig(unsigned i)
{
    static const unsigned RATES[] = {8000, 16000, 48000}; // Hz
    sonranetsim::Config config;
    config.sampleRate = RATES[i % 3];
    config.frameDuration = i % 4 == 3 ? 10 : 20;
    config.codec = i % 5 == 4 ? sonranetsim::Codec::Pcm : sonranetsim::Codec::Opus;
    config.network.seed = i + 1;
    config.network.lossRate = 0.05; // share of packets, 0..1
    config.network.jitterKind = sonranetsim::JitterKind::Normal;
    config.network.jitter = 15;
    config.network.reorderRate = 0.03;
    config.network.duplicateRate = 0.02;
    return config;
}

} // namespace

GraphsResult runGraphs(const GraphsConfig& config)
{
    std::vector<sonranetsim::Config> configs;
    std::vector<std::vector<int16_t> > inputs;
    for (unsigned i = 0; i < config.graphs; ++i) {
        configs.push_back(graphConfig(i));
        const unsigned samples = configs[i].sampleRate * configs[i].frameDuration / 1000 * config.frames;
        inputs.push_back(speechLike(configs[i].sampleRate, samples, 100 + 3 * i));
    }
    std::vector<std::vector<int16_t> > alone(config.graphs), together(config.graphs);
    GraphsResult result;
    result.graphs = config.graphs;
    Clock::time_point start = Clock::now();
    for (unsigned i = 0; i < config.graphs; ++i)
        alone[i] = sonranetsim::simulate(inputs[i], configs[i]).output;
    result.serialSeconds = secondsSince(start);

    start = Clock::now();
    std::atomic<unsigned> next{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < config.threads; ++t) {
        threads.emplace_back([&]() {
            for (unsigned i = next++; i < config.graphs; i = next++)
                together[i] = sonranetsim::simulate(inputs[i], configs[i]).output;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    result.parallelSeconds = secondsSince(start);
    for (unsigned i = 0; i < config.graphs; ++i)
        result.differing += alone[i] != together[i];
    return result;
}

} // namespace sonrasoak
