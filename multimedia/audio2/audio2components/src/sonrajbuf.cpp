#include "sonrajbuf.h"

#include "shared.h"

#include <boost/make_shared.hpp>

#include <map>

namespace ombrel {

// One received frame, shared by every queue of a SonraJbuf; no queue changes it.
struct SonraJbufFrame_p {
    unsigned m_seqNum;
    unsigned m_timeStamp; // ms, carried through unchanged
    boost::shared_ptr<std::vector<char> > m_data;
    unsigned m_bufTime;   // ms, the owner's clock when the frame was put
    // Every queue holds the same record; under the adaptive policy a queue
    // moved to may still offer one that an earlier queue already played.
    bool m_delivered = false;
};

// One queue as the playout policy sees it.
struct SonraJbufCandidate_p {
    SonraJbufSimple* m_queue;
    unsigned m_depth;      // frames
    bool m_refused;        // the last frame put was too old for it
    double m_tooOldShare;  // running mean, frames too old for it yet in time for the deepest queue
};

struct SonraJbuf_p {
    unsigned m_frameDuration;     // ms, one frame per playout period
    unsigned m_initialDelay;      // ms, depth of the played queue
    unsigned m_minDelay;          // ms
    unsigned m_maxDelay;          // ms
    unsigned m_initialBufDepth;   // frames
    unsigned m_maxBufDepth;       // frames
    unsigned m_minBufDepth;       // frames
    unsigned m_extraJitterDelay;  // ms a queue may hold beyond its depth
    unsigned m_extraJitterFrames; // frames
    std::map<unsigned, boost::shared_ptr<SonraJbufSimple> > m_queues; // by depth in frames
    boost::function<unsigned ()> m_timeHandler; // the clock, ms
    bool m_recovery;                            // see SonraJbuf::setRecovery

