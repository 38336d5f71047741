// The motion sensor's device sources without the hardware: report descriptors
// and a sysfs-shaped tree written here, reports fed through a socket pair
// (hidraw keeps report boundaries, so does SOCK_SEQPACKET) and IIO scans
// through a FIFO standing in for the character device. The recorder's file,
// replayed, must give the sensor the same samples as the live stream.
#include "TobrinKit/Force/Devices/HidReportDescriptor.h"
#include "TobrinKit/Force/Devices/HidrawMotionSource.h"
#include "TobrinKit/Force/Devices/IioMotionSource.h"
#include "TobrinKit/Force/Devices/IioScanElements.h"
#include "TobrinKit/Force/Devices/MotionDevices.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/MotionRecorder.h"
#include "TobrinKit/Force/RecordedMotionSource.h"

#include "Support/Environment.h"
#include "Support/Eventually.h"
#include "Support/SoundFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace tobrin {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// Usage page 0xFF00, usage 3, an application collection with one input.
const Bytes accelerometerDescriptor = {0x06, 0x00, 0xFF, 0x09, 0x03, 0xA1, 0x01, 0x15, 0x00, 0x26,
                                       0xFF, 0x00, 0x75, 0x08, 0x95, 0x16, 0x81, 0x02, 0xC0};
// A boot keyboard's start: generic desktop, keyboard.
const Bytes keyboardDescriptor = {0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0,
                                  0x29, 0xE7, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0xC0};

