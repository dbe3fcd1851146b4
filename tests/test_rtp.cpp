// RTP packet layout, sender numbering and SSRC, receiver filtering and loss behaviour, node by node through a pipe;
// the decoded receiver with real packet durations, real codecs, comfort noise, events and one source under a flood.
#include "testutil.h"
#include "g711.h"
#include "shared.h"
#include "sonraopusencnode.h"
#include "sonrartppacket.h"
#include "sonrartpreceivernode.h"
#include "sonrartpsendernode.h"
#include "sonrartpsourcelock_p.h"

#include <gtest/gtest.h>
#include <opus.h>
#include <pcap/pcap.h>

#include <cstdlib>
#include <ctime>
#include <map>

using namespace ombrel;
using sonratest::Bytes;
using sonratest::Frame;
using sonratest::bytesFrame;
using sonratest::bytesOf;

namespace {

Bytes header(unsigned seq, unsigned ts, unsigned ssrc)
{
    Bytes bytes = {0x80, 0x08, Bytes::value_type(seq >> 8), Bytes::value_type(seq)};
    for (unsigned word : {ts, ssrc})
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(Bytes::value_type(word >> shift));
    return bytes;
}

Bytes packetOf(unsigned seq, unsigned ts, const Bytes& payload, unsigned char byte0 = 0x80, unsigned char byte1 = 0x08)
{
    Bytes packet = sonratest::concat(header(seq, ts, 1), payload);
    packet[0] = byte0, packet[1] = byte1;
    return packet;
}

typedef std::vector<unsigned> Fields;
Fields fields(const SonraRtpPacket& packet) { return {packet.seqNum(), packet.timeStamp(), packet.ssrc()}; }

// What a sender hands to its handler, frame by frame.
struct SenderRig : sonratest::NodeGraph<SonraRtpSenderNode> {
    SenderRig(unsigned rate = 8000) : NodeGraph(20, rate)
    {
        node->setSendHandler([this](Frame packet) { sent.push_back(bytesOf(packet)); });
    }
    std::vector<Bytes> sent;
};

unsigned ssrcOfNewSender()
{
    SenderRig rig;
    rig.step(bytesFrame({1}));
    return SonraRtpPacket(bytesFrame(rig.sent.at(0))).ssrc();
}

} // namespace

TEST(RtpPacket, BuildsTheFixedHeaderInPlaceAndParsesFromByteTwelve)
{
    for (int ignored : {0, 8, 96, -1}) {
        const Frame frame = bytesFrame(Bytes(160, 0x55));
        const SonraRtpPacket packet(frame, 65537, 1000, 7, ignored);
        EXPECT_EQ(sonratest::concat(header(1, 1000, 7), Bytes(160, 0x55)), bytesOf(frame));
        EXPECT_EQ((Fields{1, 1000, 7}), fields(packet));
    }
    const Bytes big = header(0xfedc, 0x89abcdef, 0xfffffffe);
    EXPECT_EQ((Fields{0xfedc, 0x89abcdef, 0xfffffffe}), fields(SonraRtpPacket(bytesFrame(big))));
    const SonraRtpPacket csrcs(bytesFrame(packetOf(1, 0, {0, 0, 0, 9, 0, 0, 0, 10, 0x55}, 0x82, 0x88)));
    EXPECT_EQ(8u, csrcs.payloadType());
    EXPECT_EQ(9, csrcs.m_payload[3]);
    EXPECT_EQ(csrcs.m_data->data() + 12, csrcs.m_payload);

    // A header extension's head that ends the packet leaves an empty payload; one byte short, it is cut.
    const SonraRtpPacket bare(bytesFrame(packetOf(1, 0, {0xbe, 0xde, 0, 0}, 0x90)));
    EXPECT_TRUE(bare.isWellFormed());
    EXPECT_EQ((std::vector<std::size_t>{16, 16}), (std::vector<std::size_t>{bare.payloadBegin(), bare.payloadEnd()}));
    EXPECT_FALSE(SonraRtpPacket(bytesFrame(packetOf(1, 0, {0xbe, 0xde, 0}, 0x90))).isWellFormed());
}

