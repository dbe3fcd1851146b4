// Stand-ins for sound devices, and sound files, in the device bridge's tests.
#ifndef SONRA_DEVICEUTIL_H
#define SONRA_DEVICEUTIL_H

#include "sonrauniversaldev.h"
#include "testutil.h"
#include "sonrasoundfile.h"

#include <sndfile.h>

namespace sonratest {

// A device that records what the container asks of it and keeps the
// callback, so that a test can play the device's thread (also after stop(),
// as a late device thread would; forget() drops it). It is also the builder
// that offers itself as the playback-only device.
struct FakeDevice : ombrel::SonraDevice, ombrel::SonraDeviceBuilder {
    boost::shared_ptr<ombrel::SonraDevice> buildDevice(bool capture, unsigned sampleRate) override
    {
        builds.push_back({capture, sampleRate});
        return buildable ? shared_from_this() : boost::shared_ptr<ombrel::SonraDevice>();
    }
    std::vector<boost::shared_ptr<ombrel::SonraDeviceInfo> > devices(ombrel::SonraDeviceInfo::DeviceType) override
    {
        return {boost::make_shared<ombrel::SonraDeviceInfo>("fake", "test", 2, 16000.0, true, false)};
    }
    int start(const ombrel::SonraStreamConfiguration& configuration, Callback cb, std::string* message) override
    {
        ++starts;
        lastConfiguration = configuration;
        callback = cb;
        if (!messageToWrite.empty())
            *message = messageToWrite;
        return startResult;
    }
    void stop() override { ++stops; }
    void forget() { callback = Callback(); }
    std::vector<int> counts() const { return {starts, stops, workCycles, resets}; }
    void workCycle() override { ++workCycles; }
    bool hasVoicePreprocessor() override { return preprocessor; }
    void reset() override { ++resets; }

    int startResult = 0, starts = 0, stops = 0, workCycles = 0, resets = 0;
    std::string messageToWrite; // left alone when empty
    bool preprocessor = false, buildable = true;
    std::vector<std::pair<bool, unsigned> > builds; // capture, sample rate (Hz)
    ombrel::SonraStreamConfiguration lastConfiguration;
    Callback callback;
};

// 16-bit PCM WAV as the tools write it; a failure fails the test.
inline bool writeWav(const std::string& path, const std::vector<int16_t>& samples, int sampleRate, int channels)
{
    sonratool::writeWav(path, samples, unsigned(sampleRate), unsigned(channels));
    return true;
}

struct WavContents {
    int sampleRate = 0, channels = 0;
    std::vector<int16_t> samples; // empty when unreadable
};

inline WavContents readWav(const std::string& path)
{
    WavContents contents;
    SF_INFO info = SF_INFO();
    if (SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info)) {
        contents.sampleRate = info.samplerate;
        contents.channels = info.channels;
        contents.samples.resize(static_cast<std::size_t>(info.frames) * info.channels);
        const sf_count_t read = sf_readf_short(file, contents.samples.data(), info.frames);
        contents.samples.resize(static_cast<std::size_t>(read) * info.channels);
        sf_close(file);
    }
    return contents;
}

} // namespace sonratest

#endif
