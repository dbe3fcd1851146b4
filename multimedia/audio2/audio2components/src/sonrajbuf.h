#ifndef OMBREL_SONRAJBUF_H
#define OMBREL_SONRAJBUF_H

#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <vector>

namespace ombrel {

struct SonraJbuf_p;
struct SonraJbufFrame_p;
class SonraJbuf;
class SonraJbufRecovery;

// What the played queue of a jitter buffer has seen since the buffer's last
// reset. Reading them changes nothing.
struct SonraJbufStatistics {
    uint64_t framesPut = 0;        // frames offered by putFrame
    uint64_t framesPlayed = 0;     // frames getFrame delivered
    uint64_t framesTooOld = 0;     // refused: below the lowest sequence number still playable
    uint64_t framesUnnumbered = 0; // refused: no head to place them by (sequence number 0, or 2^31
                                   // and above, reaching an empty queue)
    uint64_t framesDropped = 0;    // stored, then passed by the head unplayed (a far-ahead arrival
                                   // or a depth decrease), or, with recovery on, replaced by a
                                   // duplicate or emptied by a re-anchor
    uint64_t duplicates = 0;       // stored into a slot that already held a frame (the older copy goes)
    uint64_t underruns = 0;        // gets with nothing due
    uint64_t depthDecreases = 0;   // times the queue cut its delay by one frame
    // With recovery on (SonraJbuf::setRecovery):
    uint64_t framesStray = 0;      // refused: would have moved the head further than a stream jumps
    uint64_t resyncs = 0;          // re-anchors on a run of refused frames that agree with each other
    // With the adaptive playout policy (SonraJbuf::setPlayoutPolicy), the
    // counts above add up what each queue did while it was the played one:
    uint64_t switchesDeeper = 0;    // moves to a deeper queue
    uint64_t switchesShallower = 0; // moves to a shallower queue
    uint64_t framesHeld = 0;        // frames a deeper queue had due again after a move: not played
                                    // (not in framesPlayed), each one period of added delay
    uint64_t framesSkipped = 0;     // sequence numbers passed over by a move to a shallower queue
    // With time stretching on as well (SonraJbuf::setTimeStretching):
    uint64_t framesExpanded = 0;    // frames of the queue a climb left, delivered to be played over two periods
    uint64_t framesAccelerated = 0; // of framesSkipped, frames handed over to be played with the next in one period
    unsigned playedDepth = 0;       // frames, depth of the queue played now
    unsigned queuedFrames = 0;     // frames the queue counts as held now (a duplicate counts twice,
                                   // unless recovery is on)
    unsigned lastResidenceTime = 0; // ms the last played frame spent in the buffer
    unsigned lastSeqNum = 0;       // sequence number of the last played frame
    unsigned lastTimeStamp = 0;    // timestamp (ms) of the last played frame
};

// What the last SonraJbuf::getFrame asks of a consumer that plays decoded
// audio at another speed (SonraJbuf::setTimeStretching); all empty
// otherwise.
struct SonraJbufStretchRequest {
    // A climb holds the next get: play the delivered frame over two periods
    // instead of one.
    bool expand = false;
    // A descent passed over this frame, the one right after the frame
    // delivered before: play it and the delivered frame in one period.
    boost::shared_ptr<std::vector<char> > passedOver;
    unsigned passedOverSeqNum = 0; // its sequence number
};

// One playout queue of SonraJbuf with a fixed nominal depth D (frames): a
// ring of slots indexed by sequence number from the playout head. Created
// and driven only by SonraJbuf.
//
// Placement: slot (head index + k) mod ring size holds sequence number
// head + k, for 0 <= k <= the maximum lead. A frame below the lowest
// playable number (the highest head reached) is refused as too old; one
// further ahead than the maximum lead pushes the head on until it fits.
//
// Growth: a get with nothing due leaves the head where it is while the queue
// is empty; the next frame to arrive re-anchors the head on itself, so the
// delay grows by the time the queue was dry.
//
// Cut: with F the frame duration (ms), each get measures t, the time (ms)
// the played frame spent in the queue. An observation period restarts
// whenever t sets a new minimum t_min or the queue holds more frames than
// its reference depth R allows (R = the largest queue length seen in the
// period less one, never below D). Once the period lasts
//     OBSERVATION_PERIOD_MS / F played frames (3000 ms: 150 at 20 ms),
// the queue drops one frame, cutting its delay by F, if
//     queued frames >= D   and   t_min >= F * R,
// that is when every frame of the period waited at least the reference
// depth. Either way the period then restarts with R = D.
class SonraJbufSimple : private boost::noncopyable {
public:
    // `bufDelayFrames` is the depth D, `maxDelayFrames` how far ahead of the
    // head a frame may be stored, `bufSize` the ring's slot count.
    SonraJbufSimple(SonraJbuf_p* owner, unsigned bufDelayFrames, unsigned maxDelayFrames, unsigned bufSize,
                    SonraJbuf* jbuf);
    ~SonraJbufSimple();