TEST(HidReportDescriptor, FindsTheTopLevelApplicationUsages) {
    struct Case {
        const char* what;
        Bytes bytes;
        bool accelerometer;
    };
    const Case cases[] = {
        {"accelerometer", accelerometerDescriptor, true},
        {"keyboard", keyboardDescriptor, false},
        {"four-byte usage with its page", {0x0B, 0x03, 0x00, 0x00, 0xFF, 0xA1, 0x01, 0xC0}, true},
        {"page set after the usage", {0x09, 0x03, 0x06, 0x00, 0xFF, 0xA1, 0x01, 0xC0}, true},
        {"page restored by pop", {0x06, 0x00, 0xFF, 0xA4, 0x05, 0x01, 0xB4, 0x09, 0x03, 0xA1, 0x01, 0xC0}, true},
        {"usage 3 nested, not top level",
         {0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x06, 0x00, 0xFF, 0x09, 0x03, 0xA1, 0x01, 0xC0, 0xC0},
         false},
        {"physical collection", {0x06, 0x00, 0xFF, 0x09, 0x03, 0xA1, 0x00, 0xC0}, false},
        {"long item skipped", {0xFE, 0x02, 0x10, 0xAA, 0xBB, 0x06, 0x00, 0xFF, 0x09, 0x03, 0xA1, 0x01, 0xC0}, true},
        {"second application",
         {0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0xC0, 0x06, 0x00, 0xFF, 0x09, 0x03, 0xA1, 0x01, 0xC0},
         true},
        {"empty", {}, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(HidReportDescriptor::parse(c.bytes).declares(accelerometerUsage), c.accelerometer) << c.what;
    EXPECT_EQ(HidReportDescriptor::parse(keyboardDescriptor).applications, (std::vector<HidUsage>{{0x01, 0x06}}));
}

TEST(HidReportDescriptor, RefusesMalformedDescriptorsWithTheirOffset) {
    struct Case {
        Bytes bytes;
        const char* message;
    };
    std::vector<Case> cases = {
        {{0x09, 0x03, 0x06, 0x00}, "byte 2: item cut short"},
        {{0xC0}, "byte 0: end of a collection that was not opened"},
        {{0x09, 0x03, 0xA1, 0x01}, "byte 4: collection not closed"},
        {{0xB4}, "byte 0: pop without a push"},
        {{0x0C}, "byte 0: reserved item type"},
        {{0xFE, 0x05, 0x10, 0x00}, "byte 0: long item cut short"},
        {{0xFE}, "byte 0: long item cut short"},
        {Bytes(HidReportDescriptor::maximumSize + 1, 0x00), "4097 bytes"},
    };
    cases.push_back({Bytes(), "nested too deep"});
    for (int i = 0; i <= HidReportDescriptor::maximumDepth; ++i)
        cases.back().bytes.insert(cases.back().bytes.end(), {0xA1, 0x00});
    cases.push_back({Bytes(HidReportDescriptor::maximumDepth + 1, 0xA4), "pushed too deep"});
    for (const auto& c : cases) {
        EXPECT_THAT(test::errorOf<HidDescriptorError>([&] { HidReportDescriptor::parse(c.bytes); }),
                    ::testing::HasSubstr(c.message));
    }
}

TEST(IioScanType, DecodesEachTypeStringsValues) {
    struct Case {
        const char* type;
        Bytes bytes;
        std::int64_t value;
    };
    const Case cases[] = {
        {"le:s16/16>>0", {0x00, 0x80}, -32768},
        {"le:s16/16>>0\n", {0xFF, 0x7F}, 32767},
        {"be:s12/16>>4", {0xFF, 0xF0}, -1},
        {"be:s12/16>>4", {0x7F, 0xF0}, 2047},
        {"le:u12/16>>4", {0x30, 0x12}, 0x123},
        {"le:s32/32>>0", {0xFE, 0xFF, 0xFF, 0xFF}, -2},
        {"be:u8/8>>0", {0xC8}, 200},
        {"le:s10/16X3>>0", {0xFF, 0x03}, -1},
        {"le:s64/64>>0", {0x15, 0xCD, 0x5B, 0x07, 0, 0, 0, 0}, 123456789},
    };
    for (const auto& c : cases) EXPECT_EQ(IioScanType::parse(c.type).decode(c.bytes.data()), c.value) << c.type;
    EXPECT_EQ(IioScanType::parse("le:s10/16X3>>0").size(), 6u);
}

TEST(IioScanType, RefusesMalformedTypeStrings) {
    for (const char* text : {"", "le", "xx:s16/16>>0", "le:q16/16>>0", "le:s16/16", "le:s16/>>0", "le:s17/16>>0",
                             "le:s16/12>>0", "le:s12/16>>5", "le:s0/16>>0", "le:s16/16>>0 junk", "le:s16/16X0>>0",
                             "le:s16/16X>>0", "le:s9999/16>>0", "le:s16/16>>-1", "le:s16/16>>16"}) {
        EXPECT_THROW(IioScanType::parse(text), IioError) << text;
    }
}

TEST(IioScanLayout, PacksChannelsAsTheKernelDoes) {
    const auto type = [](const char* text) { return IioScanType::parse(text); };
    // Index order, each aligned to its own size, the record to the largest.
    const IioScanLayout layout({{"timestamp", 3, type("le:s64/64>>0")},
                                {"accel_x", 0, type("le:s16/16>>0")},
                                {"accel_y", 1, type("le:s16/16>>0")},
                                {"accel_z", 2, type("le:s16/16>>0")}});
    EXPECT_EQ(layout.recordSize(), 16u);
    EXPECT_EQ(layout.offset(layout.find("accel_z")), 4u);
    EXPECT_EQ(layout.offset(layout.find("timestamp")), 8u);
    const IioScanLayout odd(
        {{"a", 0, type("le:s8/8>>0")}, {"b", 5, type("le:s32/32>>0")}, {"c", 7, type("le:u8/8>>0")}});
    EXPECT_EQ(odd.offset(1), 4u);
    EXPECT_EQ(odd.offset(2), 8u);
    EXPECT_EQ(odd.recordSize(), 12u);
    EXPECT_THROW(IioScanLayout({{"a", 1, type("le:s8/8>>0")}, {"b", 1, type("le:s8/8>>0")}}), IioError);
}

// A sysfs-shaped tree in a scratch folder: /sys/class/hidraw,
// /sys/bus/iio/devices and /dev.
class DeviceTree {
public:
    DeviceTree() { fs::create_directories(root() / "dev"); }

    void hidraw(int number, const Bytes& descriptor) {
        test::writeText(root() / "sys/class/hidraw" / ("hidraw" + std::to_string(number)) / "device/report_descriptor",
                        std::string(descriptor.begin(), descriptor.end()));
    }

    // An accelerometer with x, y, z of `type`, a shared scale, an offset on x
    // and a time stamp channel; the node is a FIFO.
    fs::path accelerometer(int number, const std::string& type = "le:s16/16>>0") {
        const fs::path folder = iio(number);
        for (const auto& [axis, index] : {std::pair{"x", 0}, std::pair{"y", 1}, std::pair{"z", 2}})
            channel(folder, std::string("accel_") + axis, index, type);
        channel(folder, "timestamp", 3, "le:s64/64>>0");
        channel(folder, "anglvel_x", 4, "le:s16/16>>0", "1");
        write(folder / "in_accel_scale", "0.00980665"); // 1/1000 g per step
        write(folder / "in_accel_x_offset", "-100");
        write(folder / "current_timestamp_clock", "realtime");
        write(folder / "buffer/enable", "0");
        ::mkfifo((root() / "dev" / folder.filename()).c_str(), 0600);
        return folder;
    }

    fs::path lightSensor(int number) {
        const fs::path folder = iio(number);
        channel(folder, "illuminance", 0, "le:u32/32>>0");
        return folder;
    }

    static void write(const fs::path& file, const std::string& text) { test::writeText(file, text + "\n"); }
    static std::string read(const fs::path& file) {
        std::string text;
        std::getline(std::ifstream(file), text);
        return text;
    }

    const fs::path& root() const { return scratch_.path(); }

private:
    fs::path iio(int number) {
        const fs::path folder = root() / "sys/bus/iio/devices" / ("iio:device" + std::to_string(number));
        fs::create_directories(folder / "scan_elements");
        return folder;
    }
    static void channel(const fs::path& folder, const std::string& name, int index, const std::string& type,
                        const char* enabled = "0") {
        write(folder / "scan_elements" / ("in_" + name + "_type"), type);
        write(folder / "scan_elements" / ("in_" + name + "_index"), std::to_string(index));
        write(folder / "scan_elements" / ("in_" + name + "_en"), enabled);
    }

    test::TemporaryFolder scratch_;
};

TEST(MotionDevices, FindsHidrawFirstThenIioAndPassesOverMalformedDevices) {
    DeviceTree tree;
    EXPECT_FALSE(MotionDevices::find(tree.root())) << "an empty tree has no sensor";

    tree.lightSensor(0);
    tree.accelerometer(1, "le:s17/16>>0");
    const fs::path good = tree.accelerometer(2);
    ASSERT_EQ(MotionDevices::findIio(tree.root()), good);
    auto source = MotionDevices::find(tree.root());
    auto* iio = dynamic_cast<IioMotionSource*>(source.get());
    ASSERT_TRUE(iio);
    EXPECT_EQ(iio->device().node, tree.root() / "dev/iio:device2");
    const auto problems = MotionDevices::lastProblems();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].find("iio:device1: scan element type \"le:s17/16>>0\""), std::string::npos) << problems[0];

    tree.hidraw(0, keyboardDescriptor);
    tree.hidraw(1, {0xA1, 0x01});
    tree.hidraw(10, accelerometerDescriptor);
    tree.hidraw(2, accelerometerDescriptor);
    EXPECT_EQ(MotionDevices::findHidraw(tree.root()), tree.root() / "dev/hidraw2") << "in number order";
    source = MotionDevices::find(tree.root());
    auto* hidraw = dynamic_cast<HidrawMotionSource*>(source.get());
    ASSERT_TRUE(hidraw);
    EXPECT_EQ(hidraw->node(), tree.root() / "dev/hidraw2");
    EXPECT_NE(MotionDevices::lastProblems().at(0).find("hidraw1: report descriptor, byte 2: collection not closed"),
              std::string::npos);
}

