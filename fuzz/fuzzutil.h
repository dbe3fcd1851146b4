// What every fuzz target shares: a reader that turns the fuzzer's bytes
// into choices, a writer that builds seed inputs in the same layout, and an
// oracle check that stops the run like a crash.
#ifndef SONRA_FUZZUTIL_H
#define SONRA_FUZZUTIL_H

#include "testutil.h"
#include "sonramemoryvsndfilevfs.h"
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

// A graph frame duration (ms) and rate (Hz) every node accepts.
struct GraphConfig {
    unsigned frameDuration, sampleRate;
};

inline GraphConfig graphConfig(Reader& in)
{
    static const unsigned DURATIONS[] = {10, 20, 30, 40, 60};                 // ms
    static const unsigned RATES[] = {8000, 16000, 24000, 32000, 44100, 48000}; // Hz
    return {DURATIONS[in.choice(5)], RATES[in.choice(6)]};
}

// Short sound files (0.2 s of speech-like signal each) that libsndfile
// writes through a memory file: WAV, FLAC, Ogg Vorbis and AIFF at several
// rates and channel counts, then a truncated FLAC and an Ogg with a mangled
// page; each after its own prefix of choices (six prefixes).
inline std::vector<Bytes> soundFileSeeds(const std::vector<Bytes>& prefixes)
{
    struct Format {
        int format, rate, channels;
    };
    static const Format FORMATS[] = {{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1},
                                     {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16000, 1},
                                     {SF_FORMAT_OGG | SF_FORMAT_VORBIS, 22050, 1},
                                     {SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 11025, 2}};
    auto memory = boost::make_shared<ombrel::SonraMemoryVSndFileVfs>();
    std::vector<std::vector<char> > files;
    for (const Format& f : FORMATS) {
        const std::vector<int16_t> speech = sonratest::speechLike(f.rate, f.rate / 5 * f.channels);
        SF_INFO info = SF_INFO();
        info.samplerate = f.rate, info.channels = f.channels, info.format = f.format;
        memory->open("seed", ombrel::VFS_WRITE);
        SNDFILE* file = sf_open_virtual(memory->virtualIo().get(), SFM_WRITE, &info,
                                        static_cast<ombrel::SonraVSndFileVfs*>(memory.get()));
        sf_writef_short(file, speech.data(), f.rate / 5);
        sf_close(file);
        memory->close();
        files.push_back(memory->file("seed"));
    }
    files.push_back(std::vector<char>(files[1].begin(), files[1].begin() + files[1].size() / 2));
    files.push_back(files[2]);
    for (std::size_t i = files.back().size() / 2; i < files.back().size() / 2 + 64; ++i)
        files.back()[i] ^= 0x5a;
    std::vector<Bytes> seeds = prefixes;
    for (std::size_t i = 0; i < seeds.size(); ++i)
        seeds[i].insert(seeds[i].end(), files[i].begin(), files[i].end());
    return seeds;
}

} // namespace sonrafuzz

// Each target defines the fuzzer's entry point and the seeds of its corpus,
// built with the library itself.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
std::vector<sonrafuzz::Bytes> fuzzSeeds();

#endif
