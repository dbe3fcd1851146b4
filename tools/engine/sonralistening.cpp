#include "sonralistening.h"

#include <algorithm>

namespace sonranetsim {

namespace {

bool playedAt(const std::vector<FrameRecord>& frames, std::size_t f)
{
    return f < frames.size() && frames[f].played;
}

// The decoder's choice per slot: a packet decodes; a missing one, once the
// stream has started, is rebuilt when the next slot brings a packet (with
// FEC on), else concealed up to its limit of frames in a row, else silent.
std::vector<FrameFate> decoderFates(const std::vector<FrameRecord>& frames, const PathSettings& settings)
{
    const bool opus = settings.codec == Codec::Opus;
    const unsigned concealable = opus && settings.frameDuration > 0 ? settings.concealment / settings.frameDuration : 0;
    const bool fec = opus && settings.fecLoss > 0;
    std::vector<FrameFate> fates;
    bool started = false;
    unsigned concealedInRow = 0;
    for (std::size_t f = 0; f < frames.size(); ++f) {
        FrameFate fate = FrameFate::Silent;
        if (frames[f].played) {
            fate = FrameFate::Played;
            started = true;
            concealedInRow = 0;
        } else if (started && fec && playedAt(frames, f + 1)) {
            fate = FrameFate::Rebuilt;
        } else if (started && concealedInRow < concealable) {
            fate = FrameFate::Concealed;
            ++concealedInRow;
        }
        fates.push_back(fate);
    }
    return fates;
}

// True per packet (packets[0] is number 1) neither played nor rebuilt; a
// rebuilt slot stands for the packet just before its successor's.
std::vector<bool> unheardPackets(const Result& result, const std::vector<FrameFate>& fates)
{
    std::vector<bool> unheard;
    for (const PacketRecord& packet : result.packets)
        unheard.push_back(!packet.played);
    for (std::size_t f = 0; f + 1 < fates.size(); ++f) {
        const unsigned seq = result.frames[f + 1].seqNum;
        if (fates[f] == FrameFate::Rebuilt && seq >= 2 && seq - 2 < unheard.size())
            unheard[seq - 2] = false;
    }
    return unheard;
}

unsigned concealedInStream(const std::vector<FrameFate>& fates)
{
    std::size_t first = fates.size(), last = 0;
    for (std::size_t f = 0; f < fates.size(); ++f)
        if (fates[f] == FrameFate::Played) {
            first = std::min(first, f);
            last = f;
        }
    unsigned concealed = 0;
    for (std::size_t f = first; f < last; ++f)
        concealed += fates[f] == FrameFate::Concealed;
    return concealed;
}

} // namespace

Listening listeningOf(const Result& result, const PathSettings& settings)
{
    Listening listening;
    listening.fates = decoderFates(result.frames, settings);
    const std::vector<bool> unheard = unheardPackets(result, listening.fates);
    unsigned played = 0;
    std::vector<double> residences; // ms
    for (const FrameRecord& frame : result.frames)
        if (frame.played)
            residences.push_back(frame.residence);
    for (const PacketRecord& packet : result.packets)
        played += packet.played;
    for (bool lost : unheard)
        listening.unheard += lost;
    listening.rebuilt = unsigned(unheard.size()) - listening.unheard - played;
    listening.concealed = concealedInStream(listening.fates);
    listening.lossPercent = unheard.empty() ? 0 : 100.0 * listening.unheard / unheard.size();
    listening.burstRatio = sonratool::burstRatio(unheard);
    listening.mouthToEarMs = result.summary.meanNetworkDelay + mean(residences) +
                             double(settings.frameDuration) * (1 + result.outputLag);
    sonratool::EModelInput input;
    input.mouthToEarMs = listening.mouthToEarMs;
    input.lossPercent = listening.lossPercent;
    input.burstRatio = listening.burstRatio;
    // Without concealment a lost frame is silence, whatever the codec.
    const bool concealing = settings.codec == Codec::Opus && settings.concealment > 0;
    input.codec = concealing ? sonratool::OPUS_WITH_CONCEALMENT : sonratool::G711_WITHOUT_CONCEALMENT;
    listening.rating = sonratool::rateCall(input);
    return listening;
}

} // namespace sonranetsim