// Two packets in a row lock a source; another takes over with its fifth in a row once the first has been quiet.
TEST(RtpSourceLock, LocksOnTwoInARowAndHandsOverAfterQuietAndARun)
{
    SonraRtpSourceLock lock;
    SonraRtpSourceLock::Datagram previous;
    const Frame datagram = bytesFrame({1});
    const auto check = [&](uint32_t ssrc, uint16_t seqNum, uint64_t now) {
        return lock.check(ssrc, seqNum, datagram, now, 1000, 5, previous);
    };
    EXPECT_EQ(SonraRtpSourceLock::REFUSE, check(7, 1, 0));
    EXPECT_EQ(SonraRtpSourceLock::FIRST_LOCK, check(7, 2, 20));
    EXPECT_EQ(SonraRtpSourceLock::REFUSE, check(9, 1, 40)); // heard just now: nobody takes over
    for (uint16_t seqNum = 100; seqNum < 104; ++seqNum)
        EXPECT_EQ(SonraRtpSourceLock::REFUSE, check(9, seqNum, 1000 + seqNum));
    EXPECT_EQ(SonraRtpSourceLock::TAKE_OVER, check(9, 104, 1104));
    EXPECT_EQ(SonraRtpSourceLock::REFUSE, check(7, 3, 1120));
}

TEST(RtpSender, NumbersPacketsAndStampsThemInSamples)
{
    for (unsigned rate : {8000u, 16000u}) {
        SenderRig rig(rate);
        rig.node->setPayloadType(96);
        rig.step(bytesFrame({1, 2}));
        rig.step(Frame());
        rig.step(bytesFrame({}));
        rig.step(bytesFrame({3}));
        ASSERT_EQ(2u, rig.sent.size());
        const unsigned ssrc = SonraRtpPacket(bytesFrame(rig.sent[0])).ssrc();
        EXPECT_EQ(sonratest::concat(header(1, 0, ssrc), {1, 2}), rig.sent[0]);
        EXPECT_EQ(sonratest::concat(header(2, 3 * rate / 50, ssrc), {3}), rig.sent[1]); // empty: no number, a tick
        rig.node->reset(5);
        rig.step(bytesFrame({4}));
        EXPECT_EQ(4 * rate / 50 + 5, SonraRtpPacket(bytesFrame(rig.sent[2])).timeStamp());
        rig.node->clearSendHandler();
        rig.step(bytesFrame({5}));
        EXPECT_EQ(3u, rig.sent.size());
    }
    SenderRig rig;
    for (unsigned i = 0; i < 65537; ++i)
        rig.step(bytesFrame({1}));
    for (unsigned i : {65533u, 65534u, 65535u, 65536u})
        EXPECT_EQ((i + 1) % 65536, SonraRtpPacket(bytesFrame(rig.sent[i])).seqNum());
}

TEST(RtpSender, DrawsTheSsrcFromTimeAndTheReseededGenerator)
{
    for (;;) {
        const std::time_t now = std::time(0);
        ssrcOfNewSender();
        const unsigned second = ssrcOfNewSender(), third = ssrcOfNewSender();
        std::srand(static_cast<unsigned>(now));
        const uint32_t r = (uint32_t(std::rand()) << 16) + uint32_t(std::rand());
        unsigned char block[8], digest[16];
        for (unsigned i = 0; i < 4; ++i) {
            block[i] = static_cast<unsigned char>(uint32_t(now) >> (8 * i));
            block[4 + i] = static_cast<unsigned char>(r >> (8 * i));
        }
        MD5_CTX context;
        MD5Init(&context);
        MD5Update(&context, block, 8);
        MD5Final(digest, &context);
        uint32_t folded = 0;
        for (unsigned i = 0; i < 12; ++i)
            folded ^= uint32_t(digest[i]) << (8 * (i % 4));
        if (std::time(0) != now)
            continue; // a second boundary fell between the draws
        EXPECT_EQ(second, third);
        EXPECT_EQ(folded, second);
        return;
    }
}

