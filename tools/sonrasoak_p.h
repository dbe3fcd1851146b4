// The engine of sonra-soak: long runs and thread stress of the library.
//
// - A call: several parties on one pipe, each sending Opus in the own
//   packet format over a seeded lossy, jittery link to every other party,
//   whose receiver, decoder and mixer bring it back to PCM. Simulated time
//   (the pipe's clock), so an hour of call takes what the CPU needs.
// - Device containers on the virtual device, each with its pipe on its own
//   thread, started and stopped over and over while the device calls back.
// - Many call paths, each on its own pipe, run on several threads and one
//   by one: the results must not differ.
//
// Resident memory is read from /proc/self/statm.
#ifndef SONRA_SOAK_P_H
#define SONRA_SOAK_P_H

#include "sonranetsim.h"

#include "sonramixernode.h"
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonrapacket.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"

#include "sonradevnode.h"
#include "sonravolumenode.h"

#include <boost/asio/io_service.hpp>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <thread>

namespace sonrasoak {

typedef boost::shared_ptr<std::vector<char> > Frame;
typedef std::chrono::steady_clock Clock;

// Resident set size of this process, KiB.
inline long residentKb()
{
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Memory counts as flat when it grew by at most 2 MiB and 5 % between two readings.
inline bool residentFlat(long beforeKb, long afterKb)
{
    return afterKb - beforeKb <= 2048 + beforeKb / 20;
}

inline unsigned threadCount()
{
    unsigned count = 0;
    for (boost::filesystem::directory_iterator it("/proc/self/task"), end; it != end; ++it)
        ++count;
    return count;
}

inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A voiced signal: harmonics of a fundamental that glides around `pitch`
// (Hz), under a syllable-rate envelope; peaks near 8000.
inline std::vector<int16_t> voice(unsigned sampleRate, std::size_t count, double pitch)
{
    std::vector<int16_t> samples(count);
    double phase = 0; // radians of the fundamental
    for (std::size_t i = 0; i < count; ++i) {
        const double t = double(i) / sampleRate; // s
        phase += 2 * M_PI * pitch * (1 + 0.2 * std::sin(2 * M_PI * 1.1 * t)) / sampleRate;
        double value = 0;
        for (int k = 1; k <= 8; ++k)
            value += std::sin(k * phase) / k;
        samples[i] = static_cast<int16_t>(4000 * value * std::pow(std::sin(M_PI * 3.0 * t), 2));
    }
    return samples;
}

// ---------------------------------------------------------------- the call

struct CallConfig {
    unsigned parties = 3;
    unsigned frames = 180000;      // graph frames per party (an hour at 20 ms)
    unsigned frameDuration = 20;   // ms
    unsigned sampleRate = 16000;   // Hz
    double lossRate = 0.05;
    double jitter = 20;            // ms, scale of the folded normal jitter
    double baseDelay = 40;         // ms
    unsigned warmupFrames = 3000;  // the first minute: memory is judged against its end
    uint64_t seed = 1;
};

struct CallResult {
    unsigned frames = 0;
    unsigned missedMixerFrames = 0; // frames a mixer gave nothing or a short frame
    uint64_t sent = 0, delivered = 0, played = 0;
    long residentAfterWarmupKb = 0, residentPeakKb = 0, residentEndKb = 0;
    double seconds = 0, cpuSeconds = 0; // wall clock; this process's processor time
    double realTimeFraction = 0;   // processor time over simulated time
};

namespace detail {

// One direction between two parties: the network model and what is in
// flight (sonranetsim::Link would keep a record of every packet).
struct Link {
    explicit Link(const sonranetsim::NetworkModel& model) : network(model) {}
    sonranetsim::Network network;
    std::multimap<double, Frame> inFlight; // by arrival time, ms
    boost::shared_ptr<ombrel::SonraReceiverNode> receiver;
};

} // namespace detail

inline CallResult runCall(const CallConfig& config)
{
    using namespace ombrel;
    const auto io = boost::make_shared<boost::asio::io_service>();
    const unsigned ms = config.frameDuration, rate = config.sampleRate;
    const std::size_t frameSamples = SonraNode::frameSize(ms, rate) / 2;
    auto pipe = boost::make_shared<SonraPipe>(ms);
    std::vector<boost::shared_ptr<SonraMixerNode> > mixers;
    std::vector<std::unique_ptr<detail::Link> > links;
    CallResult result;

    for (unsigned p = 0; p < config.parties; ++p)
        mixers.push_back(boost::make_shared<SonraMixerNode>(io, ms, rate));
    for (unsigned p = 0; p < config.parties; ++p) {
        // A second of this party's voice, over and over.
        const auto speech = std::make_shared<std::vector<int16_t> >(voice(rate, rate, 110.0 + 40 * p));
        auto position = std::make_shared<std::size_t>(0);
        auto source = boost::make_shared<SonraDevNode>(
            [speech, position, frameSamples]() {
                auto frame = boost::make_shared<std::vector<char> >(frameSamples * 2);
                for (std::size_t i = 0; i < frameSamples; ++i, *position = (*position + 1) % speech->size())
                    std::memcpy(frame->data() + 2 * i, &(*speech)[*position], 2);
                return frame;
            },
            io, ms, rate);
        auto encoder = boost::make_shared<SonraOpusEncNode>(io, ms, rate);
        auto sender = boost::make_shared<SonraSenderNode>(io, ms, rate);
        pipe->connect(source, encoder);
        pipe->connect(encoder, sender);
        std::vector<detail::Link*> outgoing;
        for (unsigned q = 0; q < config.parties; ++q) {
            if (q == p)
                continue;
            sonranetsim::NetworkModel link;
            link.seed = config.seed * 1000 + p * config.parties + q;
            link.lossRate = config.lossRate;
            link.baseDelay = config.baseDelay;
            link.jitterKind = sonranetsim::JitterKind::Normal;
            link.jitter = config.jitter;
            links.emplace_back(new detail::Link(link));
            links.back()->receiver = boost::make_shared<SonraReceiverNode>(io, ms, rate);
            auto decoder = boost::make_shared<SonraOpusDecNode>(io, ms, rate);
            pipe->connect(links.back()->receiver, decoder);
            pipe->connect(decoder, mixers[q]);
            outgoing.push_back(links.back().get());
        }
        sender->setSendHandler([outgoing, &result](Frame packet) {
            const SonraPacket view(packet);
            ++result.sent;
            for (detail::Link* link : outgoing) {
                for (double arrival : link->network.arrivals(view.m_header->seqNum, view.m_header->timeStamp))
                    link->inFlight.insert(std::make_pair(arrival, boost::make_shared<std::vector<char> >(*packet)));
            }
        });
    }

    const Clock::time_point start = Clock::now();
    const std::clock_t cpuStart = std::clock();
    for (unsigned frame = 0; frame < config.frames; ++frame) {
        const unsigned now = pipe->elapsedTime(); // ms
        for (const auto& link : links) {
            while (!link->inFlight.empty() && link->inFlight.begin()->first <= now) {
                link->receiver->dataReceived(link->inFlight.begin()->second);
                link->inFlight.erase(link->inFlight.begin());
                ++result.delivered;
            }
        }
        pipe->processFrame();
        for (const auto& mixer : mixers) {
            const Frame out = mixer->outputData();
            if (!out || out->size() != frameSamples * 2)
                ++result.missedMixerFrames;
        }
        if (frame + 1 == config.warmupFrames)
            result.residentAfterWarmupKb = residentKb();
        if (frame + 1 >= config.warmupFrames && frame % 500 == 0)
            result.residentPeakKb = std::max(result.residentPeakKb, residentKb());
    }
    result.seconds = secondsSince(start);
    result.cpuSeconds = double(std::clock() - cpuStart) / CLOCKS_PER_SEC;
    result.frames = config.frames;
    result.residentEndKb = residentKb();
    result.residentPeakKb = std::max(result.residentPeakKb, result.residentEndKb);
    result.realTimeFraction = result.cpuSeconds / (double(config.frames) * ms / 1000.0);
    for (const auto& link : links)
        result.played += link->receiver->statistics().framesPlayed;
    pipe->clear(); // the receivers hold the pipe as their clock
    return result;
}

// ---------------------------------------------------------------- device containers

struct DeviceStressConfig {
    unsigned containers = 2;
    unsigned cycles = 1000;       // starts and stops per container
    unsigned frameDuration = 20;  // ms
    unsigned sampleRate = 16000;  // Hz
    std::string captureFile;      // written here: what the virtual device captures
    double timeout = 5;           // s a step may take before it counts as a deadlock
};

struct DeviceStressResult {
    unsigned cycles = 0;            // completed, over all containers
    unsigned silentCycles = 0;      // no captured sound reached the graph before the stop
    unsigned failedStarts = 0;
    bool deadlocked = false;        // a step outlived the timeout
    unsigned threadsBefore = 0, threadsAfter = 0;
    long residentAfterFirstKb = 0, residentEndKb = 0; // after the first tenth of the cycles, at the end
    double seconds = 0;
};

namespace detail {

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

// One second of a steady tone as a 16-bit mono WAV file.
inline bool writeTone(const std::string& path, unsigned sampleRate)
{
    SF_INFO info = SF_INFO();
    info.samplerate = static_cast<int>(sampleRate);
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        return false;
    const std::vector<int16_t> tone = voice(sampleRate, sampleRate, 200);
    const bool written = sf_write_short(file, tone.data(), sf_count_t(tone.size())) == sf_count_t(tone.size());
    sf_close(file);
    return written;
}

} // namespace detail

inline DeviceStressResult runDeviceStress(const DeviceStressConfig& config)
{
    DeviceStressResult result;
    if (!detail::writeTone(config.captureFile, config.sampleRate))
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
            detail::DeviceRig rig(config);
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

// ---------------------------------------------------------------- graphs side by side

struct GraphsConfig {
    unsigned graphs = 64;
    unsigned threads = 8;
    unsigned frames = 150; // of audio through each graph
};

struct GraphsResult {
    unsigned graphs = 0;
    unsigned differing = 0; // graphs whose parallel run differs from their run alone
    double serialSeconds = 0, parallelSeconds = 0;
};

// The i-th graph's path: rates, frame durations, codecs and network draws differ.
inline sonranetsim::Config graphConfig(unsigned i)
{
    static const unsigned RATES[] = {8000, 16000, 48000}; // Hz
    sonranetsim::Config config;
    config.sampleRate = RATES[i % 3];
    config.frameDuration = i % 4 == 3 ? 10 : 20;
    config.codec = i % 5 == 4 ? sonranetsim::Codec::Pcm : sonranetsim::Codec::Opus;
    config.network.seed = i + 1;
    config.network.lossRate = 0.05;
    config.network.jitterKind = sonranetsim::JitterKind::Normal;
    config.network.jitter = 15;
    config.network.reorderRate = 0.03;
    config.network.duplicateRate = 0.02;
    return config;
}

inline GraphsResult runGraphs(const GraphsConfig& config)
{
    std::vector<sonranetsim::Config> configs;
    std::vector<std::vector<int16_t> > inputs;
    for (unsigned i = 0; i < config.graphs; ++i) {
        configs.push_back(graphConfig(i));
        const unsigned samples = configs[i].sampleRate * configs[i].frameDuration / 1000 * config.frames;
        inputs.push_back(voice(configs[i].sampleRate, samples, 100 + 3 * i));
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

#endif
