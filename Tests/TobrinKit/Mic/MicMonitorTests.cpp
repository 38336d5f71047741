// The microphone watch against real, private PulseAudio and PipeWire servers,
// recordings made by other processes (parec, pw-record) and by this one. The
// release delay runs on a clock the tests move by hand.
#include "TobrinKit/Mic/MicMonitor.h"
#include "TobrinKit/Mic/Pulse/PulseMicWatch.h"

#include "Support/Eventually.h"
#include "Support/ManualClock.h"
#include "Support/MicRecorders.h"
#include "Support/SoundServers.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

// libpulse is not built with ThreadSanitizer and recycles its memory blocks
// between connections through lock-free lists of its own, which the sanitizer
// cannot see: two connections in one process (the watch and OwnRecording)
// then look like a race inside the library.
extern "C" const char* __tsan_default_suppressions() { return "race:libpulsecommon*\n"; }

namespace tobrin {
namespace {

using namespace std::chrono_literals;
using test::Recorder;
using test::SoundServerKind;

constexpr auto patience = 5000ms;

// Every onChange, in order.
class Reports {
public:
    void operator()(bool inUse) {
        std::lock_guard guard(lock_);
        values_.push_back(inUse);
    }
    bool waitForCount(std::size_t count) {
        return test::eventually([&] { return values().size() >= count; }, patience);
    }
    std::vector<bool> values() {
        std::lock_guard guard(lock_);
        return values_;
    }

private:
    std::mutex lock_;
    std::vector<bool> values_;
};

struct ServerCase {
    const char* name;
    SoundServerKind kind;
    const char* recorder; // the other process that records the default input
};

class MicMonitorTest : public ::testing::TestWithParam<ServerCase> {
protected:
    MicMonitorTest() : server_(GetParam().kind), monitor_(makePulseMicWatch(), {}, clock_) {
        monitor_.setOnChange([this](bool inUse) { reports_(inUse); });
    }

    // Starts the monitor and waits for the first report (the state at start).
    void startWatching() {
        monitor_.start();
        ASSERT_TRUE(reports_.waitForCount(1)) << "no first report";
    }

    Recorder recordDefaultInput() { return Recorder(GetParam().recorder, "tobrin-test-source", server_.folder()); }

    // Waits until the watched state (read on the monitor's queue, so any
    // release it implies is scheduled) satisfies `wanted`.
    template <typename Predicate>
    bool watchedStateBecomes(Predicate wanted) {
        return test::eventually(
            [&] {
                const auto state = monitor_.current();
                return state && wanted(*state);
            },
            patience);
    }
    bool watchedInUse(bool inUse) {
        return watchedStateBecomes([&](const MicActivity& state) { return state.micInUse() == inUse; });
    }

    // Moves the clock and lets the queue run whatever came due.
    void advance(std::chrono::nanoseconds by) {
        clock_->advance(by);
        (void)monitor_.isRunning();
    }

    test::PrivateSoundServer server_;
    std::shared_ptr<test::ManualClock> clock_ = std::make_shared<test::ManualClock>();
    Reports reports_;
    MicMonitor monitor_;
};

TEST_P(MicMonitorTest, StartedTwiceItWatchesOnceARecordingIsInUseAtOnceAndFreeOnlyAfterTheReleaseDelay) {
    monitor_.start();
    startWatching();
    const auto clients = test::runCommand("pactl list clients");
    ASSERT_TRUE(clients.succeeded) << clients.output;
    std::size_t watches = 0;
    for (std::size_t at = clients.output.find(PulseMicWatch::clientId); at != std::string::npos;
         at = clients.output.find(PulseMicWatch::clientId, at + 1))
        ++watches;
    EXPECT_EQ(watches, 1u);
    auto recorder = recordDefaultInput();
    ASSERT_TRUE(reports_.waitForCount(2));
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true}));
    // The recording is seen at once; the source runs when the server has
    // resumed it, a moment later.
    ASSERT_TRUE(watchedStateBecomes([](const MicActivity& state) { return state.inputRunningSomewhere; }));
    const auto state = monitor_.current();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->inputDeviceName, "Tobrin test source");
    EXPECT_FALSE(state->inputDeviceHasOutput);
    EXPECT_EQ(state->recordingProcesses, std::vector<std::int32_t>{recorder.pid()});

    recorder.stop();
    ASSERT_TRUE(watchedInUse(false));
    advance(999ms);
    EXPECT_EQ(reports_.values().size(), 2u) << "freed before the delay";
    advance(1ms);
    ASSERT_TRUE(reports_.waitForCount(3));
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true, false}));
}

