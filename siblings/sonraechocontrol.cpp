#include "sonraechocontrol.h"

#include <algorithm>

namespace ombrel {

namespace {

const int SAMPLE_BYTES = 2; // bytes of one 16-bit sample

} // namespace

SonraEchoControl::SonraEchoControl(unsigned sampleRate, unsigned blockFrames, unsigned blockMs,
                                   unsigned captureChannels, unsigned playbackChannels, bool cancel,
                                   SonraEchoCanceller::Engine engine, const SonraEchoPath* room)
    : m_blockFrames(blockFrames),
      m_playbackChannels(playbackChannels),
      m_askedEngine(engine),
      m_captured(static_cast<std::size_t>(blockFrames) * captureChannels),
      m_cleaned(m_captured.size()),
      m_meter(blockMs)
{
    if (room)
        m_room.reset(new SonraEchoRoom(sampleRate, captureChannels, *room));
    if (cancel)
        m_canceller.reset(new SonraEchoCanceller(engine, sampleRate, captureChannels, playbackChannels, blockFrames));
}

bool SonraEchoControl::processBlock(const char* in, int inLength, char* out, int outLength, int status,
                                    const Callback& callback)
{
    const int capturedBytes = static_cast<int>(m_captured.size()) * SAMPLE_BYTES;
    const int playedBytes = static_cast<int>(m_blockFrames * m_playbackChannels) * SAMPLE_BYTES;
    if (status != 0 || !in || !out || inLength != capturedBytes || outLength != playedBytes)
        return callback(in, inLength, out, outLength, status);

    std::copy_n(reinterpret_cast<const short*>(in), m_captured.size(), m_captured.begin());
    if (m_room)
        m_room->capture(m_captured.data(), m_blockFrames);
    m_cleaned = m_captured;
    if (m_canceller)
        m_canceller->capture(m_cleaned.data());
    const bool goOn = callback(reinterpret_cast<const char*>(m_cleaned.data()), inLength, out, outLength, 0);
    const short* played = reinterpret_cast<const short*>(out);
    if (m_canceller)
        m_canceller->playback(played);
    if (m_room)
        m_room->play(played, m_blockFrames, m_playbackChannels);
    std::lock_guard<std::mutex> lock(m_meterMutex);
    m_meter.add(played, m_blockFrames * m_playbackChannels, m_captured.data(), m_cleaned.data(), m_captured.size());
    return goOn;
}

bool SonraEchoControl::setEchoPath(const SonraEchoPath& path)
{
    if (!m_room)
        return false;
    m_room->setPath(path);
    return true;
}

SonraEchoMeter SonraEchoControl::meter() const
{
    std::lock_guard<std::mutex> lock(m_meterMutex);
    return m_meter;
}

SonraEchoCanceller::Engine SonraEchoControl::engine() const
{
    return m_canceller ? m_canceller->engine() : m_askedEngine;
}

SonraEchoTrial::SonraEchoTrial()
    : sampleRate(16000),
      blockMs(20),
      captureChannels(1),
      playbackChannels(1),
      cancel(true),
      engine(SonraEchoCanceller::DEFAULT_ENGINE),
      room(true),
      changeAtMs(0),
      durationMs(0)
{
}

SonraEchoTrial::Result SonraEchoTrial::run() const
{
    const unsigned frames = sampleRate * blockMs / 1000;
    const std::size_t length = durationMs ? static_cast<std::size_t>(sampleRate) * durationMs / 1000
                                          : std::max(farEnd.size(), nearEnd.size());
    SonraEchoControl control(sampleRate, frames, blockMs, captureChannels, playbackChannels, cancel, engine,
                             room ? &path : nullptr);
    Result result;
    std::vector<short> in(static_cast<std::size_t>(frames) * captureChannels);
    std::vector<short> out(static_cast<std::size_t>(frames) * playbackChannels);
    std::size_t at = 0;
    const SonraEchoControl::Callback callback = [&](const char* cleaned, int, char* played, int, int) {
        const short* samples = reinterpret_cast<const short*>(cleaned);
        for (unsigned i = 0; i < frames; ++i)
            result.cleaned.push_back(samples[i * captureChannels]);
        short* speaker = reinterpret_cast<short*>(played);
        for (unsigned i = 0; i < frames; ++i)
            std::fill_n(speaker + i * playbackChannels, playbackChannels, at + i < farEnd.size() ? farEnd[at + i] : 0);
        return true;
    };
    for (unsigned block = 0; at + frames <= length; ++block, at += frames) {
        if (changeAtMs && block * blockMs == changeAtMs)
            control.setEchoPath(changedPath);
        for (unsigned i = 0; i < frames; ++i)
            std::fill_n(in.data() + i * captureChannels, captureChannels, at + i < nearEnd.size() ? nearEnd[at + i] : 0);
        control.processBlock(reinterpret_cast<const char*>(in.data()), static_cast<int>(in.size() * SAMPLE_BYTES),
                             reinterpret_cast<char*>(out.data()), static_cast<int>(out.size() * SAMPLE_BYTES), 0,
                             callback);
    }
    result.meter = control.meter();
    result.engine = control.engine();
    return result;
}

} // namespace ombrel
