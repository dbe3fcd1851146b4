// The engine of sonra-call: every party of a call is a client of its own,
// with its own pipe. Its microphone is a device container whose capture and
// playback run on a stepped virtual device, then noise suppression, the
// optional voice effects, volume, Opus encoder and sender; its receive side
// is one receiver and Opus decoder per peer, mixed with a notification
// sound (and hold music), then the optional stereo widening, volume and the
// container's playback. Between every two parties runs one leg of the
// seeded network model of sonra-netsim in each direction.
//
// By default all pipes run in lockstep, frame by frame, as fast as the
// graph goes: a given seed and input give the same call every time. In real
// time each pipe runs on its own asio timer and each party on a sound card
// or the universal virtual device.
#ifndef SONRA_CALL_P_H
#define SONRA_CALL_P_H

#include "sonranetsim.h"

#include "sonradevnode.h"
#include "sonrafileplaynode.h"
#include "sonrafilewriternode.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"
#include "sonramixernode.h"
#include "sonramonotostereonode.h"
#include "sonranoisesupressnode.h"
#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonraplainvsndfilevfs.h"
#include "sonrareceivernode.h"
#include "sonraresamplernode.h"
#include "sonrareverbnode.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"
#include "sonrasendernode.h"
#include "sonravoicechangenode.h"
#include "sonravolumenode.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sonracall {

using namespace ombrel;
typedef boost::shared_ptr<std::vector<char> > Frame;

const unsigned RATE = 16000;        // Hz, of every path
const unsigned FRAME_MS = 20;       // ms, graph frames and packets alike
const unsigned FRAME_SAMPLES = 320; // samples per channel in a graph frame
const int LIMIT_LEVEL = 28672;      // a mixed sample at this magnitude makes the mixer's limiter cut
const unsigned G711_RATE = 8000;    // Hz, the only rate G.711 takes
const int PLAYER_MAX_FILE = 64 << 20; // bytes of a notification or hold file

struct PartyConfig {
    std::vector<int16_t> speech; // mono at RATE: what the microphone hears, once
    bool changeVoice = false;
    SonraVoiceChangeNode::Voice voice = SonraVoiceChangeNode::NORMAL;
    unsigned haasMs = 0;         // 0: the party hears mono
    bool reverb = false;
};

struct CallConfig {
    std::vector<PartyConfig> parties;
    sonranetsim::Config net;          // the network model or scenario of every leg
    unsigned frames = 0;              // graph frames of talk, before the hang-up and the drain
    std::string notificationFile;     // played once into every party's ear at the start
    std::string holdFile;             // looped into every party's ear when not empty
    std::string recordFile;           // Ogg Vorbis of party 1's side of the call: said and heard
    // G.711 RTP through UDP sockets on 127.0.0.1 instead of Opus in the own
    // format through the network model.
    bool rtp = false;
    bool recovery = true;             // the jitter buffers re-anchor on a restarted stream
    bool adaptive = false;            // the jitter buffers follow the network's delay
    // Real time: every pipe on its own asio timer, every party on a real or
    // virtual device of these names (capture, playback); empty: stepped.
    std::vector<std::pair<std::string, std::string> > devices;
};

// A virtual sound device that plays the device thread's part one block at a
// time when the call says so, instead of on its own real-time thread.
class SteppedDevice : public SonraDevice {
public:
    std::vector<boost::shared_ptr<SonraDeviceInfo> > devices(SonraDeviceInfo::DeviceType) override
    {
        return {boost::make_shared<SonraDeviceInfo>("stepped", "virtual", 2, double(RATE), true, true)};
    }
    int start(const SonraStreamConfiguration& configuration, Callback callback, std::string*) override
    {
        m_playbackChannels = configuration.playbackChannels;
        m_callback = callback;
        return 0;
    }
    void stop() override { m_callback = Callback(); }

    // One block: `captured` (one mono frame) goes in, the block played is
    // appended to `played`.
    void block(const std::vector<int16_t>& captured, std::vector<int16_t>& played)
    {
        std::vector<int16_t> out(FRAME_SAMPLES * m_playbackChannels, 0);
        if (m_callback)
            m_callback(reinterpret_cast<const char*>(captured.data()), int(captured.size() * 2),
                       reinterpret_cast<char*>(out.data()), int(out.size() * 2), 0);
        played.insert(played.end(), out.begin(), out.end());
    }

private:
    Callback m_callback;
    unsigned m_playbackChannels = 1;
};

