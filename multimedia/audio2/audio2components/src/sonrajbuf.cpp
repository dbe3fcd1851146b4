#include "sonrajbuf.h"

#include "shared.h"
#include "sonrajbufframe_p.h"
#include "sonrajbufpolicy_p.h"
#include "sonrajbufrecovery_p.h"

#include <boost/make_shared.hpp>

#include <map>

namespace ombrel {

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
    // Records no queue holds any more, kept until the next put, get or
    // reset: a frame a queue's getFrame hands out owns nothing (see
    // SonraJbufFrame_p::m_self) and stays valid until then; the next put
    // reuses the latest. Declared before m_queues, which release into it,
    // so that it is destroyed after them.
    std::vector<boost::shared_ptr<SonraJbufFrame_p> > m_released;
    std::map<unsigned, boost::shared_ptr<SonraJbufSimple> > m_queues; // by depth in frames
    std::vector<SonraJbufSimple*> m_ladder;     // m_queues' queues, ascending depth
    unsigned m_now;                             // ms, the clock read once per getFrame for every queue
    unsigned m_observationFrames;               // frames, a queue's observation period (set by reset)
    boost::function<unsigned ()> m_timeHandler; // the clock, ms
    bool m_recovery;                            // see SonraJbuf::setRecovery
    SonraJbuf::PlayoutPolicy m_playoutPolicy;   // see SonraJbuf::setPlayoutPolicy
    SonraJbufPolicy m_policy;                   // which queue plays; restarted by every reset
    bool m_stretching;                          // see SonraJbuf::setTimeStretching
    SonraJbufStretchRequest m_stretchRequest;   // what the last getFrame asks of the consumer
};

