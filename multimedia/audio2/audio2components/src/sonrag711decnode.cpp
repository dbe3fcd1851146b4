#include "sonrag711decnode.h"

#include "g711.h"
#include "shared.h"
#include "sonrag711_p.h"

namespace ombrel {

struct SonraG711DecNode_p
    : g711::Conversion<SonraG711DecNode::Mode, uint8_t, int16_t, alaw2linear, ulaw2linear> {};

SonraG711DecNode::SonraG711DecNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraG711DecNode_p)
{
    SONRA_ASSERT(sampleRate==G711_RATE);
}

SonraG711DecNode::~SonraG711DecNode() = default;

void SonraG711DecNode::setMode(Mode mode)
{
    d->setMode(mode);
}

SonraG711DecNode::Mode SonraG711DecNode::mode() const
{
    return d->mode();
}

// Each code becomes one 16-bit sample.
boost::shared_ptr<std::vector<char> > SonraG711DecNode::doProcess()
{
    return d->convert(getInputData());
}

} // namespace ombrel
