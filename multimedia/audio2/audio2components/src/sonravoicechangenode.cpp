#include "sonravoicechangenode.h"

#include "sonrarounding_p.h"

#include <SoundTouch.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>

namespace ombrel {

float SonraVoiceChangeNode::PITCH_NORMAL = 1.0f;   // frequency ratio
float SonraVoiceChangeNode::PITCH_LOWER = 0.79f;   // frequency ratio
float SonraVoiceChangeNode::PITCH_LOWEST = 0.7f;   // frequency ratio
float SonraVoiceChangeNode::PITCH_HIGHER = 1.3f;   // frequency ratio
float SonraVoiceChangeNode::PITCH_HIGHEST = 1.8f;  // frequency ratio

struct SonraVoiceChangeNode_p {
    boost::scoped_ptr<soundtouch::SoundTouch> m_pitchShifter; // none when built disabled
    SonraVoiceChangeNode::Voice m_voice = SonraVoiceChangeNode::NORMAL;
};

namespace {

// The graph carries 16-bit PCM, but SoundTouch may be built for float
// samples (Debian's is: SOUNDTOUCH_FLOAT_SAMPLES), with full scale at 1.0.
// The node then converts at its boundary: x / 32768 on the way in, and on
// the way out x 32768, rounded half away from zero and saturated to 16 bits
// (SoundTouch's output may overshoot full scale). On a build for 16-bit
// samples the conversion is a plain copy.
typedef soundtouch::SAMPLETYPE ShifterSample;
const float PCM_FULL_SCALE = 32768.0f;
const float PCM_UNIT = 1.0f / PCM_FULL_SCALE; // exact: a power of two

// Samples (all channels) converted per call on the stack.
const std::size_t BLOCK_SAMPLES = 4096;

// A build of SoundTouch for 16-bit samples takes PCM as it is.
[[maybe_unused]] inline void toShifter(const int16_t* in, int16_t* out, std::size_t count)
{
    std::copy(in, in + count, out);
}

void toShifter(const int16_t* __restrict in, float* __restrict out, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k)
        out[k] = static_cast<float>(in[k]) * PCM_UNIT;
}

[[maybe_unused]] inline void fromShifter(int16_t* in, int16_t* out, std::size_t count)
{
    std::copy(in, in + count, out);
}

inline float scaledAndSaturated(float sample)
{
    const float scaled = sample * PCM_FULL_SCALE;
    const float atLeastLowest = scaled > -32768.0f ? scaled : -32768.0f; // NaN gives the lowest
    return atLeastLowest < 32767.0f ? atLeastLowest : 32767.0f;
}

// Saturates `in` in place first, then rounds: two passes, because the
// compiler vectorises each alone but not the two fused.
void fromShifter(float* __restrict in, int16_t* __restrict out, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k)
        in[k] = scaledAndSaturated(in[k]);
    for (std::size_t k = 0; k < count; ++k)
        out[k] = static_cast<int16_t>(rounding::halfAwayFromZero(in[k]));
}

// Hands the shifter `frames` sample frames of `channels` samples each.
void putFrames(soundtouch::SoundTouch& shifter, const int16_t* samples, std::size_t frames, unsigned channels)
{
    ShifterSample block[BLOCK_SAMPLES];
    const std::size_t blockFrames = BLOCK_SAMPLES / channels;
    while (frames > 0) {
        const std::size_t count = std::min(frames, blockFrames);
        const std::size_t sampleCount = count * channels;
        toShifter(samples, block, sampleCount);
        shifter.putSamples(block, static_cast<unsigned>(count));
        samples += sampleCount;
        frames -= count;
    }
}

// Takes at most `frames` sample frames into `samples`; whatever the shifter
// cannot deliver yet is left as it is.
void receiveFrames(soundtouch::SoundTouch& shifter, int16_t* samples, std::size_t frames, unsigned channels)
{
    ShifterSample block[BLOCK_SAMPLES];
    const std::size_t blockFrames = BLOCK_SAMPLES / channels;
    while (frames > 0) {
        const std::size_t wanted = std::min(frames, blockFrames);
        const std::size_t got = shifter.receiveSamples(block, static_cast<unsigned>(wanted));
        const std::size_t sampleCount = got * channels;
        fromShifter(block, samples, sampleCount);
        if (got < wanted)
            return;
        samples += sampleCount;
        frames -= got;
    }
}

// A factor SoundTouch cannot work with (zero, negative, not a number, an
// infinity) would make it divide by zero; such a setting means no change.
double usableFactor(float factor)
{
    return std::isfinite(factor) && factor > 0.0f ? factor : 1.0;
}

} // namespace

SonraVoiceChangeNode::SonraVoiceChangeNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                           unsigned frameDuration, unsigned sampleRate, bool enabled)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraVoiceChangeNode_p)
{
    if (!enabled)
        return;
    d->m_pitchShifter.reset(new soundtouch::SoundTouch);
    d->m_pitchShifter->setSampleRate(sampleRate);
    d->m_pitchShifter->setChannels(outputChannels());
}

SonraVoiceChangeNode::~SonraVoiceChangeNode()
{
    if (d->m_pitchShifter) {
        d->m_pitchShifter->flush();
        d->m_pitchShifter->clear();
    }
}

void SonraVoiceChangeNode::setVoiceType(Voice voice)
{
    if (!d->m_pitchShifter)
        return;
    d->m_voice = voice;
    float factor = PITCH_NORMAL;
    switch (voice) {
    case LOWER: factor = PITCH_LOWER; break;
    case LOWEST: factor = PITCH_LOWEST; break;
    case HIGHER: factor = PITCH_HIGHER; break;
    case HIGHEST: factor = PITCH_HIGHEST; break;
    default: break;
    }
    d->m_pitchShifter->setPitch(usableFactor(factor));
}

SonraVoiceChangeNode::Voice SonraVoiceChangeNode::voiceType() const
{
    return d->m_voice;
}

void SonraVoiceChangeNode::reset(unsigned /*offset*/)
{
    if (d->m_pitchShifter)
        d->m_pitchShifter->clear();
}

void SonraVoiceChangeNode::doSetOutputChannels(unsigned channels)
{
    if (d->m_pitchShifter)
        d->m_pitchShifter->setChannels(channels);
}

boost::shared_ptr<std::vector<char> > SonraVoiceChangeNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    if (!in || in->empty())
        return boost::shared_ptr<std::vector<char> >();
    if (!d->m_pitchShifter || d->m_voice == NORMAL)
        return in;

    soundtouch::SoundTouch& shifter = *d->m_pitchShifter;
    const boost::shared_ptr<std::vector<char> > out =
        boost::make_shared<std::vector<char> >(static_cast<std::size_t>(outputChannels()) * frameSize());

    // Counted in the shifter's own channels (they differ from ours only if
    // SoundTouch refused a count) and bounded by both buffers, so that a
    // short frame is never read or written past its end.
    const unsigned channels = shifter.numChannels();
    const std::size_t frameBytes = 2u * static_cast<std::size_t>(channels);
    const std::size_t frames = frameSize() / 2;
    putFrames(shifter, reinterpret_cast<const int16_t*>(in->data()), std::min(frames, in->size() / frameBytes),
              channels);
    // What the shifter cannot deliver yet (its start-up latency) stays silent.
    receiveFrames(shifter, reinterpret_cast<int16_t*>(out->data()), std::min(frames, out->size() / frameBytes),
                  channels);
    return out;
}

} // namespace ombrel
