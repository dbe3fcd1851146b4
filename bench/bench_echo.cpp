// Echo control: the universal device's per-block cost with the canceller on
// (its echo control as the device thread runs it, 20 ms blocks at 16 kHz,
// mono) against the bare engine calls on the same blocks, for both engines.
//
// With "--report DIR" it measures instead both engines in the simulated
// rooms and writes the figures table of docs/echo.md to stdout and the
// enhancement over time to DIR/erle.dat (scripts/echo-report plots it).
#include "benchratio.h"
#include "sonraechocontrol.h"

#include <benchmark/benchmark.h>

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using namespace ombrel;

namespace {

const unsigned RATE = 16000;                // Hz
const unsigned BLOCK_MS = 20;               // ms
const unsigned BLOCK = RATE * BLOCK_MS / 1000; // samples per block
const unsigned CHUNK = RATE / 100;          // samples per 10 ms engine chunk
const unsigned SCENE_MS = 2000;             // ms of different blocks

// Far-end speech and what the microphone takes of it in the default room.
struct Scene {
    Scene() : far(SonraEchoRoom::speechLike(RATE, SCENE_MS, 1)), mic(far.size(), 0)
    {
        SonraEchoRoom room(RATE, 1, SonraEchoPath());
        for (std::size_t at = 0; at + BLOCK <= far.size(); at += BLOCK) {
            room.capture(mic.data() + at, BLOCK);
            room.play(far.data() + at, BLOCK, 1);
        }
    }
    std::size_t blocks() const { return far.size() / BLOCK; }
    std::vector<short> far, mic;
};

const Scene& scene()
{
    static const Scene s;
    return s;
}

SonraEchoCanceller::Engine engineOf(const benchmark::State& state)
{
    return state.range(0) == 0 ? SonraEchoCanceller::WEBRTC : SonraEchoCanceller::SPEEX;
}

// The device's echo control on every block: copy in, cancel, callback,
// reference out, meter.
void BM_EchoDeviceBlock(benchmark::State& state)
{
    const Scene& s = scene();
    SonraEchoControl control(RATE, BLOCK, BLOCK_MS, 1, 1, true, engineOf(state), nullptr);
    std::size_t block = 0;
    const SonraEchoControl::Callback play = [&](const char*, int, char* out, int outLength, int) {
        std::memcpy(out, s.far.data() + block * BLOCK, static_cast<std::size_t>(outLength));
        return true;
    };
    std::vector<short> out(BLOCK);
    for (auto _ : state) {
        control.processBlock(reinterpret_cast<const char*>(s.mic.data() + block * BLOCK), BLOCK * 2,
                             reinterpret_cast<char*>(out.data()), BLOCK * 2, 0, play);
        block = (block + 1) % s.blocks();
    }
}

// The same blocks through WebRTC's calls alone, in floats made beforehand.
void bareWebRtc(benchmark::State& state)
{
    const Scene& s = scene();
    std::vector<float> far(s.far.begin(), s.far.end()), mic(s.mic.begin(), s.mic.end());
    for (float& x : far)
        x /= 32768.0f;
    for (float& x : mic)
        x /= 32768.0f;
    webrtc::Config config;
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    std::unique_ptr<webrtc::AudioProcessing> apm(webrtc::AudioProcessing::Create(config));
    apm->echo_cancellation()->set_suppression_level(webrtc::EchoCancellation::kLowSuppression);
    apm->echo_cancellation()->Enable(true);
    const webrtc::StreamConfig mono(RATE, 1);
    std::vector<float> farChunk(CHUNK), micChunk(CHUNK);
    std::size_t chunk = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < BLOCK / CHUNK; ++i, chunk = (chunk + 1) % (far.size() / CHUNK)) {
            std::memcpy(farChunk.data(), far.data() + chunk * CHUNK, CHUNK * sizeof(float));
            std::memcpy(micChunk.data(), mic.data() + chunk * CHUNK, CHUNK * sizeof(float));
            float* f = farChunk.data();
            float* m = micChunk.data();
            apm->ProcessReverseStream(&f, mono, mono, &f);
            apm->set_stream_delay_ms(BLOCK_MS);
            apm->ProcessStream(&m, mono, mono, &m);
        }
    }
}

