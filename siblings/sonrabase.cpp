#include "sonrabase.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/core/demangle.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <typeinfo>
#include <unordered_map>

namespace ombrel {

// ---------------------------------------------------------------- SonraNode

SonraNode::SonraNode(boost::shared_ptr<boost::asio::io_service> /*ioService*/,
                     unsigned frameDuration, unsigned sampleRate)
    : m_frameDuration(frameDuration),
      m_sampleRate(sampleRate),
      m_frameSize(frameSize(frameDuration, sampleRate)),
      m_outputChannels(1),
      m_nextInputIndex(0)
{
}

SonraNode::~SonraNode() = default;

void SonraNode::timerTick() {}
void SonraNode::reset(unsigned) {}
void SonraNode::doSetOutputChannels(unsigned) {}
void SonraNode::doSetAudioPipe(boost::shared_ptr<SonraPipe>) {}

unsigned SonraNode::frameSize(unsigned frameDuration, unsigned sampleRate)
{
    // 64-bit product: 48 kHz x long durations must not wrap before dividing.
    return static_cast<unsigned>(2ull * sampleRate * frameDuration / 1000u);
}

void SonraNode::setOutputChannels(unsigned channels)
{
    m_outputChannels = channels;
    doSetOutputChannels(channels);
}

SonraNode::Frame SonraNode::getInputData() const
{
    if (m_inputs.empty())
        return Frame();
    return getInputData(m_inputs.begin()->first);
}

SonraNode::Frame SonraNode::getInputData(unsigned index) const
{
    const auto input = m_inputs.find(index);
    if (input == m_inputs.end())
        return Frame();
    const boost::shared_ptr<SonraNode> source = input->second.lock();
    return source ? source->m_output : Frame();
}

std::vector<unsigned> SonraNode::inputIndexes() const
{
    std::vector<unsigned> indexes;
    indexes.reserve(m_inputs.size());
    for (const auto& input : m_inputs)
        indexes.push_back(input.first);
    return indexes;
}

boost::shared_ptr<SonraNode> SonraNode::getInputPeerNode(unsigned index, unsigned& peerIndex) const
{
    peerIndex = 0;
    const auto input = m_inputs.find(index);
    return input == m_inputs.end() ? boost::shared_ptr<SonraNode>() : input->second.lock();
}

// ---------------------------------------------------------------- SonraPipe

struct SonraPipe::RealTimeDriver {
    explicit RealTimeDriver(boost::shared_ptr<boost::asio::io_service> ioService)
        : service(ioService), timer(*ioService) {}

