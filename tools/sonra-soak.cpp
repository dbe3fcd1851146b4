// sonra-soak: long runs and thread stress of the library, with the figures
// that judge them. Exits 1 when a check fails.
#include "sonraoptions.h"
#include "sonrasoak.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>

namespace {

const char* const USAGE =
    "usage: sonra-soak call [--minutes M] [--parties N] [--loss PCT] [--jitter MS] [--seed N]\n"
    "       sonra-soak devices [--cycles N] [--containers N]\n"
    "       sonra-soak graphs [--graphs N] [--threads N] [--frames N]\n"
    "\n"
    "call     a call of N parties (3) for M simulated minutes (60): Opus in the own packet\n"
    "         format over seeded links with PCT loss (5) and normal jitter of MS (20) to\n"
    "         receivers, decoders and a mixer per party; checks that resident memory stays\n"
    "         flat after the first minute and that no mixer misses a frame\n"
    "devices  N device containers (2) on the virtual device, each pipe on its own thread,\n"
    "         started and stopped N times (1000) while the device calls back; checks for\n"
    "         deadlocks, failed starts, cycles without captured sound, leaked threads and memory\n"
    "graphs   N call paths (64) on their own pipes over N threads (8), against the same\n"
    "         paths run one by one; checks that every result is the same\n";

using sonratool::UsageError;
using sonratool::number;
using sonratool::whole;

// --name value pairs after the command.
std::map<std::string, std::string> options(int argc, char** argv)
{
    std::map<std::string, std::string> values;
    for (int i = 2; i < argc; i += 2) {
        if (i + 1 >= argc)
            throw UsageError(std::string(argv[i]) + ": missing value");
        values[argv[i]] = argv[i + 1];
    }
    return values;
}

bool check(bool ok, const std::string& what)
{
    std::cout << (ok ? "ok:     " : "FAILED: ") << what << "\n";
    return ok;
}

int call(std::map<std::string, std::string> values)
{
    sonrasoak::SoakCallConfig config;
    for (const auto& option : values) {
        if (option.first == "--minutes")
            config.frames = whole(option.first, option.second, 2, 100000) * 60000 / config.frameDuration;
        else if (option.first == "--parties")
            config.parties = whole(option.first, option.second, 2, 16);
        else if (option.first == "--loss")
            config.lossRate = number(option.first, option.second, 0, 100) / 100;
        else if (option.first == "--jitter")
            config.jitter = number(option.first, option.second, 0, 10000);
        else if (option.first == "--seed")
            config.seed = whole(option.first, option.second, 0, 4294967295.0);
        else
            throw UsageError("call: unknown option " + option.first);
    }
    const sonrasoak::SoakCallResult r = sonrasoak::runSoakCall(config);
    std::cout << config.parties << " parties, " << r.frames << " frames of " << config.frameDuration
              << " ms each (" << r.frames * config.frameDuration / 60000.0 << " simulated minutes)\n"
              << "packets sent " << r.sent << ", datagrams delivered " << r.delivered << ", played " << r.played
              << "\nresident memory: " << r.residentAfterWarmupKb << " KiB after the first minute, peak "
              << r.residentPeakKb << " KiB, " << r.residentEndKb << " KiB at the end\n"
              << "processor time " << r.cpuSeconds << " s (" << 100 * r.realTimeFraction
              << " % of the simulated time), wall clock " << r.seconds << " s\n";
    bool ok = check(sonrasoak::residentFlat(r.residentAfterWarmupKb, r.residentPeakKb), "memory flat");
    ok &= check(r.missedMixerFrames == 0, "mixers missed " + std::to_string(r.missedMixerFrames) + " frames");
    return ok ? 0 : 1;
}

int devices(std::map<std::string, std::string> values)
{
    sonrasoak::DeviceStressConfig config;
    config.captureFile = "/tmp/sonra-soak-" + std::to_string(::getpid()) + ".wav";
    for (const auto& option : values) {
        if (option.first == "--cycles")
            config.cycles = whole(option.first, option.second, 1, 1e7);
        else if (option.first == "--containers")
            config.containers = whole(option.first, option.second, 1, 64);
        else
            throw UsageError("devices: unknown option " + option.first);
    }
    const sonrasoak::DeviceStressResult r = sonrasoak::runDeviceStress(config);
    std::cout << r.cycles << " start/stop cycles over " << config.containers << " containers in " << r.seconds
              << " s\nthreads " << r.threadsBefore << " before, " << r.threadsAfter << " after\n"
              << "resident memory: " << r.residentAfterFirstKb << " KiB after a tenth of the cycles, "
              << r.residentEndKb << " KiB at the end\n";
    bool ok = check(!r.deadlocked, "no step outlived " + sonratool::plain(config.timeout) + " s");
    ok &= check(r.cycles == config.cycles * config.containers, "every cycle done");
    ok &= check(r.failedStarts == 0 && r.silentCycles == 0,
                std::to_string(r.failedStarts) + " failed starts, " + std::to_string(r.silentCycles) +
                    " cycles without captured sound");
    ok &= check(r.threadsAfter == r.threadsBefore, "no thread left behind");
    ok &= check(sonrasoak::residentFlat(r.residentAfterFirstKb, r.residentEndKb), "memory flat");
    return ok ? 0 : 1;
}

int graphs(std::map<std::string, std::string> values)
{
    sonrasoak::GraphsConfig config;
    for (const auto& option : values) {
        if (option.first == "--graphs")
            config.graphs = whole(option.first, option.second, 1, 100000);
        else if (option.first == "--threads")
            config.threads = whole(option.first, option.second, 1, 1024);
        else if (option.first == "--frames")
            config.frames = whole(option.first, option.second, 1, 1e7);
        else
            throw UsageError("graphs: unknown option " + option.first);
    }
    const sonrasoak::GraphsResult r = sonrasoak::runGraphs(config);
    std::cout << r.graphs << " graphs of " << config.frames << " frames: " << r.serialSeconds
              << " s one by one, " << r.parallelSeconds << " s on " << config.threads << " threads\n";
    return check(r.differing == 0, std::to_string(r.differing) + " graphs differ when run side by side") ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const std::string command = argc > 1 ? argv[1] : "";
        if (command == "--help" || command == "-h") {
            std::cout << USAGE;
            return 0;
        }
        if (command == "call")
            return call(options(argc, argv));
        if (command == "devices")
            return devices(options(argc, argv));
        if (command == "graphs")
            return graphs(options(argc, argv));
        throw UsageError(command.empty() ? "missing command" : "unknown command " + command);
    } catch (const UsageError& error) {
        std::cerr << "sonra-soak: " << error.what() << "\n\n" << USAGE;
        return 2;
    }
}
