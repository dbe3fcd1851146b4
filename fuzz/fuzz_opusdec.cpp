// The Opus decoder node on arbitrary packets at every rate and frame
// duration it accepts. Oracle: its output equals bare libopus decoding the
// same packets (an empty frame exactly where libopus yields less than one
// graph frame), also across resets.
#include "fuzzutil.h"
#include "sonraopusdecnode.h"

#include <opus.h>

#include <cstring>

using namespace sonrafuzz;

namespace {

enum Op { PACKET, MISSING, RESET, OP_COUNT };

const unsigned RATES[] = {8000, 12000, 16000, 24000, 48000}; // Hz
const unsigned DURATIONS[] = {10, 20, 40, 60};              // ms

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    const unsigned rate = RATES[in.choice(5)], duration = DURATIONS[in.choice(4)];
    sonratest::NodeGraph<ombrel::SonraOpusDecNode> node(duration, rate);
    int error = 0;
    OpusDecoder* bare = opus_decoder_create(static_cast<opus_int32>(rate), 1, &error);
    FUZZ_CHECK(error == OPUS_OK);
    const int samples = static_cast<int>(ombrel::SonraNode::frameSize(duration, rate) / 2);
    std::vector<int16_t> expected(samples);
    for (unsigned step = 0; step < 512 && !in.done(); ++step) {
        switch (in.choice(OP_COUNT)) {
        case PACKET: {
            const Frame packet = in.block(true);
            const Frame out = node.step(packet);
            if (packet->empty()) {
                FUZZ_CHECK(!out); // and the bare decoder is not called either
                break;
            }
            const int decoded = opus_decode(bare, reinterpret_cast<const unsigned char*>(packet->data()),
                                            static_cast<opus_int32>(packet->size()), expected.data(), samples, 0);
            FUZZ_CHECK(bool(out) == (decoded >= samples));
            if (out)
                FUZZ_CHECK(out->size() == expected.size() * 2 &&
                           std::memcmp(out->data(), expected.data(), out->size()) == 0);
            break;
        }
        case MISSING:
            FUZZ_CHECK(!node.step(Frame()));
            break;
        case RESET:
            node.pipe->reset(0);
            opus_decoder_ctl(bare, OPUS_RESET_STATE);
            break;
        }
    }
    opus_decoder_destroy(bare);
    return 0;
}
