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

// A processing step of a graph: once per graph frame the pipe calls
// doProcess(), which reads the frames of the node's inputs and returns the
// node's output frame. Nodes are shared and attached to one pipe at a time.
class SonraNode : private boost::noncopyable {
public:
    // A frame between nodes: 16-bit native-endian PCM interleaved by channel,
    // or an encoded payload or packet; empty (null) when there is none.
    typedef boost::shared_ptr<std::vector<char> > Frame;

    static constexpr unsigned DEFAULT_SAMPLE_RATE = 16000; // Hz

    // `frameDuration` in ms and `sampleRate` in Hz of the graph; one output
    // channel. `ioService` is kept for nodes that post work.
    SonraNode(boost::shared_ptr<boost::asio::io_service> ioService, unsigned frameDuration, unsigned sampleRate);

    // Virtual operations, in slot order.
    virtual ~SonraNode();
    // Called by the pipe once per graph frame, after every node's doProcess().
    virtual void timerTick();
    // Called by SonraPipe::reset() with the pipe's new time offset (ms); the
    // base does nothing.
    virtual void reset(unsigned offset);
    // Called by setOutputChannels(); stores the count.
    virtual void doSetOutputChannels(unsigned channels);
    // The node's work for one graph frame: returns its output frame (null
    // for none).
    virtual Frame doProcess() = 0;
    // Called when the node is attached to `pipe` (null when detached).
    virtual void doSetAudioPipe(boost::shared_ptr<SonraPipe> pipe);

    // Graph frame duration, ms.
    unsigned frameDuration() const { return m_frameDuration; }
    // Graph sample rate, Hz.
    unsigned sampleRate() const { return m_sampleRate; }
    // Channels of the node's output frames.
    unsigned outputChannels() const { return m_outputChannels; }
    // Bytes of one channel's samples in a graph frame.
    unsigned frameSize() const { return m_frameSize; }

    // The frame the first input connection delivers in this cycle.
    Frame getInputData() const;
    // The frame input `index` delivers in this cycle (null for none).
    Frame getInputData(unsigned index) const;
    // The indexes of the node's input connections, in ascending order.
    std::vector<unsigned> inputIndexes() const;
    // The node feeding input `index`; `peerIndex` receives its output index
    // (always 0: a node has one output).
    boost::shared_ptr<SonraNode> getInputPeerNode(unsigned index, unsigned& peerIndex) const;

    // Sets the channels of the node's output frames (through
    // doSetOutputChannels()).
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

// The graph: nodes and their connections, run one graph frame at a time,
// either by the owner (processFrame()) or on a steady timer (start()).
class SonraPipe : public boost::enable_shared_from_this<SonraPipe>, private boost::noncopyable {
public:
    // `frameDuration`: the graph frame, ms.
    explicit SonraPipe(unsigned frameDuration);
    // Detaches every node.
    ~SonraPipe();

    // Appends an input to `sink` fed by `source`, attaching both if needed.
    // Throws std::logic_error (and changes nothing) when the connection would
    // close a cycle.
    void connect(boost::shared_ptr<SonraNode> source, boost::shared_ptr<SonraNode> sink);
    // Attaches `node` without connections (a node with no input, or one
    // connected later). Throws std::logic_error when it belongs to another pipe.
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
    // Calls every node's reset(`offset`), then resetSignal.
    void reset(unsigned offset);

    // The graph frame, ms.
    unsigned frameDuration() const { return m_frameDuration; }
    // Time the processed frames cover, ms.
    unsigned elapsedTime() const;

    // The attached nodes, in order of attachment.
    std::vector<boost::shared_ptr<SonraNode> > nodes() const { return m_nodes; }

    // Runs processFrame() every frame period on a steady timer of `ioService`
    // until stop(); deadlines advance by whole periods, so frames never drift
    // and late ones are caught up.
    // Call stop() on the thread that runs the service (or while it is not
    // running).
    void start(boost::shared_ptr<boost::asio::io_service> ioService);
    // Cancels the timer start() set; no frame runs after it.
    void stop();
    // Whether start() runs the pipe on its timer.
    bool isRunning() const;

    // Emitted after each graph frame.
    boost::signals2::signal<void ()> workCycleSignal;
    // Emitted by reset(), after the nodes were reset.
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