    // Playout (SonraJbuf::setPlayoutPolicy); rebuilt by every reset.
    SonraJbuf::PlayoutPolicy m_policy;
    std::vector<SonraJbufCandidate_p> m_candidates; // m_queues in ascending depth, walked per frame
    std::size_t m_played;             // index into m_candidates of the played queue
    unsigned m_getCount;              // gets since the reset
    unsigned m_lastSwitchGet;         // m_getCount at the last move
    bool m_deliveredAny;
    unsigned m_lastDeliveredSeqNum;
    unsigned m_transitionGets;        // gets left in which a frame not after the last delivered one is held
    bool m_shrinking;                 // the transition follows a move to a shallower queue
    SonraJbufStatistics m_earlierPlayed; // what the queues played before the current one counted, and the moves
    SonraJbufStatistics m_playedSince;   // the current played queue's counts when it became the played one
};

namespace {

const char* const LOG_CATEGORY = "audio2jbuf";

// The depth-cut rule of a queue (written out above SonraJbufSimple in the
// header): the observation period, in ms of played frames.
const unsigned OBSERVATION_PERIOD_MS = 3000;

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

// After a put: a frame too old for a queue counts against it only when the
// deepest queue still took it; what no depth could have played (a late
// duplicate, a frame later than the deepest delay) says nothing of depth.
void updateTooOldShares(SonraJbuf_p& d)
{
    const double weight = 1.0 / (SonraJbuf::PLAYOUT_SHARE_FRAMES ? SonraJbuf::PLAYOUT_SHARE_FRAMES : 1);
    const bool noDepthHelps = d.m_candidates.back().m_refused;
    for (SonraJbufCandidate_p& candidate : d.m_candidates) {
        const double tooOld = candidate.m_refused && !noDepthHelps ? 1.0 : 0.0;
        candidate.m_tooOldShare += (tooOld - candidate.m_tooOldShare) * weight;
    }
}

// Gets in which a frame at or before the last one played is looked for
// after a move: as many as the ring has slots.
unsigned transitionGets(const SonraJbuf_p& d)
{
    return 2 * d.m_maxBufDepth + d.m_extraJitterFrames;
}

void switchPlayedQueue(SonraJbuf_p& d, std::size_t next)
{
    combineCounts(d.m_earlierPlayed, d.m_candidates[d.m_played].m_queue->statistics(), d.m_playedSince);
    d.m_playedSince = d.m_candidates[next].m_queue->statistics();
    d.m_shrinking = next < d.m_played;
    ++(d.m_shrinking ? d.m_earlierPlayed.switchesShallower : d.m_earlierPlayed.switchesDeeper);
    d.m_played = next;
    d.m_lastSwitchGet = d.m_getCount;
    d.m_transitionGets = d.m_deliveredAny ? transitionGets(d) : 0;
}

// The adaptive policy, before each get.
void choosePlayedQueue(SonraJbuf_p& d)
{
    const double target = SonraJbuf::PLAYOUT_TOO_OLD_TARGET;
    const std::vector<SonraJbufCandidate_p>& candidates = d.m_candidates;
    const std::size_t current = d.m_played;
    std::size_t next = current;
    if (candidates[current].m_tooOldShare > target) {
        next = candidates.size() - 1;
        for (std::size_t deeper = current + 1; deeper < candidates.size(); ++deeper) {
            if (candidates[deeper].m_tooOldShare <= target) {
                next = deeper;
                break;
            }
        }
    } else if (current > 0) {
        const unsigned holdGets = SonraJbuf::PLAYOUT_DESCENT_HOLD_MS / d.m_frameDuration;
        if (d.m_getCount - d.m_lastSwitchGet >= holdGets &&
            candidates[current - 1].m_tooOldShare < target * SonraJbuf::PLAYOUT_DESCENT_FRACTION)
            next = current - 1;
    }
    if (next != current)
        switchPlayedQueue(d, next);
}

// Right after a move: whether `frame`, due from the new queue, may be
// played. One at or before the last frame played (within a ring's reach,
// so that a restarted stream is not held) is held back.
bool passesTransition(SonraJbuf_p& d, const SonraJbufFrame_p* frame)
{
    --d.m_transitionGets;
    if (!frame)
        return false;
    const int32_t ahead = static_cast<int32_t>(frame->m_seqNum - d.m_lastDeliveredSeqNum);
    if (ahead <= 0 && ahead > -static_cast<int32_t>(transitionGets(d))) {
        ++d.m_earlierPlayed.framesHeld;
        return false;
    }
    if (d.m_shrinking && ahead > 1)
        d.m_earlierPlayed.framesSkipped += static_cast<unsigned>(ahead - 1);
    d.m_transitionGets = 0;
    return true;
}

} // namespace

// ---------------------------------------------------------------- SonraJbufSimple

SonraJbufSimple::SonraJbufSimple(SonraJbuf_p* owner, unsigned bufDelayFrames, unsigned maxDelayFrames,
                                 unsigned bufSize, SonraJbuf* jbuf)
    : m_owner(owner),
      m_bufDelayFrames(bufDelayFrames),
      m_maxDelayFrames(maxDelayFrames),
      m_bufSize(bufSize),
      m_headIndex(0),
      m_headSeqNum(0),
      m_framesCount(0),
      m_minSeqNum(0),
      m_frames(bufSize),
      m_dynCounter(0),
      m_dynMinBufTime(0),
      m_dynReferenceBufDepth(bufDelayFrames),
      m_jbufPtr(jbuf),
      m_getCount(0),
      m_runSeqNum(0),
      m_runLength(0),
      m_runStart(0),
      m_primingGets(0)
{
    SONRA_ASSERT(bufSize>=m_maxDelayFrames);
}

SonraJbufSimple::~SonraJbufSimple() = default;

// One step of the playout head; returns what the head's slot held.
boost::shared_ptr<SonraJbufFrame_p> SonraJbufSimple::advanceHead()
{
    if (m_framesCount != 0)
        ++m_headSeqNum;
    boost::shared_ptr<SonraJbufFrame_p> taken;
    taken.swap(m_frames[m_headIndex]);
    if (taken && m_framesCount != 0)
        --m_framesCount;
    m_headIndex = (m_headIndex + 1) % m_bufSize;
    if (m_headSeqNum > m_minSeqNum)
        m_minSeqNum = m_headSeqNum;
    return taken;
}

// `steps` single steps, dropping what the slots hold. Once a whole ring
// has been passed every slot is empty and m_framesCount no longer changes,
// so the remaining steps are taken at once: a far-ahead sequence number
// costs one turn of the ring, not one step per number. The head cannot
// wrap: it stays below the sequence number that asked for the steps.
void SonraJbufSimple::advanceHead(unsigned steps)
{
    const unsigned stepped = steps < m_bufSize ? steps : m_bufSize;
    for (unsigned i = 0; i < stepped; ++i) {
        if (advanceHead())
            ++m_statistics.framesDropped;
    }
    const unsigned remaining = steps - stepped;
    if (remaining == 0)
        return;
    if (m_framesCount != 0)
        m_headSeqNum += remaining;
    m_headIndex = static_cast<unsigned>((static_cast<uint64_t>(m_headIndex) + remaining) % m_bufSize);
    if (m_headSeqNum > m_minSeqNum)
        m_minSeqNum = m_headSeqNum;
}

bool SonraJbufSimple::putFrame(boost::shared_ptr<SonraJbufFrame_p> frame)
{
    SONRA_DEBUG(LOG_CATEGORY, 0, false) << "Jbuf " << m_jbufPtr->currentTime() << " put frame ";
    ++m_statistics.framesPut;
    const unsigned seqNum = frame->m_seqNum;
    if (m_owner->m_recovery && isSuspect(seqNum))
        return refuseSuspect(frame);
    const bool tooOld = seqNum < m_minSeqNum;
    if (tooOld) {
        ++m_statistics.framesTooOld;
    } else {
        unsigned offset = 0; // slots ahead of the head
        if (m_framesCount == 0) {
            // Numbers from 2^31 on have no place, unless recovery lets a
            // stream cross 2^31.
            m_headSeqNum = static_cast<int32_t>(seqNum) < 0 && !m_owner->m_recovery ? 0 : seqNum;
        } else {
            offset = seqNum - m_headSeqNum;
            if (offset > m_maxDelayFrames) {
                advanceHead(offset - m_maxDelayFrames);
                offset = m_maxDelayFrames;
            }
        }
        if (m_headSeqNum == 0) {
            ++m_statistics.framesUnnumbered;
        } else {
            const unsigned index = static_cast<unsigned>((static_cast<uint64_t>(m_headIndex) + offset) % m_bufSize);
            const bool duplicate = static_cast<bool>(m_frames[index]);
            if (duplicate)
                ++m_statistics.duplicates;
            if (m_framesCount == 0)
                primeDepth();
            m_frames[index] = frame;
            if (duplicate && m_owner->m_recovery)
                ++m_statistics.framesDropped;
            else
                ++m_framesCount;
            if (index == m_headIndex)
                m_headSeqNum = seqNum;
            m_runLength = 0;
        }
    }
    if (m_headSeqNum > m_minSeqNum)
        m_minSeqNum = m_headSeqNum;
    return tooOld;
}

// With recovery on: a frame far from the stream, one that the queue rules
// would refuse as older than the maximum lead below the lowest playable
// number, or place nowhere, or one that would move the head further than a
// stream jumps. A frame only a little too old is a late one and left to the
// queue rules (a stream that went back that little catches up by itself
// once the queue is dry). A dry queue's head stands still, so the jump also
// measures how long the stream was away: a stream back after
// RECOVERY_MAX_JUMP_MS of loss comes in as a run of strays.
bool SonraJbufSimple::isSuspect(unsigned seqNum) const
{
    if (seqNum < m_minSeqNum)
        return m_minSeqNum - seqNum > m_maxDelayFrames;
    if (seqNum == 0 && m_framesCount == 0)
        return true;
    const unsigned jumpFrames = SonraJbuf::RECOVERY_MAX_JUMP_MS / m_owner->m_frameDuration;
    const unsigned maxJump = jumpFrames > m_maxDelayFrames ? jumpFrames : m_maxDelayFrames;
    // m_minSeqNum is the highest head reached: seqNum - m_headSeqNum cannot wrap.
    return m_headSeqNum != 0 && seqNum - m_headSeqNum > maxJump;
}

// Counts a suspect frame and extends or restarts the run of refused frames;
// a run long enough, in frames and in time, re-anchors the queue. A run
// agrees when each frame lies within the maximum lead of the one before it:
// a restarted or re-numbered stream does, random numbers do not.
bool SonraJbufSimple::refuseSuspect(const boost::shared_ptr<SonraJbufFrame_p>& frame)
{
    const unsigned seqNum = frame->m_seqNum;
    const int32_t step = static_cast<int32_t>(seqNum - m_runSeqNum);
    const int32_t lead = static_cast<int32_t>(m_maxDelayFrames);
    if (m_runLength != 0 && step != 0 && step >= -lead && step <= lead) {
        ++m_runLength;
    } else {
        m_runLength = 1;
        m_runStart = m_getCount;
    }
    m_runSeqNum = seqNum;
    const unsigned runFrames = SonraJbuf::RECOVERY_RUN_FRAMES;
    // Numbered 0, the frame would leave the queue without a head.
    if (seqNum != 0 && m_runLength >= runFrames && m_getCount - m_runStart + 1 >= runFrames) {
        resync(frame);
        return false;
    }
    const bool tooOld = seqNum < m_minSeqNum;
    if (tooOld)
        ++m_statistics.framesTooOld;
    else if (seqNum == 0)
        ++m_statistics.framesUnnumbered;
    else
        ++m_statistics.framesStray;
    return tooOld;
}

// With the adaptive playout policy, a queue that starts again from empty
// waits D - 1 periods before it plays, so that each queue holds its own
// depth and the queues form a ladder of delays to choose from. (Without it
// every queue plays at once and a deeper one differs only in cutting less.)
void SonraJbufSimple::primeDepth()
{
    if (m_owner->m_policy == SonraJbuf::PLAYOUT_ADAPTIVE && m_bufDelayFrames > 0)
        m_primingGets = m_bufDelayFrames - 1;
}

// Drops everything and anchors the head on `frame`, as on a new stream.
// Everything the queue counted as held is dropped, the copies duplicates
// replaced included, so that the counts still add up to the frames put.
void SonraJbufSimple::resync(const boost::shared_ptr<SonraJbufFrame_p>& frame)
{
    for (boost::shared_ptr<SonraJbufFrame_p>& slot : m_frames)
        slot.reset();
    m_statistics.framesDropped += m_framesCount;
    ++m_statistics.resyncs;
    primeDepth();
    m_frames[m_headIndex] = frame;
    m_framesCount = 1;
    m_headSeqNum = m_minSeqNum = frame->m_seqNum;
    m_runLength = 0;
    m_dynMinBufTime = 0;
    m_dynReferenceBufDepth = m_bufDelayFrames;
    m_dynCounter = 0;
}

// The time `frame` spent in the queue. A clock that reads less than the
// frame's stamp was replaced by a younger one while the frame waited (its
// owner moved to another pipe): the wait is unknown and counts as 0 ms,
// which restarts the observation period instead of stopping the client.
unsigned SonraJbufSimple::residenceTime(const SonraJbufFrame_p& frame) const
{
    const unsigned now = m_jbufPtr->currentTime();
    return now >= frame.m_bufTime ? now - frame.m_bufTime : 0;
}

void SonraJbufSimple::notePlayed(const SonraJbufFrame_p& frame)
{
    ++m_statistics.framesPlayed;
    m_statistics.lastResidenceTime = residenceTime(frame);
    m_statistics.lastSeqNum = frame.m_seqNum;
    m_statistics.lastTimeStamp = frame.m_timeStamp;
}

boost::shared_ptr<SonraJbufFrame_p> SonraJbufSimple::getFrame()
{
    const unsigned frameDuration = m_owner->m_frameDuration; // ms
    ++m_getCount;
    SONRA_DEBUG(LOG_CATEGORY, 0, false) << "Jbuf " << m_jbufPtr->currentTime() << " get frame ";
    if (m_primingGets != 0) {
        --m_primingGets;
        ++m_statistics.underruns;
        return boost::shared_ptr<SonraJbufFrame_p>();
    }

    if (m_framesCount != 0 && m_dynReferenceBufDepth < m_framesCount - 1) {
        m_dynReferenceBufDepth = m_framesCount - 1;
        m_dynCounter = 0;
        SONRA_DEBUG(LOG_CATEGORY, 0, false) << "JBuf new m_dynReferenceBufDepth=" << m_dynReferenceBufDepth;
    }

    boost::shared_ptr<SonraJbufFrame_p> framePtr = advanceHead();
    if (!framePtr) {
        ++m_statistics.underruns;
        return framePtr;
    }

    const unsigned bufTime = residenceTime(*framePtr); // ms
    ++m_dynCounter;
    if (m_dynMinBufTime == 0 || bufTime < m_dynMinBufTime) {
        m_dynMinBufTime = bufTime;
        m_dynCounter = 0;
        SONRA_DEBUG(LOG_CATEGORY, 0, false) << "New minBufTime=" << m_dynMinBufTime;
    }

    const unsigned dynBufDelay = frameDuration * m_dynReferenceBufDepth; // ms
    const unsigned dynCountPeriod = OBSERVATION_PERIOD_MS / frameDuration; // frames
    SONRA_DEBUG(LOG_CATEGORY, 0, false)
        << "JBuf m_dynMinBufTime=" << m_dynMinBufTime << ", m_dynReferenceBufDepth=" << m_dynReferenceBufDepth
        << ", m_framesCount=" << m_framesCount << ", m_bufDelayFrames=" << m_bufDelayFrames
        << ", m_dynCounter=" << m_dynCounter << ", dynCountPeriod=" << dynCountPeriod
        << ", dynBufDelay=" << dynBufDelay;

    if (m_dynCounter < dynCountPeriod) {
        notePlayed(*framePtr);
        return framePtr;
    }

    // "At least D frames still queued", written so that it cannot wrap.
    if (m_framesCount + 1 > m_bufDelayFrames && m_dynMinBufTime >= dynBufDelay) {
        SONRA_DEBUG(LOG_CATEGORY, 0, false) << "JBuf decrease buffer depth";
        ++m_statistics.depthDecreases;
        boost::shared_ptr<SonraJbufFrame_p> next = advanceHead();
        if (next) {
            ++m_statistics.framesDropped;
            framePtr = next;
        }
        SONRA_DEBUG(LOG_CATEGORY, 0, false)
            << "JBuf after decrease m_dynMinBufTime=" << m_dynMinBufTime
            << ", m_dynReferenceBufDepth=" << m_dynReferenceBufDepth << ", m_framesCount=" << m_framesCount
            << ", m_bufDelayFrames=" << m_bufDelayFrames << ", dynBufDelay=" << dynBufDelay;
    }
    m_dynMinBufTime = 0;
    m_dynReferenceBufDepth = m_bufDelayFrames;
    m_dynCounter = 0;
    notePlayed(*framePtr);
    return framePtr;
}

SonraJbufStatistics SonraJbufSimple::statistics() const
{
    SonraJbufStatistics statistics = m_statistics;
    statistics.queuedFrames = m_framesCount;
    return statistics;
}

// ---------------------------------------------------------------- SonraJbuf

SonraJbuf::SonraJbuf(unsigned int frameDuration) : d(new SonraJbuf_p)
{
    SONRA_ASSERT(frameDuration>0);
    d->m_frameDuration = frameDuration;
    d->m_initialDelay = 60;
    d->m_minDelay = 60;
    d->m_maxDelay = 60;
    d->m_initialBufDepth = 0;
    d->m_maxBufDepth = 0;
    d->m_minBufDepth = 0;
    d->m_extraJitterDelay = 300;
    d->m_extraJitterFrames = 0;
    d->m_recovery = false;
    d->m_policy = PLAYOUT_FIXED;
    reset();
}

SonraJbuf::~SonraJbuf() = default;

void SonraJbuf::setFrameDuration(unsigned int frameDuration)
{
    // A zero period would divide by zero below instead of failing clearly.
    SONRA_ASSERT(frameDuration>0);
    d->m_frameDuration = frameDuration;
    reset();
}

void SonraJbuf::setDelays(unsigned int initialDelay, unsigned int minDelay, unsigned int maxDelay,
                          unsigned int extraJitterDelay)
{
    d->m_initialDelay = initialDelay;
    d->m_minDelay = minDelay;
    d->m_maxDelay = maxDelay;
    d->m_extraJitterDelay = extraJitterDelay;
    if (d->m_minDelay < d->m_frameDuration)
        d->m_minDelay = d->m_frameDuration;
    if (d->m_maxDelay < d->m_frameDuration)
        d->m_maxDelay = d->m_frameDuration;
    if (d->m_initialDelay < d->m_frameDuration)
        d->m_initialDelay = d->m_frameDuration;
    reset();
}

void SonraJbuf::setDelayRecalcPeriods(unsigned int, unsigned int)
{
    reset();
}

void SonraJbuf::setTimeHandler(boost::function<unsigned int ()> handler)
{
    d->m_timeHandler = handler;
}

unsigned int SonraJbuf::currentTime() const
{
    return d->m_timeHandler ? d->m_timeHandler() : 0;
}

void SonraJbuf::reset()
{
    SONRA_ASSERT(d->m_maxDelay>=d->m_initialDelay);
    SONRA_ASSERT(d->m_initialDelay>=d->m_minDelay);
    SONRA_ASSERT((d->m_initialDelay%d->m_frameDuration)==0);
    SONRA_ASSERT((d->m_minDelay%d->m_frameDuration)==0);
    SONRA_ASSERT((d->m_maxDelay%d->m_frameDuration)==0);
    SONRA_ASSERT((d->m_extraJitterDelay%d->m_frameDuration)==0);

    d->m_maxBufDepth = d->m_maxDelay / d->m_frameDuration;
    d->m_minBufDepth = d->m_minDelay / d->m_frameDuration;
    d->m_initialBufDepth = d->m_initialDelay / d->m_frameDuration;
    d->m_extraJitterFrames = d->m_extraJitterDelay / d->m_frameDuration;

    d->m_queues.clear();
    const unsigned bufSize = 2 * d->m_maxBufDepth + d->m_extraJitterFrames; // slots
    for (unsigned depth = d->m_minBufDepth; depth <= d->m_maxBufDepth; ++depth) {
        d->m_queues[depth] = boost::make_shared<SonraJbufSimple>(d.get(), depth, depth + d->m_extraJitterFrames,
                                                                 bufSize, this);
        if (depth == d->m_maxBufDepth)
            break; // a maximum of UINT_MAX frames must not wrap the loop
    }

    d->m_candidates.clear();
    for (const auto& queue : d->m_queues)
        d->m_candidates.push_back(SonraJbufCandidate_p{queue.second.get(), queue.first, false, 0.0});
    d->m_played = d->m_initialBufDepth - d->m_minBufDepth;
    d->m_getCount = 0;
    d->m_lastSwitchGet = 0;
    d->m_deliveredAny = false;
    d->m_lastDeliveredSeqNum = 0;
    d->m_transitionGets = 0;
    d->m_shrinking = false;
    d->m_earlierPlayed = SonraJbufStatistics();
    d->m_playedSince = SonraJbufStatistics();
}

void SonraJbuf::putFrame(boost::shared_ptr<std::vector<char> > frame, unsigned int seqNum, unsigned int timeStamp)
{
    boost::shared_ptr<SonraJbufFrame_p> record = boost::make_shared<SonraJbufFrame_p>();
    record->m_seqNum = seqNum;
    record->m_timeStamp = timeStamp;
    record->m_data = frame;
    record->m_bufTime = currentTime();
    for (SonraJbufCandidate_p& candidate : d->m_candidates)
        candidate.m_refused = candidate.m_queue->putFrame(record);
    if (d->m_policy == PLAYOUT_ADAPTIVE)
        updateTooOldShares(*d);
}

unsigned int SonraJbuf::getFrame(boost::shared_ptr<std::vector<char> >& frame, unsigned int* seqNum,
                                 unsigned int* timeStamp)
{
    ++d->m_getCount;
    if (d->m_policy == PLAYOUT_ADAPTIVE)
        choosePlayedQueue(*d);
    // Every queue is advanced; only the played one's frame is kept.
    boost::shared_ptr<SonraJbufFrame_p> played;
    const std::size_t count = d->m_candidates.size();
    for (std::size_t i = 0; i < count; ++i) {
        boost::shared_ptr<SonraJbufFrame_p> taken = d->m_candidates[i].m_queue->getFrame();
        if (i == d->m_played)
            played.swap(taken);
    }
    if (d->m_transitionGets != 0 && !passesTransition(*d, played.get()))
        return 1;
    if (!played)
        return 1;
    if (played->m_delivered) {
        ++d->m_earlierPlayed.framesHeld;
        return 1;
    }
    played->m_delivered = true;
    d->m_deliveredAny = true;
    d->m_lastDeliveredSeqNum = played->m_seqNum;
    frame = played->m_data;
    if (seqNum)
        *seqNum = played->m_seqNum;
    if (timeStamp)
        *timeStamp = played->m_timeStamp;
    return 0;
}

void SonraJbuf::setPlayoutPolicy(PlayoutPolicy policy)
{
    d->m_policy = policy;
    reset();
}

double SonraJbuf::PLAYOUT_TOO_OLD_TARGET = 0.01;
unsigned SonraJbuf::PLAYOUT_SHARE_FRAMES = 200;
unsigned SonraJbuf::PLAYOUT_DESCENT_HOLD_MS = 5000;
double SonraJbuf::PLAYOUT_DESCENT_FRACTION = 0.25;

unsigned SonraJbuf::RECOVERY_RUN_FRAMES = 4;
unsigned SonraJbuf::RECOVERY_MAX_JUMP_MS = 2000;

void SonraJbuf::setRecovery(bool enabled)
{
    d->m_recovery = enabled;
}

SonraJbufStatistics SonraJbuf::statistics() const
{
    if (d->m_candidates.empty())
        return SonraJbufStatistics();
    const SonraJbufCandidate_p& played = d->m_candidates[d->m_played];
    SonraJbufStatistics statistics = played.m_queue->statistics();
    combineCounts(statistics, d->m_earlierPlayed, d->m_playedSince);
    statistics.framesPlayed -= d->m_earlierPlayed.framesHeld; // the queues counted them as played
    statistics.playedDepth = played.m_depth;
    return statistics;
}

} // namespace ombrel