TEST(MotionDevices, AMissingScaleOrAnUnreadableIndexIsRefused) {
    DeviceTree tree;
    const std::pair<const char*, const char*> damage[] = {
        {"in_accel_scale", nullptr}, {"scan_elements/in_accel_y_index", "one"}, {"in_accel_scale", "0.01g"}};
    for (int number = 0; const auto& [file, text] : damage) {
        const fs::path folder = tree.accelerometer(number++);
        if (text)
            DeviceTree::write(folder / file, text);
        else
            fs::remove(folder / file);
        EXPECT_THROW(IioAccelerometer::read(folder, tree.root() / "dev"), IioError) << file;
    }
    EXPECT_FALSE(MotionDevices::find(tree.root()));
    EXPECT_EQ(MotionDevices::lastProblems().size(), 3u);
}

// One IIO scan as the tree's accelerometer lays it out.
Bytes scan(std::int16_t x, std::int16_t y, std::int16_t z, std::int64_t stamp) {
    Bytes record(16, 0);
    for (const auto& [value, at] : {std::pair{x, 0}, std::pair{y, 2}, std::pair{z, 4}}) {
        record[std::size_t(at)] = std::uint8_t(std::uint16_t(value) & 0xFF);
        record[std::size_t(at) + 1] = std::uint8_t(std::uint16_t(value) >> 8);
    }
    for (int i = 0; i < 8; ++i) record[8 + std::size_t(i)] = std::uint8_t(std::uint64_t(stamp) >> (8 * i));
    return record;
}

