#include "sonracall.h"

#include "sonrafileplaynode.h"
#include "sonramonotostereonode.h"
#include "sonranoisesupressnode.h"
#include "sonraplainvsndfilevfs.h"
#include "sonrareverbnode.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace sonracall {

std::vector<int16_t> samplesOf(const Frame& frame, std::size_t count)
{
    std::vector<int16_t> samples(count, 0);
    if (frame)
        std::memcpy(samples.data(), frame->data(), std::min(frame->size(), count * 2));
    return samples;
}

void SteppedDevice::block(const std::vector<int16_t>& captured, std::vector<int16_t>& played)
{
    std::vector<int16_t> out(FRAME_SAMPLES * m_playbackChannels, 0);
    if (m_callback)
        m_callback(reinterpret_cast<const char*>(captured.data()), int(captured.size() * 2),
                   reinterpret_cast<char*>(out.data()), int(out.size() * 2), 0);
    played.insert(played.end(), out.begin(), out.end());
}

Call::Call(const CallConfig& config) : m_config(config)
{
    // Every path of a call runs at the call's rate and frame duration.
    m_config.net.sampleRate = RATE;
    m_config.net.frameDuration = FRAME_MS;
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

Call::~Call()
{
    // Receivers hold their pipe as their clock.
    for (auto& party : m_parties) {
        party->container->stop();
        party->pipe->clear();
    }
}

void Call::runFrame(unsigned frame)
{
    for (std::size_t p = 0; p < m_parties.size(); ++p)
        startFrame(p, frame * FRAME_MS);
    for (std::size_t p = 0; p < m_parties.size(); ++p) {
        Party& party = *m_parties[p];
        SteppedDevice& device = *party.builder->device;
        if (party.loudspeakers)
            party.loudspeakers->block(microphoneFrame(p, frame), party.heard,
                                      [&device](const std::vector<int16_t>& captured, std::vector<int16_t>& played) {
                                          device.block(captured, played);
                                      });
        else
            device.block(microphoneFrame(p, frame), party.heard);
        party.pipe->processFrame();
    }
    for (std::size_t p = 0; p < m_parties.size(); ++p)
        finishFrame(p);
}

void Call::run(const std::function<void(unsigned frame)>& progress)
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

std::string Call::runRealTime()
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

void Call::hangUp()
{
    for (auto& party : m_parties)
        clearSendHandler(*party);
}

void Call::clearSendHandler(Party& party)
{
    if (party.sender)
        party.sender->clearSendHandler();
    else
        party.rtpSender->clearSendHandler();
}

void Call::finish()
{
    if (m_parties.front()->writer)
        m_parties.front()->writer->stop(); // the recording is complete only now
    for (auto& leg : m_legs) {
        leg->result.packets = leg->link.packets();
        if (!leg->receiver)
            continue; // RTP: counted by its receiver and the sockets
        leg->result.summary.jbuf = leg->receiver->statistics();
        sonranetsim::summarise(m_parties[leg->from]->said, RATE, FRAME_SAMPLES, leg->result);
    }
}

sonranetsim::Network Call::legNetwork(const sonranetsim::Config& net, unsigned legIndex)
{
    if (net.useScenario)
        return sonranetsim::Network(net.scenario);
    sonranetsim::NetworkModel model = net.network;
    model.seed += legIndex;
    return sonranetsim::Network(model);
}

void Call::startFrame(std::size_t p, unsigned now)
{
    for (auto& leg : m_legs) {
        if (leg->to != p)
            continue;
        if (leg->receiver)
            leg->result.frames.push_back(sonranetsim::startFrame(leg->link, *leg->receiver, now, leg->playedBefore));
        else
            receiveRtp(*leg, now);
    }
}

void Call::finishFrame(std::size_t p)
{
    for (auto& leg : m_legs) {
        if (leg->to != p)
            continue;
        if (leg->receiver)
            sonranetsim::finishFrame(leg->link, *leg->receiver, leg->playedBefore, leg->result.frames.back());
        const std::vector<int16_t> decoded = samplesOf(leg->output->outputData(), FRAME_SAMPLES);
        leg->result.output.insert(leg->result.output.end(), decoded.begin(), decoded.end());
    }
    recordParty(p);
}

// The device container with the capture node, on the universal device (or
// the stepped one), then the microphone's effects, volume and the encoder.
void Call::buildSendPath(std::size_t p)
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
    if (!m_config.rtp) {
        party.sender = sonranetsim::ClientPathBuilder(m_config.net, party.io, *party.pipe).sendHalf(last);
        return;
    }
    buildRtpSendHalf(party, last);
}