// The same blocks through SpeexDSP's canceller and preprocessor alone.
void bareSpeex(benchmark::State& state)
{
    const Scene& s = scene();
    SpeexEchoState* echo = speex_echo_state_init(CHUNK, RATE * 160 / 1000);
    int rate = RATE;
    speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    SpeexPreprocessState* preprocess = speex_preprocess_state_init(CHUNK, rate);
    speex_preprocess_ctl(preprocess, SPEEX_PREPROCESS_SET_ECHO_STATE, echo);
    std::vector<spx_int16_t> out(CHUNK);
    std::size_t chunk = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < BLOCK / CHUNK; ++i, chunk = (chunk + 1) % (s.far.size() / CHUNK)) {
            speex_echo_cancellation(echo, s.mic.data() + chunk * CHUNK, s.far.data() + chunk * CHUNK, out.data());
            speex_preprocess_run(preprocess, out.data());
        }
    }
    speex_preprocess_state_destroy(preprocess);
    speex_echo_state_destroy(echo);
}

void BM_EchoBareEngine(benchmark::State& state)
{
    if (engineOf(state) == SonraEchoCanceller::WEBRTC)
        bareWebRtc(state);
    else
        bareSpeex(state);
}

BENCHMARK(BM_EchoDeviceBlock)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EchoBareEngine)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
SONRA_BASELINE(BM_EchoDeviceBlock, "device echo control per block (0 WebRTC, 1 SpeexDSP)", BM_EchoBareEngine,
               "the engine's bare calls");

// ------------------------------------------------------------------ report

const unsigned CALL_MS = 10000;   // ms of each measured call
const unsigned CHANGE_AT_MS = 5000; // ms: where the path moves, or the near end starts double talk

struct Room {
    const char* name;
    unsigned sampleRate; // Hz
    unsigned channels;   // captured
    SonraEchoPath path;
};

SonraEchoPath path(unsigned delayMs, double gainDb, unsigned tailMs)
{
    SonraEchoPath p;
    p.delayMs = delayMs;
    p.gainDb = gainDb;
    p.tailMs = tailMs;
    return p;
}

SonraEchoTrial trial(const Room& room, SonraEchoCanceller::Engine engine, unsigned nearFromMs, unsigned nearToMs)
{
    SonraEchoTrial t;
    t.sampleRate = room.sampleRate;
    t.captureChannels = room.channels;
    t.engine = engine;
    t.path = room.path;
    t.farEnd = SonraEchoRoom::speechLike(room.sampleRate, CALL_MS, 1);
    t.nearEnd.assign(t.farEnd.size(), 0);
    const std::vector<short> near = SonraEchoRoom::speechLike(room.sampleRate, CALL_MS, 2);
    const std::size_t from = std::size_t(room.sampleRate) * nearFromMs / 1000;
    const std::size_t to = std::size_t(room.sampleRate) * nearToMs / 1000;
    std::copy(near.begin() + from, near.begin() + to, t.nearEnd.begin() + from);
    return t;
}

// Level difference (dB) and correlation of the near end kept over
// [fromMs, toMs), at the canceller's latency.
std::pair<double, double> kept(const SonraEchoTrial& t, const SonraEchoTrial::Result& r, unsigned fromMs, unsigned toMs)
{
    const std::size_t from = std::size_t(t.sampleRate) * fromMs / 1000;
    const std::size_t count = std::size_t(t.sampleRate) * (toMs - fromMs - 20) / 1000;
    const short* clean = t.nearEnd.data() + from;
    const short* out = r.cleaned.data() + from;
    out += SonraEchoMeter::bestLag(out, clean, count, t.sampleRate / 50);
    return std::make_pair(SonraEchoMeter::levelDb(out, count) - SonraEchoMeter::levelDb(clean, count),
                          SonraEchoMeter::correlation(out, clean, count));
}

