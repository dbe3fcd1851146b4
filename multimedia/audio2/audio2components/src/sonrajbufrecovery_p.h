#ifndef OMBREL_SONRAJBUFRECOVERY_P_H
#define OMBREL_SONRAJBUFRECOVERY_P_H

// Recovery of one playout queue from sequence numbers that the queue rules
// alone cannot recover from (SonraJbuf::setRecovery, off by default). With
// L the queue's maximum lead (frames) and F the playout period (ms), a queue
// with recovery on:
//  - refuses as stray a frame that would move its head more than
//        max(L, SonraJbuf::RECOVERY_MAX_JUMP_MS / F) frames ahead
//    (2000 ms: 100 frames at 20 ms), so that one far-ahead datagram never
//    moves the stream. A dry queue's head stands still, so the jump also
//    measures how long the stream was away: a stream back after that long
//    a loss comes in as a run of strays;
//  - refuses too, as far from the stream, a frame more than L below the
//    lowest playable number, and one numbered 0 reaching an empty queue (a
//    frame only a little too old is a late one, left to the queue rules: a
//    stream that went back that little catches up once the queue is dry);
//  - re-anchors on a run of SonraJbuf::RECOVERY_RUN_FRAMES (4) such refused
//    frames with no stored frame between them, each within L of the one
//    before (a restarted or re-numbered stream agrees with itself, random
//    numbers do not), none numbered 0, spanning at least
//    RECOVERY_RUN_FRAMES - 1 gets: the stream plays again within
//    RECOVERY_RUN_FRAMES periods;
//  - anchors on any number but 0, so that a stream may cross 2^31;
//  - counts a slot a duplicate replaced once, not twice: otherwise the
//    queue is never empty again, its head runs on with every get, and a
//    single lost or stray frame after a duplicate leaves every later frame
//    one behind the head, too old.
// Off, the frames are exactly those of the queue rules. Turning recovery on
// or off keeps the frames.

#include "sonrajbuf.h"

namespace ombrel {

struct SonraJbufRecoveryConfig {
    bool m_enabled = false;
    unsigned m_frameDuration = 0; // ms, one get per period
    unsigned m_maxLeadFrames = 0; // frames, L: how far ahead of its head the queue stores
};

// Where a queue stands when a frame reaches it.
struct SonraJbufQueuePosition {
    unsigned m_headSeqNum;  // 0: no head yet
    unsigned m_minSeqNum;   // lowest playable sequence number
    unsigned m_framesCount; // frames the queue counts as held
};

// The recovery of one queue: which arriving frames are stray, and the run of
// them that re-anchors the queue.
class SonraJbufRecovery {
public:
    enum Verdict {
        PLACE,   // a frame of the stream: the queue rules place or refuse it
        REFUSE,  // stray or far from the stream: refused
        REANCHOR // the run is long enough: the queue drops everything and anchors on this frame
    };

    explicit SonraJbufRecovery(const SonraJbufRecoveryConfig& config);

    void setEnabled(bool enabled);
    bool enabled() const;

    // "Is this frame stray?" Extends or restarts the run of refused frames.
    // Inline, with noteStored and noteGet: every queue calls them every frame.
    Verdict judge(unsigned seqNum, const SonraJbufQueuePosition& position);
    // Whether `seqNum` may anchor the head of an empty queue.
    bool mayAnchor(unsigned seqNum) const;
    // Whether a duplicate's slot counts once.
    bool countsDuplicateOnce() const;
    // A frame was stored: the run of refused frames is broken.
    void noteStored();
    // One get of the queue, the run's clock.
    void noteGet();

private:
    bool isFarFromStream(unsigned seqNum, const SonraJbufQueuePosition& position) const;
    Verdict extendRun(unsigned seqNum);

    SonraJbufRecoveryConfig m_config;
    unsigned m_runSeqNum; // last frame of the current run of refused frames
    unsigned m_runLength; // frames refused in the run; 0: no run
    unsigned m_runGets;   // gets since the run began, wrapping
};

inline SonraJbufRecovery::Verdict SonraJbufRecovery::judge(unsigned seqNum, const SonraJbufQueuePosition& position)
{
    if (!m_config.m_enabled || !isFarFromStream(seqNum, position))
        return PLACE;
    return extendRun(seqNum);
}

inline bool SonraJbufRecovery::isFarFromStream(unsigned seqNum, const SonraJbufQueuePosition& position) const
{
    const unsigned lead = m_config.m_maxLeadFrames;
    if (seqNum < position.m_minSeqNum)
        return position.m_minSeqNum - seqNum > lead;
    if (seqNum == 0 && position.m_framesCount == 0)
        return true;
    if (position.m_headSeqNum == 0)
        return false;
    // m_minSeqNum is the highest head reached: seqNum - m_headSeqNum cannot wrap.
    const unsigned ahead = seqNum - position.m_headSeqNum; // frames
    // The largest jump is max(L, SonraJbuf::RECOVERY_MAX_JUMP_MS / F): within
    // L the frame is near, and only beyond it is the division needed.
    if (ahead <= lead)
        return false;
    return ahead > SonraJbuf::RECOVERY_MAX_JUMP_MS / m_config.m_frameDuration;
}

inline void SonraJbufRecovery::noteStored()
{
    m_runLength = 0;
}

inline void SonraJbufRecovery::noteGet()
{
    ++m_runGets;
}

} // namespace ombrel

#endif
