#include "sonrag711encnode.h"

#include "g711.h"
#include "shared.h"

#include <boost/make_shared.hpp>

#include <atomic>

namespace ombrel {

namespace {

typedef uint8_t (*Converter)(int16_t sample);

Converter converterFor(SonraG711EncNode::Mode mode)
{
    return mode == SonraG711EncNode::MODE_ALAW ? linear2alaw : linear2ulaw;
}

} // namespace

// Both fields are atomic so that the owner may switch modes while the graph
// thread converts.
struct SonraG711EncNode_p {
    std::atomic<Converter> m_converter{linear2alaw};                      // linear2alaw or linear2ulaw
    std::atomic<SonraG711EncNode::Mode> m_mode{SonraG711EncNode::MODE_ALAW}; // the last mode set
};

SonraG711EncNode::SonraG711EncNode(boost::shared_ptr<boost::asio::io_service> ioService,
                                   unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraG711EncNode_p)
{
    SONRA_ASSERT(sampleRate==G711_RATE);
}

SonraG711EncNode::~SonraG711EncNode() = default;

void SonraG711EncNode::setMode(Mode mode)
{
    d->m_mode.store(mode);
    d->m_converter.store(converterFor(mode));
}

SonraG711EncNode::Mode SonraG711EncNode::mode() const
{
    return d->m_mode.load();
}

boost::shared_ptr<std::vector<char> > SonraG711EncNode::doProcess()
{
    typedef boost::shared_ptr<std::vector<char> > Frame;
    const Frame input = getInputData();
    if (!input || input->empty())
        return Frame();

    // Read once: a frame is converted wholly in the mode in force when it
    // starts.
    const Converter convert = d->m_converter.load();
    const std::size_t count = input->size() / 2; // samples; an odd byte is left out
    const Frame output = boost::make_shared<std::vector<char> >(count);
    const int16_t* samples = reinterpret_cast<const int16_t*>(input->data());
    char* codes = output->data();
    for (std::size_t i = 0; i < count; ++i)
        codes[i] = static_cast<char>(convert(samples[i]));
    return output;
}

} // namespace ombrel
