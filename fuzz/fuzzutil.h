// What every fuzz target shares: a reader that turns the fuzzer's bytes
// into choices, a writer that builds seed inputs in the same layout, and an
// oracle check that stops the run like a crash.
#ifndef SONRA_FUZZUTIL_H
#define SONRA_FUZZUTIL_H

#include "testutil.h"
#include "sonraopusencnode.h"
#include "sonrasendernode.h"

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#define FUZZ_CHECK(condition)                                                                     \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "oracle failed: %s at %s:%d\n", #condition, __FILE__, __LINE__); \
            std::abort();                                                                         \
        }                                                                                         \
    } while (0)

namespace sonrafuzz {

typedef boost::shared_ptr<std::vector<char> > Frame;
typedef std::vector<uint8_t> Bytes;

using sonratest::ioService;

// `count` frames of speech-like signal through an encoder node and, when
// `packets`, a sender node: what a peer would send.
template <class Encoder = ombrel::SonraOpusEncNode, class Sender = ombrel::SonraSenderNode>
std::vector<Frame> encodedSpeech(unsigned frameDuration, unsigned sampleRate, unsigned count, bool packets)
{
    using namespace ombrel;
    sonratest::QueueSource source;
    auto encoder = boost::make_shared<Encoder>(ioService(), frameDuration, sampleRate);
    auto sender = boost::make_shared<Sender>(ioService(), frameDuration, sampleRate);
    auto pipe = boost::make_shared<SonraPipe>(frameDuration);
    pipe->connect(source.node(frameDuration, sampleRate), encoder);
    std::vector<Frame> out;
    if (packets) {
        pipe->connect(encoder, sender);
        sender->setSendHandler([&out](Frame packet) { out.push_back(packet); });
    }
    const std::size_t samples = SonraNode::frameSize(frameDuration, sampleRate) / 2;
    const std::vector<int16_t> speech = sonratest::speechLike(sampleRate, samples * count);
    for (unsigned i = 0; i < count; ++i) {
        source.push(sonratest::slice(speech, i * samples, samples));
        pipe->processFrame();
        if (!packets)
            out.push_back(encoder->outputData());
    }
    return out;
}

// Reads past the end as zeros, so every input is a complete program.
class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : m_data(data), m_size(size), m_at(0) {}
    bool done() const { return m_at >= m_size; }
    uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    unsigned u16() { return byte() | unsigned(byte()) << 8; }
    uint32_t u32() { return u16() | uint32_t(u16()) << 16; }
    unsigned choice(unsigned count) { return byte() % count; }
    // A length byte (or two when `wide`), then that many bytes (fewer at the end).
    Frame block(bool wide = false)
    {
        const std::size_t wanted = wide ? u16() : byte();
        const std::size_t length = std::min(wanted, m_size - std::min(m_at, m_size));
        auto frame = boost::make_shared<std::vector<char> >(m_data + m_at, m_data + m_at + length);
        m_at += length;
        return frame;
    }

private:
    const uint8_t* m_data;
    std::size_t m_size, m_at;
};

// Builds inputs in Reader's layout.
struct Writer {
    Bytes bytes;
    Writer& byte(unsigned value) { bytes.push_back(static_cast<uint8_t>(value)); return *this; }
    Writer& u16(unsigned value) { return byte(value).byte(value >> 8); }
    Writer& u32(uint32_t value) { return u16(value).u16(value >> 16); }
    Writer& block(const std::vector<char>& data, bool wide = false)
    {
        wide ? u16(unsigned(data.size())) : byte(unsigned(data.size()));
        bytes.insert(bytes.end(), data.begin(), data.end());
        return *this;
    }
};

} // namespace sonrafuzz

// Each target defines the fuzzer's entry point and the seeds of its corpus,
// built with the library itself.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
std::vector<sonrafuzz::Bytes> fuzzSeeds();

#endif
