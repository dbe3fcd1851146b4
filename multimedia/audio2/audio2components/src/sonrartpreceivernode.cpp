#include "sonrartpreceivernode.h"

#include "g711.h"
#include "sonraopus_p.h"
#include "sonrartppacket.h"
#include "sonrartpsourcelock_p.h"

#include <boost/make_shared.hpp>
#include <speex/speex_jitter.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>

namespace ombrel {

unsigned SonraRtpReceiverNode::SOURCE_QUIET_TIME = 200;
unsigned SonraRtpReceiverNode::SOURCE_TAKEOVER_PACKETS = 5;
unsigned SonraRtpReceiverNode::MAX_CONCEALMENT = 100;
unsigned SonraRtpReceiverNode::MIN_START_DELAY = 40;

namespace {

typedef SonraRtpReceiverNode::Codec Codec;

const unsigned STEP_FRAMES = 5;             // the jitter buffer's step, in frame spans
const unsigned G711_CLOCK = 8000;           // Hz
const unsigned OPUS_CLOCK = 48000;          // Hz, RFC 7587
const unsigned OPUS_MAX_DURATION = 120;     // ms, the longest Opus packet
const unsigned OPUS_GRANULE = 400;          // per second: concealment comes in 2.5 ms steps
const unsigned EVENT_PAYLOAD_SIZE = 4;      // bytes of one RFC 4733 event
const unsigned CN_FULL_SCALE = 32767;       // 0 dBov, in sample units
const unsigned MAX_GETS_TO_SETTLE = 4;      // extra gets in one frame for a packet shorter than asked for
const unsigned TIMESTAMP_JUMP = 1000;       // ms off the play position at which a packet restarts the stream

// One stretch of the stream as the jitter buffer hands it out: a packet, or
// a span that no packet covers.
struct Slot {
    bool missing = false;
    bool inserted = false;  // the jitter buffer's own insertion, not a loss
    bool paused = false;    // nothing later had come: the stream paused or ended
    Codec codec = SonraRtpReceiverNode::CODEC_NONE;
    uint32_t span = 0;      // RTP clock units
    uint32_t skip = 0;      // leading RTP units already played (an overlapping packet)
    std::vector<char> payload;
};

// What was last decoded into the output; decides what fills a gap.
enum Fill { FILL_SILENCE, FILL_OPUS, FILL_NOISE };

} // namespace

struct SonraRtpReceiverNode_p {
    static const unsigned m_inDataSize = SonraRtpReceiverNode::MAX_PAYLOAD_SIZE; // bytes

    JitterBuffer* m_jitterBuffer = 0; // owned
    char m_inData[m_inDataSize] = {}; // receive area of jitter_buffer_get
    unsigned m_payloadType = 8;

    bool m_decodedOutput = false;
    bool m_sourceLockOn = false;
    Codec m_codecs[128] = {};
    SonraRtpSourceLock m_sourceLock;
    uint64_t m_now = 0; // ms of graph frames since construction

    unsigned m_clockRate = 0;         // Hz of the stream's RTP clock; 0 before its first packet
    uint32_t m_lastSpan = 0;          // RTP units of the last audio packet (a comfort noise packet lasts as long)
    bool m_playing = false;           // the output has started since the stream (re)started
    bool m_arrived = false;           // a packet came since the stream (re)started
    uint32_t m_firstTimeStamp = 0;    // of the first packet since the stream (re)started
    uint32_t m_arrivedTo = 0;         // RTP timestamp where the latest packet ends
    uint32_t m_longestSpan = 0;       // RTP units, of the longest packet since the stream (re)started
    bool m_playedValid = false;
    uint32_t m_playedTo = 0;          // RTP timestamp up to which the jitter buffer has handed out audio
    int64_t m_lastExcess = 0;         // RTP units the last get handed out beyond what it was asked for
    std::deque<Slot> m_slots;         // handed out, not yet decoded
    std::vector<int16_t> m_pcm;       // decoded, not yet output (samples at the node's rate)
    opus::DecoderPtr m_opus;          // created with the first Opus packet
    Fill m_fill = FILL_SILENCE;
    uint32_t m_concealed = 0;         // samples of Opus concealment in the current gap
    double m_noiseRms = 0;            // sample units, of the comfort noise being played
    uint32_t m_noiseState = 1;        // the noise generator's state

