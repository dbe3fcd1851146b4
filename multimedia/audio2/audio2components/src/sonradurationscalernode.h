#ifndef OMBREL_SONRADURATIONSCALERNODE_H
#define OMBREL_SONRADURATIONSCALERNODE_H

#include "sonrabase.h"

namespace ombrel {

struct SonraDurationScalerNode_p;

// Re-chunks a PCM stream between two frame durations: splits each long input
// frame into graph-length pieces, one per cycle, or gathers graph-length
// input frames into one long frame. The graph frame duration must be the
// shorter of the two.
//
// An input larger than the room left in the long-frame buffer is cut to fit;
// a short input in split mode is handed out padded with silence.
class SonraDurationScalerNode : public SonraNode {
public:
    // Re-chunks frames of `inFrameDuration` ms into frames of `outFrameDuration` ms at `sampleRate` Hz.
    SonraDurationScalerNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned inFrameDuration,
                            unsigned outFrameDuration, unsigned graphFrameDuration, unsigned sampleRate);
    ~SonraDurationScalerNode() override;

    // Drops what is buffered (a split in progress hands out silence).
    void reset(unsigned offset) override;
    void doSetOutputChannels(unsigned channels) override;
    boost::shared_ptr<std::vector<char> > doProcess() override;

private:
    boost::shared_ptr<std::vector<char> > gather(const boost::shared_ptr<std::vector<char> >& in);
    boost::shared_ptr<std::vector<char> > split(const boost::shared_ptr<std::vector<char> >& in);

    boost::scoped_ptr<SonraDurationScalerNode_p> d;
};

} // namespace ombrel

#endif
