#include "sonrajbufpolicy_p.h"

#include "sonrajbufframe_p.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace ombrel {

namespace {

// Late frames a delay peak holds at least; fewer are outliers of the jitter.
const unsigned PEAK_FRAMES = 3;

// into.counter += plus.counter - minus.counter, for every count.
void combineCounts(SonraJbufStatistics& into, const SonraJbufStatistics& plus, const SonraJbufStatistics& minus)
{
    uint64_t SonraJbufStatistics::*const counts[] = {
        &SonraJbufStatistics::framesPut, &SonraJbufStatistics::framesPlayed, &SonraJbufStatistics::framesTooOld,
        &SonraJbufStatistics::framesUnnumbered, &SonraJbufStatistics::framesDropped,
        &SonraJbufStatistics::duplicates, &SonraJbufStatistics::underruns, &SonraJbufStatistics::depthDecreases,
        &SonraJbufStatistics::framesStray, &SonraJbufStatistics::resyncs, &SonraJbufStatistics::switchesDeeper,
        &SonraJbufStatistics::switchesShallower, &SonraJbufStatistics::framesHeld,
        &SonraJbufStatistics::framesSkipped, &SonraJbufStatistics::framesExpanded,
        &SonraJbufStatistics::framesAccelerated};
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
        m_candidates.push_back(Candidate{queues[i], depths[i], false, 0.0, 0.0});
    m_played = config.m_initialQueue;
    m_getsSinceMove = 0;
    m_deliveredAny = false;
    m_lastDeliveredSeqNum = 0;
    m_moveGets = 0;
    m_shrinking = false;
    m_fallback = NO_FALLBACK;
    m_fallbackLast = false;
    m_earlierPlayed = SonraJbufStatistics();
    m_playedSince = SonraJbufStatistics();
    m_histogramPuts = 0;
    m_getsSincePeakFrame = m_getsSincePeak = UINT_MAX;
    m_seenPeak = false;
    m_peakHeight = m_lastPeakHeight = m_heldHeight = 0;
    m_peakFrames = 0;
    m_peakBase = 0;
    m_holdGets = 0;
}

bool SonraJbufPolicy::adaptive() const
{
    return m_config.m_policy == SonraJbuf::PLAYOUT_ADAPTIVE || m_config.m_policy == SonraJbuf::PLAYOUT_HISTOGRAM;
}

void SonraJbufPolicy::setStretching(bool enabled)
{
    m_stretching = enabled;
}

bool SonraJbufPolicy::warmsUpQueues() const
{
    return adaptive();
}

void SonraJbufPolicy::notePut()
{
    if (adaptive())
        updateTooOldShares();
    if (m_config.m_policy == SonraJbuf::PLAYOUT_HISTOGRAM) {
        updateHistogram();
        detectPeak();
    }
}

void SonraJbufPolicy::updateHistogram()
{
    const unsigned memory = std::max(SonraJbuf::PLAYOUT_HISTOGRAM_FRAMES, 1u); // frames
    if (m_histogramPuts < memory)
        ++m_histogramPuts;
    const double weight = 1.0 / std::max(m_histogramPuts, std::min(SonraJbuf::PLAYOUT_SHARE_FRAMES, memory));
    const bool noDepthHelps = m_candidates.back().m_refused;
    for (Candidate& candidate : m_candidates) {
        const double tooOld = candidate.m_refused && !noDepthHelps ? 1.0 : 0.0;
        candidate.m_tailShare += (tooOld - candidate.m_tailShare) * weight;
    }
}

// The shallowest queue whose long-memory tail is at or under the quantile's complement.
std::size_t SonraJbufPolicy::histogramTarget() const
{
    for (std::size_t i = 0; i < m_candidates.size(); ++i) {
        if (m_candidates[i].m_tailShare <= SonraJbuf::PLAYOUT_HISTOGRAM_TAIL)
            return i;
    }
    return m_candidates.size() - 1;
}

void SonraJbufPolicy::detectPeak()
{
    if (m_candidates.back().m_refused)
        return; // no depth could have played it
    std::size_t height = 0; // the shallowest queue that took the frame
    while (m_candidates[height].m_refused)
        ++height;
    const unsigned frameDuration = m_config.m_frameDuration; // ms
    const bool inPeak = m_getsSincePeakFrame < SonraJbuf::PLAYOUT_PEAK_GAP_MS / frameDuration;
    // Late for the queue played when the peak began, so that a climb
    // within the peak does not split it.
    if (height <= (inPeak ? m_peakBase : m_played))
        return;
    if (!inPeak)
        m_peakFrames = 0, m_peakHeight = 0, m_peakBase = m_played; // a new peak, or an outlier
    m_getsSincePeakFrame = 0;
    ++m_peakFrames;
    m_peakHeight = std::max(m_peakHeight, height);
    if (m_peakFrames < PEAK_FRAMES)
        return;
    if (m_peakFrames == PEAK_FRAMES) {
        const bool recurs = m_seenPeak && m_getsSincePeak <= SonraJbuf::PLAYOUT_PEAK_PERIOD_MS / frameDuration;
        if (recurs) {
            m_heldHeight = std::max(m_holdGets != 0 ? m_heldHeight : 0, std::min(m_lastPeakHeight, m_peakHeight));
            m_holdGets = 2 * (SonraJbuf::PLAYOUT_PEAK_PERIOD_MS / frameDuration);
        }
        m_seenPeak = true;
        m_getsSincePeak = 0;
        m_lastPeakHeight = m_peakHeight;
        return;
    }
    m_lastPeakHeight = m_peakHeight;
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
    std::size_t next = m_played;
    if (m_config.m_policy == SonraJbuf::PLAYOUT_ADAPTIVE) {
        next = adaptiveChoice();
    } else if (m_config.m_policy == SonraJbuf::PLAYOUT_HISTOGRAM) {
        m_getsSincePeakFrame += m_getsSincePeakFrame != UINT_MAX;
        m_getsSincePeak += m_getsSincePeak != UINT_MAX;
        m_holdGets -= m_holdGets != 0;
        next = histogramChoice();
    }
    m_fallback = NO_FALLBACK;
    if (next != m_played)
        move(next);
    return m_played;
}

// The quick climb: once the played queue's short share exceeds the target,
// the shallowest deeper queue at or under it (the deepest when none is).
std::size_t SonraJbufPolicy::quickClimb() const
{
    const double target = SonraJbuf::PLAYOUT_TOO_OLD_TARGET;
    const std::size_t current = m_played;
    if (m_candidates[current].m_tooOldShare <= target)
        return current;
    for (std::size_t deeper = current + 1; deeper < m_candidates.size(); ++deeper) {
        if (m_candidates[deeper].m_tooOldShare <= target)
            return deeper;
    }
    return m_candidates.size() - 1;
}

std::size_t SonraJbufPolicy::histogramChoice() const
{
    const std::size_t current = m_played;
    const bool holding = m_holdGets != 0;
    const std::size_t floor = holding ? m_heldHeight : 0;
    const std::size_t wanted = std::max(std::max(quickClimb(), histogramTarget()), floor);
    if (wanted > current)
        return wanted;
    const unsigned holdGets = SonraJbuf::PLAYOUT_DESCENT_HOLD_MS / m_config.m_frameDuration;
    if (m_getsSinceMove < holdGets)
        return current;
    // The shallowest of the queues below that all meet the histogram's tail
    // and the short share's margin: one move, however many depths it passes.
    std::size_t next = current;
    while (next > floor && next > 0) {
        const Candidate& shallower = m_candidates[next - 1];
        if (shallower.m_tailShare > SonraJbuf::PLAYOUT_HISTOGRAM_TAIL ||
            shallower.m_tooOldShare >= SonraJbuf::PLAYOUT_TOO_OLD_TARGET * SonraJbuf::PLAYOUT_DESCENT_FRACTION)
            break;
        --next;
    }
    return next;
}

// Quick climb, slow descent.
std::size_t SonraJbufPolicy::adaptiveChoice() const
{
    const double target = SonraJbuf::PLAYOUT_TOO_OLD_TARGET;
    const std::size_t current = m_played;
    if (m_candidates[current].m_tooOldShare > target)
        return quickClimb();
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
    if (m_stretching && !m_shrinking && m_deliveredAny)
        m_fallback = m_played;
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
    m_fallbackLast = false;
    m_deliveredAny = true;
    m_lastDeliveredSeqNum = frame->m_seqNum;
    return true;
}

bool SonraJbufPolicy::admitFallback(SonraJbufFrame_p* frame, unsigned residenceTime)
{
    if (!frame || frame->m_delivered || static_cast<int32_t>(frame->m_seqNum - m_lastDeliveredSeqNum) <= 0)
        return false;
    frame->m_delivered = true;
    m_lastDeliveredSeqNum = frame->m_seqNum;
    ++m_earlierPlayed.framesPlayed;
    ++m_earlierPlayed.framesExpanded;
    m_fallbackLast = true;
    m_fallbackSeqNum = frame->m_seqNum;
    m_fallbackTimeStamp = frame->m_timeStamp;
    m_fallbackResidence = residenceTime;
    return true;
}

bool SonraJbufPolicy::passOverCandidate(unsigned* seqNum) const
{
    if (!m_stretching || !m_shrinking || m_moveGets == 0)
        return false;
    *seqNum = m_lastDeliveredSeqNum + 1;
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
    if (m_fallbackLast) {
        statistics.lastSeqNum = m_fallbackSeqNum;
        statistics.lastTimeStamp = m_fallbackTimeStamp;
        statistics.lastResidenceTime = m_fallbackResidence;
    }
    return statistics;
}

} // namespace ombrel