TEST_P(MicMonitorTest, ARecordingStartedAgainWithinHalfASecondKeepsItInUseAndStopCancelsARelease) {
    startWatching();
    auto first = recordDefaultInput();
    ASSERT_TRUE(reports_.waitForCount(2));
    first.stop();
    ASSERT_TRUE(watchedInUse(false));
    advance(500ms);
    auto second = recordDefaultInput();
    ASSERT_TRUE(watchedInUse(true));
    advance(2s);
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true}));

    // Stopped while a release is pending: nothing is sent after.
    second.stop();
    ASSERT_TRUE(watchedInUse(false));
    monitor_.stop();
    advance(5s);
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true}));
    EXPECT_FALSE(monitor_.isRunning());
}

TEST_P(MicMonitorTest, RecordingsOfAMonitorAndOfThisProcessAreNotTheMicrophone) {
    startWatching();
    Recorder ofMonitor("parec", "tobrin-test-sink.monitor", server_.folder());
    test::OwnRecording own("tobrin-test-source");
    ASSERT_TRUE(own.isRecording()) << own.error();
    // Another process recording as well: once it is seen, every later reading
    // has the two recordings above too.
    auto other = recordDefaultInput();
    ASSERT_TRUE(watchedStateBecomes(
        [&](const MicActivity& state) { return state.recordingProcesses == std::vector<std::int32_t>{other.pid()}; }));
    other.stop();
    ASSERT_TRUE(watchedInUse(false));
    const auto state = monitor_.current();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->inputRunningSomewhere) << "the source runs only for this process";
    EXPECT_EQ(state->recordingProcesses, std::vector<std::int32_t>{});
    advance(1s);
    ASSERT_TRUE(reports_.waitForCount(3));
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true, false}));
}

TEST_P(MicMonitorTest, ReconnectsAfterTheServerRestartsAndReportsTheStateAgain) {
    startWatching();
    {
        auto recorder = recordDefaultInput();
        ASSERT_TRUE(reports_.waitForCount(2));
        server_.crash();
        // Unknown while the server is away: nothing is reported, the
        // recording that was seen last still counts.
        ASSERT_TRUE(test::eventually([&] { return !monitor_.current(); }, patience));
        advance(5s);
        EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true}));
    }
    ASSERT_TRUE(server_.start());
    ASSERT_TRUE(watchedInUse(false)) << "no reconnection";
    advance(1s);
    ASSERT_TRUE(reports_.waitForCount(3));
    auto recorder = recordDefaultInput();
    ASSERT_TRUE(reports_.waitForCount(4));
    EXPECT_EQ(reports_.values(), (std::vector<bool>{false, true, false, true}));
}

TEST_P(MicMonitorTest, CurrentReadsTheServerWhenNotWatching) {
    auto recorder = recordDefaultInput();
    ASSERT_TRUE(watchedInUse(true));
    EXPECT_TRUE(reports_.values().empty());
    server_.stop();
    EXPECT_FALSE(monitor_.current()) << "no server, no state";
}

INSTANTIATE_TEST_SUITE_P(Servers, MicMonitorTest,
                         ::testing::Values(ServerCase{"PulseAudio", SoundServerKind::PulseAudio, "parec"},
                                           ServerCase{"PipeWire", SoundServerKind::PipeWire, "pw-record"}),
                         [](const auto& param) { return std::string(param.param.name); });

} // namespace
} // namespace tobrin