struct ReceiverRig : sonratest::NodeGraph<SonraRtpReceiverNode> {
    ReceiverRig() : NodeGraph(20, 8000) {}
    std::vector<Bytes> feed(const std::vector<Bytes>& datagrams, unsigned frames)
    {
        for (const Bytes& datagram : datagrams)
            node->dataReceived(bytesFrame(datagram));
        std::vector<Bytes> out;
        for (unsigned i = 0; i < frames; ++i)
            if (const Frame frame = step())
                out.push_back(bytesOf(frame));
        return out;
    }
};

TEST(RtpReceiver, DeliversItsTypeWhateverTheHeaderBitsAndDropsTheRest)
{
    ReceiverRig rig;
    EXPECT_TRUE(rig.feed({}, 3).empty());
    rig.node->dataReceived(Frame());
    const Bytes big(2048, 2), tooBig(2049, 3), csrcWord = {0, 0, 0, 9};
    const std::vector<Bytes> out = rig.feed(
        {packetOf(1, 0, {1}), Bytes(11, 0x80), packetOf(2, 160, {4}, 0x80, 0x00), packetOf(2, 160, tooBig),
         packetOf(2, 160, csrcWord, 0xb1, 0x88), packetOf(3, 320, big), packetOf(4, 480, {})},
        12);
    EXPECT_EQ((std::vector<Bytes>{{1}, csrcWord, big, {}}), out);

    rig.node->reset(0);
    EXPECT_TRUE(rig.feed({}, 3).empty());
    rig.node->setPayloadType(0);
    EXPECT_EQ(std::vector<Bytes>{{5}}, rig.feed({packetOf(9, 1440, {6}), packetOf(9, 1440, {5}, 0x80, 0)}, 10));
}

TEST(RtpReceiver, OneLostPacketCostsTwentyFramesUnlessConcealed)
{
    const struct { bool concealment; unsigned delivered; } cases[] = {{false, 116}, {true, 196}}; // of 196 sent
    for (const auto& c : cases) {
        ReceiverRig rig;
        rig.node->setLossConcealment(c.concealment);
        unsigned delivered = 0;
        for (unsigned seq = 0; seq < 230; ++seq) {
            const bool lost = (seq % 40 == 20 && seq < 160) || seq >= 200; // 4 of 200
            delivered += rig.feed(lost ? std::vector<Bytes>() : std::vector<Bytes>{packetOf(seq, seq * 160, {1})}, 1)
                             .size();
        }
        EXPECT_EQ(c.delivered, delivered) << c.concealment;
    }
}