    // True when the frame was refused as too old. A stored frame is held
    // without ownership: the owner keeps the record alive.
    bool putFrame(const boost::shared_ptr<SonraJbufFrame_p>& frame);
    // The frame due now, or an empty pointer. The pointer owns nothing: it
    // stays valid until the owner's next put, get or reset.
    boost::shared_ptr<SonraJbufFrame_p> getFrame();

    // Counts of what was put and played.
    SonraJbufStatistics statistics() const;

    // Set by the owner: recovery on or off (keeps the frames), and whether
    // the queue waits D - 1 periods when it starts from empty.
    void setRecovery(bool enabled); // recovery on or off
    void setWarmUp(bool warmsUp);   // waits D - 1 periods from empty

private:
    // Called once per queue per frame: inline (defined in sonrajbuf.cpp).
    inline boost::shared_ptr<SonraJbufFrame_p> advanceHead();
    void advanceHead(unsigned steps);
    inline unsigned residenceTime(const SonraJbufFrame_p& frame) const;
    inline void notePlayed(const SonraJbufFrame_p& frame);
    bool countRefused(unsigned seqNum);
    void resync(const boost::shared_ptr<SonraJbufFrame_p>& frame);
    void primeDepth();

    SonraJbuf_p* m_owner;
    unsigned m_bufDelayFrames; // frames
    unsigned m_maxDelayFrames; // frames
    unsigned m_bufSize;        // slots
    unsigned m_headIndex;
    unsigned m_headSeqNum;     // 0: no head yet
    unsigned m_framesCount;
    unsigned m_minSeqNum;
    std::vector<boost::shared_ptr<SonraJbufFrame_p> > m_frames;
    unsigned m_dynCounter;           // frames
    unsigned m_dynMinBufTime;        // ms; 0: none measured yet
    unsigned m_dynReferenceBufDepth; // frames
    SonraJbuf* m_jbufPtr;
    boost::scoped_ptr<SonraJbufRecovery> m_recovery; // which frames are stray (off unless SonraJbuf::setRecovery)
    bool m_warmsUp;            // starting from empty, wait D - 1 periods (the adaptive policy's ladder)
    unsigned m_primingGets;    // gets left before a queue that started from empty plays
    // Counters for SonraJbuf::statistics(); no decision reads them.
    SonraJbufStatistics m_statistics;
};

// Adaptive jitter buffer: one SonraJbufSimple per candidate depth between
// the minimum and the maximum delay, all fed every frame and advanced on
// every take; the queue whose depth equals the initial delay is played out.
// The queues that are not played run in lockstep with it so that each shows,
// in its log records and counts, what playout at its depth would have done
// on the same network; they are the depths that playout can move to without
// a warm-up.
// Delays are in ms and must be whole multiples of the frame duration. Not
// thread-safe: the owner serialises every call.
class SonraJbuf : private boost::noncopyable {
public:
    // `frameDuration`: ms of audio each frame holds.
    explicit SonraJbuf(unsigned int frameDuration);
    virtual ~SonraJbuf();

    // Resets: everything buffered is dropped.
    void setFrameDuration(unsigned int frameDuration);
    // Playout delays, ms, each a multiple of the frame duration.
    void setDelays(unsigned int initialDelay, unsigned int minDelay, unsigned int maxDelay,
                   unsigned int extraJitterDelay);
    // The periods are not used; like the other settings it resets.
    void setDelayRecalcPeriods(unsigned int, unsigned int);

    // The clock (ms) that stamps frames; an empty callable removes it.
    // Frames already buffered keep their stamps.
    void setTimeHandler(boost::function<unsigned int ()> handler);
    // The time the time handler gives now, ms.
    unsigned int currentTime() const;

