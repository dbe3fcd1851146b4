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

// What the played queue of a jitter buffer has seen since the buffer's last
// reset. Reading them changes nothing.
struct SonraJbufStatistics {
    uint64_t framesPut = 0;        // frames offered by putFrame
    uint64_t framesPlayed = 0;     // frames getFrame delivered
    uint64_t framesTooOld = 0;     // refused: below the lowest sequence number still playable
    uint64_t framesUnnumbered = 0; // refused: no head to place them by (sequence number 0, or 2^31
                                   // and above, reaching an empty queue)
    uint64_t framesDropped = 0;    // stored, then passed by the head unplayed (a far-ahead arrival
                                   // or a depth decrease)
    uint64_t duplicates = 0;       // stored into a slot that already held a frame (the older copy goes)
    uint64_t underruns = 0;        // gets with nothing due
    uint64_t depthDecreases = 0;   // times the queue cut its delay by one frame
    unsigned queuedFrames = 0;     // frames the queue counts as held now (a duplicate counts twice)
    unsigned lastResidenceTime = 0; // ms the last played frame spent in the buffer
    unsigned lastSeqNum = 0;       // sequence number of the last played frame
    unsigned lastTimeStamp = 0;    // timestamp (ms) of the last played frame
};

// One playout queue of SonraJbuf with a fixed nominal depth: a ring of slots
// indexed by sequence number from the playout head. Created and driven only
// by SonraJbuf.
class SonraJbufSimple : private boost::noncopyable {
public:
    // `bufDelayFrames` is the depth D, `maxDelayFrames` how far ahead of the
    // head a frame may be stored, `bufSize` the ring's slot count.
    SonraJbufSimple(SonraJbuf_p* owner, unsigned bufDelayFrames, unsigned maxDelayFrames, unsigned bufSize,
                    SonraJbuf* jbuf);
    ~SonraJbufSimple();

    void putFrame(boost::shared_ptr<SonraJbufFrame_p> frame);
    // The frame due now, or an empty pointer.
    boost::shared_ptr<SonraJbufFrame_p> getFrame();

    SonraJbufStatistics statistics() const;

private:
    boost::shared_ptr<SonraJbufFrame_p> advanceHead();
    void advanceHead(unsigned steps);
    unsigned residenceTime(const SonraJbufFrame_p& frame) const;
    void notePlayed(const SonraJbufFrame_p& frame);

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
    // Counters for SonraJbuf::statistics(); no decision reads them.
    SonraJbufStatistics m_statistics;
};

// Adaptive jitter buffer: one SonraJbufSimple per candidate depth between
// the minimum and the maximum delay, all fed every frame and advanced on
// every take; the queue whose depth equals the initial delay is played out.
// Delays are in ms and must be whole multiples of the frame duration. Not
// thread-safe: the owner serialises every call.
class SonraJbuf : private boost::noncopyable {
public:
    explicit SonraJbuf(unsigned int frameDuration);
    virtual ~SonraJbuf();

    // Resets: everything buffered is dropped.
    void setFrameDuration(unsigned int frameDuration);
    void setDelays(unsigned int initialDelay, unsigned int minDelay, unsigned int maxDelay,
                   unsigned int extraJitterDelay);
    void setDelayRecalcPeriods(unsigned int, unsigned int);

    // The clock (ms) that stamps frames; an empty callable removes it.
    // Frames already buffered keep their stamps.
    void setTimeHandler(boost::function<unsigned int ()> handler);
    unsigned int currentTime() const;

    void reset();
    void putFrame(boost::shared_ptr<std::vector<char> > frame, unsigned int seqNum, unsigned int timeStamp);
    // 0 when a frame was delivered into `frame` (and the non-null pointers),
    // 1 when nothing is due; `frame` is then left as it was.
    unsigned int getFrame(boost::shared_ptr<std::vector<char> >& frame, unsigned int* seqNum,
                          unsigned int* timeStamp);

    // Counts of the played queue since the last reset.
    SonraJbufStatistics statistics() const;

private:
    boost::scoped_ptr<SonraJbuf_p> d;
};

} // namespace ombrel

#endif