namespace {

Bytes rtp(unsigned pt, unsigned seq, unsigned ts, unsigned ssrc, const Bytes& payload)
{
    Bytes packet = sonratest::concat(header(seq, ts, ssrc), payload);
    packet[1] = static_cast<unsigned char>(pt);
    return packet;
}

// Datagrams by the graph frame they arrive in.
typedef std::multimap<unsigned, Bytes> Arrivals;

// G.711 packets of the given durations (ms, cycling), each arriving in the frame of its last sample.
Arrivals packetise(const Bytes& codes, const std::vector<unsigned>& durations, unsigned pt)
{
    Arrivals arrivals;
    for (unsigned first = 0, seq = 0, count; first < codes.size(); first += count, ++seq) {
        count = std::min<unsigned>(8 * durations[seq % durations.size()], unsigned(codes.size()) - first);
        arrivals.emplace((first + count - 1) / 160, rtp(pt, seq, first, 7, sonratest::slice(codes, first, count)));
    }
    return arrivals;
}

// A decoding receiver in a 20 ms graph; the output frames from the first on, and how many were empty after it.
struct DecodingRig : sonratest::NodeGraph<SonraRtpReceiverNode> {
    explicit DecodingRig(unsigned rate = 8000) : NodeGraph(20, rate) { node->setDecodedOutput(true); }
    std::vector<sonratest::Samples> play(const Arrivals& arrivals, unsigned frames)
    {
        std::vector<sonratest::Samples> out;
        for (unsigned f = 0; f < frames; ++f) {
            for (auto at = arrivals.lower_bound(f); at != arrivals.upper_bound(f); ++at)
                node->dataReceived(bytesFrame(at->second));
            const Frame frame = step();
            gaps += !frame && !out.empty();
            if (frame || !out.empty())
                out.push_back(sonratest::samplesOf(frame));
        }
        return out;
    }
    unsigned gaps = 0;
};

sonratest::Samples joined(const std::vector<sonratest::Samples>& frames)
{
    sonratest::Samples all;
    for (const auto& frame : frames)
        all = sonratest::concat(all, frame);
    return all;
}

// What a piece of code writes to the standard error stream (SpeexDSP warns there).
struct StderrCapture {
    StderrCapture() : file(std::tmpfile()), saved(dup(2)) { std::fflush(stderr), dup2(fileno(file), 2); }
    std::string text()
    {
        std::fflush(stderr), dup2(saved, 2), close(saved);
        std::string all(static_cast<std::size_t>(std::ftell(file)), '\0');
        std::rewind(file);
        all.resize(std::fread(&all[0], 1, all.size(), file));
        std::fclose(file);
        return all;
    }
    FILE* file;
    int saved;
};

} // namespace

TEST(RtpReceiverDecoded, PlaysEveryPacketDurationWholeAndInOrder)
{
    const sonratest::Samples speech = sonratest::speechLike(8000, 16000);
    Bytes alaw, ulaw;
    for (int16_t sample : speech)
        alaw.push_back(linear2alaw(sample)), ulaw.push_back(linear2ulaw(sample));
    sonratest::Samples fromAlaw, fromUlaw;
    for (std::size_t i = 0; i < speech.size(); ++i)
        fromAlaw.push_back(alaw2linear(alaw[i])), fromUlaw.push_back(ulaw2linear(ulaw[i]));
    // 175 ms: the 1400-byte packets that fill an Ethernet MTU; the last: a duration changing mid-call
    const std::vector<std::vector<unsigned> > durations = {{5}, {10}, {20}, {30}, {40}, {60}, {175}, {10, 20, 10, 5, 30}};
    for (const auto& duration : durations)
        for (bool mu : {false, true}) {
            DecodingRig rig;
            StderrCapture errors;
            const auto out = rig.play(packetise(mu ? ulaw : alaw, duration, mu ? 0 : 8), 125);
            EXPECT_EQ("", errors.text());
            EXPECT_EQ(0u, rig.gaps) << duration[0];
            const sonratest::Samples played = joined(out);
            ASSERT_GE(played.size(), speech.size()) << duration[0];
            EXPECT_EQ(mu ? fromUlaw : fromAlaw, sonratest::slice(played, 0, speech.size())) << duration[0] << " mu " << mu;
            EXPECT_EQ(0u, rig.node->statistics().packetsLate);
        }
}

