#ifndef OMBREL_SONRAJBUFPOLICY_P_H
#define OMBREL_SONRAJBUFPOLICY_P_H

// Which queue of a SonraJbuf is played (SonraJbuf::setPlayoutPolicy), with
// F the playout period (ms) and D a queue's depth (frames).
//
// PLAYOUT_FIXED, the default: the queue of the initial delay, always.
//
// PLAYOUT_ADAPTIVE: the shallowest queue whose recent share of too-old
// frames stays at or under SonraJbuf::PLAYOUT_TOO_OLD_TARGET (0.01):
//  - share: a running mean, over about SonraJbuf::PLAYOUT_SHARE_FRAMES (200)
//    frames put, of the frames too old for the queue yet in time for the
//    deepest one (a frame no depth could have played, a late duplicate or
//    one later than the deepest delay, says nothing of depth);
//  - quick climb: once the played queue's share exceeds the target, the
//    next get plays the shallowest deeper queue at or under it (the deepest
//    when none is);
//  - slow descent: one depth at a time, once SonraJbuf::PLAYOUT_DESCENT_HOLD_MS
//    (5000 ms: 250 gets at 20 ms) have passed since the last move and the
//    next shallower queue's share is under SonraJbuf::PLAYOUT_DESCENT_FRACTION
//    (0.25) of the target (the hysteresis);
//  - a move never repeats or reorders a frame: for as many gets after it as
//    a queue's ring has slots, what the new queue has due at or before the
//    last frame played (within that reach, so that a restarted stream is
//    not held) is held back, one period of added delay each (a climb costs
//    one held frame per frame of delay it adds); the first frame after the
//    last one played ends the move, and a descent passes over the numbers
//    between (one per frame of delay it removes);
//  - so that the depths are a ladder of delays to choose from, a queue that
//    starts from empty (first frame, after running dry, after a resync)
//    waits D - 1 periods before it plays.
//
// Counts: statistics() adds up what each queue did while it was the played
// one, and the moves. A frame the played queue gave out but a move held back
// is held (framesHeld), not played.

#include "sonrajbuf.h"

#include <cstddef>
#include <vector>

namespace ombrel {

struct SonraJbufFrame_p;

struct SonraJbufPolicyConfig {
    SonraJbuf::PlayoutPolicy m_policy = SonraJbuf::PLAYOUT_FIXED;
    unsigned m_frameDuration = 0; // ms, one get per period
    unsigned m_ringSlots = 0;     // slots of a queue's ring: gets a move looks back for frames played
    std::size_t m_initialQueue = 0; // index, in ascending depth, of the queue played first
};

class SonraJbufPolicy {
public:
    // A new ladder of queues, in ascending depth; every decision and count restarts.
    void restart(const SonraJbufPolicyConfig& config, const std::vector<SonraJbufSimple*>& queues,
                 const std::vector<unsigned>& depths);

    // Whether a queue that starts from empty waits D - 1 periods before it plays.
    bool warmsUpQueues() const;

    // After a put: whether the frame was too old for queue `index`.
    void noteRefused(std::size_t index, bool refused);
    // After every queue took the frame.
    void notePut();

    // Before each get: the index of the queue to play now ("play this queue?").
    std::size_t choose();
    // After the get: whether the frame the played queue gave out (maybe
    // none) is delivered; marks it delivered when it is.
    bool admit(SonraJbufFrame_p* frame);

    SonraJbufStatistics statistics() const;

private:
    struct Candidate {
        SonraJbufSimple* m_queue;
        unsigned m_depth;     // frames
        bool m_refused;       // the last frame put was too old for it
        double m_tooOldShare; // running mean, 0..1
    };

    void updateTooOldShares();
    std::size_t adaptiveChoice() const;
    void move(std::size_t next);
    bool passesMove(const SonraJbufFrame_p* frame);
    void noteHeld();

    SonraJbufPolicyConfig m_config;
    std::vector<Candidate> m_candidates; // ascending depth
    std::size_t m_played = 0;            // index into m_candidates
    unsigned m_getsSinceMove = 0;        // gets since the last move (or the restart), wrapping
    bool m_deliveredAny = false;
    unsigned m_lastDeliveredSeqNum = 0;
    unsigned m_moveGets = 0;             // gets left in which a frame not after the last delivered one is held
    bool m_shrinking = false;            // the move was to a shallower queue
    SonraJbufStatistics m_earlierPlayed; // counts of the queues played before the current one, and the moves
    SonraJbufStatistics m_playedSince;   // the current played queue's counts when it became the played one
};

} // namespace ombrel

#endif
