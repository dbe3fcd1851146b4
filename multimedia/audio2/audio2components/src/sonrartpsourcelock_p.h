// The RTP receiver's choice of one source among the SSRCs that reach it.
// Internal header, not installed.
#ifndef OMBREL_SONRARTPSOURCELOCK_P_H
#define OMBREL_SONRARTPSOURCELOCK_P_H

#include <cstdint>

namespace ombrel {

// Locks onto the first SSRC it sees. Another SSRC takes over only when the
// locked one has been quiet for a while and the newcomer has meanwhile sent
// a run of packets numbered one after the other: stray or forged datagrams
// (each with its own random SSRC and number) never build such a run, and a
// peer that restarts its stream with a new SSRC is followed within a few
// packets of its silence.
class SonraRtpSourceLock {
public:
    enum Verdict { ACCEPT, REFUSE, TAKE_OVER };

    // `now` is the receiver's own clock, ms.
    Verdict check(uint32_t ssrc, uint16_t seqNum, uint64_t now, unsigned quietTime, unsigned takeoverPackets)
    {
        if (!m_locked || ssrc == m_ssrc) {
            m_locked = true;
            m_ssrc = ssrc;
            m_lastHeard = now;
            return ACCEPT;
        }
        const bool continues = m_runLength > 0 && ssrc == m_candidate && seqNum == uint16_t(m_candidateSeqNum + 1);
        m_runLength = continues ? m_runLength + 1 : 1;
        m_candidate = ssrc;
        m_candidateSeqNum = seqNum;
        if (m_runLength < takeoverPackets || now - m_lastHeard < quietTime)
            return REFUSE;
        m_ssrc = ssrc;
        m_lastHeard = now;
        m_runLength = 0;
        return TAKE_OVER;
    }
    void clear() { *this = SonraRtpSourceLock(); }

private:
    bool m_locked = false;
    uint32_t m_ssrc = 0;
    uint64_t m_lastHeard = 0; // ms, the locked source's last packet
    uint32_t m_candidate = 0; // the SSRC building a run
    uint16_t m_candidateSeqNum = 0;
    unsigned m_runLength = 0; // packets of m_candidate numbered one after the other
};

} // namespace ombrel

#endif
