// The G.711 decoder node, followed by the encoder node, on arbitrary code
// bytes with mode switches between frames. Oracle: the decoder yields one
// sample per byte, and encoding its samples in the same mode gives the
// bytes back (mu-law's negative zero 0x7f comes back as 0xff).
#include "fuzzutil.h"
#include "sonrag711decnode.h"
#include "sonrag711encnode.h"

using namespace sonrafuzz;
using ombrel::SonraG711DecNode;
using ombrel::SonraG711EncNode;

namespace {

enum Op { FRAME, MISSING, MODE, OP_COUNT };

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    sonratest::NodeGraph<SonraG711DecNode> decoder(20, SonraG711DecNode::G711_RATE);
    auto encoder = boost::make_shared<SonraG711EncNode>(ioService(), 20, SonraG711EncNode::G711_RATE);
    decoder.pipe->connect(decoder.node, encoder);
    bool ulaw = false;
    for (unsigned step = 0; step < 1024 && !in.done(); ++step) {
        switch (in.choice(OP_COUNT)) {
        case FRAME: {
            const Frame codes = in.block(true);
            const Frame samples = decoder.step(codes);
            const Frame back = encoder->outputData();
            if (codes->empty()) {
                FUZZ_CHECK(!samples && !back);
                break;
            }
            FUZZ_CHECK(samples && samples->size() == 2 * codes->size() && back && back->size() == codes->size());
            for (std::size_t i = 0; i < codes->size(); ++i) {
                const char code = (ulaw && (*codes)[i] == 0x7f) ? char(0xff) : (*codes)[i];
                FUZZ_CHECK((*back)[i] == code);
            }
            break;
        }
        case MISSING:
            FUZZ_CHECK(!decoder.step(Frame()) && !encoder->outputData());
            break;
        case MODE:
            ulaw = in.byte() & 1;
            decoder.node->setMode(ulaw ? SonraG711DecNode::MODE_ULAW : SonraG711DecNode::MODE_ALAW);
            encoder->setMode(ulaw ? SonraG711EncNode::MODE_ULAW : SonraG711EncNode::MODE_ALAW);
            break;
        }
    }
    return 0;
}
