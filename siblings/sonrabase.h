// Base library of the family: the node base class and the pipe, the graph
// that runs the nodes once per frame.
#ifndef OMBREL_SONRABASE_H
#define OMBREL_SONRABASE_H

#include <boost/asio/io_service.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/signals2/signal.hpp>
#include <boost/weak_ptr.hpp>

#include <cstdint>
#include <map>
#include <vector>

namespace ombrel {

class SonraPipe;

class SonraNode : private boost::noncopyable {
public:
    typedef boost::shared_ptr<std::vector<char> > Frame;

    static constexpr unsigned DEFAULT_SAMPLE_RATE = 16000; // Hz

    SonraNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);

    // Virtual operations, in slot order.
    virtual ~SonraNode();
    virtual void timerTick();
    virtual void reset(unsigned offset);
    virtual void doSetOutputChannels(unsigned channels);
    virtual Frame doProcess() = 0;
    virtual void doSetAudioPipe(boost::shared_ptr<SonraPipe> pipe);

    unsigned frameDuration() const { return m_frameDuration; }
    unsigned sampleRate() const { return m_sampleRate; }
    unsigned outputChannels() const { return m_outputChannels; }
    unsigned frameSize() const { return m_frameSize; }

    // The frame the first input connection delivers in this cycle.
    Frame getInputData() const;
    Frame getInputData(unsigned index) const;
    std::vector<unsigned> inputIndexes() const;
    // The node feeding input `index`; `peerIndex` receives its output index
    // (always 0: a node has one output).
    boost::shared_ptr<SonraNode> getInputPeerNode(unsigned index, unsigned& peerIndex) const;

    void setOutputChannels(unsigned channels);

    // The frame the node's last doProcess() returned inside the pipe.
    Frame outputData() const { return m_output; }

    // Bytes one channel's 16-bit samples take in a frame: 2 x rate x ms / 1000.
    static unsigned frameSize(unsigned frameDuration, unsigned sampleRate);
    // Saturates into the 16-bit sample range.
    static int16_t normalize(int value)
    {
        return static_cast<int16_t>(value > 32767 ? 32767 : (value < -32768 ? -32768 : value));
    }

private:
    friend class SonraPipe;

    const unsigned m_frameDuration; // ms
    const unsigned m_sampleRate;    // Hz
    const unsigned m_frameSize;     // bytes per channel per frame
    unsigned m_outputChannels;
    // Input index -> the node feeding it. The pipe owns the nodes; a
    // connection never keeps its source alive.
    std::map<unsigned, boost::weak_ptr<SonraNode> > m_inputs;
    unsigned m_nextInputIndex;
    boost::weak_ptr<SonraPipe> m_pipe;
    Frame m_output;
};

class SonraPipe : public boost::enable_shared_from_this<SonraPipe>, private boost::noncopyable {
public:
    explicit SonraPipe(unsigned frameDuration);
    ~SonraPipe();

    // Appends an input to `sink` fed by `source`, attaching both if needed.
    // Throws std::logic_error (and changes nothing) when the connection would
    // close a cycle.
    void connect(boost::shared_ptr<SonraNode> source, boost::shared_ptr<SonraNode> sink);
    void addNode(boost::shared_ptr<SonraNode> node);
    // Removes every connection from `source` to `sink`; both stay attached.
    void disconnect(boost::shared_ptr<SonraNode> source, boost::shared_ptr<SonraNode> sink);
    // Removes the node's connections and detaches it.
    void removeNode(boost::shared_ptr<SonraNode> node);
    // Detaches every node.
    void clear();

    // One graph frame: every node's doProcess() after the nodes feeding it,
    // then every timerTick(), then the clock advances, then workCycleSignal.
    void processFrame();
    void reset(unsigned offset);

    unsigned frameDuration() const { return m_frameDuration; }
    unsigned elapsedTime() const; // ms

    std::vector<boost::shared_ptr<SonraNode> > nodes() const { return m_nodes; }

    // Runs processFrame() every frame period on a steady timer of `ioService`
    // until stop(); deadlines advance by whole periods, so frames never drift
    // and late ones are caught up.
    // Call stop() on the thread that runs the service (or while it is not
    // running).
    void start(boost::shared_ptr<boost::asio::io_service> ioService);
    void stop();
    bool isRunning() const;

    boost::signals2::signal<void ()> workCycleSignal;
    boost::signals2::signal<void ()> resetSignal;

private:
    struct RealTimeDriver;

    void waitForDeadline();
    void attach(const boost::shared_ptr<SonraNode>& node);
    bool isAttached(const boost::shared_ptr<SonraNode>& node) const;
    bool feeds(const SonraNode* from, const SonraNode* to) const;
    const std::vector<boost::shared_ptr<SonraNode> >& processingOrder();

    const unsigned m_frameDuration; // ms
    unsigned m_framesProcessed;
    std::vector<boost::shared_ptr<SonraNode> > m_nodes; // in order of attachment
    std::vector<boost::shared_ptr<SonraNode> > m_order; // sources before sinks
    bool m_orderValid;
    boost::shared_ptr<RealTimeDriver> m_driver;
};

} // namespace ombrel

#endif