// The stepped device stands in for the one a playback-only container asks
// its builder for; the container keeps the capture node built before.
struct SteppedBuilder : SonraDeviceBuilder {
    boost::shared_ptr<SonraDevice> buildDevice(bool, unsigned) override { return device; }
    boost::shared_ptr<SteppedDevice> device = boost::make_shared<SteppedDevice>();
};

inline std::vector<int16_t> samplesOf(const Frame& frame, std::size_t count)
{
    std::vector<int16_t> samples(count, 0);
    if (frame)
        std::memcpy(samples.data(), frame->data(), std::min(frame->size(), count * 2));
    return samples;
}

// One direction between two parties.
struct Leg {
    Leg(unsigned from, unsigned to, const sonranetsim::Network& network) : from(from), to(to), link(network) {}
    unsigned from, to; // party indexes
    sonranetsim::Link link;
    boost::shared_ptr<SonraReceiverNode> receiver;
    boost::shared_ptr<SonraRtpReceiverNode> rtpReceiver;
    boost::shared_ptr<SonraNode> decoder; // the last node before the mixer
    std::unique_ptr<boost::asio::ip::udp::socket> socket; // RTP: the receiving party's, on 127.0.0.1
    unsigned rtpSent = 0, rtpReceived = 0; // datagrams
    sonranetsim::Result result; // output: what `to` decoded from `from`, frame by frame
    uint64_t playedBefore = 0;  // frames the receiver had played when the current frame began
};

struct Party {
    boost::shared_ptr<boost::asio::io_service> io;
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(FRAME_MS);
    boost::shared_ptr<SonraDevNodesContainer> container;
    boost::shared_ptr<SteppedBuilder> builder = boost::make_shared<SteppedBuilder>();
    boost::shared_ptr<SonraVolumeNode> micVolume;
    boost::shared_ptr<SonraSenderNode> sender;
    boost::shared_ptr<SonraRtpSenderNode> rtpSender;
    std::unique_ptr<boost::asio::ip::udp::socket> socket; // RTP: the sending one
    boost::shared_ptr<SonraMixerNode> mixer;
    boost::shared_ptr<SonraFileWriterNode> writer;
    std::vector<boost::shared_ptr<SonraNode> > extraSources; // notification, hold music
    unsigned playbackChannels = 1;
    std::vector<int16_t> said;  // what the encoder took: the microphone after the send path
    std::vector<int16_t> heard; // what the playback device played, interleaved
    unsigned limiterCuts = 0;   // graph frames in which the mixed peers reached the limiting level
};

// A voice call of any number of parties.
class Call {
public:
    explicit Call(const CallConfig& config) : m_config(config)
    {
        for (std::size_t p = 0; p < config.parties.size(); ++p)
            m_parties.emplace_back(new Party);
        for (std::size_t p = 0; p < m_parties.size(); ++p) {
            m_parties[p]->io = m_io;
            buildSendPath(p);
        }
        for (std::size_t from = 0; from < m_parties.size(); ++from)
            for (std::size_t to = 0; to < m_parties.size(); ++to)
                if (from != to)
                    addLeg(unsigned(from), unsigned(to));
        for (std::size_t p = 0; p < m_parties.size(); ++p)
            buildReceivePath(p);
    }
    ~Call()
    {
        // Receivers hold their pipe as their clock.
        for (auto& party : m_parties) {
            party->container->stop();
            party->pipe->clear();
        }
    }

    // Runs graph frame `frame` of every party.
    void runFrame(unsigned frame)
    {
        for (std::size_t p = 0; p < m_parties.size(); ++p)
            startFrame(p, frame * FRAME_MS);
        for (std::size_t p = 0; p < m_parties.size(); ++p) {
            m_parties[p]->builder->device->block(microphoneFrame(p, frame), m_parties[p]->heard);
            m_parties[p]->pipe->processFrame();
        }
        for (std::size_t p = 0; p < m_parties.size(); ++p)
            finishFrame(p);
    }

    // The call's frames, then the hang-up: nobody sends any more while the
    // jitter buffers play out what they hold.
    void run(const std::function<void(unsigned frame)>& progress = std::function<void(unsigned)>())
    {
        const unsigned total = totalFrames();
        for (unsigned frame = 0; frame < total; ++frame) {
            if (frame == m_config.frames)
                hangUp();
            runFrame(frame);
            if (progress)
                progress(frame);
        }
        finish();
    }

