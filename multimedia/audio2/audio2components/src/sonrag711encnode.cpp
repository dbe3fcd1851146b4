#include "sonrag711encnode.h"

#include "g711.h"
#include "shared.h"
#include "sonrag711_p.h"

namespace ombrel {

struct SonraG711EncNode_p
    : g711::Conversion<SonraG711EncNode::Mode, int16_t, uint8_t, linear2alaw, linear2ulaw> {};

SonraG711EncNode::SonraG711EncNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraG711EncNode_p)
{
    SONRA_ASSERT(sampleRate==G711_RATE);
}

SonraG711EncNode::~SonraG711EncNode() = default;

void SonraG711EncNode::setMode(Mode mode)
{
    d->setMode(mode);
}

SonraG711EncNode::Mode SonraG711EncNode::mode() const
{
    return d->mode();
}

// Each 16-bit sample becomes one code; an odd trailing byte is left out.
boost::shared_ptr<std::vector<char> > SonraG711EncNode::doProcess()
{
    return d->convert(getInputData());
}

} // namespace ombrel
