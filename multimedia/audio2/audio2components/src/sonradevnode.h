#ifndef OMBREL_SONRADEVNODE_H
#define OMBREL_SONRADEVNODE_H

#include "sonrabase.h"

#include <boost/function.hpp>

namespace ombrel {

// A node whose output is whatever its callable returns: the graph's side of
// a sound device, or any other frame source.
class SonraDevNode : public SonraNode {
public:
    typedef boost::function<boost::shared_ptr<std::vector<char> > ()> Source;

    SonraDevNode(Source source, boost::shared_ptr<boost::asio::io_service> ioService,
                 unsigned frameDuration, unsigned sampleRate);
    ~SonraDevNode() override;

    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    Source m_source;
};

} // namespace ombrel

#endif