TEST(IioMotionSource, SwitchesTheBufferOnOnlyWhenItsNodeOpensAndDeliversScansAsReports) {
    DeviceTree tree;
    const fs::path folder = tree.accelerometer(0);
    const fs::path node = tree.root() / "dev/iio:device0";
    fs::remove(node);
    auto unopened = MotionDevices::find(tree.root());
    ASSERT_TRUE(unopened);
    EXPECT_FALSE(unopened->start([](auto, auto) {}));
    EXPECT_NE(unopened->lastError().find("Couldn't open"), std::string::npos) << unopened->lastError();
    EXPECT_EQ(DeviceTree::read(folder / "buffer/enable"), "0");
    ASSERT_EQ(::mkfifo(node.c_str(), 0600), 0);

    ForceSensor sensor(MotionDevices::find(tree.root()));
    ASSERT_TRUE(sensor.start());
    EXPECT_EQ(DeviceTree::read(folder / "buffer/enable"), "1");
    EXPECT_EQ(DeviceTree::read(folder / "scan_elements/in_accel_z_en"), "1");
    EXPECT_EQ(DeviceTree::read(folder / "scan_elements/in_timestamp_en"), "1");
    EXPECT_EQ(DeviceTree::read(folder / "scan_elements/in_anglvel_x_en"), "0") << "the layout must be ours";
    EXPECT_EQ(DeviceTree::read(folder / "current_timestamp_clock"), "monotonic");

    // The same accelerations, in g, straight into a second sensor.
    ForceSensor reference(nullptr);
    Bytes stream;
    constexpr int count = 300;
    for (int i = 0; i < count; ++i) {
        const auto x = std::int16_t(100 + (i % 50 == 0 ? 400 : i % 3)), y = std::int16_t(-20), z = std::int16_t(1000);
        const std::int64_t stamp = 5'000'000'000 + i * 1'000'000;
        const Bytes record = scan(x, y, z, stamp);
        stream.insert(stream.end(), record.begin(), record.end());
        reference.ingest(ForceSensor::encodeReport({(x - 100) / 1000.0, y / 1000.0, z / 1000.0}), std::uint64_t(stamp));
    }
    {
        // Written in pieces that split scans, as reads may.
        const int fifo = ::open(node.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fifo, 0);
        for (std::size_t at = 0; at < stream.size(); at += 997)
            ASSERT_GT(::write(fifo, stream.data() + at, std::min<std::size_t>(997, stream.size() - at)), 0);
        ::close(fifo);
    }
    ASSERT_TRUE(test::eventually([&] { return sensor.reportsReceived() == count; }));
    EXPECT_EQ(sensor.samples(0, ~0ull), reference.samples(0, ~0ull));
    sensor.stop();
    EXPECT_EQ(DeviceTree::read(folder / "buffer/enable"), "0");
}

