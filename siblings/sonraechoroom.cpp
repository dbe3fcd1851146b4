#include "sonraechoroom.h"

#include <algorithm>
#include <cmath>

namespace ombrel {

namespace {

const double VELVET_CELL_MS = 0.5;  // ms: one tail impulse in every cell
const double TAIL_START_MS = 1.0;   // ms after the direct path
const double DECAY_DB = 60.0;       // dB the tail falls over its length
const double FULL_SCALE = 32768.0;  // of 16-bit samples
const double GLOTTAL_ROLLOFF_HZ = 300.0; // Hz where the voice source starts falling

// A small generator of our own, so that rooms and voices are the same on
// every standard library.
class Random {
public:
    explicit Random(std::uint32_t seed) : m_state(seed * 2654435761u + 0x9E3779B9u) {}
    std::uint32_t next()
    {
        // xorshift32; the state never reaches 0 from a non-zero start.
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }
    double uniform() { return next() / 4294967296.0; } // [0, 1)
    double between(double low, double high) { return low + (high - low) * uniform(); }
    std::uint32_t state() const { return m_state; }

private:
    std::uint32_t m_state;
};

double decibels(double ratio)
{
    return 10.0 * std::log10(std::max(ratio, 1e-30));
}

double amplitudeOf(double db)
{
    return std::pow(10.0, db / 20.0);
}

short saturate(double value)
{
    return static_cast<short>(std::lround(std::min(32767.0, std::max(-32768.0, value))));
}

// A two-pole resonator at `hz` with bandwidth `bandwidthHz`, unity gain at
// its peak, retuned sample by sample as formants glide.
class Resonator {
public:
    double run(double input, double hz, double bandwidthHz, unsigned sampleRate)
    {
        const double nyquistSafe = std::min(hz, 0.45 * sampleRate);
        const double r = std::exp(-M_PI * bandwidthHz / sampleRate);
        const double b1 = 2.0 * r * std::cos(2.0 * M_PI * nyquistSafe / sampleRate);
        const double b2 = -r * r;
        const double y = (1.0 - r) * input + b1 * m_y1 + b2 * m_y2;
        m_y2 = m_y1;
        m_y1 = y;
        return y;
    }

private:
    double m_y1 = 0, m_y2 = 0;
};

struct Vowel {
    double f1, f2, f3; // Hz
};

Vowel randomVowel(Random& random)
{
    return {random.between(300, 800), random.between(900, 2300), random.between(2400, 3200)};
}

double glide(double from, double to, double progress)
{
    return from + (to - from) * progress;
}

// One syllable of `frames` samples into `out`: voiced (formants gliding
// from one vowel to the next under a pitch glide) or a fricative (shaped
// noise), under a smooth rise and fall.
void syllable(std::vector<double>& out, std::size_t at, std::size_t frames, unsigned sampleRate, double pitchHz,
              Random& random)
{
    const bool fricative = random.uniform() < 0.2;
    const Vowel from = randomVowel(random), to = randomVowel(random);
    const double pitchFrom = pitchHz * random.between(0.85, 1.15), pitchTo = pitchHz * random.between(0.85, 1.15);
    const double fricativeHz = random.between(3000, 5000);
    // Sample-level noise draws from a generator of its own, so that the
    // words are the same at every sample rate.
    Random noise(random.next());
    Resonator r1, r2, r3;
    double phase = 1.0; // a glottal pulse at the start
    // The glottal flow is smooth: its pulses fall off above a few hundred
    // hertz (one pole here, the lips' radiation and the formants do the rest).
    const double glottalPole = std::exp(-2.0 * M_PI * GLOTTAL_ROLLOFF_HZ / sampleRate);
    double glottal = 0;
    for (std::size_t i = 0; i < frames && at + i < out.size(); ++i) {
        const double progress = double(i) / frames;
        const double envelope = std::sin(M_PI * progress);
        double sample;
        if (fricative) {
            sample = r3.run(noise.between(-1, 1), fricativeHz, 1500, sampleRate) * 0.6;
        } else {
            phase += glide(pitchFrom, pitchTo, progress) / sampleRate;
            const double pulse = phase >= 1.0 ? 1.0 : 0.0;
            phase -= std::floor(phase);
            // Formants in parallel, the higher ones weaker, over a breath of noise.
            glottal = (1.0 - glottalPole) * pulse + glottalPole * glottal;
            const double excitation = glottal + 0.002 * noise.between(-1, 1);
            sample = r1.run(excitation, glide(from.f1, to.f1, progress), 80, sampleRate) +
                     0.6 * r2.run(excitation, glide(from.f2, to.f2, progress), 120, sampleRate) +
                     0.3 * r3.run(excitation, glide(from.f3, to.f3, progress), 200, sampleRate);
        }
        out[at + i] = sample * envelope;
    }
}

} // namespace

// ------------------------------------------------------------ SonraEchoPath

// Defined here too: std::min binds them by reference.
const unsigned SonraEchoPath::MAX_DELAY_MS;
const unsigned SonraEchoPath::MAX_TAIL_MS;

SonraEchoPath::SonraEchoPath() : delayMs(40), gainDb(-6.0), tailMs(300), tailDb(-6.0), noiseDb(-70.0), seed(1) {}

// ------------------------------------------------------------ SonraEchoRoom

SonraEchoRoom::SonraEchoRoom(unsigned sampleRate, unsigned captureChannels, const SonraEchoPath& path)
    : m_sampleRate(sampleRate),
      m_captureChannels(captureChannels),
      m_requestedPath(path),
      m_pathChanged(true),
      m_playedFrames(0)
{
    const std::size_t historyFrames =
        static_cast<std::size_t>(sampleRate) * (SonraEchoPath::MAX_DELAY_MS + SonraEchoPath::MAX_TAIL_MS) / 1000 + 1;
    m_played.assign(historyFrames, 0.0f);
    applyPendingPath();
}

void SonraEchoRoom::setPath(const SonraEchoPath& path)
{
    std::lock_guard<std::mutex> lock(m_pathMutex);
    m_requestedPath = path;
    m_pathChanged = true;
}

SonraEchoPath SonraEchoRoom::path() const
{
    std::lock_guard<std::mutex> lock(m_pathMutex);
    return m_requestedPath;
}

void SonraEchoRoom::applyPendingPath()
{
    if (!m_pathChanged.exchange(false))
        return;
    {
        std::lock_guard<std::mutex> lock(m_pathMutex);
        m_path = m_requestedPath;
    }
    m_path.delayMs = std::min(m_path.delayMs, SonraEchoPath::MAX_DELAY_MS);
    m_path.tailMs = std::min(m_path.tailMs, SonraEchoPath::MAX_TAIL_MS);
    m_taps.clear();
    m_noiseState.clear();
    for (unsigned c = 0; c < m_captureChannels; ++c) {
        m_taps.push_back(buildTaps(c));
        m_noiseState.push_back(Random(m_path.seed * 7919u + 104729u * (c + 1)).state());
    }
}

SonraEchoRoom::Taps SonraEchoRoom::buildTaps(unsigned channel) const
{
    const unsigned delay = static_cast<unsigned>(std::lround(m_path.delayMs * m_sampleRate / 1000.0));
    const double direct = amplitudeOf(m_path.gainDb);
    Taps taps(1, std::make_pair(delay, static_cast<float>(direct)));
    if (m_path.tailMs == 0)
        return taps;
    Random random(m_path.seed + 7u * channel);
    const double cell = VELVET_CELL_MS * m_sampleRate / 1000.0; // samples
    const double start = TAIL_START_MS * m_sampleRate / 1000.0;   // samples after the direct path
    const double tailSamples = m_path.tailMs * m_sampleRate / 1000.0;
    double energy = 0;
    for (double at = start; at < tailSamples; at += cell) {
        const unsigned offset = static_cast<unsigned>(at + random.uniform() * (cell - 1.0));
        const double sign = random.uniform() < 0.5 ? -1.0 : 1.0;
        const double envelope = amplitudeOf(-DECAY_DB * offset / tailSamples);
        taps.push_back(std::make_pair(delay + offset, static_cast<float>(sign * envelope)));
        energy += envelope * envelope;
    }
    // The tail's energy relative to the direct path's, as asked.
    const double scale = direct * amplitudeOf(m_path.tailDb) / std::sqrt(std::max(energy, 1e-30));
    for (std::size_t i = 1; i < taps.size(); ++i)
        taps[i].second = static_cast<float>(taps[i].second * scale);
    return taps;
}

std::vector<std::pair<unsigned, float> > SonraEchoRoom::impulseResponse(unsigned channel) const
{
    SonraEchoRoom copy(m_sampleRate, m_captureChannels, path());
    return channel < copy.m_taps.size() ? copy.m_taps[channel] : Taps();
}

void SonraEchoRoom::play(const short* played, unsigned frames, unsigned channels)
{
    const std::size_t size = m_played.size();
    for (unsigned i = 0; i < frames; ++i) {
        double sum = 0;
        for (unsigned c = 0; c < channels; ++c)
            sum += played[i * channels + c];
        m_played[(m_playedFrames + i) % size] = static_cast<float>(sum / std::max(1u, channels));
    }
    m_playedFrames += frames;
}

void SonraEchoRoom::capture(short* captured, unsigned frames)
{
    applyPendingPath();
    const std::size_t size = m_played.size();
    // The block played last sounds while this one is captured.
    const std::int64_t first = static_cast<std::int64_t>(m_playedFrames) - frames;
    const double noiseAmplitude = amplitudeOf(m_path.noiseDb) * FULL_SCALE * std::sqrt(3.0); // uniform noise's peak
    for (unsigned c = 0; c < m_captureChannels; ++c) {
        const Taps& taps = m_taps[c];
        for (unsigned i = 0; i < frames; ++i) {
            const std::int64_t now = first + i;
            double echo = 0;
            for (const auto& tap : taps) {
                const std::int64_t at = now - tap.first;
                if (at >= 0 && now - at < static_cast<std::int64_t>(size))
                    echo += tap.second * m_played[static_cast<std::size_t>(at) % size];
            }
            std::uint32_t& state = m_noiseState[c];
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            const double white = (state / 4294967296.0) * 2.0 - 1.0;
            short& sample = captured[i * m_captureChannels + c];
            sample = saturate(sample + echo + noiseAmplitude * white);
        }
    }
}

std::vector<short> SonraEchoRoom::speechLike(unsigned sampleRate, unsigned durationMs, unsigned seed, double levelDb)
{
    Random random(seed);
    const std::size_t total = static_cast<std::size_t>(sampleRate) * durationMs / 1000;
    std::vector<double> voice(total, 0.0);
    const double speakerPitchHz = random.between(100, 210);
    std::size_t at = static_cast<std::size_t>(random.between(0, 0.05) * sampleRate);
    unsigned syllablesLeftInPhrase = 3 + random.next() % 5;
    while (at < total) {
        const std::size_t frames = static_cast<std::size_t>(random.between(0.12, 0.28) * sampleRate);
        syllable(voice, at, frames, sampleRate, speakerPitchHz, random);
        at += frames;
        if (--syllablesLeftInPhrase == 0) {
            at += static_cast<std::size_t>(random.between(0.25, 0.5) * sampleRate);
            syllablesLeftInPhrase = 3 + random.next() % 5;
        } else {
            at += static_cast<std::size_t>(random.between(0.03, 0.09) * sampleRate);
        }
    }
    // The lips radiate the derivative of the flow: no DC, a rising tilt.
    for (std::size_t i = total; i-- > 1;)
        voice[i] -= voice[i - 1];
    // Scale to the level asked while speaking: the RMS of the louder
    // samples' blocks, not counting the pauses.
    const std::size_t block = std::max<std::size_t>(1, sampleRate / 50);
    double speakingEnergy = 0;
    std::size_t speakingSamples = 0;
    double peakBlock = 0;
    std::vector<double> blockEnergy;
    for (std::size_t b = 0; b < total; b += block) {
        double energy = 0;
        for (std::size_t i = b; i < std::min(total, b + block); ++i)
            energy += voice[i] * voice[i];
        blockEnergy.push_back(energy);
        peakBlock = std::max(peakBlock, energy);
    }
    for (std::size_t b = 0; b < blockEnergy.size(); ++b) {
        if (blockEnergy[b] > peakBlock * 1e-3) {
            speakingEnergy += blockEnergy[b];
            speakingSamples += std::min(block, total - b * block);
        }
    }
    const double rms = std::sqrt(speakingEnergy / std::max<std::size_t>(1, speakingSamples));
    const double gain = amplitudeOf(levelDb) * FULL_SCALE / std::max(rms, 1e-12);
    std::vector<short> samples(total);
    for (std::size_t i = 0; i < total; ++i)
        samples[i] = saturate(voice[i] * gain);
    return samples;
}

// ------------------------------------------------------------ SonraEchoMeter

SonraEchoMeter::SonraEchoMeter(unsigned blockMs) : m_blockMs(std::max(1u, blockMs)) {}

namespace {

double meanSquare(const short* samples, std::size_t count)
{
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += double(samples[i]) * samples[i];
    return count ? sum / count / (FULL_SCALE * FULL_SCALE) : 0.0;
}

} // namespace

void SonraEchoMeter::add(const short* played, std::size_t playedSamples, const short* captured, const short* cleaned,
                         std::size_t capturedSamples)
{
    m_blocks.push_back({meanSquare(played, playedSamples), meanSquare(captured, capturedSamples),
                        meanSquare(cleaned, capturedSamples)});
}

double SonraEchoMeter::energyRatioDb(double Block::*over, double Block::*under, unsigned fromMs, unsigned toMs) const
{
    double sumOver = 0, sumUnder = 0;
    for (std::size_t b = fromMs / m_blockMs; b < m_blocks.size() && b < toMs / m_blockMs; ++b) {
        sumOver += m_blocks[b].*over;
        sumUnder += m_blocks[b].*under;
    }
    return decibels(sumOver / std::max(sumUnder, 1e-30));
}

double SonraEchoMeter::erleDb(unsigned fromMs, unsigned toMs) const
{
    return energyRatioDb(&Block::captured, &Block::cleaned, fromMs, toMs);
}

double SonraEchoMeter::echoBelowSpeechDb(unsigned fromMs, unsigned toMs) const
{
    return energyRatioDb(&Block::played, &Block::cleaned, fromMs, toMs);
}

std::vector<double> SonraEchoMeter::erleCurve(unsigned windowMs) const
{
    const std::size_t window = std::max(1u, windowMs / m_blockMs);
    const double activeShare = std::pow(10.0, -ACTIVE_RANGE_DB / 10.0);
    std::vector<bool> active(m_blocks.size());
    double loudest = 0;
    for (std::size_t b = 0; b < m_blocks.size(); ++b) {
        loudest = std::max(loudest, m_blocks[b].captured);
        active[b] = m_blocks[b].captured > 0 && m_blocks[b].captured >= loudest * activeShare;
    }
    std::vector<double> curve(m_blocks.size(), std::nan(""));
    for (std::size_t end = window; end <= m_blocks.size(); ++end) {
        double captured = 0, cleaned = 0;
        for (std::size_t b = end - window; b < end; ++b) {
            captured += active[b] ? m_blocks[b].captured : 0.0;
            cleaned += active[b] ? m_blocks[b].cleaned : 0.0;
        }
        if (captured > 0)
            curve[end - 1] = decibels(captured / std::max(cleaned, 1e-30));
    }
    return curve;
}

int SonraEchoMeter::convergenceMs(double thresholdDb, unsigned fromMs, unsigned windowMs) const
{
    const std::vector<double> curve = erleCurve(windowMs);
    const std::size_t window = std::max(1u, windowMs / m_blockMs);
    for (std::size_t b = fromMs / m_blockMs + window - 1; b < curve.size(); ++b) {
        if (curve[b] >= thresholdDb)
            return static_cast<int>((b + 1) * m_blockMs) - static_cast<int>(fromMs);
    }
    return -1;
}

int SonraEchoMeter::settledMs(double thresholdDb, unsigned fromMs, unsigned windowMs) const
{
    const std::vector<double> curve = erleCurve(windowMs);
    std::size_t holdsFrom = fromMs / m_blockMs + std::max(1u, windowMs / m_blockMs) - 1;
    for (std::size_t b = holdsFrom; b < curve.size(); ++b) {
        if (curve[b] < thresholdDb) // NaN, a window without echo, compares false
            holdsFrom = b + 1;
    }
    for (std::size_t b = holdsFrom; b < curve.size(); ++b) {
        if (!std::isnan(curve[b]))
            return static_cast<int>((b + 1) * m_blockMs) - static_cast<int>(fromMs);
    }
    return -1;
}

double SonraEchoMeter::levelDb(const short* samples, std::size_t count)
{
    return decibels(meanSquare(samples, count));
}

double SonraEchoMeter::correlation(const short* a, const short* b, std::size_t count)
{
    double ab = 0, aa = 0, bb = 0;
    for (std::size_t i = 0; i < count; ++i) {
        ab += double(a[i]) * b[i];
        aa += double(a[i]) * a[i];
        bb += double(b[i]) * b[i];
    }
    return ab / std::sqrt(std::max(aa * bb, 1e-30));
}

unsigned SonraEchoMeter::bestLag(const short* delayed, const short* reference, std::size_t count, unsigned maxLag)
{
    unsigned best = 0;
    double bestCorrelation = -2.0;
    for (unsigned lag = 0; lag <= maxLag; ++lag) {
        const double c = correlation(delayed + lag, reference, count);
        if (c > bestCorrelation) {
            bestCorrelation = c;
            best = lag;
        }
    }
    return best;
}

} // namespace ombrel
