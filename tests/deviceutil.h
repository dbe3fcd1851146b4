// Stand-ins for sound devices, and sound files, in the device bridge's tests.
#ifndef SONRA_DEVICEUTIL_H
#define SONRA_DEVICEUTIL_H

#include "sonrauniversaldev.h"
#include "testutil.h"

#include <sndfile.h>

namespace sonratest {

// A device that records what the container asks of it and keeps the
// callback, so that a test can play the device's thread (also after stop(),
// as a late device thread would; forget() drops it).
struct FakeDevice : ombrel::SonraDevice {
    std::vector<boost::shared_ptr<ombrel::SonraDeviceInfo> > devices(ombrel::SonraDeviceInfo::DeviceType type) override
    {
        askedTypes.push_back(type);
        return {boost::make_shared<ombrel::SonraDeviceInfo>("fake", "test", 2, 16000.0, true, false)};
    }
    int start(const ombrel::SonraStreamConfiguration& configuration, Callback cb, std::string* message) override
    {
        ++starts;
        lastConfiguration = configuration;
        messageOnEntry = *message;
        callback = cb;
        if (!messageToWrite.empty())
            *message = messageToWrite;
        return startResult;
    }
    void stop() override { ++stops; }
    void forget() { callback = Callback(); }
    void workCycle() override { ++workCycles; }
    bool hasVoicePreprocessor() override { return preprocessor; }
    void reset() override { ++resets; }

    int startResult = 0, starts = 0, stops = 0, workCycles = 0, resets = 0;
    std::string messageToWrite, messageOnEntry; // messageToWrite: left alone when empty
    bool preprocessor = false;
    ombrel::SonraStreamConfiguration lastConfiguration;
    Callback callback;
    std::vector<ombrel::SonraDeviceInfo::DeviceType> askedTypes;
};

struct FakeBuilder : ombrel::SonraDeviceBuilder {
    boost::shared_ptr<ombrel::SonraDevice> buildDevice(bool capture, unsigned sampleRate) override
    {
        ++calls;
        lastCapture = capture;
        lastSampleRate = sampleRate;
        return device;
    }
    boost::shared_ptr<ombrel::SonraDevice> device; // may be empty
    int calls = 0;
    bool lastCapture = true;
    unsigned lastSampleRate = 0;
};

// 16-bit PCM WAV through libsndfile; false when it cannot.
inline bool writeWav(const std::string& path, const std::vector<int16_t>& samples, int sampleRate, int channels)
{
    SF_INFO info = SF_INFO();
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        return false;
    const sf_count_t frames = static_cast<sf_count_t>(samples.size() / channels);
    const bool written = sf_writef_short(file, samples.data(), frames) == frames;
    sf_close(file);
    return written;
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