    bool m_eventSeen = false;
    uint32_t m_eventTimeStamp = 0;    // RTP timestamp of the last event recorded
    std::string m_digits;

    bool m_seqStarted = false;
    uint32_t m_seqBase = 0;           // extended sequence number of the source's first packet
    uint32_t m_seqHighest = 0;        // highest extended sequence number
    uint64_t m_seqReceived = 0;       // packets of the source counted for loss


    SonraRtpReceiverNode::Statistics m_stats;
};

namespace {

uint32_t frameSpan(const SonraNode& node) // samples
{
    return node.sampleRate() * node.frameDuration() / 1000;
}

unsigned clockOf(Codec codec, unsigned streamClock)
{
    switch (codec) {
    case SonraRtpReceiverNode::CODEC_PCMA:
    case SonraRtpReceiverNode::CODEC_PCMU:
        return G711_CLOCK;
    case SonraRtpReceiverNode::CODEC_OPUS:
        return OPUS_CLOCK;
    default:
        return streamClock ? streamClock : G711_CLOCK;
    }
}

// RTP clock units to samples at the node's rate, and back (rounded up, so
// that what is asked for covers what is needed).
uint32_t toSamples(uint64_t units, unsigned clock, unsigned rate) { return static_cast<uint32_t>(units * rate / clock); }
uint32_t toUnits(uint64_t samples, unsigned clock, unsigned rate)
{
    return static_cast<uint32_t>((samples * clock + rate - 1) / rate);
}

bool before(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) < 0; }

char digitOf(unsigned event)
{
    static const char DIGITS[] = "0123456789*#ABCD";
    return event < 16 ? DIGITS[event] : '?';
}

// RFC 3389: the first byte is the noise level in -dBov.
double noiseRmsOf(const std::vector<char>& payload)
{
    const unsigned level = payload.empty() ? 127 : static_cast<uint8_t>(payload[0]) & 0x7f;
    return CN_FULL_SCALE * std::pow(10.0, -static_cast<double>(level) / 20);
}

// Uniform white noise of the given RMS (a uniform draw in [-a, a] has RMS a/sqrt(3)).
void appendNoise(SonraRtpReceiverNode_p& d, uint32_t count)
{
    const double amplitude = std::min(32767.0, d.m_noiseRms * std::sqrt(3.0));
    for (uint32_t i = 0; i < count; ++i) {
        d.m_noiseState = d.m_noiseState * 1664525u + 1013904223u;
        const double unit = static_cast<double>(d.m_noiseState >> 8) / (1u << 23) - 1.0; // [-1, 1)
        d.m_pcm.push_back(static_cast<int16_t>(std::lround(unit * amplitude)));
    }
}

void appendDecodedG711(SonraRtpReceiverNode_p& d, Codec codec, const char* payload, std::size_t length, uint32_t skip)
{
    const bool alaw = codec == SonraRtpReceiverNode::CODEC_PCMA;
    const std::size_t first = d.m_pcm.size();
    d.m_pcm.resize(first + (length > skip ? length - skip : 0));
    int16_t* out = d.m_pcm.data() + first;
    for (std::size_t i = skip; i < length; ++i)
        *out++ = alaw ? alaw2linear(static_cast<uint8_t>(payload[i])) : ulaw2linear(static_cast<uint8_t>(payload[i]));
}

// `count` samples from libopus: the packet decoded, its FEC data (the
// last `count` samples of a gap the packet follows), or concealment.
void appendOpus(SonraRtpReceiverNode_p& d, unsigned rate, const std::vector<char>* packet, bool fec, uint32_t count,
                uint32_t skip)
{
    const uint32_t granule = rate / OPUS_GRANULE;
    const uint32_t asked = packet && !fec ? rate * OPUS_MAX_DURATION / 1000 : (count + granule - 1) / granule * granule;
    if (asked == 0)
        return;
    std::vector<int16_t> decoded(asked);
    const unsigned char* data = packet ? opus::bytesOf(*packet) : nullptr;
    const opus_int32 length = packet ? static_cast<opus_int32>(packet->size()) : 0;
    int got = opus_decode(d.m_opus.get(), data, length, decoded.data(), static_cast<int>(asked), fec ? 1 : 0);
    if (got < 0)
        got = 0;
    if (packet && !fec)
        count = static_cast<uint32_t>(got);
    decoded.resize(static_cast<std::size_t>(got));
    decoded.resize(std::max<std::size_t>(decoded.size(), count)); // a failure decodes to silence
    // FEC covers the end of the gap; concealment and packets start at its beginning.
    const std::size_t first = fec ? decoded.size() - count : std::min<std::size_t>(skip, count);
    const std::size_t last = fec ? decoded.size() : count;
    d.m_pcm.insert(d.m_pcm.end(), decoded.begin() + static_cast<std::ptrdiff_t>(first),
                   decoded.begin() + static_cast<std::ptrdiff_t>(last));
}

void addMs(uint64_t& counter, uint32_t samples, unsigned rate) { counter += uint64_t(samples) * 1000 / rate; }

// A gap: comfort noise goes on, Opus is rebuilt or concealed, G.711 is silent.
void fillGap(SonraRtpReceiverNode_p& d, const SonraNode& node, const Slot& gap, const Slot* next)
{
    const unsigned rate = node.sampleRate();
    const uint32_t count = toSamples(gap.span, d.m_clockRate, rate);
    if (d.m_fill == FILL_NOISE) {
        appendNoise(d, count);
        addMs(d.m_stats.comfortNoiseMs, count, rate);
        return;
    }
    addMs(gap.inserted ? d.m_stats.insertedMs : gap.paused ? d.m_stats.pausedMs : d.m_stats.concealedMs, count, rate);
    const bool fecNext = next && !next->missing && next->codec == SonraRtpReceiverNode::CODEC_OPUS;
    if (d.m_fill == FILL_OPUS && d.m_opus && fecNext && !gap.inserted) {
        appendOpus(d, rate, &next->payload, true, count, 0);
    } else if (d.m_fill == FILL_OPUS && d.m_opus && d.m_concealed < rate * SonraRtpReceiverNode::MAX_CONCEALMENT / 1000) {
        appendOpus(d, rate, nullptr, false, count, 0);
        d.m_concealed += count;
    } else {
        d.m_pcm.insert(d.m_pcm.end(), count, 0);
    }
}

void decodeSlot(SonraRtpReceiverNode_p& d, const SonraNode& node, const Slot& slot)
{
    const unsigned rate = node.sampleRate();
    ++d.m_stats.packetsPlayed;
    switch (slot.codec) {
    case SonraRtpReceiverNode::CODEC_PCMA:
    case SonraRtpReceiverNode::CODEC_PCMU:
        appendDecodedG711(d, slot.codec, slot.payload.data(), slot.payload.size(), slot.skip);
        d.m_fill = FILL_SILENCE;
        break;
    case SonraRtpReceiverNode::CODEC_OPUS:
        appendOpus(d, rate, &slot.payload, false, 0, toSamples(slot.skip, d.m_clockRate, rate));
        d.m_fill = FILL_OPUS;
        d.m_concealed = 0;
        break;
    default: { // comfort noise
        d.m_noiseRms = noiseRmsOf(slot.payload);
        const uint32_t count = toSamples(slot.span - std::min(slot.skip, slot.span), d.m_clockRate, rate);
        appendNoise(d, count);
        addMs(d.m_stats.comfortNoiseMs, count, rate);
        d.m_fill = FILL_NOISE;
    }
    }
}

uint32_t pendingSpan(const SonraRtpReceiverNode_p& d) // RTP units
{
    uint32_t span = 0;
    for (const Slot& slot : d.m_slots)
        span += slot.span - std::min(slot.skip, slot.span);
    return span;
}

// Asks the jitter buffer for the stretches that the next output needs; false
// when it has nothing to hand out (before the stream, or resynchronising).
bool fetchSlot(SonraRtpReceiverNode_p& d, uint32_t desired)
{
    JitterBufferPacket packet = JitterBufferPacket();
    packet.data = d.m_inData;
    packet.len = SonraRtpReceiverNode_p::m_inDataSize;
    spx_int32_t startOffset = 0;
    const int result = jitter_buffer_get(d.m_jitterBuffer, &packet, static_cast<spx_int32_t>(desired), &startOffset);
    // What the jitter buffer itself takes for handed out beyond the ask
    // (a gap before the packet counts, an overlap does not).
    d.m_lastExcess = result == JITTER_BUFFER_OK          ? int64_t(packet.span) - desired + startOffset
                     : result == JITTER_BUFFER_INSERTION ? int64_t(packet.span) - desired
                                                         : 0;
    Slot slot;
    if (result == JITTER_BUFFER_OK) {
        if (startOffset > 0) { // nothing came for the stretch before this packet
            Slot gap;
            gap.missing = true;
            gap.span = static_cast<uint32_t>(startOffset);
            d.m_slots.push_back(gap);
        }
        slot.codec = static_cast<Codec>(packet.user_data);
        slot.span = packet.span;
        slot.skip = startOffset < 0 ? static_cast<uint32_t>(-startOffset) : 0;
        const bool g711 = slot.codec == SonraRtpReceiverNode::CODEC_PCMA || slot.codec == SonraRtpReceiverNode::CODEC_PCMU;
        if (g711 && d.m_slots.empty()) { // nothing waits before it: decoded straight away, no copy
            appendDecodedG711(d, slot.codec, d.m_inData, packet.len, slot.skip);
            ++d.m_stats.packetsPlayed;
            d.m_fill = FILL_SILENCE;
            d.m_playedTo = packet.timestamp + packet.span;
            d.m_playedValid = true;
            return true;
        }
        slot.payload.assign(d.m_inData, d.m_inData + packet.len);
    } else if ((result == JITTER_BUFFER_MISSING || result == JITTER_BUFFER_INSERTION) && packet.span > 0) {
        slot.missing = true;
        slot.inserted = result == JITTER_BUFFER_INSERTION;
        slot.span = packet.span;
        spx_int32_t buffered = 0; // packets
        jitter_buffer_ctl(d.m_jitterBuffer, JITTER_BUFFER_GET_AVAILABLE_COUNT, &buffered);
        slot.paused = buffered == 0;
    } else {
        return false;
    }
    if (!slot.inserted) {
        d.m_playedTo = packet.timestamp + packet.span;
        d.m_playedValid = true;
    }
    d.m_slots.push_back(slot);
    return true;
}

// Decodes what is fetched; a gap waits for the slot after it (its FEC
// data) unless the output needs it now.
void decodeSlots(SonraRtpReceiverNode_p& d, const SonraNode& node, uint32_t needed)
{
    while (!d.m_slots.empty()) {
        const Slot& slot = d.m_slots.front();
        const Slot* next = d.m_slots.size() > 1 ? &d.m_slots[1] : nullptr;
        if (slot.missing) {
            if (!next && d.m_pcm.size() >= needed)
                return;
            fillGap(d, node, slot, next);
        } else {
            decodeSlot(d, node, slot);
        }
        d.m_slots.pop_front();
    }
}

void keepEveryPacket(SonraRtpReceiverNode_p& d);

void restartStream(SonraRtpReceiverNode_p& d)
{
    jitter_buffer_reset(d.m_jitterBuffer);
    if (d.m_decodedOutput)
        keepEveryPacket(d);
    d.m_slots.clear();
    d.m_pcm.clear();
    d.m_playedValid = false;
    d.m_playing = d.m_arrived = false;
    d.m_longestSpan = 0;
    d.m_fill = FILL_SILENCE;
    d.m_concealed = 0;
    opus::resetState(d.m_opus.get());
}

void restartSequence(SonraRtpReceiverNode_p& d)
{
    d.m_seqStarted = false;
    d.m_seqReceived = 0;
}

void countSequence(SonraRtpReceiverNode_p& d, uint16_t seqNum)
{
    if (!d.m_seqStarted) {
        d.m_seqStarted = true;
        d.m_seqBase = d.m_seqHighest = seqNum;
    } else {
        // The extended number nearest the highest so far (RFC 3550 A.1).
        const uint32_t extended = d.m_seqHighest + static_cast<uint32_t>(static_cast<int16_t>(seqNum - uint16_t(d.m_seqHighest)));
        if (before(d.m_seqHighest, extended))
            d.m_seqHighest = extended;
    }
    ++d.m_seqReceived;
}

// RFC 4733: one event spans several packets that share its timestamp.
void takeEvent(SonraRtpReceiverNode_p& d, const SonraRtpPacket& packet, std::size_t begin, std::size_t end)
{
    ++d.m_stats.eventPackets;
    if (end - begin < EVENT_PAYLOAD_SIZE || (d.m_eventSeen && packet.timeStamp() == d.m_eventTimeStamp))
        return;
    d.m_eventSeen = true;
    d.m_eventTimeStamp = packet.timeStamp();
    d.m_digits.push_back(digitOf(static_cast<uint8_t>((*packet.m_data)[begin])));
}

// The packet's duration on its RTP clock; 0 when it cannot be played.
uint32_t spanOf(const SonraRtpReceiverNode_p& d, Codec codec, const char* payload, std::size_t length)
{
    switch (codec) {
    case SonraRtpReceiverNode::CODEC_PCMA:
    case SonraRtpReceiverNode::CODEC_PCMU:
        return static_cast<uint32_t>(length);
    case SonraRtpReceiverNode::CODEC_OPUS: {
        const int samples = opus_packet_get_nb_samples(reinterpret_cast<const unsigned char*>(payload),
                                                       static_cast<opus_int32>(length), OPUS_CLOCK);
        return samples > 0 ? static_cast<uint32_t>(samples) : 0;
    }
    default: // comfort noise lasts until the next packet; one audio packet's worth is the guess
        return d.m_lastSpan ? d.m_lastSpan : toUnits(20, d.m_clockRate ? d.m_clockRate : G711_CLOCK, 1000);
    }
}

bool decodable(const SonraNode& node, Codec codec)
{
    const unsigned rate = node.sampleRate();
    if (codec == SonraRtpReceiverNode::CODEC_PCMA || codec == SonraRtpReceiverNode::CODEC_PCMU)
        return rate == G711_CLOCK;
    if (codec == SonraRtpReceiverNode::CODEC_OPUS)
        return rate == 8000 || rate == 12000 || rate == 16000 || rate == 24000 || rate == 48000;
    return codec != SonraRtpReceiverNode::CODEC_NONE;
}

// Left to itself, the jitter buffer shrinks its delay at every tick by
// skipping audio it holds. Asking for the adjustment once, on the empty
// buffer (nothing to adjust yet), hands the timing to the caller for good;
// the buffer still grows its delay, by an insertion, when a packet would
// otherwise come too late.
void keepEveryPacket(SonraRtpReceiverNode_p& d)
{
    JitterBufferPacket none = JitterBufferPacket();
    jitter_buffer_update_delay(d.m_jitterBuffer, &none, nullptr);
}

// The jitter buffer counts in the stream's clock: step one graph frame,
// and a gap is handed out at exactly the length asked for.
void useClock(SonraRtpReceiverNode_p& d, const SonraNode& node, unsigned clock)
{
    if (clock == d.m_clockRate)
        return;
    if (d.m_clockRate)
        restartStream(d);
    d.m_clockRate = clock;
    spx_int32_t step = static_cast<spx_int32_t>(toUnits(frameSpan(node), clock, node.sampleRate()));
    jitter_buffer_ctl(d.m_jitterBuffer, JITTER_BUFFER_SET_DELAY_STEP, &step);
    spx_int32_t concealment = 1;
    jitter_buffer_ctl(d.m_jitterBuffer, JITTER_BUFFER_SET_CONCEALMENT_SIZE, &concealment);
    keepEveryPacket(d);
}

void noteArrival(SonraRtpReceiverNode_p& d, uint32_t timeStamp, uint32_t span)
{
    if (!d.m_arrived) {
        d.m_arrived = true;
        d.m_firstTimeStamp = d.m_arrivedTo = timeStamp;
    }
    if (before(d.m_arrivedTo, timeStamp + span))
        d.m_arrivedTo = timeStamp + span;
    d.m_longestSpan = std::max(d.m_longestSpan, span);
}

// A packet arrives when its last sample has been sent, so the output can
// only run without a hole once it lags the stream by the longest packet
// and a frame: it starts when that much has come. The floor covers
// packets longer than the first ones (a call that goes from 10 to 30 ms).
bool readyToPlay(SonraRtpReceiverNode_p& d, const SonraNode& node)
{
    if (!d.m_playing && d.m_arrived) {
        const uint32_t frameUnits = toUnits(frameSpan(node), d.m_clockRate, node.sampleRate());
        const uint32_t floorUnits = toUnits(SonraRtpReceiverNode::MIN_START_DELAY, d.m_clockRate, 1000);
        d.m_playing = d.m_arrivedTo - d.m_firstTimeStamp >= std::max(d.m_longestSpan, floorUnits) + frameUnits;
    }
    return d.m_playing;
}

// A sender that restarts its clock, or jumps it, would otherwise have every
// later packet dropped as late, or wait behind silence as long as the jump.
bool timeStampJumped(const SonraRtpReceiverNode_p& d, uint32_t timeStamp)
{
    const uint32_t limit = toUnits(TIMESTAMP_JUMP, d.m_clockRate, 1000);
    const uint32_t distance = before(timeStamp, d.m_playedTo) ? d.m_playedTo - timeStamp : timeStamp - d.m_playedTo;
    return distance > limit;
}

void putDecodable(SonraRtpReceiverNode_p& d, const SonraNode& node, const SonraRtpPacket& packet, Codec codec)
{
    const std::size_t begin = packet.payloadBegin(), end = packet.payloadEnd();
    if (codec == SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT) {
        takeEvent(d, packet, begin, end);
        return;
    }
    const char* payload = packet.m_data->data() + begin;
    const uint32_t span = spanOf(d, codec, payload, end - begin);
    if (span == 0 || end - begin > SonraRtpReceiverNode_p::m_inDataSize) {
        ++d.m_stats.refusedMalformed;
        return;
    }
    if (codec != SonraRtpReceiverNode::CODEC_COMFORT_NOISE) {
        useClock(d, node, clockOf(codec, d.m_clockRate));
        d.m_lastSpan = span;
    } else if (!d.m_clockRate) {
        useClock(d, node, G711_CLOCK);
    }
    if (codec == SonraRtpReceiverNode::CODEC_OPUS && !d.m_opus)
        d.m_opus = opus::createDecoder(node.sampleRate());
    if (d.m_playedValid && timeStampJumped(d, packet.timeStamp()))
        restartStream(d);
    if (d.m_playedValid && !before(d.m_playedTo, packet.timeStamp() + span)) {
        ++d.m_stats.packetsLate;
        return;
    }
    ++d.m_stats.packetsReceived;
    noteArrival(d, packet.timeStamp(), span);
    JitterBufferPacket jitterPacket = JitterBufferPacket();
    jitterPacket.data = const_cast<char*>(payload);
    jitterPacket.len = static_cast<spx_uint32_t>(end - begin);
    jitterPacket.timestamp = packet.timeStamp();
    jitterPacket.span = span;
    jitterPacket.sequence = static_cast<spx_uint16_t>(packet.seqNum());
    jitterPacket.user_data = static_cast<spx_uint32_t>(codec);
    jitter_buffer_put(d.m_jitterBuffer, &jitterPacket);
}

boost::shared_ptr<std::vector<char> > decodedFrame(SonraRtpReceiverNode_p& d, const SonraNode& node)
{
    if (!d.m_clockRate || !readyToPlay(d, node))
        return boost::shared_ptr<std::vector<char> >();
    const unsigned rate = node.sampleRate();
    const uint32_t needed = frameSpan(node);                               // samples
    const uint32_t lookahead = d.m_fill == FILL_OPUS ? needed : 0;          // samples held for FEC
    d.m_lastExcess = 0;
    while (d.m_pcm.size() + toSamples(pendingSpan(d), d.m_clockRate, rate) < needed + lookahead) {
        const uint64_t short_ = needed + lookahead - d.m_pcm.size() - toSamples(pendingSpan(d), d.m_clockRate, rate);
        if (!fetchSlot(d, toUnits(short_, d.m_clockRate, rate)))
            break;
    }
    // The jitter buffer takes a frame that ends inside what it handed out
    // for a sign of broken code: ask for the rest before the tick.
    for (unsigned i = 0; i < MAX_GETS_TO_SETTLE && d.m_lastExcess < 0; ++i)
        if (!fetchSlot(d, static_cast<uint32_t>(-d.m_lastExcess)))
            break;
    decodeSlots(d, node, needed);
    if (d.m_pcm.empty())
        return boost::shared_ptr<std::vector<char> >();
    if (d.m_pcm.size() < needed) // the stream stopped part-way through a frame
        d.m_pcm.resize(needed, 0);
    const auto output = boost::make_shared<std::vector<char> >(2 * std::size_t(needed));
    std::memcpy(output->data(), d.m_pcm.data(), output->size());
    d.m_pcm.erase(d.m_pcm.begin(), d.m_pcm.begin() + needed);
    return output;
}

} // namespace

