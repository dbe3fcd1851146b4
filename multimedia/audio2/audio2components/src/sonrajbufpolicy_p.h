#ifndef OMBREL_SONRAJBUFPOLICY_P_H
#define OMBREL_SONRAJBUFPOLICY_P_H

// Which queue of a SonraJbuf is played (SonraJbuf::setPlayoutPolicy), with
// F the playout period (ms) and D a queue's depth (frames).
//
// PLAYOUT_INITIAL_DELAY, the default: the queue of the initial delay, always.
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
// PLAYOUT_HISTOGRAM: the adaptive rules (the quick climb on the share over
// PLAYOUT_SHARE_FRAMES, the hold before a descent, the ladder, the moves)
// with two more estimates, after the ideas of the delay manager of WebRTC's
// NetEq:
//  - histogram: for each queue, the share of frames too old for it yet in
//    time for the deepest one, with the forgetting factor
//    1 - 1 / SonraJbuf::PLAYOUT_HISTOGRAM_FRAMES per frame put (2000: about
//    40 s at 20 ms; the first PLAYOUT_SHARE_FRAMES weigh as in the short
//    share, so that it starts at once). Across the ladder that is the tail
//    of a histogram of how late frames come, in steps of one frame period.
//    Its target is the shallowest queue whose tail is at or under
//    SonraJbuf::PLAYOUT_HISTOGRAM_TAIL (0.0075: the 99.25th percentile of
//    lateness);
//  - peak detector: a frame too old for the played queue but not for the
//    deepest is late; late frames less than SonraJbuf::PLAYOUT_PEAK_GAP_MS
//    (1000 ms) apart form one delay peak (late, from the second on, for the
//    queue played when the peak began), whose height is the shallowest
//    queue that took them all. A peak of fewer than PEAK_FRAMES (3) late
//    frames is an outlier of the jitter, not a peak. A peak that begins
//    within SonraJbuf::PLAYOUT_PEAK_PERIOD_MS (20000 ms) of the one before
//    recurs: the depth is kept at or above the lower of the two heights
//    (both peaks reached it; the lower keeps one heavy-tailed outlier from
//    setting it) for 2 x PLAYOUT_PEAK_PERIOD_MS;
//  - climb, at once, to the deepest of the quick climb's choice, the
//    histogram's target and the held peak height;
//  - descent, once PLAYOUT_DESCENT_HOLD_MS have passed since the last move,
//    in one move to the shallowest queue such that it and every queue
//    between meet the histogram's tail and stay under
//    PLAYOUT_DESCENT_FRACTION of the target on the short share, never below
//    a held peak height.
//
// Time stretching (SonraJbuf::setTimeStretching), under either adaptive
// policy: when the queue a climb moves to has nothing to deliver at the
// climb's get (its frame was delivered already, or it has none), the queue
// it left delivers its own frame, if that is the next one, asking for it to
// be played over two periods (framesExpanded; it counts as played), so that
// the first get the climb holds has speech. At a descent's first frame
// after the last delivered one, the frame right after the last delivered
// one, taken this get by a queue between, is handed over with it
// (framesAccelerated).
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
    SonraJbuf::PlayoutPolicy m_policy = SonraJbuf::PLAYOUT_INITIAL_DELAY;
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
    void noteRefused(std::size_t index, bool refused) { m_candidates[index].m_refused = refused; }
    // After every queue took the frame.
    void notePut();

    // Time stretching on or off; keeps every decision and count.
    void setStretching(bool enabled);

    // Before each get: the index of the queue to play now ("play this queue?").
    std::size_t choose();
    // After the get: whether the frame the played queue gave out (maybe
    // none) is delivered; marks it delivered when it is.
    bool admit(SonraJbufFrame_p* frame);

    // With time stretching: true and the sequence number of the frame a
    // descent would pass over first, while the get may end a descent.
    bool passOverCandidate(unsigned* seqNum) const;
    // With time stretching, at a climb's get: the index of the queue the
    // climb left, whose frame may stand in for the new queue's; NO_FALLBACK otherwise.
    static const std::size_t NO_FALLBACK = static_cast<std::size_t>(-1);
    std::size_t fallbackQueue() const { return m_fallback; }
    // Whether `frame`, the left queue's, is delivered in place of the
    // played queue's, which was not; marks it delivered when it is.
    // `residenceTime`: ms it spent in the buffer.
    bool admitFallback(SonraJbufFrame_p* frame, unsigned residenceTime);
    // The delivered frame ended a descent that handed over its first passed-over frame.
    void noteAccelerated() { ++m_earlierPlayed.framesAccelerated; }

    SonraJbufStatistics statistics() const;

private:
    struct Candidate {
        SonraJbufSimple* m_queue;
        unsigned m_depth;     // frames
        bool m_refused;       // the last frame put was too old for it
        double m_tooOldShare; // running mean, 0..1
        double m_tailShare;   // PLAYOUT_HISTOGRAM: long-memory share too old for it, 0..1
    };

    bool adaptive() const;
    void updateTooOldShares();
    void updateHistogram();
    void detectPeak();
    std::size_t histogramTarget() const;
    std::size_t quickClimb() const;
    std::size_t adaptiveChoice() const;
    std::size_t histogramChoice() const;
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
    bool m_stretching = false;           // see SonraJbuf::setTimeStretching
    std::size_t m_fallback = NO_FALLBACK; // this get's climb left this queue
    bool m_fallbackLast = false;         // the last frame delivered came from the queue a climb left
    unsigned m_fallbackSeqNum = 0;       // that frame's sequence number,
    unsigned m_fallbackTimeStamp = 0;    // timestamp (ms)
    unsigned m_fallbackResidence = 0;    // and time in the buffer, ms
    SonraJbufStatistics m_earlierPlayed; // counts of the queues played before the current one, and the moves
    SonraJbufStatistics m_playedSince;   // the current played queue's counts when it became the played one
    // PLAYOUT_HISTOGRAM:
    unsigned m_histogramPuts = 0;        // frames put since the restart, up to PLAYOUT_HISTOGRAM_FRAMES
    unsigned m_getsSincePeakFrame = 0;   // gets since a frame of a delay peak, saturating
    unsigned m_getsSincePeak = 0;        // gets since the latest peak began, saturating
    bool m_seenPeak = false;
    unsigned m_peakFrames = 0;           // late frames in the latest peak
    std::size_t m_peakBase = 0;          // index of the queue played when the latest peak began
    std::size_t m_peakHeight = 0;        // index of the shallowest queue that took every late frame of the current peak
    std::size_t m_lastPeakHeight = 0;    // the same, of the latest peak that held PEAK_FRAMES
    std::size_t m_heldHeight = 0;        // index the depth is kept at or above while m_holdGets lasts
    unsigned m_holdGets = 0;             // gets left of the held peak height
};

} // namespace ombrel

#endif
