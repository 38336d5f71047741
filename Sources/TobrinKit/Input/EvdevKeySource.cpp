#include "TobrinKit/Input/EvdevKeySource.h"

#include "TobrinKit/Engine/Core/MachTime.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tobrin {

EvdevKeySource::EvdevKeySource(std::unique_ptr<KeyboardWatch> watch)
    : watch_(std::move(watch)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EvdevKeySource::~EvdevKeySource() { ::close(wake_); }

bool EvdevKeySource::open(std::string& error) {
    std::vector<int> keyboards;
    if (!watch_->open(keyboards, error)) return false;
    for (int fd : keyboards) readers_.push_back(std::make_unique<EvdevReader>(fd));
    return true;
}

void EvdevKeySource::run(KeyStream& stream) {
    std::vector<pollfd> polled;
    std::vector<int> arrived;
    for (;;) {
        polled.clear();
        polled.push_back({wake_, POLLIN, 0});
        polled.push_back({watch_->fd(), POLLIN, 0}); // poll skips a negative descriptor
        for (const auto& reader : readers_) polled.push_back({reader->fd(), POLLIN, 0});
        if (::poll(polled.data(), polled.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (polled[0].revents) break;
        const std::uint64_t now = MachTime::now();
        // Readers and their descriptors are in the same order; a gone reader
        // is erased, so walk backwards.
        for (std::size_t i = readers_.size(); i-- > 0;) {
            if (polled[i + 2].revents && readers_[i]->readAvailable(stream, now) == EvdevReader::Status::gone)
                readers_.erase(readers_.begin() + std::ptrdiff_t(i));
        }
        if (polled[1].revents) {
            arrived.clear();
            watch_->arrived(arrived);
            for (int fd : arrived) readers_.push_back(std::make_unique<EvdevReader>(fd));
        }
    }
    readers_.clear();
    watch_->close();
}

void EvdevKeySource::interrupt() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
}

} // namespace tobrin
