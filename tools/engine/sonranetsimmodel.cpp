#include "sonranetsimmodel.h"

#include <algorithm>
#include <cmath>

namespace sonranetsim {

namespace {

uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

// Times are rounded to whole microseconds, which a scenario file carries
// exactly.
double toMicroseconds(double ms) { return std::round(ms * 1000) / 1000; }

} // namespace

Random::Random(uint64_t seed)
{
    for (uint64_t& word : m_state) {
        seed += 0x9e3779b97f4a7c15ull;
        uint64_t z = seed;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        word = z ^ (z >> 31);
    }
}

uint64_t Random::next()
{
    const uint64_t result = rotl(m_state[1] * 5, 7) * 9;
    const uint64_t t = m_state[1] << 17;
    m_state[2] ^= m_state[0];
    m_state[3] ^= m_state[1];
    m_state[1] ^= m_state[2];
    m_state[0] ^= m_state[3];
    m_state[2] ^= t;
    m_state[3] = rotl(m_state[3], 45);
    return result;
}

double Random::normal()
{
    return std::sqrt(-2.0 * std::log(uniformOpen())) * std::cos(2.0 * M_PI * uniform());
}

LossModel::LossModel(double lossRate, double burstLength)
{
    const double rate = std::min(std::max(lossRate, 0.0), 1.0);
    m_leaveBad = 1.0 / std::max(burstLength, 1.0);
    m_enterBad = rate >= 1 ? 1.0 : rate * m_leaveBad / (1.0 - rate);
    m_bad = false;
}

bool LossModel::lose(Random& random)
{
    m_bad = m_bad ? !random.chance(m_leaveBad) : random.chance(m_enterBad);
    return m_bad;
}

Network::Network(const NetworkModel& model)
    : m_replay(false), m_model(model), m_random(model.seed), m_loss(model.lossRate, model.burstLength),
      m_spikeStart(-1)
{
}

Network::Network(const std::vector<ScenarioLine>& scenario)
    : m_replay(true), m_random(m_model.seed), m_loss(m_model.lossRate, m_model.burstLength), m_spikeStart(-1)
{
    for (const ScenarioLine& line : scenario)
        m_scenario.insert(std::make_pair(line.seqNum, line));
}

std::vector<double> Network::arrivals(unsigned seqNum, unsigned sendTime)
{
    return m_replay ? replayed(seqNum, sendTime) : modelled(sendTime);
}

std::vector<double> Network::replayed(unsigned seqNum, unsigned sendTime) const
{
    std::vector<double> times;
    const auto range = m_scenario.equal_range(seqNum);
    for (auto line = range.first; line != range.second; ++line) {
        if (!line->second.lost)
            times.push_back(sendTime + (line->second.arrivalTime - line->second.sendTime));
    }
    return times;
}

double Network::jitter()
{
    switch (m_model.jitterKind) {
    case JitterKind::Uniform:
        return m_model.jitter * m_random.uniform();
    case JitterKind::Normal:
        return std::fabs(m_model.jitter * m_random.normal());
    case JitterKind::Exponential:
        return -m_model.jitter * std::log(m_random.uniformOpen());
    case JitterKind::Pareto:
        return m_model.jitter / std::sqrt(m_random.uniformOpen()) - m_model.jitter;
    case JitterKind::None:
        break;
    }
    return 0;
}

double Network::spike(unsigned sendTime)
{
    if (m_random.chance(m_model.spikeRate))
        m_spikeStart = sendTime;
    if (m_spikeStart < 0)
        return 0;
    const double left = m_model.spikeHeight - (sendTime - m_spikeStart);
    return left > 0 ? left : 0;
}

// Every packet takes the same draws, lost or not, so that changing one
// rate does not reshuffle what the others decide.
std::vector<double> Network::modelled(unsigned sendTime)
{
    const bool lost = m_loss.lose(m_random);
    const double delay = m_model.baseDelay + jitter() + spike(sendTime);
    const bool heldBack = m_random.chance(m_model.reorderRate);
    const bool doubled = m_random.chance(m_model.duplicateRate);
    const double copyDelay = m_model.duplicateDelay * m_random.uniform();
    std::vector<double> times;
    if (lost)
        return times;
    times.push_back(toMicroseconds(sendTime + delay + (heldBack ? m_model.reorderDelay : 0)));
    if (doubled)
        times.push_back(toMicroseconds(times.back() + copyDelay));
    return times;
}

} // namespace sonranetsim