void Call::addLeg(unsigned from, unsigned to)
{
    const unsigned index = unsigned(m_legs.size());
    m_legs.emplace_back(new Leg(from, to, legNetwork(m_config.net, index)));
    Leg& leg = *m_legs.back();
    Party& receiving = *m_parties[to];
    if (m_config.rtp)
        return addRtpLeg(leg, receiving);
    const sonranetsim::ClientPathBuilder::ReceiveHalf half =
        sonranetsim::ClientPathBuilder(m_config.net, receiving.io, *receiving.pipe).receiveHalf();
    leg.receiver = half.receiver;
    leg.output = half.output;
    // A decoder that waits for each packet's successor plays it a frame late.
    leg.result.outputLag = m_config.net.fecLoss > 0 ? 1 : 0;
}

// The peers into the mixer with the notification (and hold music), then the
// optional widening, volume and the container's playback.
void Call::buildReceivePath(std::size_t p)
{
    Party& party = *m_parties[p];
    const PartyConfig& config = m_config.parties[p];
    party.mixer = boost::make_shared<SonraMixerNode>(party.io, FRAME_MS, RATE);
    for (auto& leg : m_legs)
        if (leg->to == p)
            party.pipe->connect(leg->output, party.mixer);
    connectSendHandler(p);
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
    if (config.loudspeakers.on && m_config.devices.empty())
        party.loudspeakers.reset(
            new Loudspeakers(config.loudspeakers, RATE, FRAME_MS, FRAME_SAMPLES, party.playbackChannels));
}

// Every peer gets its own copy, as from its own socket send.
void Call::connectSendHandler(std::size_t p)
{
    Party& party = *m_parties[p];
    std::vector<Leg*> outgoing;
    for (auto& leg : m_legs)
        if (leg->from == p)
            outgoing.push_back(leg.get());
    if (party.sender)
        party.sender->setSendHandler([outgoing](Frame packet) {
            for (Leg* leg : outgoing)
                leg->link.send(packet);
        });
    else
        party.rtpSender->setSendHandler([outgoing, &party](Frame packet) {
            for (Leg* leg : outgoing)
                leg->link.send(packet, ++leg->rtpSent, party.pipe->elapsedTime());
        });
}

void Call::addPlayer(Party& party, const std::string& file, bool loop)
{
    auto player = boost::make_shared<SonraFilePlayNode>(party.io, PLAYER_MAX_FILE, FRAME_MS, RATE);
    unsigned channels = 0;
    if (player->start(file, channels, []() {}, loop) != SonraFilePlayNode::START_OK)
        throw std::runtime_error("cannot read " + file);
    party.pipe->connect(player, party.mixer);
    party.extraSources.push_back(player);
}

void Call::record(Party& party)
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

std::vector<int16_t> Call::microphoneFrame(std::size_t p, unsigned frame) const
{
    const std::vector<int16_t>& speech = m_config.parties[p].speech;
    std::vector<int16_t> samples(FRAME_SAMPLES, 0);
    const std::size_t first = std::size_t(frame) * FRAME_SAMPLES;
    for (std::size_t i = 0; i < FRAME_SAMPLES && first + i < speech.size(); ++i)
        samples[i] = speech[first + i];
    return samples;
}

void Call::recordParty(std::size_t p)
{
    Party& party = *m_parties[p];
    const std::vector<int16_t> said = samplesOf(party.micVolume->outputData(), FRAME_SAMPLES);
    party.said.insert(party.said.end(), said.begin(), said.end());
    party.limitedFrames += mixerLimited(p);
}

// The mixer's limiter limits every sum of its inputs at or beyond its
// level; for mono inputs (the peers, the notification) these sums are the
// mixer's own (a stereo hold file's are not: the mixer folds its channels).
bool Call::mixerLimited(std::size_t p) const
{
    std::vector<int32_t> sum(FRAME_SAMPLES, 0);
    auto add = [&sum](const Frame& frame) {
        const std::vector<int16_t> samples = samplesOf(frame, FRAME_SAMPLES);
        for (unsigned i = 0; i < FRAME_SAMPLES; ++i)
            sum[i] += samples[i];
    };
    for (auto& leg : m_legs)
        if (leg->to == p)
            add(leg->output->outputData());
    for (auto& source : m_parties[p]->extraSources)
        add(source->outputData());
    return std::any_of(sum.begin(), sum.end(),
                       [](int32_t s) { return std::abs(s) >= SonraMixerNode::LIMIT_LEVEL; });
}

} // namespace sonracall