SonraRtpReceiverNode::SonraRtpReceiverNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                           unsigned int frameDuration, unsigned int sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraRtpReceiverNode_p)
{
    d->m_jitterBuffer = jitter_buffer_init(static_cast<int>(STEP_FRAMES * frameSpan(*this)));
    d->m_codecs[0] = CODEC_PCMU;
    d->m_codecs[8] = CODEC_PCMA;
    d->m_codecs[13] = CODEC_COMFORT_NOISE;
}

SonraRtpReceiverNode::~SonraRtpReceiverNode()
{
    jitter_buffer_destroy(d->m_jitterBuffer);
}

void SonraRtpReceiverNode::setPayloadType(unsigned int payloadType)
{
    d->m_payloadType = payloadType;
}

void SonraRtpReceiverNode::setLossConcealment(bool on)
{
    // Off restores the library's own choice, its step size.
    spx_int32_t size = static_cast<spx_int32_t>(on ? frameSpan(*this) : STEP_FRAMES * frameSpan(*this));
    jitter_buffer_ctl(d->m_jitterBuffer, JITTER_BUFFER_SET_CONCEALMENT_SIZE, &size);
}

void SonraRtpReceiverNode::setDecodedOutput(bool on)
{
    d->m_decodedOutput = on;
}

void SonraRtpReceiverNode::mapPayloadType(unsigned int payloadType, Codec codec)
{
    d->m_codecs[payloadType & 0x7f] = codec;
}