    // Every pipe on its own timer, on devices of the configured names, on
    // one thread: the network side runs between a party's frames, from its
    // pipe's work cycle. Returns the devices' message when one cannot start.
    std::string runRealTime()
    {
        const unsigned total = totalFrames();
        unsigned finished = 0;
        for (std::size_t p = 0; p < m_parties.size(); ++p) {
            Party& party = *m_parties[p];
            std::string message;
            if (party.container->start(int(party.playbackChannels), 1, &message) != 0)
                return message;
            startFrame(p, 0);
            party.pipe->workCycleSignal.connect([this, p, total, &finished]() {
                Party& party = *m_parties[p];
                const unsigned frame = party.pipe->elapsedTime() / FRAME_MS; // the one to come
                finishFrame(p);
                if (frame == m_config.frames)
                    clearSendHandler(party);
                if (frame < total)
                    startFrame(p, frame * FRAME_MS);
                else if (party.pipe->isRunning() && (party.pipe->stop(), ++finished == m_parties.size()))
                    m_io->stop();
            });
        }
        for (auto& party : m_parties)
            party->pipe->start(m_io);
        m_io->run();
        for (auto& party : m_parties)
            party->container->stop(); // closes a virtual playback file
        finish();
        return std::string();
    }

    unsigned totalFrames() const { return m_config.frames + sonranetsim::drainFrames(m_config.net); }

    void hangUp()
    {
        for (auto& party : m_parties)
            clearSendHandler(*party);
    }

    static void clearSendHandler(Party& party)
    {
        if (party.sender)
            party.sender->clearSendHandler();
        else
            party.rtpSender->clearSendHandler();
    }

    // Counts, delays and SNRs of every leg, against what its sender said.
    void finish()
    {
        if (m_parties.front()->writer)
            m_parties.front()->writer->stop(); // the recording is complete only now
        for (auto& leg : m_legs) {
            if (!leg->receiver)
                continue; // RTP: counted by the sockets
            leg->result.summary.jbuf = leg->receiver->statistics();
            leg->result.packets = leg->link.packets();
            sonranetsim::summarise(m_parties[leg->from]->said, RATE, FRAME_SAMPLES, leg->result);
        }
    }

    const std::vector<std::unique_ptr<Party> >& parties() const { return m_parties; }
    const std::vector<std::unique_ptr<Leg> >& legs() const { return m_legs; }

    // Leg k (from party A to party B, in the order 1->2, 1->3, ..., 2->1, ...)
    // draws from seed + k, so that no two legs lose the same packets.
    static sonranetsim::Network legNetwork(const sonranetsim::Config& net, unsigned legIndex)
    {
        if (net.useScenario)
            return sonranetsim::Network(net.scenario);
        sonranetsim::NetworkModel model = net.network;
        model.seed += legIndex;
        return sonranetsim::Network(model);
    }

private:
    void startFrame(std::size_t p, unsigned now)
    {
        for (auto& leg : m_legs) {
            if (leg->to != p)
                continue;
            if (leg->receiver)
                leg->result.frames.push_back(sonranetsim::startFrame(leg->link, *leg->receiver, now, leg->playedBefore));
            else
                receiveDatagrams(*leg);
        }
    }

    // What the socket holds now: loopback datagrams are there once sent.
    static void receiveDatagrams(Leg& leg)
    {
        while (leg.socket->available() > 0) {
            auto datagram = boost::make_shared<std::vector<char> >(leg.socket->available());
            datagram->resize(leg.socket->receive(boost::asio::buffer(*datagram)));
            leg.rtpReceiver->dataReceived(datagram);
            ++leg.rtpReceived;
        }
    }

    void finishFrame(std::size_t p)
    {
        for (auto& leg : m_legs) {
            if (leg->to != p)
                continue;
            if (leg->receiver)
                sonranetsim::finishFrame(leg->link, *leg->receiver, leg->playedBefore, leg->result.frames.back());
            const std::vector<int16_t> decoded = samplesOf(leg->decoder->outputData(), FRAME_SAMPLES);
            leg->result.output.insert(leg->result.output.end(), decoded.begin(), decoded.end());
        }
        recordParty(p);
    }