TEST(RtpReceiverDecoded, OpusFromTheSenderMatchesLibopusAndALostPacketComesBackFromFec)
{
    for (unsigned rate : {48000u, 16000u}) {
        const unsigned n = rate / 50; // samples per frame
        sonratest::NodeGraph<SonraOpusEncNode> encoding(boost::make_shared<SonraOpusEncNode>(sonratest::ioService(), 20, rate));
        encoding.node->setInbandFec(10);
        const auto sender = boost::make_shared<SonraRtpSenderNode>(sonratest::ioService(), 20, rate);
        sender->setWirePayloadType(107);
        sender->setClockRate(48000);
        std::vector<Bytes> sent;
        sender->setSendHandler([&sent](Frame packet) { sent.push_back(bytesOf(packet)); });
        encoding.pipe->connect(encoding.node, sender);
        const sonratest::Samples speech = sonratest::speechLike(rate, 50 * n);
        for (unsigned f = 0; f < 50; ++f)
            encoding.run(sonratest::slice(speech, f * n, n));
        ASSERT_EQ(50u, sent.size());
        EXPECT_EQ(107, sent[1][1]);
        EXPECT_EQ(960u, SonraRtpPacket(bytesFrame(sent[1])).timeStamp());

        Arrivals arrivals;
        for (unsigned k = 0; k < 50; ++k)
            if (k != 20)
                arrivals.emplace(k, sent[k]);
        DecodingRig rig(rate);
        rig.node->mapPayloadType(107, SonraRtpReceiverNode::CODEC_OPUS);
        const sonratest::Samples played = joined(rig.play(arrivals, 56));

        int error = 0;
        OpusDecoder* decoder = opus_decoder_create(static_cast<opus_int32>(rate), 1, &error);
        sonratest::Samples reference(50 * n);
        for (unsigned k = 0; k < 50; ++k) {
            const Bytes& packet = sent[k == 20 ? 21 : k];
            EXPECT_EQ(int(n), opus_decode(decoder, packet.data() + 12, static_cast<opus_int32>(packet.size() - 12),
                                          &reference[k * n], static_cast<int>(n), k == 20));
        }
        opus_decoder_destroy(decoder);
        EXPECT_EQ(reference, sonratest::slice(played, 0, reference.size())) << rate;
        EXPECT_EQ(1u, rig.node->statistics().packetsLost);
    }
}

TEST(RtpReceiverDecoded, LockedOntoOneSourceItPlaysThroughAFloodAndASecondStreamUntilItStops)
{
    const unsigned frames = 550; // 11 s
    const sonratest::Samples speech = sonratest::speechLike(8000, frames * 160);
    Bytes alaw;
    sonratest::Samples reference;
    for (int16_t sample : speech)
        alaw.push_back(linear2alaw(sample)), reference.push_back(alaw2linear(alaw.back()));
    Arrivals arrivals;
    std::mt19937 random(19);
    for (unsigned i = 0; i < 50000; ++i) { // half RTP-looking, payload type 8, random numbers; half anything
        Bytes junk(12 + random() % 160);
        std::generate(junk.begin(), junk.end(), [&random] { return static_cast<unsigned char>(random()); });
        if (i % 2 == 0)
            junk[0] = 0x80, junk[1] = 8;
        arrivals.emplace(i * frames / 50000, junk);
    }
    const Arrivals stream = packetise(alaw, {20}, 8);
    arrivals.insert(stream.begin(), stream.end());
    for (unsigned k = 300; k < frames + 40; ++k) // another source, from 6 s on, that outlasts the first
        arrivals.emplace(k, rtp(8, k, 160 * k, 9, Bytes(160, 0x2a)));
    DecodingRig rig;
    rig.node->setSourceLock(true);
    const std::vector<sonratest::Samples> out = rig.play(arrivals, frames + 40);
    unsigned whole = 0;
    for (unsigned k = 0; k < frames && k < out.size(); ++k)
        whole += out[k] == sonratest::slice(reference, k * 160, 160);
    EXPECT_GE(whole, frames * 99 / 100);
    EXPECT_GT(rig.node->statistics().refusedOtherSource, 20000u);
    EXPECT_EQ(1u, rig.node->statistics().sourceChanges);
    EXPECT_EQ(sonratest::Samples(160, alaw2linear(0x2a)), out.back());
}