std::string ms(int value)
{
    return value < 0 ? std::string("never") : std::to_string(value) + " ms";
}

int report(const std::string& directory)
{
    const Room rooms[] = {
        {"office: 40 ms, -6 dB, 300 ms tail", 16000, 1, path(40, -6, 300)},
        {"close: 10 ms, 0 dB, 100 ms tail", 16000, 1, path(10, 0, 100)},
        {"hall: 120 ms, -10 dB, 400 ms tail", 16000, 1, path(120, -10, 400)},
        {"office, stereo capture", 16000, 2, path(40, -6, 300)},
        {"office, 8 kHz", 8000, 1, path(40, -6, 300)},
        {"office, 32 kHz", 32000, 1, path(40, -6, 300)},
        {"office, 44.1 kHz", 44100, 1, path(40, -6, 300)},
        {"office, 48 kHz", 48000, 1, path(40, -6, 300)},
    };
    const SonraEchoCanceller::Engine engines[] = {SonraEchoCanceller::WEBRTC, SonraEchoCanceller::SPEEX};
    std::printf("| room | engine | ERLE after 2 s | to 20 dB: reached, held | delay +40 ms: back to 20 dB, held "
                "| double talk: level, correlation | no echo: level, correlation |\n|---|---|---|---|---|---|---|\n");
    std::vector<std::vector<double> > curves;
    for (const Room& room : rooms) {
        for (SonraEchoCanceller::Engine engine : engines) {
            const SonraEchoTrial single = trial(room, engine, 0, 0);
            const SonraEchoTrial::Result alone = single.run();
            SonraEchoTrial moving = single;
            moving.changeAtMs = CHANGE_AT_MS;
            moving.changedPath = room.path;
            moving.changedPath.delayMs += 40;
            const SonraEchoTrial::Result moved = moving.run();
            const SonraEchoTrial both = trial(room, engine, CHANGE_AT_MS, CALL_MS - 1000);
            const std::pair<double, double> doubleTalk = kept(both, both.run(), CHANGE_AT_MS, CALL_MS - 1000);
            SonraEchoTrial headset = trial(room, engine, 2000, CALL_MS);
            headset.room = false;
            const std::pair<double, double> noEcho = kept(headset, headset.run(), 2000, CALL_MS);
            std::printf("| %s | %s | %.1f dB | %s | %s | %+.2f dB, %.3f | %+.2f dB, %.4f |\n", room.name,
                        SonraEchoCanceller::engineName(alone.engine), alone.meter.erleDb(2000, 4000),
                        (ms(alone.meter.convergenceMs(20)) + ", " + ms(alone.meter.settledMs(20))).c_str(),
                        (ms(moved.meter.convergenceMs(20, CHANGE_AT_MS)) + ", " +
                         ms(moved.meter.settledMs(20, CHANGE_AT_MS, 200))).c_str(),
                        doubleTalk.first, doubleTalk.second, noEcho.first, noEcho.second);
            if (&room == &rooms[0])
                curves.push_back(moved.meter.erleCurve(200));
        }
    }
    std::ofstream data(directory + "/erle.dat");
    data << "# seconds, ERLE (dB) over the last 200 ms: webrtc, speex; office room, delay +40 ms at 5 s\n";
    for (std::size_t b = 0; b < curves[0].size(); ++b)
        data << (b + 1) * BLOCK_MS / 1000.0 << ' ' << curves[0][b] << ' ' << curves[1][b] << '\n';
    return data ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--report")
        return report(argv[2]);
    return runBenchmarks(argc, argv);
}
