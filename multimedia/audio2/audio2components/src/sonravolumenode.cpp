#include "sonravolumenode.h"

#include "sonralimiter_p.h"

#include <algorithm>
#include <cstring>

namespace ombrel {

struct SonraVolumeNode_p {
    float m_volume = 1.0f;              // factor applied to every sample
    float m_gain = 1.0f;                // limiter gain
    int32_t m_gainRecoveryTime = 1500;  // ms for the gain to climb back to 1.0
    float m_gainStep = 0.0f;            // added to the gain per timer tick
    bool m_muted = false;               // every frame becomes silence
    int16_t m_minLevel = -28672;        // lower limiter threshold
    int16_t m_maxLevel = 28672;         // upper limiter threshold
};

namespace {

// Below this distance from 1.0 a volume counts as unity.
const float UNITY_TOLERANCE = 0.001f;

bool withinLevels(const int16_t* samples, std::size_t count, limiter::Levels levels)
{
    int lowest = 0, highest = 0;
    for (std::size_t k = 0; k < count; ++k) {
        lowest = std::min<int>(lowest, samples[k]);
        highest = std::max<int>(highest, samples[k]);
    }
    return highest < levels.maxLevel && lowest > levels.minLevel;
}

void scaleBlock(const int16_t* samples, unsigned count, float volume, int32_t* scaled)
{
    for (unsigned k = 0; k < count; ++k)
        scaled[k] = rounding::halfAwayFromZero(static_cast<float>(samples[k]) * volume);
}

void scaleBlockSaturating(const int16_t* samples, unsigned count, float volume, int32_t* scaled)
{
    for (unsigned k = 0; k < count; ++k)
        scaled[k] = limiter::roundToInt(static_cast<float>(samples[k]) * volume);
}

} // namespace

SonraVolumeNode::SonraVolumeNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                 unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraVolumeNode_p)
{
}

SonraVolumeNode::~SonraVolumeNode() = default;

void SonraVolumeNode::setVolume(float volume)
{
    // Unity is stored as exactly 1.0, so that it really is unity (and the
    // node's fast path, which leaves the frame untouched, applies).
    if (volume - 1.0f > UNITY_TOLERANCE || 1.0f - volume > UNITY_TOLERANCE)
        d->m_volume = volume;
    else
        d->m_volume = 1.0f;
    d->m_gain = 1.0f;
}

float SonraVolumeNode::volume() const
{
    return d->m_volume;
}

void SonraVolumeNode::setMuted(bool muted)
{
    d->m_muted = muted;
    d->m_gain = 1.0f;
}

bool SonraVolumeNode::isMuted() const
{
    return d->m_muted;
}

void SonraVolumeNode::timerTick()
{
    limiter::recover(d->m_gain, d->m_gainStep);
}

void SonraVolumeNode::reset(unsigned /*offset*/)
{
    d->m_gain = 1.0f;
}

boost::shared_ptr<std::vector<char> > SonraVolumeNode::doProcess()
{
    boost::shared_ptr<std::vector<char> > frame = getInputData();
    if (!frame || frame->empty())
        return frame;
    if (d->m_muted) {
        std::fill(frame->begin(), frame->end(), 0);
        return frame;
    }

    // A full frame's samples, or only those present in a shorter frame.
    const std::size_t fullFrame = static_cast<std::size_t>(outputChannels()) * frameSize() / 2;
    const std::size_t count = std::min(fullFrame, frame->size() / 2);
    int16_t* samples = reinterpret_cast<int16_t*>(frame->data());
    const float volume = d->m_volume;
    const limiter::Levels levels = {d->m_maxLevel, d->m_minLevel};

    if (volume == 1.0f && d->m_gain == 1.0f && withinLevels(samples, count, levels))
        return frame; // unity: every sample would be written back as it is

    const bool inRange = limiter::scalesInRange(volume);
    int32_t scaled[limiter::BLOCK_SAMPLES];
    for (std::size_t first = 0; first < count; first += limiter::BLOCK_SAMPLES) {
        const unsigned block = static_cast<unsigned>(std::min<std::size_t>(limiter::BLOCK_SAMPLES, count - first));
        int16_t* blockSamples = samples + first;
        if (inRange)
            scaleBlock(blockSamples, block, volume, scaled);
        else
            scaleBlockSaturating(blockSamples, block, volume, scaled);
        limiter::store(scaled, block, blockSamples, levels, d->m_gain, d->m_gainStep,
                       frameDuration(), d->m_gainRecoveryTime);
    }
    return frame;
}

} // namespace ombrel
