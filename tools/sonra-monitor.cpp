// sonra-monitor: a local monitor loop in real time. What the capture device
// hears goes through the graph (capture node -> volume -> mixer -> playback
// node) to the playback device, driven by the pipe's own timer.
//
//   sonra-monitor --list
//   sonra-monitor [--capture NAME] [--playback NAME] [--seconds S] [--volume V]
//                 [--rate HZ] [--frame MS] [--channels N] [--verbose]
//
// Without a sound card, the virtual devices turn a sound file into a WAV of
// what was played:
//   sonra-monitor --capture virtual:in.wav --playback virtual:out.wav --seconds 2
#include "sonraoptions.h"
#include "sonradevnode.h"
#include "sonramixernode.h"
#include "sonravolumenode.h"
#include "shared.h"

#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

using namespace ombrel;

namespace {

struct Options {
    bool list = false;
    bool verbose = false;
    std::string capture;  // empty: the default device
    std::string playback; // empty: the default device
    double seconds = 0;   // 0: until interrupted
    double volume = 1.0;
    unsigned rate = 16000; // Hz
    unsigned frame = 20;   // ms
    unsigned channels = 1;
};

const char* const USAGE =
    "usage: sonra-monitor [--list] [--capture NAME] [--playback NAME] [--seconds S]\n"
    "                     [--volume V] [--rate HZ] [--frame MS] [--channels N] [--verbose]\n"
    "\n"
    "Plays what the capture device hears on the playback device, through the\n"
    "graph's volume and mixer, until S seconds have passed or Ctrl-C.\n"
    "  --list          list the capture and playback devices, then exit\n"
    "  --capture NAME  capture device (default: the system's default)\n"
    "  --playback NAME playback device (default: the system's default)\n"
    "  --seconds S     how long to run (default: until interrupted)\n"
    "  --volume V      volume factor, 1 leaves the samples untouched (default 1)\n"
    "  --rate HZ       sample rate (default 16000)\n"
    "  --frame MS      graph frame duration (default 20)\n"
    "  --channels N    channels in both directions (default 1)\n"
    "  --verbose       show the library's log records\n"
    "\n"
    "Devices named \"virtual\" need no sound card: as capture, \"virtual\" is silence\n"
    "and \"virtual:FILE\" loops the sound file FILE (at the stream's sample rate);\n"
    "as playback, \"virtual\" drops the sound and \"virtual:FILE\" writes a WAV file.\n";

using sonratool::UsageError;
using sonratool::number;
using sonratool::plain;
using sonratool::whole;

Options parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw UsageError(option + " wants a value");
            return argv[++i];
        };
        if (option == "--help" || option == "-h") {
            std::cout << USAGE;
            std::exit(0);
        } else if (option == "--list") {
            options.list = true;
        } else if (option == "--verbose") {
            options.verbose = true;
        } else if (option == "--capture") {
            options.capture = value();
        } else if (option == "--playback") {
            options.playback = value();
        } else if (option == "--seconds") {
            options.seconds = number(option, value(), 0, 86400);
        } else if (option == "--volume") {
            options.volume = number(option, value(), 0, 100);
        } else if (option == "--rate") {
            options.rate = whole(option, value(), 1000, 192000);
        } else if (option == "--frame") {
            options.frame = whole(option, value(), 1, 1000);
        } else if (option == "--channels") {
            options.channels = whole(option, value(), 1, 8);
        } else {
            throw UsageError("unknown option \"" + option + "\"");
        }
    }
    return options;
}

void printDevices(SonraDevNodesContainer& container, SonraDeviceInfo::DeviceType type, const char* title)
{
    std::cout << title << ":\n";
    for (const auto& info : container.devices(type)) {
        std::cout << "  \"" << info->name() << "\"  " << info->hostApi() << ", " << info->maxChannels()
                  << (info->maxChannels() == 1 ? " channel" : " channels");
        if (!info->isVirtual())
            std::cout << ", " << info->defaultSampleRate() << " Hz";
        if (info->isDefault())
            std::cout << ", default";
        std::cout << "\n";
    }
}

