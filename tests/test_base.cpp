// The base stand-ins: the pipe's ordering, ticks, clock, signals, cycle
// refusal and real-time pace; the node accessors; logging and assertions.
#include "shared.h"
#include "sonrabase.h"
#include "sonradevnode.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

using namespace ombrel;
using namespace sonratest;

namespace {

// Records what the pipe does to it in a shared journal.
class JournalNode : public SonraNode {
public:
    JournalNode(const std::string& name, std::vector<std::string>* journal)
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
    std::vector<std::string>* m_journal;
};

struct PipeTest : ::testing::Test {
    std::vector<std::string> journal;
    boost::shared_ptr<SonraPipe> pipe = boost::make_shared<SonraPipe>(20);

    boost::shared_ptr<JournalNode> node(const std::string& name)
    {
        return boost::make_shared<JournalNode>(name, &journal);
    }
    std::vector<std::string> take()
    {
        std::vector<std::string> taken;
        taken.swap(journal);
        return taken;
    }
};

TEST_F(PipeTest, ProcessesSourcesFirstThenTicksThenSignals)
{
    auto mixer = node("m"), volume = node("v"), source = node("s");
    // Connected sink-first, so that attachment order alone would be wrong.
    pipe->connect(volume, mixer);
    pipe->connect(source, volume);
    pipe->workCycleSignal.connect([this]() { journal.push_back("cycle " + std::to_string(pipe->elapsedTime())); });
    EXPECT_EQ(take(), (std::vector<std::string>{"attach v", "attach m", "attach s"}));

    pipe->processFrame();
    EXPECT_EQ(take(), (std::vector<std::string>{"process s", "process v", "process m",
                                                "tick s", "tick v", "tick m", "cycle 20"}));
    EXPECT_EQ(samplesOf(volume->getInputData()), (std::vector<int16_t>{'s'}));
    EXPECT_EQ(samplesOf(mixer->outputData()), (std::vector<int16_t>{'m'}));
}

TEST_F(PipeTest, InputIndexesCountPerSinkAndSurviveDisconnection)
{
    auto sink = node("k"), a = node("a"), b = node("b"), c = node("c");
    pipe->connect(a, sink);
    pipe->connect(b, sink);
    pipe->connect(c, sink);
    EXPECT_EQ(sink->inputIndexes(), (std::vector<unsigned>{0, 1, 2}));
    pipe->disconnect(b, sink);
    EXPECT_EQ(sink->inputIndexes(), (std::vector<unsigned>{0, 2}));
    pipe->processFrame();
    unsigned peerIndex = 99;
    EXPECT_EQ(sink->getInputPeerNode(2, peerIndex), c);
    EXPECT_EQ(peerIndex, 0u);
    EXPECT_FALSE(sink->getInputPeerNode(1, peerIndex));
    EXPECT_EQ(samplesOf(sink->getInputData(2)), (std::vector<int16_t>{'c'}));
    EXPECT_EQ(samplesOf(sink->getInputData()), (std::vector<int16_t>{'a'}));
    EXPECT_FALSE(sink->getInputData(1));
}

TEST_F(PipeTest, RefusesACycleAndLeavesTheGraphAsItWas)
{
    auto a = node("a"), b = node("b"), c = node("c");
    pipe->connect(a, b);
    pipe->connect(b, c);
    try {
        pipe->connect(c, a);
        FAIL() << "a cycle was accepted";
    } catch (const std::logic_error& error) {
        const std::string message = error.what();
        EXPECT_NE(message.find("JournalNode"), std::string::npos) << message;
        EXPECT_NE(message.find("cycle"), std::string::npos) << message;
    }
    EXPECT_THROW(pipe->connect(b, b), std::logic_error);
    EXPECT_TRUE(a->inputIndexes().empty());
    EXPECT_EQ(b->inputIndexes().size(), 1u);
    take();
    pipe->processFrame();
    EXPECT_EQ(take().front(), "process a");
}

TEST_F(PipeTest, ResetReachesEveryNodeThenSignals)
{
    auto a = node("a"), b = node("b");
    pipe->connect(a, b);
    pipe->resetSignal.connect([this]() { journal.push_back("reset signal"); });
    take();
    pipe->reset(40);
    EXPECT_EQ(take(), (std::vector<std::string>{"reset a 40", "reset b 40", "reset signal"}));
}

TEST_F(PipeTest, RemovingANodeDetachesItAndItsConnections)
{
    auto a = node("a"), b = node("b"), c = node("c");
    pipe->connect(a, b);
    pipe->connect(b, c);
    take();
    pipe->removeNode(b);
    EXPECT_EQ(take(), (std::vector<std::string>{"detach b"}));
    EXPECT_TRUE(c->inputIndexes().empty());
    EXPECT_TRUE(b->inputIndexes().empty());
    pipe->processFrame();
    EXPECT_EQ(take(), (std::vector<std::string>{"process a", "process c", "tick a", "tick c"}));
    // Detached, it may join another pipe.
    auto other = boost::make_shared<SonraPipe>(20);
    other->addNode(b);
    EXPECT_THROW(pipe->addNode(b), std::logic_error);
}

TEST_F(PipeTest, KeepsRealTimePaceWithoutDrift)
{
    auto io = boost::make_shared<boost::asio::io_service>();
    auto a = node("a");
    pipe->addNode(a);
    int frames = 0;
    pipe->workCycleSignal.connect([&frames]() {
        // One slow frame: the frames after it are caught up, not lost.
        if (++frames == 5)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    pipe->start(io);
    const auto begin = std::chrono::steady_clock::now();
    io->run_for(std::chrono::milliseconds(600));
    pipe->stop();
    const double elapsedMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_NEAR(frames, elapsedMs / 20, 4.0);
    EXPECT_EQ(pipe->elapsedTime(), unsigned(frames) * 20);

    // Stopped: the service has nothing left to run.
    io->restart();
    io->run_for(std::chrono::milliseconds(60));
    EXPECT_EQ(pipe->elapsedTime(), unsigned(frames) * 20);
}

TEST(Node, FrameSizeAndNormalize)
{
    EXPECT_EQ(SonraNode::frameSize(20, 16000), 640u);
    EXPECT_EQ(SonraNode::frameSize(20, 44100), 1764u);
    EXPECT_EQ(SonraNode::frameSize(10, 22050), 441u);
    EXPECT_EQ(SonraNode::frameSize(60, 48000), 5760u);
    EXPECT_EQ(SonraNode::normalize(40000), 32767);
    EXPECT_EQ(SonraNode::normalize(-40000), -32768);
    EXPECT_EQ(SonraNode::normalize(1234), 1234);
    EXPECT_EQ(SonraNode::DEFAULT_SAMPLE_RATE, 16000u);

    SonraDevNode node(SonraDevNode::Source(), ioService(), 20, 16000);
    EXPECT_EQ(node.outputChannels(), 1u);
    EXPECT_EQ(node.frameSize(), 640u);
    node.setOutputChannels(2);
    EXPECT_EQ(node.outputChannels(), 2u);
    EXPECT_FALSE(node.doProcess());
}

TEST(DevNode, PublishesExactlyWhatItsCallableReturns)
{
    const Frame frame = frameOf({1, 2, 3});
    int calls = 0;
    auto pipe = boost::make_shared<SonraPipe>(20);
    auto node = boost::make_shared<SonraDevNode>(
        [&]() { return ++calls % 2 ? frame : Frame(); }, ioService(), 20, 16000);
    pipe->addNode(node);
    pipe->processFrame();
    EXPECT_EQ(node->outputData(), frame);
    pipe->processFrame();
    EXPECT_FALSE(node->outputData());
    pipe->reset(0);
    EXPECT_EQ(calls, 2);
}

struct LogCapture {
    std::vector<LogRecord> records;
    LogCapture() { setLogSink([this](const LogRecord& record) { records.push_back(record); }); }
    ~LogCapture()
    {
        setLogSink(LogSink());
        setDebugEnabled("test", false);
    }
};

TEST(Logging, DebugRecordsOnlyForEnabledCategoriesWarningsAlways)
{
    LogCapture capture;
    debug("test", 0, false) << "dropped " << 1;
    ASSERT_TRUE(capture.records.empty());

    setDebugEnabled("test", true);
    debug("test", 0, false) << "JBuf m_dynMinBufTime=" << 40u << ", m_dynCounter=" << -3 << ", on=" << true;
    warning("audio2", false) << "code=" << -6;
    debug("test", 0, true) << "quoted" << 7;
    ASSERT_EQ(capture.records.size(), 3u);
    EXPECT_EQ(capture.records[0].text, "JBuf m_dynMinBufTime=40, m_dynCounter=-3, on=true");
    EXPECT_EQ(capture.records[0].severity, LogSeverity::Debug);
    EXPECT_EQ(capture.records[1].text, "code=-6");
    EXPECT_EQ(capture.records[1].category, "audio2");
    EXPECT_EQ(capture.records[1].severity, LogSeverity::Warning);
    EXPECT_EQ(capture.records[2].text, " \"quoted\"7");
}

void failingPrecondition(int* pointer)
{
    SONRA_ASSERT(pointer!=0);
}

TEST(AssertionDeathTest, NamesTheExpressionTheFunctionAndTheSource)
{
    EXPECT_DEATH(failingPrecondition(nullptr),
                 "Assertion \"pointer!=0\" failed in function \"failingPrecondition\" of \"tests/test_base\"");
}

TEST(AssertionDeathTest, BoostPreconditionsReportThroughTheSameHandler)
{
    boost::scoped_ptr<int> missing;
    EXPECT_DEATH((void)*missing, "px != 0");
}

} // namespace
