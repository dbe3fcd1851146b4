// Stand-ins for sound devices in the device bridge's tests.
#ifndef SONRA_DEVICEUTIL_H
#define SONRA_DEVICEUTIL_H

#include "shared.h"
#include "sonrauniversaldev.h"

#include <boost/make_shared.hpp>

#include <string>
#include <vector>

namespace sonratest {

// A device that records what the container asks of it and keeps the
// callback, so that a test can play the device's thread.
class FakeDevice : public ombrel::SonraDevice {
public:
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
    void workCycle() override { ++workCycles; }
    bool hasVoicePreprocessor() override { return preprocessor; }
    void reset() override { ++resets; }

    int startResult = 0;
    std::string messageToWrite; // left alone when empty
    bool preprocessor = false;
    int starts = 0, stops = 0, workCycles = 0, resets = 0;
    std::string messageOnEntry;
    ombrel::SonraStreamConfiguration lastConfiguration;
    Callback callback;
    std::vector<ombrel::SonraDeviceInfo::DeviceType> askedTypes;
};

class FakeBuilder : public ombrel::SonraDeviceBuilder {
public:
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

// Collects log records while alive and enables one debug category.
class LogCapture {
public:
    explicit LogCapture(const std::string& category = "audio2") : m_category(category)
    {
        ombrel::setDebugEnabled(category, true);
        ombrel::setLogSink([this](const ombrel::LogRecord& record) { records.push_back(record); });
    }
    ~LogCapture()
    {
        ombrel::setLogSink(ombrel::LogSink());
        ombrel::setDebugEnabled(m_category, false);
    }
    std::vector<std::string> texts(ombrel::LogSeverity severity) const
    {
        std::vector<std::string> found;
        for (const auto& record : records)
            if (record.severity == severity && record.category == m_category)
                found.push_back(record.text);
        return found;
    }

    std::vector<ombrel::LogRecord> records;

private:
    std::string m_category;
};

} // namespace sonratest

#endif
