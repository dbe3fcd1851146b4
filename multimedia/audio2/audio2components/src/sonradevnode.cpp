#include "sonradevnode.h"

namespace ombrel {

SonraDevNode::SonraDevNode(Source source, boost::shared_ptr<boost::asio::io_service> ioService,
                           unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), m_source(source)
{
}

SonraDevNode::~SonraDevNode() = default;

boost::shared_ptr<std::vector<char> > SonraDevNode::doProcess()
{
    if (m_source.empty())
        return boost::shared_ptr<std::vector<char> >();
    return m_source();
}

} // namespace ombrel