void SonraRtpReceiverNode::setSourceLock(bool on)
{
    d->m_sourceLockOn = on;
    d->m_sourceLock.clear();
}

SonraRtpReceiverNode::Statistics SonraRtpReceiverNode::statistics() const
{
    Statistics stats = d->m_stats;
    const uint64_t expected = d->m_seqStarted ? uint64_t(d->m_seqHighest - d->m_seqBase) + 1 : 0;
    stats.packetsLost = expected > d->m_seqReceived ? expected - d->m_seqReceived : 0;
    return stats;
}

std::string SonraRtpReceiverNode::digits() const
{
    return d->m_digits;
}

void SonraRtpReceiverNode::dataReceived(boost::shared_ptr<std::vector<char> > data)
{
    if (!data || data->size() < SonraRtpPacket::HEADER_SIZE) {
        ++d->m_stats.refusedMalformed;
        return;
    }
    const SonraRtpPacket packet(data);
    if (d->m_decodedOutput && !packet.isWellFormed()) {
        ++d->m_stats.refusedMalformed;
        return;
    }
    const unsigned payloadType = packet.payloadType();
    const Codec codec = d->m_codecs[payloadType];
    const bool accepted = d->m_decodedOutput ? decodable(*this, codec) : payloadType == d->m_payloadType;
    if (!accepted) {
        ++d->m_stats.refusedUnmapped;
        d->m_stats.lastUnmappedPayloadType = static_cast<int>(payloadType);
        return;
    }
    if (d->m_sourceLockOn && !passesSourceLock(packet))
        return;
    acceptPacket(packet, codec);
}

