#include "sonradurationscalernode.h"

#include "shared.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ombrel {

struct SonraDurationScalerNode_p {
    std::vector<char> m_buffer;   // one long frame, all channels
    uint32_t m_bufferDuration;    // ms that m_buffer holds
    bool m_accumulate;            // gather mode (true) or split mode (false)
    uint32_t m_position;          // bytes gathered so far, or bytes handed out
    uint32_t m_outFrameBytes;     // bytes of one output frame, all channels
    uint32_t m_outFrameDuration;  // ms of one output frame
    bool m_holdsFrame;            // split mode: pieces of a long frame remain
};

SonraDurationScalerNode::SonraDurationScalerNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                                 unsigned inFrameDuration, unsigned outFrameDuration,
                                                 unsigned graphFrameDuration, unsigned sampleRate)
    : SonraNode(ioService, graphFrameDuration, sampleRate), d(new SonraDurationScalerNode_p)
{
    if (inFrameDuration > outFrameDuration) {
        d->m_accumulate = false;
        d->m_bufferDuration = inFrameDuration;
        SONRA_ASSERT(graphFrameDuration==outFrameDuration);
    } else {
        d->m_accumulate = true;
        d->m_bufferDuration = outFrameDuration;
        SONRA_ASSERT(graphFrameDuration==inFrameDuration);
    }
    d->m_position = 0;
    d->m_outFrameDuration = outFrameDuration;
    d->m_holdsFrame = false;
    doSetOutputChannels(outputChannels());
}

SonraDurationScalerNode::~SonraDurationScalerNode() = default;

void SonraDurationScalerNode::doSetOutputChannels(unsigned channels)
{
    d->m_buffer.assign(static_cast<std::size_t>(frameSize(d->m_bufferDuration, sampleRate())) * channels, 0);
    d->m_outFrameBytes = frameSize(d->m_outFrameDuration, sampleRate()) * channels;
    d->m_position = 0;
}

void SonraDurationScalerNode::reset(unsigned /*offset*/)
{
    doSetOutputChannels(outputChannels());
}

boost::shared_ptr<std::vector<char> > SonraDurationScalerNode::doProcess()
{
    const boost::shared_ptr<std::vector<char> > in = getInputData();
    return d->m_accumulate ? gather(in) : split(in);
}

boost::shared_ptr<std::vector<char> > SonraDurationScalerNode::gather(const boost::shared_ptr<std::vector<char> >& in)
{
    std::vector<char>& buffer = d->m_buffer;
    if (!in || in->empty() || buffer.empty())
        return boost::shared_ptr<std::vector<char> >();

    const std::size_t room = buffer.size() - d->m_position;
    const std::size_t taken = std::min(in->size(), room);
    std::memcpy(buffer.data() + d->m_position, in->data(), taken);
    d->m_position += static_cast<uint32_t>(taken);
    if (d->m_position < buffer.size())
        return boost::shared_ptr<std::vector<char> >();

    d->m_position = 0;
    return boost::make_shared<std::vector<char> >(buffer);
}

boost::shared_ptr<std::vector<char> > SonraDurationScalerNode::split(const boost::shared_ptr<std::vector<char> >& in)
{
    std::vector<char>& buffer = d->m_buffer;
    if (d->m_position == 0 && in && !in->empty() && !buffer.empty()) {
        // Every byte of the buffer is zero here (pieces handed out are
        // cleared), so a short input is padded with silence.
        d->m_holdsFrame = true;
        std::memcpy(buffer.data(), in->data(), std::min(in->size(), buffer.size()));
    }
    if (!d->m_holdsFrame)
        return boost::shared_ptr<std::vector<char> >();

    const boost::shared_ptr<std::vector<char> > piece = boost::make_shared<std::vector<char> >(d->m_outFrameBytes);
    // A last piece that the buffer does not fill is padded with silence.
    const std::size_t position = std::min<std::size_t>(d->m_position, buffer.size());
    const std::size_t copied = std::min<std::size_t>(d->m_outFrameBytes, buffer.size() - position);
    if (copied > 0) {
        std::memcpy(piece->data(), buffer.data() + position, copied);
        std::memset(buffer.data() + position, 0, copied);
    }
    d->m_position += d->m_outFrameBytes;

    // An empty piece would never finish the frame; it ends it instead.
    if (d->m_position >= buffer.size() || d->m_outFrameBytes == 0) {
        d->m_position = 0;
        d->m_holdsFrame = false;
    }
    return piece;
}

} // namespace ombrel
