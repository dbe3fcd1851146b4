#include "sonrag711decnode.h"

#include "g711.h"
#include "shared.h"

#include <boost/make_shared.hpp>

#include <atomic>

namespace ombrel {

namespace {

typedef int16_t (*Converter)(uint8_t code);

Converter converterFor(SonraG711DecNode::Mode mode)
{
    return mode == SonraG711DecNode::MODE_ALAW ? alaw2linear : ulaw2linear;
}

} // namespace

// Both fields are atomic so that the owner may switch modes while the graph
// thread converts.
struct SonraG711DecNode_p {
    std::atomic<Converter> m_converter{alaw2linear};                      // alaw2linear or ulaw2linear
    std::atomic<SonraG711DecNode::Mode> m_mode{SonraG711DecNode::MODE_ALAW}; // the last mode set
};

SonraG711DecNode::SonraG711DecNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraG711DecNode_p)
{
    SONRA_ASSERT(sampleRate==G711_RATE);
}

SonraG711DecNode::~SonraG711DecNode() = default;

void SonraG711DecNode::setMode(Mode mode)
{
    d->m_mode.store(mode);
    d->m_converter.store(converterFor(mode));
}

SonraG711DecNode::Mode SonraG711DecNode::mode() const
{
    return d->m_mode.load();
}

boost::shared_ptr<std::vector<char> > SonraG711DecNode::doProcess()
{
    typedef boost::shared_ptr<std::vector<char> > Frame;
    const Frame input = getInputData();
    if (!input || input->empty())
        return Frame();

    // Read once: a frame is converted wholly in the mode in force when it
    // starts.
    const Converter convert = d->m_converter.load();
    const std::size_t count = input->size(); // codes, one per sample
    const Frame output = boost::make_shared<std::vector<char> >(2 * count);
    const uint8_t* codes = reinterpret_cast<const uint8_t*>(input->data());
    int16_t* samples = reinterpret_cast<int16_t*>(output->data());
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = convert(codes[i]);
    return output;
}

} // namespace ombrel
