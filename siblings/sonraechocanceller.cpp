#include "sonraechocanceller.h"

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace ombrel {

const SonraEchoCanceller::Engine SonraEchoCanceller::DEFAULT_ENGINE = SonraEchoCanceller::WEBRTC;

namespace {

const unsigned CHUNK_MS = 10;           // ms, what both engines process at once
// ms of echo path the MDF filter models: longer filters converge slower
// and, on the test rooms, end no better (docs/echo.md).
const unsigned SPEEX_FILTER_MS = 160;
const unsigned MAX_REFERENCE_MS = 1000; // ms of reference kept when nothing is captured
const float PCM_SCALE = 32768.0f;       // 16-bit full scale, WebRTC's floats are within [-1, 1]

short saturate(float value)
{
    return static_cast<short>(std::lround(std::min(32767.0f, std::max(-32768.0f, value))));
}

// One 10 ms chunk at a time: the near end interleaved, the far end mono.
class ChunkEngine {
public:
    virtual ~ChunkEngine() = default;
    virtual void process(const short* nearEnd, const short* farEnd, short* cleaned) = 0;
};

// One MDF canceller and one preprocessor per captured channel: the
// preprocessor reads the canceller's residual echo estimate and suppresses
// what the filter left.
class SpeexEngine : public ChunkEngine {
public:
    SpeexEngine(unsigned sampleRate, unsigned channels, unsigned chunkFrames)
        : m_channels(channels), m_chunkFrames(chunkFrames), m_near(chunkFrames), m_out(chunkFrames)
    {
        int rate = static_cast<int>(sampleRate);
        const int filterFrames = static_cast<int>(sampleRate * SPEEX_FILTER_MS / 1000);
        for (unsigned c = 0; c < channels; ++c) {
            SpeexEchoState* echo = speex_echo_state_init(static_cast<int>(chunkFrames), filterFrames);
            speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
            SpeexPreprocessState* preprocess = speex_preprocess_state_init(static_cast<int>(chunkFrames), rate);
            speex_preprocess_ctl(preprocess, SPEEX_PREPROCESS_SET_ECHO_STATE, echo);
            m_echo.push_back(echo);
            m_preprocess.push_back(preprocess);
        }
    }
    ~SpeexEngine() override
    {
        for (unsigned c = 0; c < m_channels; ++c) {
            speex_preprocess_state_destroy(m_preprocess[c]);
            speex_echo_state_destroy(m_echo[c]);
        }
    }

    void process(const short* nearEnd, const short* farEnd, short* cleaned) override
    {
        for (unsigned c = 0; c < m_channels; ++c) {
            for (unsigned i = 0; i < m_chunkFrames; ++i)
                m_near[i] = nearEnd[i * m_channels + c];
            speex_echo_cancellation(m_echo[c], m_near.data(), farEnd, m_out.data());
            speex_preprocess_run(m_preprocess[c], m_out.data());
            for (unsigned i = 0; i < m_chunkFrames; ++i)
                cleaned[i * m_channels + c] = m_out[i];
        }
    }

private:
    const unsigned m_channels;
    const unsigned m_chunkFrames; // samples per channel
    std::vector<SpeexEchoState*> m_echo;
    std::vector<SpeexPreprocessState*> m_preprocess;
    std::vector<spx_int16_t> m_near, m_out; // one channel's chunk
};

// WebRTC's full canceller on every captured channel, with a mono reference:
// its extended filter for long rooms (without it, a delay jump is never
// recovered), its own delay estimate (a sound card's latency is not known
// to the sample), and low suppression of what the filter leaves: on the
// test rooms the higher levels remove no more echo once the filter has
// converged, but cut into the near end's voice in double talk.
class WebRtcEngine : public ChunkEngine {
public:
    WebRtcEngine(unsigned sampleRate, unsigned channels, unsigned chunkFrames, unsigned delayHintMs)
        : m_channels(channels),
          m_chunkFrames(chunkFrames),
          m_delayHintMs(static_cast<int>(delayHintMs)),
          m_nearConfig(static_cast<int>(sampleRate), static_cast<int>(channels)),
          m_farConfig(static_cast<int>(sampleRate), 1),
          m_near(static_cast<std::size_t>(channels) * chunkFrames),
          m_far(chunkFrames)
    {
        webrtc::Config config;
        config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
        config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
        m_apm.reset(webrtc::AudioProcessing::Create(config));
        webrtc::EchoCancellation* aec = m_apm->echo_cancellation();
        aec->enable_drift_compensation(false);
        aec->set_suppression_level(webrtc::EchoCancellation::kLowSuppression);
        aec->Enable(true);
        for (unsigned c = 0; c < channels; ++c)
            m_nearChannels.push_back(m_near.data() + static_cast<std::size_t>(c) * chunkFrames);
    }

    void process(const short* nearEnd, const short* farEnd, short* cleaned) override
    {
        for (unsigned i = 0; i < m_chunkFrames; ++i)
            m_far[i] = farEnd[i] / PCM_SCALE;
        float* far = m_far.data();
        m_apm->ProcessReverseStream(&far, m_farConfig, m_farConfig, &far);
        for (unsigned i = 0; i < m_chunkFrames; ++i) {
            for (unsigned c = 0; c < m_channels; ++c)
                m_nearChannels[c][i] = nearEnd[i * m_channels + c] / PCM_SCALE;
        }
        m_apm->set_stream_delay_ms(m_delayHintMs);
        m_apm->ProcessStream(m_nearChannels.data(), m_nearConfig, m_nearConfig, m_nearChannels.data());
        for (unsigned i = 0; i < m_chunkFrames; ++i) {
            for (unsigned c = 0; c < m_channels; ++c)
                cleaned[i * m_channels + c] = saturate(m_nearChannels[c][i] * PCM_SCALE);
        }
    }

private:
    const unsigned m_channels;
    const unsigned m_chunkFrames; // samples per channel
    const int m_delayHintMs;      // ms from handing a chunk to the loudspeaker to capturing its echo, at least
    const webrtc::StreamConfig m_nearConfig, m_farConfig;
    std::unique_ptr<webrtc::AudioProcessing> m_apm;
    std::vector<float> m_near;          // channel after channel
    std::vector<float*> m_nearChannels; // into m_near
    std::vector<float> m_far;
};

} // namespace

struct SonraEchoCanceller_p {
    SonraEchoCanceller::Engine m_engine;
    unsigned m_captureChannels;
    unsigned m_playbackChannels;
    unsigned m_blockFrames;    // samples per channel of one device block
    unsigned m_chunkFrames;    // samples per channel of one engine chunk
    unsigned m_latencyFrames;  // samples per channel the output lags the input
    std::unique_ptr<ChunkEngine> m_chunkEngine;
    std::vector<short> m_nearQueue;    // captured, interleaved, not yet processed
    std::vector<short> m_farQueue;     // played, mixed to mono, not yet used as reference
    std::vector<short> m_cleanedQueue; // processed, interleaved, not yet handed back
    std::vector<short> m_silentFar;    // one chunk of silence: the reference before anything was played
};

bool SonraEchoCanceller::supports(Engine engine, unsigned sampleRate)
{
    const bool inRange = sampleRate >= MIN_SAMPLE_RATE && sampleRate <= MAX_SAMPLE_RATE;
    return inRange && (engine == SPEEX || sampleRate % (1000 / CHUNK_MS) == 0);
}

SonraEchoCanceller::Engine SonraEchoCanceller::defaultEngine(unsigned sampleRate)
{
    return supports(DEFAULT_ENGINE, sampleRate) ? DEFAULT_ENGINE : SPEEX;
}

const char* SonraEchoCanceller::engineName(Engine engine)
{
    return engine == SPEEX ? "speex" : "webrtc";
}

SonraEchoCanceller::SonraEchoCanceller(Engine engine, unsigned sampleRate, unsigned captureChannels,
                                       unsigned playbackChannels, unsigned blockFrames)
    : d(new SonraEchoCanceller_p)
{
    d->m_engine = supports(engine, sampleRate) ? engine : SPEEX;
    d->m_captureChannels = captureChannels;
    d->m_playbackChannels = playbackChannels;
    d->m_blockFrames = blockFrames;
    d->m_chunkFrames = std::max(1u, sampleRate * CHUNK_MS / 1000);
    // Whole chunks in a block go straight through; otherwise one chunk of
    // silence leads, so that a full block is always ready.
    d->m_latencyFrames = blockFrames % d->m_chunkFrames == 0 ? 0 : d->m_chunkFrames;
    d->m_cleanedQueue.assign(static_cast<std::size_t>(d->m_latencyFrames) * captureChannels, 0);
    d->m_silentFar.assign(d->m_chunkFrames, 0);
    const unsigned blockMs = blockFrames * 1000 / std::max(1u, sampleRate);
    if (d->m_engine == SPEEX)
        d->m_chunkEngine.reset(new SpeexEngine(sampleRate, captureChannels, d->m_chunkFrames));
    else
        d->m_chunkEngine.reset(new WebRtcEngine(sampleRate, captureChannels, d->m_chunkFrames,
                                                blockMs + d->m_latencyFrames * 1000 / sampleRate));
}

SonraEchoCanceller::~SonraEchoCanceller() = default;

SonraEchoCanceller::Engine SonraEchoCanceller::engine() const
{
    return d->m_engine;
}

unsigned SonraEchoCanceller::latencyFrames() const
{
    return d->m_latencyFrames;
}

void SonraEchoCanceller::playback(const short* played)
{
    const unsigned channels = d->m_playbackChannels;
    for (unsigned i = 0; i < d->m_blockFrames; ++i) {
        int sum = 0;
        for (unsigned c = 0; c < channels; ++c)
            sum += played[i * channels + c];
        d->m_farQueue.push_back(static_cast<short>(sum / static_cast<int>(std::max(1u, channels))));
    }
    // A stream that plays without capturing must not hoard its reference.
    const std::size_t maxFrames = static_cast<std::size_t>(d->m_chunkFrames) * MAX_REFERENCE_MS / CHUNK_MS;
    if (d->m_farQueue.size() > maxFrames)
        d->m_farQueue.erase(d->m_farQueue.begin(), d->m_farQueue.end() - static_cast<std::ptrdiff_t>(maxFrames));
}

void SonraEchoCanceller::capture(short* captured)
{
    const std::size_t chunkSamples = static_cast<std::size_t>(d->m_chunkFrames) * d->m_captureChannels;
    const std::size_t blockSamples = static_cast<std::size_t>(d->m_blockFrames) * d->m_captureChannels;
    d->m_nearQueue.insert(d->m_nearQueue.end(), captured, captured + blockSamples);
    std::size_t used = 0;
    for (; d->m_nearQueue.size() - used >= chunkSamples; used += chunkSamples) {
        const bool referenced = d->m_farQueue.size() >= d->m_chunkFrames;
        const short* far = referenced ? d->m_farQueue.data() : d->m_silentFar.data();
        const std::size_t at = d->m_cleanedQueue.size();
        d->m_cleanedQueue.resize(at + chunkSamples);
        d->m_chunkEngine->process(d->m_nearQueue.data() + used, far, d->m_cleanedQueue.data() + at);
        if (referenced)
            d->m_farQueue.erase(d->m_farQueue.begin(), d->m_farQueue.begin() + d->m_chunkFrames);
    }
    d->m_nearQueue.erase(d->m_nearQueue.begin(), d->m_nearQueue.begin() + static_cast<std::ptrdiff_t>(used));
    std::copy(d->m_cleanedQueue.begin(), d->m_cleanedQueue.begin() + static_cast<std::ptrdiff_t>(blockSamples),
              captured);
    d->m_cleanedQueue.erase(d->m_cleanedQueue.begin(),
                            d->m_cleanedQueue.begin() + static_cast<std::ptrdiff_t>(blockSamples));
}

} // namespace ombrel
