// Acoustic echo cancellation for the device library: removes from what a
// device captures the echo of what it played, block by block.
#ifndef OMBREL_SONRAECHOCANCELLER_H
#define OMBREL_SONRAECHOCANCELLER_H

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>

namespace ombrel {

struct SonraEchoCanceller_p;

// One canceller for one full-duplex stream. Samples are 16-bit interleaved
// PCM in blocks of the stream's size; the engines work on 10 ms chunks,
// so blocks that are not a whole number of chunks are re-blocked, which
// delays the captured signal by one chunk (latencyFrames()).
// Not thread-safe: one thread (the device's) calls playback() and capture().
class SonraEchoCanceller : private boost::noncopyable {
public:
    // The two cancellers to choose from.
    enum Engine {
        // WebRTC audio-processing's canceller (adaptive filter with delay
        // estimation, then its non-linear residual echo suppressor).
        WEBRTC,
        // SpeexDSP's MDF canceller, then its preprocessor's residual echo
        // suppression.
        SPEEX
    };
    // The engine with the better figures on the simulated rooms (docs/echo.md).
    static const Engine DEFAULT_ENGINE;
    static const unsigned MIN_SAMPLE_RATE = 8000;  // Hz
    static const unsigned MAX_SAMPLE_RATE = 48000; // Hz

    // Whether `engine` runs at `sampleRate`: WebRTC needs whole 10 ms chunks
    // (a rate that is a multiple of 100 Hz), SpeexDSP takes any rate; both
    // from 8 to 48 kHz.
    static bool supports(Engine engine, unsigned sampleRate);
    // DEFAULT_ENGINE where it runs at `sampleRate`, otherwise the other.
    static Engine defaultEngine(unsigned sampleRate);
    // A readable name: "webrtc" or "speex".
    static const char* engineName(Engine engine);

    // `blockFrames`: samples per channel of one device block. WebRTC's
    // engine at a rate it does not run at is replaced by SpeexDSP's
    // (engine()); outside 8 to 48 kHz neither is promised.
    SonraEchoCanceller(Engine engine, unsigned sampleRate, unsigned captureChannels, unsigned playbackChannels,
                       unsigned blockFrames);
    ~SonraEchoCanceller();

    // The engine that runs (WebRTC's may be replaced, see the constructor).
    Engine engine() const;
    // Samples per channel by which capture()'s output lags its input.
    unsigned latencyFrames() const;

    // What the loudspeaker was just given (blockFrames × playbackChannels):
    // the reference for the echo in what is captured next. Channels are
    // mixed to one reference.
    void playback(const short* played);
    // Removes the echo from one captured block (blockFrames ×
    // captureChannels) in place.
    void capture(short* captured);

private:
    boost::scoped_ptr<SonraEchoCanceller_p> d;
};

} // namespace ombrel

#endif
