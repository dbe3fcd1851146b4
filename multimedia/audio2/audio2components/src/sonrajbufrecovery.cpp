#include "sonrajbufrecovery_p.h"

#include "sonrajbuf.h"

#include <cstdint>

namespace ombrel {

SonraJbufRecovery::SonraJbufRecovery(const SonraJbufRecoveryConfig& config)
    : m_config(config), m_runSeqNum(0), m_runLength(0), m_runGets(0)
{
}

void SonraJbufRecovery::setEnabled(bool enabled)
{
    m_config.m_enabled = enabled;
}

bool SonraJbufRecovery::enabled() const
{
    return m_config.m_enabled;
}

SonraJbufRecovery::Verdict SonraJbufRecovery::extendRun(unsigned seqNum)
{
    const int32_t step = static_cast<int32_t>(seqNum - m_runSeqNum);
    const int32_t lead = static_cast<int32_t>(m_config.m_maxLeadFrames);
    if (m_runLength != 0 && step != 0 && step >= -lead && step <= lead) {
        ++m_runLength;
    } else {
        m_runLength = 1;
        m_runGets = 0;
    }
    m_runSeqNum = seqNum;
    const unsigned runFrames = SonraJbuf::RECOVERY_RUN_FRAMES;
    // Numbered 0, the frame would leave the queue without a head.
    if (seqNum != 0 && m_runLength >= runFrames && m_runGets + 1 >= runFrames) {
        m_runLength = 0;
        return REANCHOR;
    }
    return REFUSE;
}

bool SonraJbufRecovery::mayAnchor(unsigned seqNum) const
{
    return m_config.m_enabled || static_cast<int32_t>(seqNum) >= 0;
}

bool SonraJbufRecovery::countsDuplicateOnce() const
{
    return m_config.m_enabled;
}

} // namespace ombrel
