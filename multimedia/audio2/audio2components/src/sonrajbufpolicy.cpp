#include "sonrajbufpolicy_p.h"

#include "sonrajbufframe_p.h"

#include <cstdint>

namespace ombrel {

namespace {

// into.counter += plus.counter - minus.counter, for every count.
void combineCounts(SonraJbufStatistics& into, const SonraJbufStatistics& plus, const SonraJbufStatistics& minus)
{
    uint64_t SonraJbufStatistics::*const counts[] = {
        &SonraJbufStatistics::framesPut, &SonraJbufStatistics::framesPlayed, &SonraJbufStatistics::framesTooOld,
        &SonraJbufStatistics::framesUnnumbered, &SonraJbufStatistics::framesDropped,
        &SonraJbufStatistics::duplicates, &SonraJbufStatistics::underruns, &SonraJbufStatistics::depthDecreases,
        &SonraJbufStatistics::framesStray, &SonraJbufStatistics::resyncs, &SonraJbufStatistics::switchesDeeper,
        &SonraJbufStatistics::switchesShallower, &SonraJbufStatistics::framesHeld,
        &SonraJbufStatistics::framesSkipped};
    for (uint64_t SonraJbufStatistics::*count : counts)
        into.*count += plus.*count - minus.*count;
}

} // namespace

void SonraJbufPolicy::restart(const SonraJbufPolicyConfig& config, const std::vector<SonraJbufSimple*>& queues,
                              const std::vector<unsigned>& depths)
{
    m_config = config;
    m_candidates.clear();
    for (std::size_t i = 0; i < queues.size(); ++i)
        m_candidates.push_back(Candidate{queues[i], depths[i], false, 0.0});
    m_played = config.m_initialQueue;
    m_getsSinceMove = 0;
    m_deliveredAny = false;
    m_lastDeliveredSeqNum = 0;
    m_moveGets = 0;
    m_shrinking = false;
    m_earlierPlayed = SonraJbufStatistics();
    m_playedSince = SonraJbufStatistics();
}

bool SonraJbufPolicy::warmsUpQueues() const
{
    return m_config.m_policy == SonraJbuf::PLAYOUT_ADAPTIVE;
}

void SonraJbufPolicy::noteRefused(std::size_t index, bool refused)
{
    m_candidates[index].m_refused = refused;
}

void SonraJbufPolicy::notePut()
{
    if (m_config.m_policy == SonraJbuf::PLAYOUT_ADAPTIVE)
        updateTooOldShares();
}

void SonraJbufPolicy::updateTooOldShares()
{
    const double weight = 1.0 / (SonraJbuf::PLAYOUT_SHARE_FRAMES ? SonraJbuf::PLAYOUT_SHARE_FRAMES : 1);
    const bool noDepthHelps = m_candidates.back().m_refused;
    for (Candidate& candidate : m_candidates) {
        const double tooOld = candidate.m_refused && !noDepthHelps ? 1.0 : 0.0;
        candidate.m_tooOldShare += (tooOld - candidate.m_tooOldShare) * weight;
    }
}

std::size_t SonraJbufPolicy::choose()
{
    ++m_getsSinceMove;
    if (m_config.m_policy == SonraJbuf::PLAYOUT_ADAPTIVE) {
        const std::size_t next = adaptiveChoice();
        if (next != m_played)
            move(next);
    }
    return m_played;
}

// Quick climb, slow descent.
std::size_t SonraJbufPolicy::adaptiveChoice() const
{
    const double target = SonraJbuf::PLAYOUT_TOO_OLD_TARGET;
    const std::size_t current = m_played;
    if (m_candidates[current].m_tooOldShare > target) {
        for (std::size_t deeper = current + 1; deeper < m_candidates.size(); ++deeper) {
            if (m_candidates[deeper].m_tooOldShare <= target)
                return deeper;
        }
        return m_candidates.size() - 1;
    }
    const unsigned holdGets = SonraJbuf::PLAYOUT_DESCENT_HOLD_MS / m_config.m_frameDuration;
    if (current > 0 && m_getsSinceMove >= holdGets &&
        m_candidates[current - 1].m_tooOldShare < target * SonraJbuf::PLAYOUT_DESCENT_FRACTION)
        return current - 1;
    return current;
}

void SonraJbufPolicy::move(std::size_t next)
{
    combineCounts(m_earlierPlayed, m_candidates[m_played].m_queue->statistics(), m_playedSince);
    m_playedSince = m_candidates[next].m_queue->statistics();
    m_shrinking = next < m_played;
    ++(m_shrinking ? m_earlierPlayed.switchesShallower : m_earlierPlayed.switchesDeeper);
    m_played = next;
    m_getsSinceMove = 0;
    m_moveGets = m_deliveredAny ? m_config.m_ringSlots : 0;
}

bool SonraJbufPolicy::admit(SonraJbufFrame_p* frame)
{
    if (m_moveGets != 0 && !passesMove(frame))
        return false;
    if (!frame)
        return false;
    if (frame->m_delivered) {
        noteHeld();
        return false;
    }
    frame->m_delivered = true;
    m_deliveredAny = true;
    m_lastDeliveredSeqNum = frame->m_seqNum;
    return true;
}

// Right after a move: whether `frame`, due from the new queue, may be played.
bool SonraJbufPolicy::passesMove(const SonraJbufFrame_p* frame)
{
    --m_moveGets;
    if (!frame)
        return false;
    const int32_t ahead = static_cast<int32_t>(frame->m_seqNum - m_lastDeliveredSeqNum);
    if (ahead <= 0 && ahead > -static_cast<int32_t>(m_config.m_ringSlots)) {
        noteHeld();
        return false;
    }
    if (m_shrinking && ahead > 1)
        m_earlierPlayed.framesSkipped += static_cast<unsigned>(ahead - 1);
    m_moveGets = 0;
    return true;
}

// The played queue gave the frame out and counted it as played; the move
// held it back instead. (The count may dip below zero here before the
// queue's own count is added: unsigned arithmetic wraps back.)
void SonraJbufPolicy::noteHeld()
{
    ++m_earlierPlayed.framesHeld;
    --m_earlierPlayed.framesPlayed;
}

SonraJbufStatistics SonraJbufPolicy::statistics() const
{
    if (m_candidates.empty())
        return SonraJbufStatistics();
    const Candidate& played = m_candidates[m_played];
    SonraJbufStatistics statistics = played.m_queue->statistics();
    combineCounts(statistics, m_earlierPlayed, m_playedSince);
    statistics.playedDepth = played.m_depth;
    return statistics;
}

} // namespace ombrel
