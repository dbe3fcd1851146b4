#include "sonratimestretcher_p.h"

#include "sonrasoundtouch_p.h"

#include <algorithm>
#include <iterator>

namespace ombrel {

namespace {

// SoundTouch's WSOLA settings, ms: short sequences and a seek window that
// spans a low voice's pitch period, for blocks of a few tens of ms.
const int SEQUENCE_MS = 20;
const int SEEK_WINDOW_MS = 10;
const int OVERLAP_MS = 4;

// out[k] = (1 - w) from + w to, with w rising linearly over `count` samples.
void crossfade(const int16_t* from, const int16_t* to, int16_t* out, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k) {
        const float w = static_cast<float>(k + 1) / static_cast<float>(count + 1);
        out[k] = static_cast<int16_t>(rounding::halfAwayFromZero((1.0f - w) * from[k] + w * to[k]));
    }
}

} // namespace

SonraTimeStretcher::SonraTimeStretcher(unsigned sampleRate)
    : m_sampleRate(sampleRate), m_stretcher(new soundtouch::SoundTouch)
{
    m_stretcher->setSampleRate(sampleRate);
    m_stretcher->setChannels(1);
    m_stretcher->setSetting(SETTING_SEQUENCE_MS, SEQUENCE_MS);
    m_stretcher->setSetting(SETTING_SEEKWINDOW_MS, SEEK_WINDOW_MS);
    m_stretcher->setSetting(SETTING_OVERLAP_MS, OVERLAP_MS);
}

SonraTimeStretcher::~SonraTimeStretcher() = default;

void SonraTimeStretcher::stretch(const std::vector<int16_t>& history, const int16_t* block, std::size_t blockSamples,
                                 int16_t* out, std::size_t outSamples)
{
    if (outSamples == 0)
        return;
    const std::size_t samplesPerMs = m_sampleRate / 1000;
    const std::size_t context = std::min(history.size(), CONTEXT_MS * samplesPerMs);
    const std::size_t padding = std::min(blockSamples, PADDING_MS * samplesPerMs);
    m_input.assign(history.end() - static_cast<std::ptrdiff_t>(context), history.end());
    m_input.insert(m_input.end(), block, block + blockSamples);
    m_input.insert(m_input.end(), std::reverse_iterator<const int16_t*>(block + blockSamples),
                   std::reverse_iterator<const int16_t*>(block + blockSamples - padding));
    // History and padding are played at the same speed; their parts of the result are dropped.
    const double tempo = static_cast<double>(context + blockSamples) / static_cast<double>(context + outSamples);
    m_stretcher->clear();
    m_stretcher->setTempo(tempo);
    soundtouchpcm::putFrames(*m_stretcher, m_input.data(), m_input.size(), 1);
    m_stretcher->flush();
    m_output.assign(context + outSamples, 0);
    soundtouchpcm::receiveFrames(*m_stretcher, m_output.data(), m_output.size(), 1);
    m_stretcher->clear();

    const int16_t* stretched = m_output.data() + context;
    std::copy(stretched, stretched + outSamples, out);
    const std::size_t fade = std::min({CROSSFADE_MS * samplesPerMs, outSamples / 2, blockSamples / 2});
    crossfade(block, stretched, out, fade);
    crossfade(stretched + outSamples - fade, block + blockSamples - fade, out + outSamples - fade, fade);
}

} // namespace ombrel