    // Drops everything buffered and starts anew.
    void reset();
    // Stores a received `frame` with its sequence number and timestamp.
    void putFrame(boost::shared_ptr<std::vector<char> > frame, unsigned int seqNum, unsigned int timeStamp);
    // 0 when a frame was delivered into `frame` (and the non-null pointers),
    // 1 when nothing is due; `frame` is then left as it was.
    unsigned int getFrame(boost::shared_ptr<std::vector<char> >& frame, unsigned int* seqNum,
                          unsigned int* timeStamp);

    // Counts of the played queue since the last reset.
    SonraJbufStatistics statistics() const;

    // Recovery from sequence numbers that the queue rules alone cannot
    // recover from (off by default; turning it on or off keeps the frames):
    // one far-ahead datagram never moves the stream, a restarted or
    // re-numbered stream plays again within RECOVERY_RUN_FRAMES periods, a
    // stream may cross 2^31, and a duplicate is counted once. The rules, in
    // full: sonrajbufrecovery_p.h. Off, the frames are exactly those of the
    // queue rules.
    void setRecovery(bool enabled);
    static unsigned RECOVERY_RUN_FRAMES;  // frames
    static unsigned RECOVERY_MAX_JUMP_MS; // ms

    // Which queue is played. PLAYOUT_INITIAL_DELAY, the default: the queue of the
    // initial delay, always. PLAYOUT_ADAPTIVE: the shallowest queue whose
    // recent share of too-old frames stays at or under
    // PLAYOUT_TOO_OLD_TARGET, climbing at once and descending slowly,
    // without repeating or reordering a frame. The rules, in full:
    // sonrajbufpolicy_p.h. PLAYOUT_HISTOGRAM (opt-in): as adaptive, but
    // the depth also follows a long-memory histogram of how late frames come
    // (the shallowest depth that a high quantile of them reaches in time)
    // and a detector of recurring delay peaks, so that heavy-tailed jitter
    // and delay spikes neither pull it down too early nor catch it short.
    // Resets: everything buffered is dropped.
    enum PlayoutPolicy : int32_t { PLAYOUT_INITIAL_DELAY = 0, PLAYOUT_ADAPTIVE = 1, PLAYOUT_HISTOGRAM = 2 };
    // Chooses how the playout delay follows the jitter.
    void setPlayoutPolicy(PlayoutPolicy policy);
    static double PLAYOUT_TOO_OLD_TARGET;    // share of frames put, 0..1
    static unsigned PLAYOUT_SHARE_FRAMES;    // frames
    static unsigned PLAYOUT_DESCENT_HOLD_MS; // ms
    static double PLAYOUT_DESCENT_FRACTION;  // of the target
    // PLAYOUT_HISTOGRAM only:
    static unsigned PLAYOUT_HISTOGRAM_FRAMES; // frames put, the histogram's memory (forgetting factor 1 - 1/this)
    static double PLAYOUT_HISTOGRAM_TAIL;     // share of frames put, 0..1: the quantile's complement
    static unsigned PLAYOUT_PEAK_GAP_MS;      // ms without a too-old frame that ends a delay peak
    static unsigned PLAYOUT_PEAK_PERIOD_MS;   // ms: peaks closer than this recur, and their height is held

    // Time stretching (off by default): under an adaptive policy, a move
    // lets a consumer that decodes change the delay by playing speech
    // slower or faster rather than by a held or a skipped frame. When the
    // queue a climb moves to has nothing to deliver at once, the queue it
    // left delivers its next frame, asking for it to be played over two
    // periods, which covers the first get the climb holds. A descent hands
    // over the first frame it passes over, to be played with the delivered
    // one in one period; any further ones are skipped as before. stretchRequest() says what the last getFrame
    // asks; statistics() counts framesExpanded and framesAccelerated. Keeps
    // the frames.
    void setTimeStretching(bool enabled);
    // What the last getFrame asks of the consumer; empty when it delivered nothing.
    const SonraJbufStretchRequest& stretchRequest() const;

private:
    void notePassedOver(const SonraJbufFrame_p& played, const boost::shared_ptr<SonraJbufFrame_p>& passedOver);
    unsigned fallbackResidence(const SonraJbufFrame_p& frame) const;

    boost::scoped_ptr<SonraJbuf_p> d;
};

} // namespace ombrel

#endif
