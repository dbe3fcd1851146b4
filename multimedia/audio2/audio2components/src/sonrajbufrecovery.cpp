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

SonraJbufRecovery::Verdict SonraJbufRecovery::judge(unsigned seqNum, const SonraJbufQueuePosition& position)
{
    if (!m_config.m_enabled || !isFarFromStream(seqNum, position))
        return PLACE;
    return extendRun(seqNum);
}

bool SonraJbufRecovery::isFarFromStream(unsigned seqNum, const SonraJbufQueuePosition& position) const
{
    const unsigned lead = m_config.m_maxLeadFrames;
    if (seqNum < position.m_minSeqNum)
        return position.m_minSeqNum - seqNum > lead;
    if (seqNum == 0 && position.m_framesCount == 0)
        return true;
    const unsigned jumpFrames = SonraJbuf::RECOVERY_MAX_JUMP_MS / m_config.m_frameDuration;
    const unsigned maxJump = jumpFrames > lead ? jumpFrames : lead;
    // m_minSeqNum is the highest head reached: seqNum - m_headSeqNum cannot wrap.
    return position.m_headSeqNum != 0 && seqNum - position.m_headSeqNum > maxJump;
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

void SonraJbufRecovery::noteStored()
{
    m_runLength = 0;
}

void SonraJbufRecovery::noteGet()
{
    ++m_runGets;
}

} // namespace ombrel
