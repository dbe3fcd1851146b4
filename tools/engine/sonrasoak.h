// The engine of sonra-soak: long runs and thread stress of the library.
//
// - A call: several parties on one pipe, each sending Opus in the own
//   packet format over a seeded lossy, jittery link to every other party,
//   whose receiver, decoder and mixer bring it back to PCM. Simulated time
//   (the pipe's clock), so an hour of call takes what the CPU needs.
// - Device containers on the virtual device, each with its pipe on its own
//   thread, started and stopped over and over while the device calls back.
// - Many call paths, each on its own pipe, run on several threads and one
//   by one: the results must not differ.
//
// Resident memory is read from /proc/self/statm.
#ifndef SONRA_SOAK_H
#define SONRA_SOAK_H

#include <cstdint>
#include <string>

namespace sonrasoak {

// Memory counts as flat when it grew by at most 2 MiB and 5 % between two readings.
bool residentFlat(long beforeKb, long afterKb);

// ---------------------------------------------------------------- the call

struct SoakCallConfig {
    unsigned parties = 3;
    unsigned frames = 180000;      // graph frames per party (an hour at 20 ms)
    unsigned frameDuration = 20;   // ms
    unsigned sampleRate = 16000;   // Hz
    double lossRate = 0.05;        // share of packets lost, 0..1
    double jitter = 20;            // ms, scale of the folded normal jitter
    double baseDelay = 40;         // ms
    unsigned warmupFrames = 3000;  // the first minute: memory is judged against its end
    uint64_t seed = 1;
};

struct SoakCallResult {
    unsigned frames = 0;
    unsigned missedMixerFrames = 0; // frames a mixer gave nothing or a short frame
    uint64_t sent = 0, delivered = 0, played = 0; // packets, datagrams, frames
    long residentAfterWarmupKb = 0, residentPeakKb = 0, residentEndKb = 0;
    double seconds = 0, cpuSeconds = 0; // wall clock; this process's processor time
    double realTimeFraction = 0;   // processor time over simulated time
};

SoakCallResult runSoakCall(const SoakCallConfig& config);

// ---------------------------------------------------------------- device containers

struct DeviceStressConfig {
    unsigned containers = 2;
    unsigned cycles = 1000;       // starts and stops per container
    unsigned frameDuration = 20;  // ms
    unsigned sampleRate = 16000;  // Hz
    std::string captureFile;      // written here: what the virtual device captures
    double timeout = 5;           // s a step may take before it counts as a deadlock
};

struct DeviceStressResult {
    unsigned cycles = 0;            // completed, over all containers
    unsigned silentCycles = 0;      // no captured sound reached the graph before the stop
    unsigned failedStarts = 0;
    bool deadlocked = false;        // a step outlived the timeout
    unsigned threadsBefore = 0, threadsAfter = 0;
    long residentAfterFirstKb = 0, residentEndKb = 0; // after the first tenth of the cycles, at the end
    double seconds = 0;
};

DeviceStressResult runDeviceStress(const DeviceStressConfig& config);

// ---------------------------------------------------------------- graphs side by side

struct GraphsConfig {
    unsigned graphs = 64;
    unsigned threads = 8;
    unsigned frames = 150; // of audio through each graph
};

struct GraphsResult {
    unsigned graphs = 0;
    unsigned differing = 0; // graphs whose parallel run differs from their run alone
    double serialSeconds = 0, parallelSeconds = 0;
};

GraphsResult runGraphs(const GraphsConfig& config);

} // namespace sonrasoak

#endif
