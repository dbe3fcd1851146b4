// The base stand-ins: the pipe's ordering, ticks, clock, signals, cycle
// refusal and real-time pace; the node accessors; logging and assertions.
#include "testutil.h"

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

using namespace ombrel;
using namespace sonratest;

namespace {

typedef std::vector<std::string> Journal;

// Records what the pipe does to it in a shared journal.
class JournalNode : public SonraNode {
public:
    JournalNode(const std::string& name, Journal* journal)
        : SonraNode(ioService(), 20, 16000), m_name(name), m_journal(journal) {}

    Frame doProcess() override
    {
        m_journal->push_back("process " + m_name);
        return frameOf({static_cast<int16_t>(m_name[0])});
    }
    void timerTick() override { m_journal->push_back("tick " + m_name); }
    void reset(unsigned offset) override { m_journal->push_back("reset " + m_name + " " + std::to_string(offset)); }
    void doSetAudioPipe(boost::shared_ptr<SonraPipe> pipe) override
    {
        m_journal->push_back((pipe ? "attach " : "detach ") + m_name);
    }

private:
    std::string m_name;
    Journal* m_journal;
};

struct PipeTest : ::testing::Test {
    Journal journal;
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(20);

    boost::shared_ptr<JournalNode> node(const std::string& name) { return boost::make_shared<JournalNode>(name, &journal); }
    Journal take() { return std::exchange(journal, Journal()); }
};

// Connected sink-first, so that attachment order alone would be wrong.
TEST_F(PipeTest, ProcessesSourcesFirstThenTicksThenSignalsAndResets)
{
    auto mixer = node("m"), volume = node("v"), source = node("s");
    pipe->connect(volume, mixer);
    pipe->connect(source, volume);
    pipe->workCycleSignal.connect([this]() { journal.push_back("cycle " + std::to_string(pipe->elapsedTime())); });
    pipe->resetSignal.connect([this]() { journal.push_back("reset signal"); });
    EXPECT_EQ((Journal{"attach v", "attach m", "attach s"}), take());
    pipe->processFrame();
    pipe->processFrame();
    EXPECT_EQ((Journal{"process s", "process v", "process m", "tick s", "tick v", "tick m", "cycle 20", "process s",
                       "process v", "process m", "tick s", "tick v", "tick m", "cycle 40"}),
              take());
    EXPECT_EQ((Samples{'s'}), samplesOf(volume->getInputData()));
    EXPECT_EQ((Samples{'m'}), samplesOf(mixer->outputData()));
    pipe->reset(40);
    EXPECT_EQ((Journal{"reset s 40", "reset v 40", "reset m 40", "reset signal"}), take());
}

TEST_F(PipeTest, InputIndexesCountPerSinkAndSurviveDisconnection)
{
    auto sink = node("k"), a = node("a"), b = node("b"), c = node("c");
    pipe->connect(a, sink);
    pipe->connect(b, sink);
    pipe->connect(c, sink);
    EXPECT_EQ((std::vector<unsigned>{0, 1, 2}), sink->inputIndexes());
    pipe->disconnect(b, sink);
    EXPECT_EQ((std::vector<unsigned>{0, 2}), sink->inputIndexes());
    pipe->processFrame();
    unsigned peerIndex = 99;
    EXPECT_EQ(c, sink->getInputPeerNode(2, peerIndex));
    EXPECT_EQ(0u, peerIndex);
    EXPECT_FALSE(sink->getInputPeerNode(1, peerIndex));
    EXPECT_EQ((Samples{'c'}), samplesOf(sink->getInputData(2)));
    EXPECT_EQ((Samples{'a'}), samplesOf(sink->getInputData()));
    EXPECT_FALSE(sink->getInputData(1));
}

TEST_F(PipeTest, RefusesACycleAndRemovesANodeWithItsConnections)
{
    auto a = node("a"), b = node("b"), c = node("c");
    pipe->connect(a, b);
    pipe->connect(b, c);
    try {
        pipe->connect(c, a);
        FAIL() << "a cycle was accepted";
    } catch (const std::logic_error& error) {
        EXPECT_EQ(0u, std::string(error.what()).find("SonraPipe::connect: connecting ")) << error.what();
        EXPECT_NE(std::string::npos, std::string(error.what()).find("JournalNode to ")) << error.what();
        EXPECT_NE(std::string::npos, std::string(error.what()).find("cycle")) << error.what();
    }
    EXPECT_THROW(pipe->connect(b, b), std::logic_error);
    EXPECT_TRUE(a->inputIndexes().empty());
    EXPECT_EQ(1u, b->inputIndexes().size());
    take();
    pipe->processFrame(); // the graph is as it was
    EXPECT_EQ((Journal{"process a", "process b", "process c", "tick a", "tick b", "tick c"}), take());
    pipe->removeNode(b);
    EXPECT_EQ((Journal{"detach b"}), take());
    EXPECT_TRUE(c->inputIndexes().empty() && b->inputIndexes().empty());
    EXPECT_FALSE(b->outputData());
    pipe->processFrame();
    EXPECT_EQ((Journal{"process a", "process c", "tick a", "tick c"}), take());
    auto other = boost::make_shared<SonraPipe>(20); // detached, it may join another pipe
    other->addNode(b);
    EXPECT_THROW(pipe->addNode(b), std::logic_error);
}

// One slow frame: the frames after it are caught up, not lost. Stopped, the
// service has nothing left to run.
TEST_F(PipeTest, KeepsRealTimePaceWithoutDrift)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    pipe->addNode(node("a"));
    int frames = 0;
    pipe->workCycleSignal.connect([&frames]() {
        if (++frames == 5)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    pipe->start(io);
    const auto begin = std::chrono::steady_clock::now();
    io->run_for(std::chrono::milliseconds(600));
    pipe->stop();
    const double elapsedMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_NEAR(frames, elapsedMs / 20, 4.0);
    const unsigned atStop = pipe->elapsedTime();
    EXPECT_EQ(unsigned(frames) * 20, atStop);
    EXPECT_FALSE(pipe->isRunning());
    io->restart();
    io->run_for(std::chrono::milliseconds(60));
    EXPECT_EQ(atStop, pipe->elapsedTime());
}

TEST(Node, FrameSizeNormalizeAndADevNodePublishesExactlyWhatItsCallableReturns)
{
    EXPECT_EQ((std::vector<unsigned>{640, 1764, 441, 5760}),
              (std::vector<unsigned>{SonraNode::frameSize(20, 16000), SonraNode::frameSize(20, 44100),
                                     SonraNode::frameSize(10, 22050), SonraNode::frameSize(60, 48000)}));
    EXPECT_EQ((Samples{32767, -32768, 1234}),
              (Samples{SonraNode::normalize(40000), SonraNode::normalize(-40000), SonraNode::normalize(1234)}));
    EXPECT_EQ(16000u, SonraNode::DEFAULT_SAMPLE_RATE);
    SonraDevNode idle(SonraDevNode::Source(), ioService(), 20, 16000);
    EXPECT_FALSE(idle.doProcess());

    const Frame frame = frameOf({1, 2, 3});
    int calls = 0;
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto node = boost::make_shared<SonraDevNode>([&]() { return ++calls % 2 ? frame : Frame(); }, ioService(), 20, 16000);
    pipe->addNode(node);
    pipe->processFrame();
    EXPECT_EQ(frame, node->outputData());
    pipe->processFrame();
    EXPECT_FALSE(node->outputData());
    pipe->reset(0);
    EXPECT_EQ(2, calls);
}

TEST(Logging, DebugRecordsOnlyForEnabledCategoriesWarningsAlways)
{
    LogCapture capture("test");
    setDebugEnabled("test", false);
    debug("test", 0, false) << "dropped " << 1;
    warning("test", false) << "code=" << -6;
    setDebugEnabled("test", true);
    debug("test", 0, false) << "JBuf m_dynMinBufTime=" << 40u << ", m_dynCounter=" << -3 << ", on=" << true;
    debug("test", 0, true) << "quoted" << 7;
    EXPECT_EQ((std::vector<std::string>{"code=-6"}), capture.texts(LogSeverity::Warning));
    EXPECT_EQ((std::vector<std::string>{"JBuf m_dynMinBufTime=40, m_dynCounter=-3, on=true", " \"quoted\"7"}),
              capture.texts());

    setLogSink(LogSink()); // none: a line each on the standard error stream
    testing::internal::CaptureStderr();
    warning("test", false) << "code=" << 5;
    debug("test", 0, false) << "on";
    EXPECT_EQ("[warning] test: code=5\n[debug] test: on\n", testing::internal::GetCapturedStderr());
}

void failingPrecondition(int* pointer)
{
    SONRA_ASSERT(pointer!=0);
}

TEST(AssertionDeathTest, NamesTheExpressionTheFunctionAndTheSourceAndBoostsReportThroughIt)
{
    EXPECT_DEATH(failingPrecondition(nullptr),
                 "Assertion \"pointer!=0\" failed in function \"failingPrecondition\" of \"tests/test_base\"");
    boost::scoped_ptr<int> missing;
    EXPECT_DEATH((void)*missing, "px != 0");
    EXPECT_DEATH(BOOST_ASSERT_MSG(missing, "set first"), "Assertion \"missing\" failed");
    // Only a file's own extension goes, not a dot in a folder's name.
    EXPECT_DEATH(boost::assertion_failed("x", "f", "lib.d/noext", 0), "of \"lib.d/noext\"");
}

} // namespace