    // Declared before the timer: the timer must go first.
    boost::shared_ptr<boost::asio::io_service> service;
    boost::asio::steady_timer timer;
    std::chrono::steady_clock::time_point deadline;
};

namespace {

std::string className(const SonraNode& node)
{
    return boost::core::demangle(typeid(node).name());
}

} // namespace

SonraPipe::SonraPipe(unsigned frameDuration)
    : m_frameDuration(frameDuration), m_framesProcessed(0), m_orderValid(true)
{
}

SonraPipe::~SonraPipe()
{
    m_driver.reset();
    for (const auto& node : m_nodes)
        node->m_pipe.reset();
}

bool SonraPipe::isAttached(const boost::shared_ptr<SonraNode>& node) const
{
    return std::find(m_nodes.begin(), m_nodes.end(), node) != m_nodes.end();
}

void SonraPipe::attach(const boost::shared_ptr<SonraNode>& node)
{
    if (!node)
        throw std::invalid_argument("SonraPipe: cannot attach an empty node");
    if (isAttached(node))
        return;
    if (!node->m_pipe.expired())
        throw std::logic_error("SonraPipe: " + className(*node) + " is attached to another pipe");
    m_nodes.push_back(node);
    m_orderValid = false;
    node->m_pipe = shared_from_this();
    node->doSetAudioPipe(shared_from_this());
}

// True when data flows from `from` to `to` through existing connections.
bool SonraPipe::feeds(const SonraNode* from, const SonraNode* to) const
{
    if (from == to)
        return true;
    std::vector<const SonraNode*> pending{to};
    std::vector<const SonraNode*> seen;
    while (!pending.empty()) {
        const SonraNode* node = pending.back();
        pending.pop_back();
        for (const auto& input : node->m_inputs) {
            const boost::shared_ptr<SonraNode> source = input.second.lock();
            if (!source)
                continue;
            if (source.get() == from)
                return true;
            if (std::find(seen.begin(), seen.end(), source.get()) == seen.end()) {
                seen.push_back(source.get());
                pending.push_back(source.get());
            }
        }
    }
    return false;
}

void SonraPipe::connect(boost::shared_ptr<SonraNode> source, boost::shared_ptr<SonraNode> sink)
{
    if (!source || !sink)
        throw std::invalid_argument("SonraPipe::connect: empty node");
    if (feeds(sink.get(), source.get()))
        throw std::logic_error("SonraPipe::connect: connecting " + className(*source) + " to " +
                               className(*sink) + " would close a cycle");
    attach(source);
    attach(sink);
    sink->m_inputs[sink->m_nextInputIndex++] = source;
    m_orderValid = false;
}

void SonraPipe::addNode(boost::shared_ptr<SonraNode> node)
{
    attach(node);
}

void SonraPipe::disconnect(boost::shared_ptr<SonraNode> source, boost::shared_ptr<SonraNode> sink)
{
    if (!source || !sink)
        return;
    for (auto input = sink->m_inputs.begin(); input != sink->m_inputs.end();) {
        if (input->second.lock() == source)
            input = sink->m_inputs.erase(input);
        else
            ++input;
    }
    m_orderValid = false;
}

void SonraPipe::removeNode(boost::shared_ptr<SonraNode> node)
{
    const auto position = std::find(m_nodes.begin(), m_nodes.end(), node);
    if (position == m_nodes.end())
        return;
    for (const auto& other : m_nodes)
        disconnect(node, other);
    node->m_inputs.clear();
    node->m_output.reset();
    m_nodes.erase(position);
    m_orderValid = false;
    node->m_pipe.reset();
    node->doSetAudioPipe(boost::shared_ptr<SonraPipe>());
}

void SonraPipe::clear()
{
    while (!m_nodes.empty())
        removeNode(m_nodes.back());
}

// Kahn's algorithm; among nodes that are ready, the one attached first runs
// first, so the order is deterministic.
const std::vector<boost::shared_ptr<SonraNode> >& SonraPipe::processingOrder()
{
    if (m_orderValid)
        return m_order;
    std::unordered_map<const SonraNode*, std::size_t> position;
    for (std::size_t i = 0; i < m_nodes.size(); ++i)
        position[m_nodes[i].get()] = i;
    std::vector<std::size_t> waitingInputs(m_nodes.size(), 0);
    std::vector<std::vector<std::size_t> > consumers(m_nodes.size());
    for (std::size_t sink = 0; sink < m_nodes.size(); ++sink) {
        for (const auto& input : m_nodes[sink]->m_inputs) {
            const auto source = position.find(input.second.lock().get());
            if (source == position.end())
                continue;
            consumers[source->second].push_back(sink);
            ++waitingInputs[sink];
        }
    }
    m_order.clear();
    std::vector<bool> done(m_nodes.size(), false);
    while (m_order.size() < m_nodes.size()) {
        std::size_t next = 0;
        while (done[next] || waitingInputs[next] != 0)
            ++next;
        done[next] = true;
        m_order.push_back(m_nodes[next]);
        for (const std::size_t sink : consumers[next])
            --waitingInputs[sink];
    }
    m_orderValid = true;
    return m_order;
}

void SonraPipe::processFrame()
{
    // A copy: a node or a slot may change the graph while the frame runs.
    const std::vector<boost::shared_ptr<SonraNode> > order = processingOrder();
    for (const auto& node : order)
        node->m_output = node->doProcess();
    for (const auto& node : order)
        node->timerTick();
    ++m_framesProcessed;
    workCycleSignal();
}

void SonraPipe::reset(unsigned offset)
{
    const std::vector<boost::shared_ptr<SonraNode> > order = processingOrder();
    for (const auto& node : order)
        node->reset(offset);
    resetSignal();
}

unsigned SonraPipe::elapsedTime() const
{
    return m_framesProcessed * m_frameDuration;
}

void SonraPipe::start(boost::shared_ptr<boost::asio::io_service> ioService)
{
    if (!ioService)
        throw std::invalid_argument("SonraPipe::start: no I/O service");
    stop();
    m_driver = boost::make_shared<RealTimeDriver>(ioService);
    m_driver->deadline = std::chrono::steady_clock::now();
    waitForDeadline();
}

// Deadlines advance by whole periods from the start, so the pace never
// drifts; a late frame makes the next wait return at once (catch-up). The
// handler holds the driver weakly: stop() destroys the timer, which cancels
// the wait.
void SonraPipe::waitForDeadline()
{
    m_driver->deadline += std::chrono::milliseconds(m_frameDuration);
    m_driver->timer.expires_at(m_driver->deadline);
    const boost::weak_ptr<SonraPipe> weakPipe = shared_from_this();
    const boost::weak_ptr<RealTimeDriver> weakDriver = m_driver;
    m_driver->timer.async_wait([weakPipe, weakDriver](const boost::system::error_code& error) {
        const boost::shared_ptr<SonraPipe> pipe = weakPipe.lock();
        if (error || !pipe || !weakDriver.lock())
            return;
        pipe->processFrame();
        // Stopped or restarted while the frame ran: this wait chain ends.
        if (pipe->m_driver && pipe->m_driver == weakDriver.lock())
            pipe->waitForDeadline();
    });
}

void SonraPipe::stop()
{
    // Destroying the timer cancels the pending wait.
    m_driver.reset();
}

bool SonraPipe::isRunning() const
{
    return static_cast<bool>(m_driver);
}

} // namespace ombrel
