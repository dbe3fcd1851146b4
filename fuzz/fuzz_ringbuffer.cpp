// The device bridge's byte ring under arbitrary puts, gets, resizes and
// resets, against a std::deque that keeps the same rules.
#include "fuzzutil.h"
#include "sonraringbuffer.h"

#include <deque>

using namespace sonrafuzz;

namespace {

enum Op { PUT, GET, RESIZE, RESET, OP_COUNT };

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    std::size_t capacity = in.u16() % 16384; // bytes: past 4 KiB held, appending takes its other way
    ombrel::SonraRingBuffer ring(static_cast<unsigned>(capacity));
    std::deque<char> model; // oldest first
    for (unsigned step = 0; step < 4096 && !in.done(); ++step) {
        switch (in.choice(OP_COUNT)) {
        case PUT: {
            const Frame bytes = in.block(true);
            ring.put(bytes->data(), static_cast<unsigned>(bytes->size()));
            model.insert(model.end(), bytes->begin(), bytes->end());
            while (model.size() > capacity)
                model.pop_front();
            break;
        }
        case GET: {
            const std::size_t length = in.u16() % 8192;
            std::vector<char> out(length + 1, 'z'); // one byte past the end stays untouched
            const unsigned real = ring.get(out.data(), static_cast<unsigned>(length));
            FUZZ_CHECK(real == std::min(length, model.size()) && out[length] == 'z');
            for (std::size_t i = 0; i < length; ++i)
                FUZZ_CHECK(out[i] == (i < real ? model[i] : 0));
            model.erase(model.begin(), model.begin() + real);
            break;
        }
        case RESIZE:
            capacity = in.u16() % 16384;
            ring.setSize(static_cast<unsigned>(capacity));
            if (model.size() > capacity) // the newest bytes go
                model.resize(capacity);
            break;
        case RESET:
            ring.reset();
            model.clear();
            break;
        }
    }
    return 0;
}
