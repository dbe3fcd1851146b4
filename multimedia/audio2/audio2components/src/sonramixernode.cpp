#include "sonramixernode.h"

#include "shared.h"
#include "sonralimiter_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

namespace ombrel {

struct SonraMixerNode_p {
    float m_gain = 1.0f;                // limiter gain on every summed sample
    int32_t m_gainRecoveryTime = 1500;  // ms for the gain to climb back to 1.0
    float m_gainStep = 0.0f;            // added to the gain per timer tick
};

namespace {

const limiter::Levels MIXER_LEVELS = {SonraMixerNode::LIMIT_LEVEL, -SonraMixerNode::LIMIT_LEVEL};

struct MixerInput {
    const int16_t* samples;
    unsigned sampleCount; // samples present in the frame, all channels
    unsigned channels;
};

// Adds positions [first, first + count) of one input to the accumulators.
// Channels beyond the mixer's fold into channel 0; a short frame
// contributes only the samples it holds.
void accumulate(const MixerInput& input, unsigned first, unsigned count, unsigned outChannels, int32_t* sums)
{
    const unsigned pc = input.channels;
    const std::size_t begin = static_cast<std::size_t>(first) * pc;
    if (begin >= input.sampleCount)
        return;
    if (pc == outChannels) {
        const std::size_t end = std::min<std::size_t>(begin + static_cast<std::size_t>(count) * pc, input.sampleCount);
        const int16_t* in = input.samples + begin;
        for (std::size_t k = 0; k < end - begin; ++k)
            sums[k] += in[k];
        return;
    }
    for (unsigned i = 0; i < count; ++i) {
        for (unsigned c = 0; c < pc; ++c) {
            const std::size_t k = begin + static_cast<std::size_t>(i) * pc + c;
            if (k >= input.sampleCount)
                return;
            sums[static_cast<std::size_t>(i) * outChannels + (c < outChannels ? c : 0)] += input.samples[k];
        }
    }
}

} // namespace

SonraMixerNode::SonraMixerNode(boost::shared_ptr<boost::asio::io_service> ioService,
                               unsigned frameDuration, unsigned sampleRate)
    : SonraNode(ioService, frameDuration, sampleRate), d(new SonraMixerNode_p)
{
}

SonraMixerNode::~SonraMixerNode() = default;

void SonraMixerNode::timerTick()
{
    limiter::recover(d->m_gain, d->m_gainStep);
}

void SonraMixerNode::reset(unsigned /*offset*/)
{
    d->m_gain = 1.0f;
}

boost::shared_ptr<std::vector<char> > SonraMixerNode::doProcess()
{
    const std::vector<unsigned> indexes = inputIndexes();
    if (indexes.empty())
        return boost::shared_ptr<std::vector<char> >();

    const unsigned outChannels = outputChannels();
    const unsigned positions = frameSize() / 2; // samples per channel
    boost::shared_ptr<std::vector<char> > output =
        boost::make_shared<std::vector<char> >(static_cast<std::size_t>(outChannels) * frameSize());
    if (positions == 0 || outChannels == 0)
        return output;

    std::vector<boost::shared_ptr<std::vector<char> > > frames; // keeps the inputs alive
    std::vector<MixerInput> inputs;
    frames.reserve(indexes.size());
    inputs.reserve(indexes.size());
    for (const unsigned index : indexes) {
        unsigned peerIndex = 0;
        const boost::shared_ptr<SonraNode> peer = getInputPeerNode(index, peerIndex);
        boost::shared_ptr<std::vector<char> > frame = getInputData(index);
        if (!peer || !frame || peer->outputChannels() == 0)
            continue;
        inputs.push_back({reinterpret_cast<const int16_t*>(frame->data()),
                          static_cast<unsigned>(frame->size() / 2), peer->outputChannels()});
        frames.push_back(std::move(frame));
    }

    // Sum a block of positions, then limit and store it; the gain carries
    // from block to block exactly as from sample to sample.
    int32_t stackSums[limiter::BLOCK_SAMPLES];
    std::vector<int32_t> heapSums;
    int32_t* sums = stackSums;
    unsigned positionsPerBlock = limiter::BLOCK_SAMPLES / outChannels;
    if (positionsPerBlock == 0) {
        heapSums.resize(outChannels);
        sums = heapSums.data();
        positionsPerBlock = 1;
    }
    int16_t* out = reinterpret_cast<int16_t*>(output->data());
    for (unsigned first = 0; first < positions; first += positionsPerBlock) {
        const unsigned count = std::min(positionsPerBlock, positions - first);
        const unsigned values = count * outChannels;
        std::memset(sums, 0, values * sizeof(int32_t));
        for (const MixerInput& input : inputs)
            accumulate(input, first, count, outChannels, sums);
        limiter::store(sums, values, out + static_cast<std::size_t>(first) * outChannels, MIXER_LEVELS,
                       d->m_gain, d->m_gainStep, frameDuration(), d->m_gainRecoveryTime);
    }
    return output;
}

} // namespace ombrel