bool SonraRtpReceiverNode::passesSourceLock(const SonraRtpPacket& packet)
{
    SonraRtpSourceLock::Datagram previous;
    const SonraRtpSourceLock::Verdict verdict =
        d->m_sourceLock.check(packet.ssrc(), static_cast<uint16_t>(packet.seqNum()), packet.m_data, d->m_now,
                              SOURCE_QUIET_TIME, SOURCE_TAKEOVER_PACKETS, previous);
    if (verdict == SonraRtpSourceLock::ACCEPT)
        return true;
    if (verdict == SonraRtpSourceLock::REFUSE) {
        ++d->m_stats.refusedOtherSource;
        return false;
    }
    d->m_stats.sourceChanges += verdict == SonraRtpSourceLock::TAKE_OVER;
    restartStream(*d);
    restartSequence(*d);
    if (previous) { // refused a moment ago, it belongs to the new source
        --d->m_stats.refusedOtherSource;
        const SonraRtpPacket held(previous);
        acceptPacket(held, d->m_codecs[held.payloadType()]);
    }
    return true;
}

void SonraRtpReceiverNode::acceptPacket(const SonraRtpPacket& packet, int codec)
{
    countSequence(*d, static_cast<uint16_t>(packet.seqNum()));
    if (d->m_decodedOutput) {
        putDecodable(*d, *this, packet, static_cast<Codec>(codec));
        return;
    }
    const std::size_t length = packet.m_data->size() - SonraRtpPacket::HEADER_SIZE; // bytes
    if (length > SonraRtpReceiverNode_p::m_inDataSize) {
        ++d->m_stats.refusedMalformed;
        return;
    }
    ++d->m_stats.packetsReceived;
    JitterBufferPacket jitterPacket = JitterBufferPacket();
    jitterPacket.data = packet.m_payload;
    jitterPacket.len = static_cast<spx_uint32_t>(length);
    jitterPacket.timestamp = packet.timeStamp();
    jitterPacket.span = frameSpan(*this);
    jitterPacket.sequence = static_cast<spx_uint16_t>(packet.seqNum());
    jitter_buffer_put(d->m_jitterBuffer, &jitterPacket);
}

