#pragma once
// Reads a FIFO on a thread of its own, as a program at the other end of a
// pipe would, so a test can check what a writer sent through it.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace tobrin::test {

class FifoReader {
public:
    // Opens the FIFO at once (without waiting for a writer) and reads until
    // a writer has sent something and closed its end.
    explicit FifoReader(const std::filesystem::path& fifo)
        : fd_(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), thread_([this] { run(); }) {}
    ~FifoReader() {
        if (thread_.joinable()) thread_.join();
    }
    FifoReader(const FifoReader&) = delete;
    FifoReader& operator=(const FifoReader&) = delete;

    // What was written; empty when no writer came within ten seconds.
    std::vector<std::uint8_t> contents() {
        if (thread_.joinable()) thread_.join();
        return bytes_;
    }

private:
    void run() {
        if (fd_ < 0) return;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::uint8_t chunk[65536];
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd ready{fd_, POLLIN, 0};
            (void)::poll(&ready, 1, 20);
            const ssize_t got = ::read(fd_, chunk, sizeof chunk);
            if (got > 0) {
                bytes_.insert(bytes_.end(), chunk, chunk + got);
            } else if (got == 0) {
                // End of file: the writer closed, or none has come yet.
                if (!bytes_.empty()) break;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        ::close(fd_);
    }

    int fd_;
    std::vector<std::uint8_t> bytes_;
    std::thread thread_;
};

} // namespace tobrin::test