TEST(MotionRecorder, AReplayOfTheRecordingGivesTheSameSamples) {
    test::TemporaryFolder scratch;
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    const fs::path file = scratch / "recording.txt";
    auto recorder = std::make_unique<MotionRecorder>(HidrawMotionSource::fromDescriptor(pair[0]), file);
    MotionRecorder* recording = recorder.get();
    ForceSensor live(std::move(recorder));
    ASSERT_TRUE(live.start());

    constexpr int count = 400;
    for (int i = 0; i < count; ++i) {
        const double tap = i % 97 == 5 ? 0.05 + 0.001 * i : 0.0002 * (i % 5);
        const auto report = ForceSensor::encodeReport({tap, -0.01, 1.0});
        ASSERT_EQ(::send(pair[1], report.data(), report.size(), 0), ssize_t(report.size()));
        if (i == 200) {
            ASSERT_EQ(::send(pair[1], report.data(), 21, 0), 21); // dropped by both sensors
        }
        if (i % 40 == 0) {
            ASSERT_TRUE(test::eventually([&] { return live.reportsReceived() == std::uint64_t(i + 1); }));
        }
    }
    ::close(pair[1]);
    ASSERT_TRUE(test::eventually([&] { return live.reportsReceived() == count; }));
    live.stop();
    EXPECT_EQ(recording->count(), std::size_t(count + 1));
    EXPECT_FALSE(recording->writeError());

    auto replay = std::make_unique<RecordedMotionSource>(file, RecordedMotionSource::Options{0});
    RecordedMotionSource* player = replay.get();
    ForceSensor replayed(std::move(replay));
    ASSERT_TRUE(replayed.start());
    ASSERT_TRUE(player->waitUntilFinished(std::chrono::seconds(5)));
    // The same samples at the same distances from the first: the same windows.
    const auto liveSamples = live.samples(0, ~0ull), replayedSamples = replayed.samples(0, ~0ull);
    ASSERT_EQ(liveSamples.size(), std::size_t(count));
    ASSERT_EQ(replayedSamples.size(), liveSamples.size());
    for (std::size_t i = 0; i < liveSamples.size(); ++i) {
        EXPECT_EQ(replayedSamples[i].value, liveSamples[i].value) << i;
        EXPECT_EQ(replayedSamples[i].time - player->startTime(), liveSamples[i].time - liveSamples[0].time) << i;
    }
}

TEST(MotionSources, TheReplayInTheEnvironmentIsFoundAfterRegisteredDevices) {
    DeviceTree tree;
    MotionDevices::add(tree.root());
    test::Environment environment;
    for (const std::optional<std::string>& unset : {std::optional<std::string>(), std::optional<std::string>("")}) {
        environment.set("TOBRIN_SENSOR_REPLAY", unset);
        EXPECT_FALSE(findMotionSource());
        EXPECT_FALSE(ForceSensor::isAvailable());
    }
    const fs::path replay = tree.root() / "replay.txt";
    environment.set("TOBRIN_SENSOR_REPLAY", replay.string());
    const auto found = findMotionSource();
    const auto* recorded = dynamic_cast<RecordedMotionSource*>(found.get());
    ASSERT_TRUE(recorded) << "no device: the replay";
    EXPECT_EQ(recorded->path(), replay);
    EXPECT_TRUE(ForceSensor::isAvailable());
    tree.hidraw(0, accelerometerDescriptor);
    EXPECT_TRUE(dynamic_cast<HidrawMotionSource*>(findMotionSource().get()));
    MotionDevices::add(tree.root() / "nothing");
}

} // namespace
} // namespace tobrin