std::string shown(const std::string& name)
{
    return name.empty() ? std::string("the default device") : "\"" + name + "\"";
}

// Capture, volume, mixer and playback on the container's devices.
void buildLoop(const Options& options, const boost::shared_ptr<boost::asio::io_service>& io,
               const boost::shared_ptr<SonraPipe>& pipe, SonraDevNodesContainer& container)
{
    container.create(true, false);
    container.setPipe(pipe);
    container.setCaptureDevice(options.capture);
    container.setPlaybackDevice(options.playback);
    auto volume = boost::make_shared<SonraVolumeNode>(io, options.frame, options.rate);
    auto mixer = boost::make_shared<SonraMixerNode>(io, options.frame, options.rate);
    volume->setVolume(static_cast<float>(options.volume));
    container.capture()->setOutputChannels(options.channels);
    volume->setOutputChannels(options.channels);
    mixer->setOutputChannels(options.channels);
    pipe->connect(container.capture(), volume);
    pipe->connect(volume, mixer);
    pipe->connect(mixer, container.playback());
}

// The pipe on its own timer until the time is up or the process is interrupted.
void runLoop(const Options& options, const boost::shared_ptr<boost::asio::io_service>& io,
             const boost::shared_ptr<SonraPipe>& pipe)
{
    // The graph runs half a frame after the device's blocks, so that the
    // two clocks do not race for the same instant.
    std::this_thread::sleep_for(std::chrono::microseconds(options.frame * 500));
    pipe->start(io);

    auto finish = [&]() {
        pipe->stop();
        io->stop();
    };
    boost::asio::signal_set interrupts(*io, SIGINT, SIGTERM);
    interrupts.async_wait([&](const boost::system::error_code& error, int) {
        if (!error)
            finish();
    });
    boost::asio::steady_timer end(*io);
    if (options.seconds > 0) {
        end.expires_after(std::chrono::microseconds(static_cast<long long>(options.seconds * 1e6)));
        end.async_wait([&](const boost::system::error_code& error) {
            if (!error)
                finish();
        });
    }
    io->run();
}

int monitor(const Options& options)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    auto pipe = boost::make_shared<SonraPipe>(options.frame);
    auto container = boost::make_shared<SonraDevNodesContainer>(
        io, options.frame, SonraDevNodesContainer::DEFAULT_RINGBUF_DURATION, options.rate);
    if (options.list) {
        printDevices(*container, SonraDeviceInfo::CAPTURE, "Capture devices");
        printDevices(*container, SonraDeviceInfo::PLAYBACK, "Playback devices");
        return 0;
    }
    buildLoop(options, io, pipe, *container);
    std::string message;
    const int channels = static_cast<int>(options.channels);
    const int result = container->start(channels, channels, &message);
    if (result != 0) {
        std::cerr << "sonra-monitor: cannot start the stream from " << shown(options.capture) << " to "
                  << shown(options.playback) << ": " << message << " (code " << result << ")\n"
                  << "sonra-monitor --list shows the devices; \"virtual\" needs no sound card\n";
        pipe->clear();
        return 1;
    }
    std::cerr << "sonra-monitor: " << shown(options.capture) << " -> " << shown(options.playback) << ", "
              << options.rate << " Hz, " << options.channels << (options.channels == 1 ? " channel" : " channels")
              << ", " << options.frame << " ms frames"
              << (options.seconds > 0 ? ", " + plain(options.seconds) + " s" : std::string(", Ctrl-C ends"))
              << "\n";
    runLoop(options, io, pipe);
    container->stop(); // closes a virtual playback file
    pipe->clear();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const UsageError& error) {
        std::cerr << "sonra-monitor: " << error.what() << "\n\n" << USAGE;
        return 2;
    }
    if (options.verbose)
        setDebugEnabled("audio2", true);
    else
        setLogSink([](const LogRecord&) {}); // the tool says what went wrong itself
    try {
        return monitor(options);
    } catch (const std::exception& error) {
        std::cerr << "sonra-monitor: " << error.what() << "\n";
        return 1;
    }
}
