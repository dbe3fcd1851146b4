#include "sonraemodel.h"

#include <algorithm>
#include <cmath>

namespace sonratool {

const CodecImpairment G711_WITH_CONCEALMENT = {0, 25.1};
const CodecImpairment G711_WITHOUT_CONCEALMENT = {0, 4.3};
const CodecImpairment OPUS_WITH_CONCEALMENT = {0, 25.1};

namespace {

// The model's default planning values; levels in dB, delays in ms.
const double SEND_LOUDNESS = 8, RECEIVE_LOUDNESS = 2;     // SLR, RLR
const double SIDETONE_MASKING = 15, LISTENER_SIDETONE = 18; // STMR, LSTR
const double SEND_D = 3;                                  // Ds
const double TALKER_ECHO_LOUDNESS = 65;                   // TELR
const double WEIGHTED_ECHO_PATH_LOSS = 110;               // WEPL
const double CIRCUIT_NOISE = -70, NOISE_FLOOR = -64;      // Nc (dBm0p), Nfor (dBmp)
const double ROOM_NOISE_SEND = 35, ROOM_NOISE_RECEIVE = 35; // Ps, Pr (dB(A))
const double QDU = 1;                                     // quantizing distortion units
const double ADVANTAGE = 0;                               // A

double power(double db) { return std::pow(10.0, db / 10); }

double totalNoise()
{
    const double overall = SEND_LOUDNESS + RECEIVE_LOUDNESS;
    const double send = ROOM_NOISE_SEND - SEND_LOUDNESS - SEND_D - 100 +
                        0.004 * std::pow(ROOM_NOISE_SEND - overall - SEND_D - 14, 2);
    const double receiveRoom = ROOM_NOISE_RECEIVE + 10 * std::log10(1 + power(10 - LISTENER_SIDETONE));
    const double receive = RECEIVE_LOUDNESS - 121 + receiveRoom + 0.008 * std::pow(receiveRoom - 35, 2);
    const double floor = NOISE_FLOOR + RECEIVE_LOUDNESS;
    return 10 * std::log10(power(CIRCUIT_NOISE) + power(send) + power(receive) + power(floor));
}

double simultaneousImpairment(double basic, double noise, double delayMs)
{
    const double overall = SEND_LOUDNESS + RECEIVE_LOUDNESS;
    const double xolr = overall + 0.2 * (64 + noise - RECEIVE_LOUDNESS);
    const double loudness = 20 * (std::pow(1 + std::pow(xolr / 8, 8), 1.0 / 8) - xolr / 8);
    const double stmro = -10 * std::log10(power(-SIDETONE_MASKING) + std::exp(-delayMs / 4) * power(-TALKER_ECHO_LOUDNESS));
    const double sidetone = 12 * std::pow(1 + std::pow((stmro - 13) / 6, 8), 1.0 / 8) -
                            28 * std::pow(1 + std::pow((stmro + 1) / 19.4, 35), 1.0 / 35) -
                            13 * std::pow(1 + std::pow((stmro - 3) / 33, 13), 1.0 / 13) + 29;
    const double q = 37 - 15 * std::log10(QDU);
    const double g = 1.07 + 0.258 * q + 0.0602 * q * q;
    const double y = (basic - 100) / 15 + 46 / 8.4 - g / 9;
    const double z = 46.0 / 30 - g / 40;
    const double quantizing = 15 * std::log10(1 + std::pow(10, y) + std::pow(10, z));
    return loudness + sidetone + quantizing;
}

double delayImpairment(double basic, double noise, double delayMs)
{
    const double t = delayMs, roundTrip = 2 * delayMs;
    const double terv = TALKER_ECHO_LOUDNESS - 40 * std::log10((1 + t / 10) / (1 + t / 150)) + 6 * std::exp(-0.3 * t * t);
    const double roe = -1.5 * (noise - RECEIVE_LOUDNESS);
    const double re = 80 + 2.5 * (terv - 14);
    const double talkerEcho = ((roe - re) / 2 + std::sqrt(std::pow(roe - re, 2) / 4 + 100) - 1) * (1 - std::exp(-t));
    const double rle = 10.5 * (WEIGHTED_ECHO_PATH_LOSS + 7) * std::pow(roundTrip + 1, -0.25);
    const double listenerEcho = (basic - rle) / 2 + std::sqrt(std::pow(basic - rle, 2) / 4 + 169);
    double absolute = 0;
    if (t > 100) {
        const double x = std::log10(t / 100) / std::log10(2.0);
        absolute = 25 * (std::pow(1 + std::pow(x, 6), 1.0 / 6) - 3 * std::pow(1 + std::pow(x / 3, 6), 1.0 / 6) + 2);
    }
    return talkerEcho + listenerEcho + absolute;
}

double effectiveEquipmentImpairment(const EModelInput& input)
{
    const double ppl = input.lossPercent;
    return input.codec.ie + (95 - input.codec.ie) * ppl / (ppl / input.burstRatio + input.codec.bpl);
}

double opinionScore(double r)
{
    if (r < 0)
        return 1;
    if (r > 100)
        return 4.5;
    return 1 + 0.035 * r + r * (r - 60) * (100 - r) * 7e-6;
}

} // namespace

EModelRating rateCall(const EModelInput& input)
{
    const double noise = totalNoise();
    const double basic = 15 - 1.5 * (SEND_LOUDNESS + noise);
    const double r = basic - simultaneousImpairment(basic, noise, input.mouthToEarMs) -
                     delayImpairment(basic, noise, input.mouthToEarMs) - effectiveEquipmentImpairment(input) +
                     ADVANTAGE;
    return {r, opinionScore(r)};
}

double burstRatio(const std::vector<bool>& lost)
{
    const std::size_t losses = std::count(lost.begin(), lost.end(), true);
    if (losses == 0 || losses == lost.size())
        return 1;
    std::size_t runs = 0;
    for (std::size_t i = 0; i < lost.size(); ++i)
        runs += lost[i] && (i == 0 || !lost[i - 1]);
    const double meanRun = double(losses) / runs;
    const double randomMeanRun = 1 / (1 - double(losses) / lost.size());
    return std::max(1.0, meanRun / randomMeanRun);
}

} // namespace sonratool
