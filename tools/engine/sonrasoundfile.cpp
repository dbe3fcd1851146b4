#include "sonrasoundfile.h"

#include <sndfile.h>
#include <speex/speex_resampler.h>

#include <algorithm>
#include <stdexcept>

namespace sonratool {

std::vector<int16_t> readMono(const std::string& path, unsigned rate)
{
    SF_INFO info = SF_INFO();
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file)
        throw std::runtime_error("cannot read " + path + ": " + sf_strerror(nullptr));
    const unsigned channels = static_cast<unsigned>(info.channels);
    std::vector<int16_t> interleaved(static_cast<std::size_t>(info.frames) * channels);
    const sf_count_t read = sf_readf_short(file, interleaved.data(), info.frames);
    sf_close(file);
    std::vector<int16_t> mono(static_cast<std::size_t>(read));
    for (std::size_t i = 0; i < mono.size(); ++i) {
        long sum = 0;
        for (unsigned c = 0; c < channels; ++c)
            sum += interleaved[i * channels + c];
        mono[i] = static_cast<int16_t>(sum / static_cast<long>(channels));
    }
    if (static_cast<unsigned>(info.samplerate) == rate || mono.empty())
        return mono;

    int error = 0;
    SpeexResamplerState* resampler =
        speex_resampler_init(1, static_cast<spx_uint32_t>(info.samplerate), rate, 8, &error);
    if (!resampler)
        throw std::runtime_error("cannot resample from " + std::to_string(info.samplerate) + " Hz");
    // Without the filter's delay, and with its tail flushed by as many zeros:
    // the resampled signal lines up with the original.
    speex_resampler_skip_zeros(resampler);
    mono.resize(mono.size() + static_cast<std::size_t>(speex_resampler_get_input_latency(resampler)), 0);
    const std::size_t expected = static_cast<std::size_t>(double(read) * rate / info.samplerate);
    std::vector<int16_t> out(expected + 1024);
    spx_uint32_t inLength = static_cast<spx_uint32_t>(mono.size());
    spx_uint32_t outLength = static_cast<spx_uint32_t>(out.size());
    speex_resampler_process_int(resampler, 0, mono.data(), &inLength, out.data(), &outLength);
    speex_resampler_destroy(resampler);
    out.resize(std::min<std::size_t>(outLength, expected));
    return out;
}

void writeWav(const std::string& path, const std::vector<int16_t>& samples, unsigned rate, unsigned channels)
{
    SF_INFO info = SF_INFO();
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        throw std::runtime_error("cannot write " + path + ": " + sf_strerror(nullptr));
    const sf_count_t written = sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
    if (written != static_cast<sf_count_t>(samples.size()))
        throw std::runtime_error("short write to " + path);
}

} // namespace sonratool