    void buildSendPath(std::size_t p)
    {
        Party& party = *m_parties[p];
        const PartyConfig& config = m_config.parties[p];
        party.container = boost::make_shared<SonraDevNodesContainer>(
            party.io, FRAME_MS, SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION, RATE);
        party.container->create(true, false); // the capture node, on the universal device ...
        if (m_config.devices.empty()) {
            party.container->setPlaybackDeviceBuilder(party.builder);
            party.container->create(false, false); // ... or on the stepped one
        } else {
            party.container->setCaptureDevice(m_config.devices[p].first);
            party.container->setPlaybackDevice(m_config.devices[p].second);
        }
        party.container->setPipe(party.pipe);

        boost::shared_ptr<SonraNode> last = party.container->capture();
        auto chain = [&](boost::shared_ptr<SonraNode> node) {
            party.pipe->connect(last, node);
            last = node;
        };
        chain(boost::make_shared<SonraNoiseSupressNode>(party.io, FRAME_MS, RATE));
        if (config.changeVoice) {
            auto voice = boost::make_shared<SonraVoiceChangeNode>(party.io, FRAME_MS, RATE, true);
            voice->setVoiceType(config.voice);
            chain(voice);
        }
        if (config.reverb)
            chain(boost::make_shared<SonraReverbNode>(party.io, FRAME_MS, RATE));
        party.micVolume = boost::make_shared<SonraVolumeNode>(party.io, FRAME_MS, RATE);
        chain(party.micVolume);
        if (m_config.rtp) {
            chain(boost::make_shared<SonraResamplerNode>(party.io, RATE, G711_RATE, FRAME_MS));
            chain(boost::make_shared<SonraG711EncNode>(party.io, FRAME_MS, G711_RATE));
            party.rtpSender = boost::make_shared<SonraRtpSenderNode>(party.io, FRAME_MS, G711_RATE);
            chain(party.rtpSender);
            party.socket.reset(new boost::asio::ip::udp::socket(*m_io, boost::asio::ip::udp::v4()));
        } else {
            chain(boost::make_shared<SonraOpusEncNode>(party.io, FRAME_MS, RATE));
            party.sender = boost::make_shared<SonraSenderNode>(party.io, FRAME_MS, RATE);
            chain(party.sender);
        }
    }

