#include "sonravoicechangenode.h"

#include "sonrasoundtouch_p.h"

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
    soundtouchpcm::putFrames(shifter, reinterpret_cast<const int16_t*>(in->data()), std::min(frames, in->size() / frameBytes),
              channels);
    // What the shifter cannot deliver yet (its start-up latency) stays silent.
    soundtouchpcm::receiveFrames(shifter, reinterpret_cast<int16_t*>(out->data()), std::min(frames, out->size() / frameBytes),
                  channels);
    return out;
}

} // namespace ombrel
