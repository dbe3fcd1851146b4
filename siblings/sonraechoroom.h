// A room to test echo control in without hardware: the acoustic path from
// a loudspeaker back into a microphone, a deterministic speech-like voice
// to play in it, and the measurement of what a canceller removed.
#ifndef OMBREL_SONRAECHOROOM_H
#define OMBREL_SONRAECHOROOM_H

#include <boost/noncopyable.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace ombrel {

// The acoustic path of a simulated room. Its impulse response is a direct
// path (`delayMs` late, `gainDb` loud) followed by a reverberant tail: a
// velvet noise (one impulse of random sign at a random place in every
// 0.5 ms, from `seed`) whose envelope falls by 60 dB over `tailMs`, its
// energy `tailDb` relative to the direct path's. The microphone adds its own
// white noise at `noiseDb`.
struct SonraEchoPath {
    SonraEchoPath();

    static const unsigned MAX_DELAY_MS = 1000; // ms
    static const unsigned MAX_TAIL_MS = 500;   // ms

    unsigned delayMs; // ms from the loudspeaker to the microphone; default 40
    double gainDb;    // dB of the direct path; default -6
    unsigned tailMs;  // ms for the tail to fall by 60 dB; default 300
    double tailDb;    // dB of the tail's energy over the direct path's; default -6
    double noiseDb;   // dB full scale, RMS of the microphone's noise; default -70
    unsigned seed;    // of the tail and the noise; default 1
};

// The simulated room of one stream: play() what the loudspeaker emits,
// capture() adds to what the microphone takes its echo and noise. A block
// played is heard during the next block captured, as on a sound card.
// The path may change while the stream runs (setPath() from any thread);
// play() and capture() belong to the stream's thread.
class SonraEchoRoom : private boost::noncopyable {
public:
    // The room at `sampleRate` (Hz) for a capture of `captureChannels`.
    SonraEchoRoom(unsigned sampleRate, unsigned captureChannels, const SonraEchoPath& path);

    // Takes effect at the next captured block: a delay jump or a gain
    // change mid-call. The tail keeps its seed, so only what changed moves.
    void setPath(const SonraEchoPath& path);
    // The path in force (any thread).
    SonraEchoPath path() const;

    // `frames` samples per channel, interleaved; channels are mixed to the
    // one loudspeaker.
    void play(const short* played, unsigned frames, unsigned channels);
    // Adds the echo and the noise to `frames` samples per channel of the
    // room's capture channels, interleaved, saturating.
    void capture(short* captured, unsigned frames);

    // The impulse response of `channel`'s path as (delay in samples, gain)
    // pairs, in delay order (each capture channel has its own tail).
    std::vector<std::pair<unsigned, float> > impulseResponse(unsigned channel) const;

    // A deterministic speech-like voice: syllables of a gliding glottal
    // pulse train through three moving formants, some fricatives, gaps
    // between syllables and longer pauses between phrases; `levelDb` (dB
    // full scale) is its RMS while it speaks. Different seeds, different
    // speakers and words.
    static std::vector<short> speechLike(unsigned sampleRate, unsigned durationMs, unsigned seed,
                                         double levelDb = -20.0);

private:
    typedef std::vector<std::pair<unsigned, float> > Taps; // delay in samples, gain

    void applyPendingPath();
    Taps buildTaps(unsigned channel) const;

    const unsigned m_sampleRate;      // Hz
    const unsigned m_captureChannels;
    mutable std::mutex m_pathMutex;   // guards m_requestedPath
    SonraEchoPath m_requestedPath;
    std::atomic<bool> m_pathChanged;
    // Owned by the stream's thread:
    SonraEchoPath m_path;
    std::vector<Taps> m_taps;          // one per capture channel
    std::vector<float> m_played;       // what the loudspeaker emitted, circular
    std::uint64_t m_playedFrames;      // samples emitted since the start
    std::vector<std::uint32_t> m_noiseState; // one generator per capture channel
};

// Echo return loss enhancement over a stream, from the energy of every
// block: what was played, what was captured (the echo and whatever else)
// and what the canceller left of it.
class SonraEchoMeter {
public:
    // The energies of one block.
    struct Block {
        double played;   // mean square of the played samples, full scale 1
        double captured; // mean square of the captured samples before cancelling
        double cleaned;  // mean square after cancelling
    };

    // `blockMs`: the duration of one block, ms.
    explicit SonraEchoMeter(unsigned blockMs = 20);

    // One block: `playedSamples` played, `capturedSamples` captured and
    // cleaned (all channels, interleaved).
    void add(const short* played, std::size_t playedSamples, const short* captured, const short* cleaned,
             std::size_t capturedSamples);

    // ms per block.
    unsigned blockMs() const { return m_blockMs; }
    // Every block so far, oldest first.
    const std::vector<Block>& blocks() const { return m_blocks; }

    // dB, captured over cleaned energy of the blocks from `fromMs` to
    // `toMs`: the enhancement while the far end alone speaks.
    double erleDb(unsigned fromMs, unsigned toMs) const;
    // dB, played over cleaned energy from `fromMs` to `toMs`: how far below
    // its own voice the far end hears its echo.
    double echoBelowSpeechDb(unsigned fromMs, unsigned toMs) const;
    // The enhancement over the `windowMs` that end with each block, one
    // value per block, counting only blocks that carry echo (captured
    // within ACTIVE_RANGE_DB of the loudest block so far): a pause of the
    // far end says nothing of the canceller. NaN for a window without
    // any, or still short at the start.
    std::vector<double> erleCurve(unsigned windowMs) const;
    static const int ACTIVE_RANGE_DB = 25; // dB: above the quietest echo the microphone noise allows to measure
    // ms from `fromMs` until the enhancement over the last `windowMs` first
    // reaches `thresholdDb`; -1 when it never does.
    int convergenceMs(double thresholdDb, unsigned fromMs = 0, unsigned windowMs = 200) const;
    // ms from `fromMs` until the enhancement holds `thresholdDb`: the end
    // of the first window carrying echo after the last one that falls
    // short of it; -1 when the last one falls short.
    int settledMs(double thresholdDb, unsigned fromMs = 0, unsigned windowMs = 200) const;

    // dB full scale RMS of samples, and the correlation coefficient of two
    // sample runs of the same length (1 for equal shapes).
    static double levelDb(const short* samples, std::size_t count);
    // The correlation coefficient of `a` and `b`, `count` samples each.
    static double correlation(const short* a, const short* b, std::size_t count);
    // The lag, in samples from 0 to `maxLag`, at which `delayed` (holding
    // count + maxLag samples) best correlates with `reference`: the
    // latency a canceller added.
    static unsigned bestLag(const short* delayed, const short* reference, std::size_t count, unsigned maxLag);

private:
    // dB, the energy of one block field over another's, from `fromMs` to `toMs`.
    double energyRatioDb(double Block::*over, double Block::*under, unsigned fromMs, unsigned toMs) const;

    unsigned m_blockMs; // ms
    std::vector<Block> m_blocks;
};

} // namespace ombrel

#endif
