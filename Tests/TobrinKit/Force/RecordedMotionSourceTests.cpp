#include "TobrinKit/Force/RecordedMotionSource.h"

#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/SensorRecording.h"

#include "Support/Eventually.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t millisecond = 1'000'000; // host ticks are nanoseconds

// A fresh file path in the build tree, named after the running test.
std::filesystem::path testFile(const char* name) {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    auto folder = std::filesystem::path(TOBRIN_TEST_BINARY_DIR) / "replay" / info->test_suite_name() / info->name();
    std::filesystem::create_directories(folder);
    auto path = folder / name;
    std::filesystem::remove(path);
    return path;
}

// Rest at 1 g with one tap of `tapG` on x at `tapAt` ms, one report a millisecond.
SensorRecording typingRecording(int milliseconds, int tapAt, double tapG) {
    SensorRecording recording;
    for (int ms = 0; ms < milliseconds; ++ms)
        recording.append(std::uint64_t(ms) * millisecond, ForceSensor::encodeReport({ms == tapAt ? tapG : 0.0, 0, 1}));
    return recording;
}

TEST(SensorRecording, WriterOutputReadsBackReportForReport) {
    const auto path = testFile("round.replay");
    std::vector<std::vector<std::uint8_t>> reports;
    const std::uint64_t first = 5'000'000'000;
    {
        SensorRecordingWriter writer(path);
        for (int i = 0; i < 300; ++i) {
            auto report = ForceSensor::encodeReport({0.001 * i, -0.5, 1.0 + 0.01 * (i % 7)});
            std::vector<std::uint8_t> bytes(report.begin(), report.end());
            if (i == 100) bytes.pop_back(); // a malformed 21-byte report is kept as it came
            if (i == 101) bytes.push_back(0xEE);
            writer.append(bytes, first + std::uint64_t(i) * 997'000);
            reports.push_back(bytes);
        }
        writer.append(reports.back(), first - 5); // a time stamp going back keeps the last offset
        reports.push_back(reports.back());
        EXPECT_EQ(writer.count(), 301u);
        writer.close();
    }
    const auto recording = SensorRecording::read(path);
    ASSERT_EQ(recording.size(), reports.size());
    for (std::size_t i = 0; i < 300; ++i) {
        EXPECT_EQ(recording.offset(i), i * 997'000) << i;
        ASSERT_TRUE(
            std::equal(reports[i].begin(), reports[i].end(), recording.report(i).begin(), recording.report(i).end()))
            << i;
    }
    EXPECT_EQ(recording.offset(300), recording.offset(299));

    // Writing the whole recording gives the same file the writer produced.
    const auto copy = testFile("copy.replay");
    recording.write(copy);
    EXPECT_EQ(test::readFile(copy), test::readFile(path));
}

TEST(SensorRecording, AcceptsCommentsBlankLinesAndAnyHexCase) {
    const auto path = testFile("hand.replay");
    test::writeText(path, "tobrin-sensor-replay 1\r\n# written by hand\n\n  7\t0aFF  \r\n7 \n12 00\n13\n"
                          "4611686018427387904 00"); // the largest offset, on a last line without "\n"
    const auto recording = SensorRecording::read(path);
    ASSERT_EQ(recording.size(), 5u);
    EXPECT_EQ(recording.offset(4), SensorRecording::maximumOffset);
    EXPECT_EQ(recording.offset(0), 7u);
    EXPECT_EQ(std::vector(recording.report(0).begin(), recording.report(0).end()),
              (std::vector<std::uint8_t>{0x0A, 0xFF}));
    EXPECT_TRUE(recording.report(1).empty());
    EXPECT_EQ(recording.offset(2), 12u);
    EXPECT_TRUE(recording.report(3).empty());
}

TEST(SensorRecording, RefusesBrokenFilesNamingTheLine) {
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {"", "empty file"},
        {"tobrin-sensor-replay 2\n0 00\n", "not a sensor replay file"},
        {"0 00\n", "not a sensor replay file"},
        {"tobrin-sensor-replay 1\n10 00\n5 00\n", ":3: offsets must not decrease"},
        {"tobrin-sensor-replay 1\n10 0\n", ":2: report has an odd number"},
        {"tobrin-sensor-replay 1\n10 zz\n", ":2: report is not hexadecimal"},
        {"tobrin-sensor-replay 1\n-10 00\n", ":2: offset \"-10\""},
        {"tobrin-sensor-replay 1\n1.5 00\n", ":2: offset \"1.5\""},
        {"tobrin-sensor-replay 1\n\nab 00\n", ":3: offset \"ab\""},
        // Beyond 2^62 ns, where start time plus offset would leave the clock's range.
        {"tobrin-sensor-replay 1\n4611686018427387905 00\n", ":2: offset 4611686018427387905 is beyond"},
        {"tobrin-sensor-replay 1\n9300000000000000000 00\n", ":2: offset 9300000000000000000 is beyond"},
        {"tobrin-sensor-replay 1\n18446744073709551616 00\n", ":2: offset 18446744073709551616 is beyond"},
        // Long lines fail at the limit, comments too, with a short message.
        {"tobrin-sensor-replay 1\n0 00\n# \x1b]0;x" + std::string(1 << 20, 'c') + "\n", ":3: line longer than 4096"},
        {"tobrin-sensor-replay 1\n" + std::string(1 << 20, '7') + " 00\n", ":2: line longer than 4096"},
        {"tobrin-sensor-replay 1\n\x1b[2J" + std::string(3000, '7') + " 00\n", ":2: offset \"\\x1B[2J7777"},
        {"tobrin-sensor-replay 1\n0 " + std::string(2 * 257, 'a') + "\n", ":2: report"}, // longer than any report
    };
    for (const Case& c : cases) {
        const auto path = testFile("broken.replay");
        test::writeText(path, c.text);
        const std::string message = test::errorOf<SensorRecordingError>([&] { SensorRecording::read(path); });
        EXPECT_NE(message.find(c.message), std::string::npos) << message.substr(0, 200);
        EXPECT_NE(message.find(path.string()), std::string::npos) << message.substr(0, 200);
        EXPECT_LT(message.size(), path.string().size() + 120) << message.substr(0, 200);
    }
}

TEST(RecordedMotionSource, FailsToStartOnAMissingBrokenOrFifoFileAndDoesNotWaitForAWriter) {
    const auto path = testFile("refused.replay");
    RecordedMotionSource source(path);
    EXPECT_FALSE(source.start([](auto, auto) { ADD_FAILURE() << "delivered from a missing file"; }));
    EXPECT_NE(source.lastError().find("cannot open"), std::string::npos) << source.lastError();

    test::writeText(path, "tobrin-sensor-replay 1\n5 00\n4 00\n");
    ForceSensor sensor(std::make_unique<RecordedMotionSource>(path));
    EXPECT_FALSE(sensor.start());
    EXPECT_FALSE(sensor.isRunning());

    std::filesystem::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    auto started = std::async(std::launch::async, [&] { return source.start([](auto, auto) {}); });
    if (started.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "start() waits for a writer";
        const int writer = ::open(path.c_str(), O_WRONLY | O_NONBLOCK); // lets it go on
        ::close(writer);
    }
    EXPECT_FALSE(started.get());
    EXPECT_NE(source.lastError().find("not a regular file"), std::string::npos) << source.lastError();
}

TEST(RecordedMotionSource, FeedsTheSensorFromAFileOnItsOwnThread) {
    const auto path = testFile("typing.replay");
    typingRecording(400, 250, 0.5).write(path);

    auto owned = std::make_unique<RecordedMotionSource>(path, RecordedMotionSource::Options{.speed = 0});
    RecordedMotionSource& source = *owned;
    ForceSensor sensor(std::move(owned));
    ASSERT_TRUE(sensor.start());
    ASSERT_TRUE(source.waitUntilFinished(10s));
    EXPECT_TRUE(sensor.isRunning());
    EXPECT_EQ(sensor.reportsReceived(), 400u);

    const std::uint64_t start = source.startTime();
    EXPECT_EQ(sensor.lastSampleTime(), start + 399 * millisecond);
    // A key struck at 252 ms finds the tap in its [−12, +14] ms window.
    const std::uint64_t key = start + 252 * millisecond;
    const auto window = sensor.window(key - 12 * millisecond, key + 14 * millisecond);
    ASSERT_TRUE(window);
    EXPECT_EQ(window->peakTime, start + 250 * millisecond);
    EXPECT_EQ(window->samples, 27);

    // Stopping keeps the ring; a restart replays from the beginning.
    sensor.stop();
    EXPECT_FALSE(sensor.isRunning());
    EXPECT_EQ(sensor.samples(0, std::numeric_limits<std::uint64_t>::max()).size(), 400u);
    ASSERT_TRUE(sensor.start());
    ASSERT_TRUE(source.waitUntilFinished(10s));
    EXPECT_EQ(sensor.reportsReceived(), 800u);
    EXPECT_GE(source.startTime(), start);
}

TEST(RecordedMotionSource, DeliversNoReportBeforeItsRecordedTimeAndStopEndsAWaitAtOnce) {
    const auto path = testFile("paced.replay");
    SensorRecording recording = typingRecording(40, 20, 0.3);
    recording.append(3'600'000 * millisecond, ForceSensor::encodeReport({0, 0, 1})); // an hour later
    recording.write(path);
    RecordedMotionSource source(path); // recorded pace
    std::mutex mutex;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> deliveries; // (stamp, host time at delivery)
    ASSERT_TRUE(source.start([&](std::span<const std::uint8_t> report, std::uint64_t stamp) {
        EXPECT_EQ(report.size(), 22u);
        std::lock_guard lock(mutex);
        deliveries.emplace_back(stamp, MachTime::now());
    }));
    ASSERT_TRUE(test::eventually([&] {
        std::lock_guard lock(mutex);
        return deliveries.size() == 40;
    }));
    EXPECT_FALSE(source.waitUntilFinished(5ms));
    source.stop(); // would hang for an hour if the wait ignored it
    EXPECT_FALSE(source.isFinished());
    ASSERT_EQ(deliveries.size(), 40u);
    for (std::size_t i = 0; i < deliveries.size(); ++i) {
        EXPECT_EQ(deliveries[i].first, source.startTime() + i * millisecond);
        EXPECT_GE(deliveries[i].second, deliveries[i].first) << i;
    }
}

// Run under ThreadSanitizer by tools/test: the replay thread writes the ring
// while other threads query it and start and stop the sensor.
TEST(ForceSensorConcurrency, QueriesStartsAndStopsRaceCleanlyWithIngest) {
    const auto path = testFile("storm.replay");
    typingRecording(6000, 3000, 0.4).write(path);
    // Paced (20× the recorded speed) so that, as with a device, time stamps
    // keep increasing across restarts and the ring stays in time order.
    auto owned = std::make_unique<RecordedMotionSource>(path, RecordedMotionSource::Options{.speed = 20});
    RecordedMotionSource& source = *owned;
    ForceSensor sensor(std::move(owned));
    ASSERT_TRUE(sensor.start());

    std::atomic<bool> done{false};
    std::atomic<int> windows{0};
    std::thread reader([&] {
        while (!done.load()) {
            const std::uint64_t latest = sensor.lastSampleTime();
            if (auto window = sensor.window(latest > 26 * millisecond ? latest - 26 * millisecond : 0, latest)) {
                EXPECT_LE(window->samples, ForceSensor::capacity);
                EXPECT_GE(window->peak, 0.0f);
                windows.fetch_add(1);
            }
            const auto recent = sensor.samples(latest > 5 * millisecond ? latest - 5 * millisecond : 0, latest);
            for (std::size_t i = 1; i < recent.size(); ++i) EXPECT_LE(recent[i - 1].time, recent[i].time);
            EXPECT_GT(sensor.noiseFloor(), 0.0f);
            (void)sensor.isRunning();
            (void)sensor.reportsReceived();
        }
    });
    std::thread switcher([&] {
        for (int i = 0; i < 20; ++i) {
            sensor.stop();
            EXPECT_TRUE(sensor.start());
            std::this_thread::sleep_for(1ms);
        }
    });
    switcher.join();
    // Let the last run finish so the reader sees a full ring too.
    EXPECT_TRUE(source.waitUntilFinished(30s));
    done.store(true);
    reader.join();
    sensor.stop();
    EXPECT_GT(windows.load(), 0);
    EXPECT_EQ(sensor.samples(0, std::numeric_limits<std::uint64_t>::max()).size(), std::size_t(ForceSensor::capacity));
}

} // namespace
} // namespace tobrin
