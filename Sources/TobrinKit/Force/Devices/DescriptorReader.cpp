// The reading thread of the motion devices.
#include "TobrinKit/Force/Devices/DescriptorReader.h"

#include "TobrinKit/Engine/Core/MachTime.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>

namespace tobrin {

bool DescriptorReader::start(int fd, Chunk chunk, std::string& error) {
    stop();
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_ < 0) {
        error = std::string("no event descriptor: ") + std::strerror(errno);
        return false;
    }
    thread_ = std::thread([this, fd, chunk = std::move(chunk)] { run(fd, chunk); });
    return true;
}

void DescriptorReader::stop() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
    thread_.join();
    ::close(wake_);
    wake_ = -1;
}

void DescriptorReader::run(int fd, const Chunk& chunk) {
    pthread_setname_np(pthread_self(), "Tobrin.ForceSen"); // 15 characters at most
    // Larger than any report (hidraw delivers one per read) and than a few
    // dozen IIO scans.
    std::array<std::uint8_t, 4096> buffer{};
    for (;;) {
        pollfd polls[2] = {{fd, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (::poll(polls, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (polls[1].revents) return;
        if (polls[0].revents & POLLNVAL) return;
        if (!(polls[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got <= 0) return; // the device went away, or the writer closed
        chunk(std::span(buffer.data(), std::size_t(got)), MachTime::now());
    }
}

} // namespace tobrin
