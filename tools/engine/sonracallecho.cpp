#include "sonracallecho.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace sonracall {

using ombrel::SonraEchoCanceller;
using ombrel::SonraEchoMeter;

Loudspeakers::Loudspeakers(const LoudspeakerSettings& settings, unsigned sampleRate, unsigned blockMs,
                           unsigned blockSamples, unsigned playbackChannels)
    : m_settings(settings),
      m_blockMs(blockMs),
      m_blockSamples(blockSamples),
      m_playbackChannels(playbackChannels),
      m_room(sampleRate, 1, settings.path),
      m_meter(blockMs)
{
    if (settings.cancel)
        m_canceller.reset(new SonraEchoCanceller(SonraEchoCanceller::defaultEngine(sampleRate), sampleRate, 1,
                                                 playbackChannels, blockSamples));
}

void Loudspeakers::block(const std::vector<int16_t>& nearEnd, std::vector<int16_t>& played, const DeviceBlock& device)
{
    std::vector<int16_t> captured = nearEnd;
    m_room.capture(captured.data(), m_blockSamples);
    std::vector<int16_t> cleaned = captured;
    if (m_canceller)
        m_canceller->capture(cleaned.data());
    const std::size_t playedBefore = played.size();
    device(cleaned, played);
    const int16_t* speaker = played.data() + playedBefore;
    if (m_canceller)
        m_canceller->playback(speaker);
    m_room.play(speaker, m_blockSamples, m_playbackChannels);

    std::vector<int16_t> echo(m_blockSamples); // what the room added: the echo and the microphone's noise
    for (unsigned i = 0; i < m_blockSamples; ++i)
        echo[i] = int16_t(std::max(-32768, std::min(32767, captured[i] - nearEnd[i])));
    m_echoBeforeDb.push_back(SonraEchoMeter::levelDb(echo.data(), echo.size()));
    const bool nearEndSilent = SonraEchoMeter::levelDb(nearEnd.data(), nearEnd.size()) < NEAR_END_SILENT_DB;
    const bool singleTalk = nearEndSilent && m_nearEndWasSilent &&
                            m_echoBeforeDb.back() > m_settings.path.noiseDb + ECHO_OVER_NOISE_DB;
    m_nearEndWasSilent = nearEndSilent;
    m_singleTalkBlocks += singleTalk;
    m_echoAfterDb.push_back(singleTalk ? SonraEchoMeter::levelDb(cleaned.data(), cleaned.size())
                                       : std::numeric_limits<double>::quiet_NaN());
    const std::size_t playedSamples = std::size_t(m_blockSamples) * m_playbackChannels;
    if (singleTalk) {
        m_meter.add(speaker, playedSamples, captured.data(), cleaned.data(), captured.size());
    } else {
        const std::vector<int16_t> silence(std::max(playedSamples, captured.size()), 0); // keeps the timeline
        m_meter.add(silence.data(), playedSamples, silence.data(), silence.data(), captured.size());
    }
}

EchoRecord Loudspeakers::record() const
{
    EchoRecord record;
    record.loudspeakers = true;
    record.delayMs = m_settings.path.delayMs;
    record.gainDb = m_settings.path.gainDb;
    if (m_canceller)
        record.engine = SonraEchoCanceller::engineName(m_canceller->engine());
    record.singleTalkMs = m_singleTalkBlocks * m_blockMs;
    if (m_singleTalkBlocks == 0)
        return record;
    const unsigned endMs = unsigned(m_meter.blocks().size()) * m_blockMs;
    record.convergenceMs = m_meter.convergenceMs(CONVERGED_DB);
    record.erleDb = m_meter.erleDb(unsigned(std::max(0, record.convergenceMs)), endMs);
    record.farEndBelowSpeechDb = m_meter.echoBelowSpeechDb(0, endMs);
    return record;
}

} // namespace sonracall
