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
#ifndef SONRA_CALL_H
#define SONRA_CALL_H

#include "sonracallecho.h"
#include "sonranetsim.h"

#include "sonradevnode.h"
#include "sonrafilewriternode.h"
#include "sonramixernode.h"
#include "sonrareceivernode.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"
#include "sonrasendernode.h"
#include "sonravoicechangenode.h"
#include "sonravolumenode.h"

#include <boost/asio/ip/udp.hpp>
#include <boost/make_shared.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sonracall {

using namespace ombrel;
typedef boost::shared_ptr<std::vector<char> > Frame;

const unsigned RATE = 16000;        // Hz, of every path
const unsigned FRAME_MS = 20;       // ms, graph frames and packets alike
const unsigned FRAME_SAMPLES = 320; // samples per channel in a graph frame
const unsigned G711_RATE = 8000;    // Hz, the only rate G.711 takes
const int PLAYER_MAX_FILE = 64 << 20; // bytes of a notification or hold file

// What the parties speak over RTP: Opus (dynamic payload type
// OPUS_PAYLOAD_TYPE, 48 kHz RTP clock) or G.711 at its 8000 Hz.
enum class RtpCodec { Opus, Pcma, Pcmu };
const unsigned OPUS_PAYLOAD_TYPE = 96;

struct PartyConfig {
    std::vector<int16_t> speech; // mono at RATE: what the microphone hears, once
    bool changeVoice = false;
    SonraVoiceChangeNode::Voice voice = SonraVoiceChangeNode::NORMAL;
    unsigned haasMs = 0;         // 0: the party hears mono
    bool reverb = false;
    LoudspeakerSettings loudspeakers; // off: a headset, nothing comes back
};

struct CallConfig {
    std::vector<PartyConfig> parties;
    sonranetsim::Config net;          // every leg's network model or scenario, and its jitter buffer
    unsigned frames = 0;              // graph frames of talk, before the hang-up and the drain
    std::string notificationFile;     // played once into every party's ear at the start
    std::string holdFile;             // looped into every party's ear when not empty
    std::string recordFile;           // Ogg Vorbis of party 1's side of the call: said and heard
    // RTP with the RTP nodes instead of the own format: every packet passes
    // the network model, then crosses a UDP socket on 127.0.0.1.
    bool rtp = false;
    RtpCodec rtpCodec = RtpCodec::Opus;
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
    void block(const std::vector<int16_t>& captured, std::vector<int16_t>& played);

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

// `count` samples of `frame`, silence where it has none.
std::vector<int16_t> samplesOf(const Frame& frame, std::size_t count);

// One direction between two parties.
struct Leg {
    Leg(unsigned from, unsigned to, const sonranetsim::Network& network) : from(from), to(to), link(network) {}
    unsigned from, to; // party indexes
    sonranetsim::Link link;
    boost::shared_ptr<SonraReceiverNode> receiver;
    boost::shared_ptr<SonraRtpReceiverNode> rtpReceiver;
    // The last node before the mixer: the Opus decoder, or over RTP the
    // resampler after the G.711 decoder.
    boost::shared_ptr<SonraNode> output;
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
    unsigned limitedFrames = 0; // graph frames in which the mixer's limiter limited a sum of its inputs
    std::unique_ptr<Loudspeakers> loudspeakers; // stepped only: the room between its speaker and microphone
};

// A voice call of any number of parties.
class Call {
public:
    explicit Call(const CallConfig& config);
    ~Call();

    // Runs graph frame `frame` of every party.
    void runFrame(unsigned frame);
    // The call's frames, then the hang-up: nobody sends any more while the
    // jitter buffers play out what they hold.
    void run(const std::function<void(unsigned frame)>& progress = std::function<void(unsigned)>());
    // Every pipe on its own timer, on devices of the configured names, on
    // one thread: the network side runs between a party's frames, from its
    // pipe's work cycle. Returns the devices' message when one cannot start.
    std::string runRealTime();

    unsigned totalFrames() const { return m_config.frames + sonranetsim::drainFrames(m_config.net); }
    void hangUp();

    const std::vector<std::unique_ptr<Party> >& parties() const { return m_parties; }
    const std::vector<std::unique_ptr<Leg> >& legs() const { return m_legs; }
    const CallConfig& config() const { return m_config; }

    // Leg k (from party A to party B, in the order 1->2, 1->3, ..., 2->1, ...)
    // draws from seed + k, so that no two legs lose the same packets.
    static sonranetsim::Network legNetwork(const sonranetsim::Config& net, unsigned legIndex);

private:
    static void clearSendHandler(Party& party);
    // RTP: the datagrams the network delivers by `now` (ms) cross the
    // sockets to the receiver; loopback datagrams are there once sent.
    void receiveRtp(Leg& leg, unsigned now);
    // RTP: encoder and sender after `last`, at the codec's rate.
    void buildRtpSendHalf(Party& party, boost::shared_ptr<SonraNode> last);
    // Counts, delays and SNRs of every leg, against what its sender said.
    void finish();
    void startFrame(std::size_t p, unsigned now);
    void finishFrame(std::size_t p);
    void buildSendPath(std::size_t p);
    void addLeg(unsigned from, unsigned to);
    void addRtpLeg(Leg& leg, Party& receiving);
    void buildReceivePath(std::size_t p);
    void connectSendHandler(std::size_t p);
    void addPlayer(Party& party, const std::string& file, bool loop);
    // The party's side of the call, said and heard, into one Ogg Vorbis file.
    void record(Party& party);
    std::vector<int16_t> microphoneFrame(std::size_t p, unsigned frame) const;
    void recordParty(std::size_t p);
    bool mixerLimited(std::size_t p) const;

    CallConfig m_config;
    boost::shared_ptr<boost::asio::io_service> m_io = boost::make_shared<boost::asio::io_service>();
    std::vector<std::unique_ptr<Party> > m_parties;
    std::vector<std::unique_ptr<Leg> > m_legs;
};

// Per party and graph frame of a finished call, for gnuplot: levels said
// and heard (dBFS), and per peer the jitter-buffer residence of what was
// played (ms) and the frames lost, late, rebuilt by FEC and concealed; per
// party a title line with each direction's MOS and counts.
void writeReportData(const Call& call, const std::string& path);

} // namespace sonracall

#endif