    void addLeg(unsigned from, unsigned to)
    {
        const unsigned index = unsigned(m_legs.size());
        m_legs.emplace_back(new Leg(from, to, legNetwork(m_config.net, index)));
        Leg& leg = *m_legs.back();
        Party& receiving = *m_parties[to];
        if (m_config.rtp) {
            leg.rtpReceiver = boost::make_shared<SonraRtpReceiverNode>(receiving.io, FRAME_MS, G711_RATE);
            leg.rtpReceiver->setLossConcealment(true);
            auto decoder = boost::make_shared<SonraG711DecNode>(receiving.io, FRAME_MS, G711_RATE);
            leg.decoder = boost::make_shared<SonraResamplerNode>(receiving.io, G711_RATE, RATE, FRAME_MS);
            receiving.pipe->connect(leg.rtpReceiver, decoder);
            receiving.pipe->connect(decoder, leg.decoder);
            leg.socket.reset(new boost::asio::ip::udp::socket(
                *m_io, boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)));
            return;
        }
        leg.receiver = boost::make_shared<SonraReceiverNode>(receiving.io, FRAME_MS, RATE);
        leg.receiver->setRecovery(m_config.recovery);
        if (m_config.adaptive)
            leg.receiver->setPlayoutPolicy(SonraJbuf::PLAYOUT_ADAPTIVE);
        if (m_config.net.setDelays) {
            const unsigned* d = m_config.net.delays;
            leg.receiver->setDelays(d[0], d[1], d[2], d[3]);
        }
        leg.decoder = boost::make_shared<SonraOpusDecNode>(receiving.io, FRAME_MS, RATE);
        receiving.pipe->connect(leg.receiver, leg.decoder);
    }

    void buildReceivePath(std::size_t p)
    {
        Party& party = *m_parties[p];
        const PartyConfig& config = m_config.parties[p];
        party.mixer = boost::make_shared<SonraMixerNode>(party.io, FRAME_MS, RATE);
        std::vector<Leg*> outgoing;
        for (auto& leg : m_legs) {
            if (leg->to == p)
                party.pipe->connect(leg->decoder, party.mixer);
            if (leg->from == p)
                outgoing.push_back(leg.get());
        }
        // Every peer gets its own copy, as from its own socket send.
        if (party.sender)
            party.sender->setSendHandler([outgoing](Frame packet) {
                for (Leg* leg : outgoing)
                    leg->link.send(packet);
            });
        else
            party.rtpSender->setSendHandler([outgoing, &party](Frame packet) {
                for (Leg* leg : outgoing) {
                    party.socket->send_to(boost::asio::buffer(*packet), leg->socket->local_endpoint());
                    ++leg->rtpSent;
                }
            });
        addPlayer(party, m_config.notificationFile, false);
        if (!m_config.holdFile.empty())
            addPlayer(party, m_config.holdFile, true);
        if (p == 0 && !m_config.recordFile.empty())
            record(party);

        boost::shared_ptr<SonraNode> last = party.mixer;
        if (config.haasMs > 0) {
            auto widen = boost::make_shared<SonraMonoToStereoNode>(party.io, FRAME_MS, RATE);
            widen->setHaasEffect(int32_t(config.haasMs));
            party.pipe->connect(last, widen);
            last = widen;
            party.playbackChannels = 2;
        }
        auto speakerVolume = boost::make_shared<SonraVolumeNode>(party.io, FRAME_MS, RATE);
        speakerVolume->setOutputChannels(party.playbackChannels);
        party.container->playback()->setOutputChannels(party.playbackChannels);
        party.pipe->connect(last, speakerVolume);
        party.pipe->connect(speakerVolume, party.container->playback());
        std::string message;
        if (m_config.devices.empty())
            party.container->start(int(party.playbackChannels), 1, &message); // the stepped device always starts
    }

    void addPlayer(Party& party, const std::string& file, bool loop)
    {
        auto player = boost::make_shared<SonraFilePlayNode>(party.io, PLAYER_MAX_FILE, FRAME_MS, RATE);
        unsigned channels = 0;
        if (player->start(file, channels, []() {}, loop) != SonraFilePlayNode::START_OK)
            throw std::runtime_error("cannot read " + file);
        party.pipe->connect(player, party.mixer);
        party.extraSources.push_back(player);
    }

    // The party's side of the call, said and heard, into one Ogg Vorbis file.
    void record(Party& party)
    {
        auto both = boost::make_shared<SonraMixerNode>(party.io, FRAME_MS, RATE);
        party.writer = boost::make_shared<SonraFileWriterNode>(party.io, FRAME_MS, RATE);
        party.writer->setVSndFile(boost::make_shared<SonraPlainVSndFileVfs>());
        party.pipe->connect(party.micVolume, both);
        party.pipe->connect(party.mixer, both);
        party.pipe->connect(both, party.writer);
        if (party.writer->start(m_config.recordFile, 1) != 0)
            throw std::runtime_error("cannot write " + m_config.recordFile);
    }

    std::vector<int16_t> microphoneFrame(std::size_t p, unsigned frame) const
    {
        const std::vector<int16_t>& speech = m_config.parties[p].speech;
        std::vector<int16_t> samples(FRAME_SAMPLES, 0);
        const std::size_t first = std::size_t(frame) * FRAME_SAMPLES;
        for (std::size_t i = 0; i < FRAME_SAMPLES && first + i < speech.size(); ++i)
            samples[i] = speech[first + i];
        return samples;
    }

    void recordParty(std::size_t p)
    {
        Party& party = *m_parties[p];
        const std::vector<int16_t> said = samplesOf(party.micVolume->outputData(), FRAME_SAMPLES);
        party.said.insert(party.said.end(), said.begin(), said.end());
        std::vector<int32_t> sum(FRAME_SAMPLES, 0);
        auto add = [&sum](const Frame& frame) {
            const std::vector<int16_t> samples = samplesOf(frame, FRAME_SAMPLES);
            for (unsigned i = 0; i < FRAME_SAMPLES; ++i)
                sum[i] += samples[i];
        };
        for (auto& leg : m_legs)
            if (leg->to == p)
                add(leg->decoder->outputData());
        for (auto& source : party.extraSources)
            add(source->outputData());
        const bool cut = std::any_of(sum.begin(), sum.end(), [](int32_t s) { return std::abs(s) >= LIMIT_LEVEL; });
        party.limiterCuts += cut;
    }

    CallConfig m_config;
    boost::shared_ptr<boost::asio::io_service> m_io = boost::make_shared<boost::asio::io_service>();
    std::vector<std::unique_ptr<Party> > m_parties;
    std::vector<std::unique_ptr<Leg> > m_legs;
};

} // namespace sonracall

#endif
