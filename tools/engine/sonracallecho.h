// A party of a call on loudspeakers: what its speaker plays comes back into
// its microphone through a simulated room, over its own voice, and the
// device's echo canceller (unless switched off) cleans the microphone
// before the party's graph takes it, block by block, as the universal
// device does on its thread (siblings/sonraechocontrol.h).
//
// The enhancement is measured where it means something: in the blocks in
// which the party itself is silent, in this block and the one before (the
// canceller may hold back up to a block of it), while the echo stands out
// of the microphone's noise: far-end single talk. Its own voice over the
// echo (double talk) says how well the canceller keeps the near end, which
// the echo tests judge; here those blocks count as silence.
#ifndef SONRA_CALLECHO_H
#define SONRA_CALLECHO_H

#include "sonracallrun.h"

#include "sonraechocanceller.h"
#include "sonraechoroom.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace sonracall {

struct LoudspeakerSettings {
    bool on = false;           // the party sits in the room
    bool cancel = true;        // the device's echo canceller runs
    ombrel::SonraEchoPath path; // the room: delay, gain, tail, noise
};

class Loudspeakers {
public:
    // What the device does with one block: takes `captured` (one mono
    // frame) and appends the block it played to `played`.
    typedef std::function<void(const std::vector<int16_t>& captured, std::vector<int16_t>& played)> DeviceBlock;

    static const int NEAR_END_SILENT_DB = -60;   // dBFS: a block of the party's own voice quieter than this is a pause
    static const int CONVERGED_DB = 20;          // dB of enhancement that counts as converged
    static const int ECHO_OVER_NOISE_DB = 10;    // dB over the microphone's noise from which the echo is measured

    Loudspeakers(const LoudspeakerSettings& settings, unsigned sampleRate, unsigned blockMs, unsigned blockSamples,
                 unsigned playbackChannels);

    // One block: the room adds the echo of what was played before to the
    // party's own voice `nearEnd`, the canceller removes it, `device` takes
    // the result and appends what it plays to `played`.
    void block(const std::vector<int16_t>& nearEnd, std::vector<int16_t>& played, const DeviceBlock& device);

    EchoRecord record() const;
    // Per block, dBFS: the echo alone as the microphone took it (and the
    // room's noise), and what the canceller left of it in far-end single
    // talk (NaN otherwise).
    const std::vector<double>& echoBeforeDb() const { return m_echoBeforeDb; }
    const std::vector<double>& echoAfterDb() const { return m_echoAfterDb; }

private:
    const LoudspeakerSettings m_settings;
    const unsigned m_blockMs;          // ms
    const unsigned m_blockSamples;     // samples per channel
    const unsigned m_playbackChannels;
    ombrel::SonraEchoRoom m_room;
    std::unique_ptr<ombrel::SonraEchoCanceller> m_canceller;
    ombrel::SonraEchoMeter m_meter;    // far-end single talk only; silence elsewhere
    std::vector<double> m_echoBeforeDb, m_echoAfterDb;
    bool m_nearEndWasSilent = true;    // in the block before
    unsigned m_singleTalkBlocks = 0;
};

} // namespace sonracall

#endif