TEST(RtpReceiverDecoded, ComfortNoiseAtItsLevelEventsAsDigitsRefusalsByReason)
{
    DecodingRig rig;
    rig.node->mapPayloadType(101, SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT);
    Arrivals arrivals;
    for (unsigned k = 0; k < 10; ++k)
        arrivals.emplace(k, rtp(8, k, 160 * k, 7, Bytes(160, 0xd5)));
    arrivals.emplace(10, rtp(13, 10, 1600, 7, {30})); // -30 dBov
    arrivals.emplace(11, rtp(101, 11, 1760, 7, {5, 0x0a, 0, 160}));
    for (unsigned seq : {12, 13}) // the end of the event, repeated
        arrivals.emplace(12, rtp(101, seq, 1760, 7, {5, 0x8a, 1, 64}));
    arrivals.emplace(14, rtp(101, 14, 2400, 7, {11, 0x8a, 0, 160}));
    arrivals.emplace(15, rtp(96, 15, 2560, 7, {1}));
    arrivals.emplace(15, sonratest::concat(Bytes{0x40}, rtp(8, 15, 2560, 7, {1})));
    arrivals.emplace(16, rtp(8, 16, 2720, 7, Bytes(SonraRtpReceiverNode::MAX_PAYLOAD_SIZE + 1, 0xd5)));
    const std::vector<sonratest::Samples> out = rig.play(arrivals, 60);
    const sonratest::Samples noise = joined(std::vector<sonratest::Samples>(out.begin() + 12, out.begin() + 50));
    EXPECT_NEAR(32767 * std::pow(10, -1.5), sonratest::rms(noise), 30);
    EXPECT_EQ("5#", rig.node->digits());
    const SonraRtpReceiverNode::Statistics stats = rig.node->statistics();
    EXPECT_EQ((std::vector<uint64_t>{4, 0, 1, 2, 11, 0}), (std::vector<uint64_t>{stats.eventPackets, stats.packetsLate,
              stats.refusedUnmapped, stats.refusedMalformed, stats.packetsPlayed, stats.concealedMs}));
    EXPECT_EQ(96, stats.lastUnmappedPayloadType);

    // Comfort noise that opens a stream lasts one 20 ms packet: the audio after it plays whole.
    DecodingRig opening;
    Arrivals noiseFirst{{0, rtp(13, 0, 0, 7, {40})}};
    Bytes codes;
    sonratest::Samples audio;
    for (unsigned k = 0; k < 480; ++k)
        codes.push_back(Bytes::value_type(k * 7)), audio.push_back(alaw2linear(codes.back()));
    for (unsigned k = 1; k <= 3; ++k)
        noiseFirst.emplace(k, rtp(8, k, 160 * k, 7, sonratest::slice(codes, 160 * (k - 1), 160)));
    EXPECT_EQ(audio, sonratest::slice(joined(opening.play(noiseFirst, 8)), 160, 480));
}

namespace {

// The UDP payloads sent to one port, by the 20 ms frame of their arrival (Ethernet or Linux cooked captures, IPv4).
Arrivals capturedDatagrams(const std::string& file, unsigned port)
{
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* capture = pcap_open_offline(file.c_str(), error);
    Arrivals arrivals;
    if (!capture)
        return arrivals;
    const std::size_t link = pcap_datalink(capture) == DLT_LINUX_SLL ? 16 : 14; // bytes before the IP header
    pcap_pkthdr* header;
    const u_char* bytes;
    double first = -1;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        const std::size_t udp = link + 4 * (bytes[link] & 0x0f);
        if (header->caplen < udp + 8 || bytes[link - 2] != 8 || bytes[link - 1] != 0 || bytes[link + 9] != 17 ||
            (bytes[udp + 2] << 8 | bytes[udp + 3]) != int(port))
            continue;
        const double at = header->ts.tv_sec + header->ts.tv_usec / 1e6; // s
        first = first < 0 ? at : first;
        arrivals.emplace(unsigned((at - first) * 50), Bytes(bytes + udp + 8, bytes + header->caplen));
    }
    pcap_close(capture);
    return arrivals;
}

} // namespace

