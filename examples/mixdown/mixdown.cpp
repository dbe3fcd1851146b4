// Mixes a voice-like tone and a louder music-like chord through volume nodes
// and a mixer, one 20 ms graph frame at a time, and prints what came out:
// level and peak per 200 ms. In the second half the sum passes full scale
// and the mixer's limiter holds it near 25805.
#include <sonradevnode.h>
#include <sonramixernode.h>
#include <sonravolumenode.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

using namespace ombrel;

namespace {

const unsigned FRAME_MS = 20;
const unsigned RATE = 16000;                     // Hz
const unsigned SAMPLES = RATE * FRAME_MS / 1000; // per frame, mono
const unsigned SECONDS = 2;

typedef boost::shared_ptr<std::vector<char> > Frame;

// A source that renders `wave(t)` (t in seconds) frame after frame.
SonraDevNode::Source synth(std::function<double(double)> wave)
{
    auto sample = boost::make_shared<unsigned long>(0);
    return [wave, sample]() {
        Frame frame = boost::make_shared<std::vector<char> >(SAMPLES * 2);
        int16_t* out = reinterpret_cast<int16_t*>(frame->data());
        for (unsigned i = 0; i < SAMPLES; ++i, ++*sample)
            out[i] = int16_t(std::lround(wave(double(*sample) / RATE)));
        return frame;
    };
}

double dbfs(double rms)
{
    return rms > 0 ? 20 * std::log10(rms / 32768.0) : -120.0;
}

} // namespace

int main()
{
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(FRAME_MS);

    // A "voice": 220 Hz with a syllable-like envelope of four per second.
    auto voice = boost::make_shared<SonraDevNode>(synth([](double t) {
        return 12000 * std::sin(2 * M_PI * 220 * t) * std::pow(std::sin(M_PI * 4 * t), 2);
    }), io, FRAME_MS, RATE);
    // "Music": a chord that swells past full scale in the second half.
    auto music = boost::make_shared<SonraDevNode>(synth([](double t) {
        const double swell = t < 1.0 ? 0.3 : 1.0;
        return swell * 9000 * (std::sin(2 * M_PI * 262 * t) + std::sin(2 * M_PI * 330 * t) +
                               std::sin(2 * M_PI * 392 * t));
    }), io, FRAME_MS, RATE);

    auto voiceVolume = boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE);
    auto musicVolume = boost::make_shared<SonraVolumeNode>(io, FRAME_MS, RATE);
    auto mixer = boost::make_shared<SonraMixerNode>(io, FRAME_MS, RATE);
    voiceVolume->setVolume(1.5f);
    musicVolume->setVolume(0.8f);
    pipe->connect(voice, voiceVolume);
    pipe->connect(music, musicVolume);
    pipe->connect(voiceVolume, mixer);
    pipe->connect(musicVolume, mixer);

    std::printf("%8s %10s %8s\n", "time ms", "level dBFS", "peak");
    double blockEnergy = 0;
    int blockPeak = 0;
    unsigned long total = 0;
    for (unsigned frame = 0; frame < SECONDS * 1000 / FRAME_MS; ++frame) {
        pipe->processFrame();
        const Frame out = mixer->outputData();
        const int16_t* samples = reinterpret_cast<const int16_t*>(out->data());
        for (std::size_t i = 0; i < out->size() / 2; ++i) {
            blockEnergy += double(samples[i]) * samples[i];
            blockPeak = std::max(blockPeak, std::abs(int(samples[i])));
        }
        total += out->size() / 2;
        if ((frame + 1) % 10 == 0) {
            std::printf("%8u %10.1f %8d\n", pipe->elapsedTime(), dbfs(std::sqrt(blockEnergy / (10 * SAMPLES))),
                        blockPeak);
            blockEnergy = 0;
            blockPeak = 0;
        }
    }
    std::printf("mixed %lu samples at %u Hz in %u ms\n", total, RATE, pipe->elapsedTime());
    return 0;
}