void SonraRtpReceiverNode::reset(unsigned int /*offset*/)
{
    restartStream(*d);
}

boost::shared_ptr<std::vector<char> > SonraRtpReceiverNode::doProcess()
{
    boost::shared_ptr<std::vector<char> > output;
    if (d->m_decodedOutput) {
        output = decodedFrame(*d, *this);
    } else {
        // The answer is not needed: the node plays whatever the buffer hands
        // out for this tick. The query has no side effect and stays because
        // the receiver's documented steps make it before every get.
        jitter_buffer_get_pointer_timestamp(d->m_jitterBuffer);
        JitterBufferPacket packet = JitterBufferPacket();
        packet.data = d->m_inData;
        packet.len = SonraRtpReceiverNode_p::m_inDataSize;
        spx_int32_t startOffset = 0;
        const spx_int32_t span = static_cast<spx_int32_t>(frameSpan(*this));
        if (jitter_buffer_get(d->m_jitterBuffer, &packet, span, &startOffset) == JITTER_BUFFER_OK)
            output = boost::make_shared<std::vector<char> >(d->m_inData, d->m_inData + packet.len);
    }
    jitter_buffer_tick(d->m_jitterBuffer);
    ++(output ? d->m_stats.framesOut : d->m_stats.framesEmpty);
    d->m_now += frameDuration();
    return output;
}

} // namespace ombrel
