#pragma once

// Reads a device's file descriptor on a thread of its own ("Tobrin.ForceSensor")
// and hands each chunk read, with the host time it arrived, to a callback.
// Any descriptor that polls works: a hidraw or IIO device, or in tests a pipe
// or socket. The end of the data (the device went away, the writer closed)
// ends the reading quietly, like a sensor at rest.
//
// Thread contract: start() and stop() from one owner at a time; the callback
// runs on the reading thread between them.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>

namespace tobrin {

class DescriptorReader {
public:
    using Chunk = std::function<void(std::span<const std::uint8_t> bytes, std::uint64_t arrival)>;

    DescriptorReader() = default;
    ~DescriptorReader() { stop(); }
    DescriptorReader(const DescriptorReader&) = delete;
    DescriptorReader& operator=(const DescriptorReader&) = delete;

    // Starts reading `fd` (not owned; it must stay open until stop()). False
    // with `error` set when the thread could not be set up.
    bool start(int fd, Chunk chunk, std::string& error);
    // Ends the thread; the callback is not running when it returns.
    void stop();

private:
    void run(int fd, const Chunk& chunk);

    int wake_ = -1; // an eventfd that stop() signals
    std::thread thread_;
};

} // namespace tobrin