TEST(RtpReceiverDecoded, RealCapturesPlayEveryReceivedPacketOnceInOrder)
{
    const struct { const char* file; unsigned port, audio, events; } cases[] = { // payload types
        {"sipp_g711a.pcap", 2006, 8, 0}, {"asterisk_40msalaw.pcap", 18390, 8, 0}, {"asterisk_A_party_g711a.pcap", 35886, 8, 0},
        {"ndpi_FAX-Call-t38-CA-TDM-SIP-FB-1.pcap", 15580, 8, 100}, {"asterisk_CARRIER_G711U.pcap", 13030, 0, 0},
        {"asterisk_ulaw-2013785496.pcap", 10866, 0, 101}, {"asterisk_opus_fec_dropped.pcapng", 16596, 107, 0}};
    for (const auto& c : cases) {
        const Arrivals arrivals = capturedDatagrams(SONRA_SOURCE_DIR "/../shared/realworld/captures/" + std::string(c.file), c.port);
        ASSERT_FALSE(arrivals.empty()) << c.file;
        const bool opus = c.audio == 107;
        DecodingRig rig(opus ? 48000 : 8000);
        rig.node->setSourceLock(true);
        rig.node->mapPayloadType(107, SonraRtpReceiverNode::CODEC_OPUS);
        if (c.events)
            rig.node->mapPayloadType(c.events, SonraRtpReceiverNode::CODEC_TELEPHONE_EVENT);
        StderrCapture errors;
        const sonratest::Samples played = joined(rig.play(arrivals, arrivals.rbegin()->first + 50));
        EXPECT_EQ("", errors.text()) << c.file;
        const SonraRtpReceiverNode::Statistics stats = rig.node->statistics();
        EXPECT_EQ(0u, stats.packetsLate + stats.refusedUnmapped + stats.refusedMalformed) << c.file;
        std::map<unsigned, Bytes> audio; // payloads of the stream by sequence number, unwrapped
        unsigned seqNum = 1u << 20;
        for (const auto& at : arrivals)
            if (at.second[1] % 128 == c.audio) {
                seqNum = audio.empty() ? seqNum + (at.second[2] << 8 | at.second[3])
                                       : seqNum + int16_t((at.second[2] << 8 | at.second[3]) - seqNum);
                audio[seqNum] = Bytes(at.second.begin() + 12, at.second.end());
            }
        if (opus) { // against bare libopus on the same packets, a lost one from its successor's FEC data
            OpusDecoder* decoder = opus_decoder_create(48000, 1, nullptr);
            sonratest::Samples reference;
            for (unsigned seq = audio.begin()->first; seq <= audio.rbegin()->first; ++seq) {
                const auto packet = audio.count(seq) ? audio.find(seq) : audio.find(seq + 1);
                sonratest::Samples pcm(960);
                const bool lost = !audio.count(seq), fec = lost && packet != audio.end();
                EXPECT_EQ(960, opus_decode(decoder, fec || !lost ? packet->second.data() : nullptr,
                                           fec || !lost ? int(packet->second.size()) : 0, pcm.data(), 960, fec));
                reference = sonratest::concat(reference, pcm);
            }
            opus_decoder_destroy(decoder);
            const auto differs = std::mismatch(reference.begin(), reference.end(), played.begin());
            EXPECT_EQ(reference.size(), std::size_t(differs.first - reference.begin()));
            continue;
        }
        std::size_t matched = 0, position = 0;
        for (const auto& packet : audio) {
            sonratest::Samples samples;
            for (unsigned char code : packet.second)
                samples.push_back(c.audio == 0 ? ulaw2linear(code) : alaw2linear(code));
            const auto found = std::search(played.begin() + long(position), played.end(), samples.begin(), samples.end());
            matched += found != played.end();
            position = found != played.end() ? std::size_t(found - played.begin()) + samples.size() : position;
        }
        EXPECT_GE(matched * 100, audio.size() * 99) << c.file << " " << matched << " of " << audio.size();
        EXPECT_LE(stats.insertedMs, 100u) << c.file;
        EXPECT_GE(stats.packetsPlayed * 100, stats.packetsReceived * 99) << c.file;
    }
}
