// What the G.711 encoder and decoder nodes share: the mode with its
// converter, switchable from the owner's thread while the graph converts,
// and the per-sample conversion of one frame. The nodes differ only in the
// direction: samples to codes, or codes to samples. Internal header, not
// installed.
#ifndef OMBREL_SONRAG711_P_H
#define OMBREL_SONRAG711_P_H

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstddef>
#include <vector>

namespace ombrel {
namespace g711 {

typedef boost::shared_ptr<std::vector<char> > Frame;

// One direction of the codec: `In` values become `Out` values through
// `alaw` or `ulaw`. Both fields are atomic so that the owner may switch
// modes while the graph thread converts.
template <typename Mode, typename In, typename Out, Out (*alaw)(In), Out (*ulaw)(In)>
struct Conversion {
    typedef Out (*Converter)(In);

    std::atomic<Converter> m_converter{alaw};      // alaw or ulaw
    std::atomic<Mode> m_mode{Mode::MODE_ALAW};     // the last mode set

    // Any mode other than MODE_ALAW selects mu-law.
    void setMode(Mode mode)
    {
        m_mode.store(mode);
        m_converter.store(mode == Mode::MODE_ALAW ? alaw : ulaw);
    }

    Mode mode() const { return m_mode.load(); }

    // A new frame holding one `Out` for every whole `In` of the input (a
    // trailing partial one is left out); none for a missing or empty input.
    Frame convert(const Frame& input) const
    {
        if (!input || input->empty())
            return Frame();
        // Read once: a frame is converted wholly in the mode in force when
        // it starts.
        const Converter converter = m_converter.load();
        const std::size_t count = input->size() / sizeof(In); // values
        const Frame output = boost::make_shared<std::vector<char> >(count * sizeof(Out));
        const In* in = reinterpret_cast<const In*>(input->data());
        Out* out = reinterpret_cast<Out*>(output->data());
        for (std::size_t i = 0; i < count; ++i)
            out[i] = converter(in[i]);
        return output;
    }
};

} // namespace g711
} // namespace ombrel

#endif
