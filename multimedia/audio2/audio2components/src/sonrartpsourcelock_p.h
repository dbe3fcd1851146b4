// The RTP receiver's choice of one source among the SSRCs that reach it.
// Internal header, not installed.
#ifndef OMBREL_SONRARTPSOURCELOCK_P_H
#define OMBREL_SONRARTPSOURCELOCK_P_H

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <vector>

namespace ombrel {

// Locks onto the first SSRC that sends two packets numbered one after the
// other. Another SSRC takes over only when the locked one has been quiet
// for a while and the newcomer has meanwhile sent a run of such packets:
// stray or forged datagrams (each with its own random SSRC and number)
// never build a run, and a peer that restarts its stream with a new SSRC
// is followed within a few packets of its silence. The packet before the
// one that wins the lock is kept, so that the new source loses nothing of
// its first two packets.
class SonraRtpSourceLock {
public:
    enum Verdict { ACCEPT, REFUSE, FIRST_LOCK, TAKE_OVER };
    static const unsigned FIRST_LOCK_PACKETS = 2;

    typedef boost::shared_ptr<std::vector<char> > Datagram;

    // `now` is the receiver's own clock, ms. On FIRST_LOCK and TAKE_OVER,
    // `previous` is the new source's packet before this one, when kept.
    Verdict check(uint32_t ssrc, uint16_t seqNum, const Datagram& datagram, uint64_t now, unsigned quietTime,
                  unsigned takeoverPackets, Datagram& previous)
    {
        if (m_locked && ssrc == m_ssrc) {
            m_lastHeard = now;
            return ACCEPT;
        }
        Candidate& candidate = m_candidates[slotOf(ssrc)];
        const bool continues = candidate.runLength > 0 && ssrc == candidate.ssrc && seqNum == uint16_t(candidate.seqNum + 1);
        candidate.runLength = continues ? candidate.runLength + 1 : 1;
        candidate.ssrc = ssrc;
        candidate.seqNum = seqNum;
        previous = continues ? candidate.latest : Datagram();
        candidate.latest = boost::make_shared<std::vector<char> >(*datagram); // the caller may reuse its buffer
        const bool confirmed = m_locked ? candidate.runLength >= takeoverPackets && now - m_lastHeard >= quietTime
                                        : candidate.runLength >= FIRST_LOCK_PACKETS;
        if (!confirmed)
            return REFUSE;
        const Verdict verdict = m_locked ? TAKE_OVER : FIRST_LOCK;
        m_locked = true;
        m_ssrc = ssrc;
        m_lastHeard = now;
        candidate = Candidate();
        return verdict;
    }
    void clear() { *this = SonraRtpSourceLock(); }

private:
    bool m_locked = false;
    uint32_t m_ssrc = 0;
    uint64_t m_lastHeard = 0; // ms, the locked source's last packet
    // Runs are followed per SSRC in a table that a hash of the SSRC
    // indexes, so that a flood of other SSRCs seldom breaks one (a
    // colliding SSRC takes the slot over).
    struct Candidate {
        uint32_t ssrc = 0;
        uint16_t seqNum = 0;
        unsigned runLength = 0; // packets numbered one after the other
        Datagram latest;
    };
    static const unsigned CANDIDATE_SLOTS = 256;
    static unsigned slotOf(uint32_t ssrc) { return (ssrc * 2654435761u) >> 24; } // Fibonacci hashing, top 8 bits
    Candidate m_candidates[CANDIDATE_SLOTS];
};

} // namespace ombrel

#endif
