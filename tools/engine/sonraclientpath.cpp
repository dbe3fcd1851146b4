#include "sonraclientpath.h"

#include "sonraopusdecnode.h"
#include "sonraopusencnode.h"
#include "sonrareceivernode.h"
#include "sonrasendernode.h"

#include <boost/make_shared.hpp>

namespace sonranetsim {

using namespace ombrel;

boost::shared_ptr<SonraSenderNode> ClientPathBuilder::sendHalf(const boost::shared_ptr<SonraNode>& source) const
{
    auto sender = boost::make_shared<SonraSenderNode>(io, settings.frameDuration, settings.sampleRate);
    if (settings.codec == Codec::Pcm) {
        pipe.connect(source, sender);
        return sender;
    }
    auto encoder = boost::make_shared<SonraOpusEncNode>(io, settings.frameDuration, settings.sampleRate);
    if (settings.fecLoss > 0)
        encoder->setInbandFec(settings.fecLoss);
    pipe.connect(source, encoder);
    pipe.connect(encoder, sender);
    return sender;
}

ClientPathBuilder::ReceiveHalf ClientPathBuilder::receiveHalf() const
{
    const JitterBufferSettings& jbuf = settings.jitterBuffer;
    ReceiveHalf half;
    half.receiver = boost::make_shared<SonraReceiverNode>(io, settings.frameDuration, settings.sampleRate);
    if (jbuf.setDelays)
        half.receiver->setDelays(jbuf.delays[0], jbuf.delays[1], jbuf.delays[2], jbuf.delays[3]);
    half.receiver->setRecovery(jbuf.recovery);
    if (jbuf.policy != SonraJbuf::PLAYOUT_INITIAL_DELAY)
        half.receiver->setPlayoutPolicy(jbuf.policy);
    half.output = half.receiver;
    if (settings.codec == Codec::Pcm)
        return half;
    auto decoder = boost::make_shared<SonraOpusDecNode>(io, settings.frameDuration, settings.sampleRate);
    decoder->setConcealment(settings.concealment);
    decoder->setFecRecovery(settings.fecLoss > 0);
    if (jbuf.timeStretching) {
        half.receiver->setTimeStretching(true);
        decoder->setTimeStretching(half.receiver);
    }
    pipe.connect(half.receiver, decoder);
    half.output = decoder;
    return half;
}

} // namespace sonranetsim