namespace {

const char* const LOG_CATEGORY = "audio2jbuf";

// The depth-cut rule of a queue (written out above SonraJbufSimple in the
// header): the observation period, in ms of played frames.
const unsigned OBSERVATION_PERIOD_MS = 3000;

// Slots of each queue's ring: room for the deepest queue's depth twice
// over plus the extra lead.
unsigned ringSlots(const SonraJbuf_p& d)
{
    return 2 * d.m_maxBufDepth + d.m_extraJitterFrames;
}

// A slot's pointer to `frame`: it owns nothing, so copying and dropping it
// touch no reference count; the record counts the slot as a holder instead.
// Only the frame being put is held: once every queue took it, the owner's
// putFrame hands the record its m_self if any queue holds it.
inline boost::shared_ptr<SonraJbufFrame_p> holdFrame(const boost::shared_ptr<SonraJbufFrame_p>& frame)
{
    ++frame->m_holders;
    return boost::shared_ptr<SonraJbufFrame_p>(boost::shared_ptr<SonraJbufFrame_p>(), frame.get());
}

// A slot let go of `frame`. Once no slot holds it, the record is kept in
// `released` until the owner's next put, get or reset, so that the pointer
// just taken from the slot stays valid for the get that took it.
inline void releaseFrame(SonraJbufFrame_p& frame, std::vector<boost::shared_ptr<SonraJbufFrame_p> >& released)
{
    if (--frame.m_holders == 0)
        released.push_back(std::move(frame.m_self));
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
      m_recovery(new SonraJbufRecovery(SonraJbufRecoveryConfig{false, owner->m_frameDuration, maxDelayFrames})),
      m_warmsUp(false),
      m_primingGets(0)
{
    SONRA_ASSERT(bufSize>=m_maxDelayFrames);
}

SonraJbufSimple::~SonraJbufSimple()
{
    for (const boost::shared_ptr<SonraJbufFrame_p>& slot : m_frames) {
        if (slot && --slot->m_holders == 0)
            slot->m_self.reset(); // nothing taken from a queue outlives it
    }
}

void SonraJbufSimple::setRecovery(bool enabled)
{
    m_recovery->setEnabled(enabled);
}

void SonraJbufSimple::setWarmUp(bool warmsUp)
{
    m_warmsUp = warmsUp;
}

// One step of the playout head; returns what the head's slot held.
boost::shared_ptr<SonraJbufFrame_p> SonraJbufSimple::advanceHead()
{
    if (m_framesCount != 0)
        ++m_headSeqNum;
    boost::shared_ptr<SonraJbufFrame_p> taken;
    taken.swap(m_frames[m_headIndex]);
    if (taken)
        releaseFrame(*taken, m_owner->m_released);
    if (taken && m_framesCount != 0)
        --m_framesCount;
    if (++m_headIndex == m_bufSize) // (m_headIndex + 1) % m_bufSize, without a division
        m_headIndex = 0;
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

bool SonraJbufSimple::putFrame(const boost::shared_ptr<SonraJbufFrame_p>& frame)
{
    SONRA_DEBUG(LOG_CATEGORY, 0, false) << "Jbuf " << m_jbufPtr->currentTime() << " put frame ";
    ++m_statistics.framesPut;
    const unsigned seqNum = frame->m_seqNum;
    switch (m_recovery->judge(seqNum, SonraJbufQueuePosition{m_headSeqNum, m_minSeqNum, m_framesCount})) {
    case SonraJbufRecovery::PLACE: break;
    case SonraJbufRecovery::REFUSE: return countRefused(seqNum);
    case SonraJbufRecovery::REANCHOR: resync(frame); return false;
    }
    const bool tooOld = seqNum < m_minSeqNum;
    if (tooOld) {
        ++m_statistics.framesTooOld;
    } else {
        unsigned offset = 0; // slots ahead of the head
        if (m_framesCount == 0) {
            // Numbers from 2^31 on have no place, unless recovery lets a
            // stream cross 2^31.
            m_headSeqNum = m_recovery->mayAnchor(seqNum) ? seqNum : 0;
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
            // (m_headIndex + offset) % m_bufSize, without a division: both
            // terms are below the ring size (offset <= the maximum lead).
            unsigned index = m_headIndex + offset;
            if (index < offset || index >= m_bufSize)
                index -= m_bufSize;
            const bool duplicate = static_cast<bool>(m_frames[index]);
            if (duplicate)
                ++m_statistics.duplicates;
            if (m_framesCount == 0)
                primeDepth();
            boost::shared_ptr<SonraJbufFrame_p> replaced = holdFrame(frame);
            replaced.swap(m_frames[index]);
            if (replaced)
                releaseFrame(*replaced, m_owner->m_released);
            if (duplicate && m_recovery->countsDuplicateOnce())
                ++m_statistics.framesDropped;
            else
                ++m_framesCount;
            if (index == m_headIndex)
                m_headSeqNum = seqNum;
            m_recovery->noteStored();
        }
    }
    if (m_headSeqNum > m_minSeqNum)
        m_minSeqNum = m_headSeqNum;
    return tooOld;
}

// A frame the recovery refused: too old, unnumbered or stray.
bool SonraJbufSimple::countRefused(unsigned seqNum)
{
    const bool tooOld = seqNum < m_minSeqNum;
    if (tooOld)
        ++m_statistics.framesTooOld;
    else if (seqNum == 0)
        ++m_statistics.framesUnnumbered;
    else
        ++m_statistics.framesStray;
    return tooOld;
}

// A queue that warms up waits D - 1 periods after starting from empty, so
// that each queue holds its own depth and the queues form a ladder of delays
// to choose from. (Otherwise every queue plays at once and a deeper one
// differs only in cutting less.)
void SonraJbufSimple::primeDepth()
{
    if (m_warmsUp && m_bufDelayFrames > 0)
        m_primingGets = m_bufDelayFrames - 1;
}

// Drops everything and anchors the head on `frame`, as on a new stream.
// Everything the queue counted as held is dropped, the copies duplicates
// replaced included, so that the counts still add up to the frames put.
void SonraJbufSimple::resync(const boost::shared_ptr<SonraJbufFrame_p>& frame)
{
    for (boost::shared_ptr<SonraJbufFrame_p>& slot : m_frames) {
        if (slot)
            releaseFrame(*slot, m_owner->m_released);
        slot.reset();
    }
    m_statistics.framesDropped += m_framesCount;
    ++m_statistics.resyncs;
    primeDepth();
    m_frames[m_headIndex] = holdFrame(frame);
    m_framesCount = 1;
    m_headSeqNum = m_minSeqNum = frame->m_seqNum;
    m_dynMinBufTime = 0;
    m_dynReferenceBufDepth = m_bufDelayFrames;
    m_dynCounter = 0;
}

// The time `frame` spent in the queue, by the clock as the owner read it at
// the start of the get. A clock that reads less than the
// frame's stamp was replaced by a younger one while the frame waited (its
// owner moved to another pipe): the wait is unknown and counts as 0 ms,
// which restarts the observation period instead of stopping the client.
unsigned SonraJbufSimple::residenceTime(const SonraJbufFrame_p& frame) const
{
    const unsigned now = m_owner->m_now;
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
    m_recovery->noteGet();
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
    const unsigned dynCountPeriod = m_owner->m_observationFrames; // frames, OBSERVATION_PERIOD_MS / frameDuration
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

namespace {

// A record for the frame being put: the latest one the queues released,
// when nothing else holds it, cleared; else a new one. What the last get
// handed out is no longer used: every other released record goes.
boost::shared_ptr<SonraJbufFrame_p> newRecord(SonraJbuf_p& d)
{
    boost::shared_ptr<SonraJbufFrame_p> record;
    if (!d.m_released.empty() && d.m_released.back().unique()) {
        record.swap(d.m_released.back());
        *record = SonraJbufFrame_p();
    } else {
        record = boost::make_shared<SonraJbufFrame_p>();
    }
    d.m_released.clear();
    return record;
}

// Before a get: what the last get handed out is no longer used. The latest
// released record is kept for the next put to reuse, the others go.
void trimReleased(SonraJbuf_p& d)
{
    if (d.m_released.size() > 1)
        d.m_released.erase(d.m_released.begin(), d.m_released.end() - 1);
}

} // namespace

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
    d->m_playoutPolicy = PLAYOUT_INITIAL_DELAY;
    d->m_stretching = false;
    d->m_now = 0;
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
    d->m_observationFrames = OBSERVATION_PERIOD_MS / d->m_frameDuration;

    d->m_queues.clear();
    d->m_ladder.clear();
    d->m_released.clear();
    const unsigned bufSize = ringSlots(*d);
    std::vector<SonraJbufSimple*> ladder;
    std::vector<unsigned> depths; // frames
    for (unsigned depth = d->m_minBufDepth; depth <= d->m_maxBufDepth; ++depth) {
        const boost::shared_ptr<SonraJbufSimple> queue =
            boost::make_shared<SonraJbufSimple>(d.get(), depth, depth + d->m_extraJitterFrames, bufSize, this);
        d->m_queues[depth] = queue;
        ladder.push_back(queue.get());
        depths.push_back(depth);
        if (depth == d->m_maxBufDepth)
            break; // a maximum of UINT_MAX frames must not wrap the loop
    }
    const SonraJbufPolicyConfig policy{d->m_playoutPolicy, d->m_frameDuration, bufSize,
                                       d->m_initialBufDepth - d->m_minBufDepth};
    d->m_policy.restart(policy, ladder, depths);
    d->m_policy.setStretching(d->m_stretching);
    d->m_stretchRequest = SonraJbufStretchRequest();
    d->m_ladder = ladder;
    for (SonraJbufSimple* queue : ladder) {
        queue->setRecovery(d->m_recovery);
        queue->setWarmUp(d->m_policy.warmsUpQueues());
    }
}

void SonraJbuf::putFrame(boost::shared_ptr<std::vector<char> > frame, unsigned int seqNum, unsigned int timeStamp)
{
    boost::shared_ptr<SonraJbufFrame_p> record = newRecord(*d);
    record->m_seqNum = seqNum;
    record->m_timeStamp = timeStamp;
    record->m_data.swap(frame);
    record->m_bufTime = currentTime();
    std::size_t index = 0; // ascending depth
    for (SonraJbufSimple* queue : d->m_ladder)
        d->m_policy.noteRefused(index++, queue->putFrame(record));
    // The record keeps itself while a queue holds it; else the next put reuses it.
    SonraJbufFrame_p& stored = *record;
    if (stored.m_holders != 0)
        stored.m_self.swap(record);
    else
        d->m_released.push_back(std::move(record));
    d->m_policy.notePut();
}

unsigned int SonraJbuf::getFrame(boost::shared_ptr<std::vector<char> >& frame, unsigned int* seqNum,
                                 unsigned int* timeStamp)
{
    d->m_stretchRequest = SonraJbufStretchRequest();
    trimReleased(*d);
    d->m_now = currentTime(); // one clock reading for every queue's residence times
    const std::size_t playedIndex = d->m_policy.choose();
    unsigned passOverSeqNum = 0;
    const bool mayPassOver = d->m_policy.passOverCandidate(&passOverSeqNum);
    const std::size_t fallbackIndex = d->m_policy.fallbackQueue();
    // Every queue is advanced; only the played one's frame is kept, and,
    // with time stretching, the frame of the queue a climb left or the
    // frame a descent would pass over first.
    boost::shared_ptr<SonraJbufFrame_p> played;
    boost::shared_ptr<SonraJbufFrame_p> fallback;
    boost::shared_ptr<SonraJbufFrame_p> passedOver;
    std::size_t index = 0; // ascending depth
    for (SonraJbufSimple* queue : d->m_ladder) {
        boost::shared_ptr<SonraJbufFrame_p> taken = queue->getFrame();
        if (index == playedIndex)
            played.swap(taken);
        else if (index == fallbackIndex)
            fallback.swap(taken);
        else if (mayPassOver && taken && taken->m_seqNum == passOverSeqNum && !taken->m_delivered)
            passedOver.swap(taken);
        ++index;
    }
    if (!d->m_policy.admit(played.get())) {
        if (!fallback || !d->m_policy.admitFallback(fallback.get(), fallbackResidence(*fallback)))
            return 1;
        played.swap(fallback);
        d->m_stretchRequest.expand = true;
    }
    notePassedOver(*played, passedOver);
    frame = played->m_data;
    if (seqNum)
        *seqNum = played->m_seqNum;
    if (timeStamp)
        *timeStamp = played->m_timeStamp;
    return 0;
}

// `passedOver` is handed over when `played` is the first frame after it:
// the descent passed it over.
void SonraJbuf::notePassedOver(const SonraJbufFrame_p& played, const boost::shared_ptr<SonraJbufFrame_p>& passedOver)
{
    if (!passedOver || static_cast<int32_t>(played.m_seqNum - passedOver->m_seqNum) <= 0)
        return;
    passedOver->m_delivered = true;
    d->m_stretchRequest.passedOver = passedOver->m_data;
    d->m_stretchRequest.passedOverSeqNum = passedOver->m_seqNum;
    d->m_policy.noteAccelerated();
}

// As a queue measures it for the frames it plays, on this get's clock reading.
unsigned SonraJbuf::fallbackResidence(const SonraJbufFrame_p& frame) const
{
    return d->m_now >= frame.m_bufTime ? d->m_now - frame.m_bufTime : 0;
}

void SonraJbuf::setPlayoutPolicy(PlayoutPolicy policy)
{
    d->m_playoutPolicy = policy;
    reset();
}

double SonraJbuf::PLAYOUT_TOO_OLD_TARGET = 0.01;
unsigned SonraJbuf::PLAYOUT_SHARE_FRAMES = 200;
unsigned SonraJbuf::PLAYOUT_DESCENT_HOLD_MS = 5000;
double SonraJbuf::PLAYOUT_DESCENT_FRACTION = 0.25;
unsigned SonraJbuf::PLAYOUT_HISTOGRAM_FRAMES = 2000;
double SonraJbuf::PLAYOUT_HISTOGRAM_TAIL = 0.0075;
unsigned SonraJbuf::PLAYOUT_PEAK_GAP_MS = 1000;
unsigned SonraJbuf::PLAYOUT_PEAK_PERIOD_MS = 20000;

unsigned SonraJbuf::RECOVERY_RUN_FRAMES = 4;
unsigned SonraJbuf::RECOVERY_MAX_JUMP_MS = 2000;

void SonraJbuf::setTimeStretching(bool enabled)
{
    d->m_stretching = enabled;
    d->m_policy.setStretching(enabled);
}

const SonraJbufStretchRequest& SonraJbuf::stretchRequest() const
{
    return d->m_stretchRequest;
}

void SonraJbuf::setRecovery(bool enabled)
{
    d->m_recovery = enabled;
    for (const auto& queue : d->m_queues)
        queue.second->setRecovery(enabled);
}

SonraJbufStatistics SonraJbuf::statistics() const
{
    return d->m_policy.statistics();
}

} // namespace ombrel
