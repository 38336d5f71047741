#include "TobrinKit/Input/EvdevReader.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace tobrin {

EvdevReader::EvdevReader(int fd) : fd_(fd) { ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK); }

EvdevReader::~EvdevReader() { ::close(fd_); }

EvdevReader::Status EvdevReader::readAvailable(KeyStream& stream, std::uint64_t time) {
    for (;;) {
        const ssize_t count = ::read(fd_, buffer_.data() + buffered_, buffer_.size() - buffered_);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Status::open;
        if (count <= 0) {
            releaseAll(stream, time);
            return Status::gone;
        }
        buffered_ += std::size_t(count);
        std::size_t used = 0;
        for (; buffered_ - used >= sizeof(input_event); used += sizeof(input_event)) {
            input_event event;
            std::memcpy(&event, buffer_.data() + used, sizeof event);
            handle(event, stream, time);
        }
        std::memmove(buffer_.data(), buffer_.data() + used, buffered_ - used);
        buffered_ -= used;
    }
}

void EvdevReader::handle(const input_event& event, KeyStream& stream, std::uint64_t time) {
    if (event.type == EV_SYN) {
        if (event.code == SYN_DROPPED) {
            dropping_ = true;
        } else if (event.code == SYN_REPORT && dropping_) {
            dropping_ = false;
            resynchronise(stream, time);
        }
        return;
    }
    if (dropping_ || event.type != EV_KEY || event.code >= LinuxKeyCode::count) return;
    switch (event.value) {
    case 0:
        held_.reset(event.code);
        stream.deliver(event.code, KeyValue::release, time);
        break;
    case 1:
        held_.set(event.code);
        stream.deliver(event.code, KeyValue::press, time);
        break;
    default: break; // 2: autorepeat
    }
}

void EvdevReader::resynchronise(KeyStream& stream, std::uint64_t time) {
    // Keys pressed during the drop stay silent (a late sound is worse than
    // none); keys released during it are released now. A descriptor that is
    // not a device (a pipe) cannot say, so everything counts as released.
    constexpr std::size_t bitsPerWord = sizeof(unsigned long) * CHAR_BIT;
    unsigned long down[(LinuxKeyCode::count + bitsPerWord - 1) / bitsPerWord] = {};
    if (::ioctl(fd_, EVIOCGKEY(sizeof down), down) < 0) std::memset(down, 0, sizeof down);
    for (std::uint16_t code = 0; code < LinuxKeyCode::count; ++code) {
        if (held_.test(code) && !(down[code / bitsPerWord] >> (code % bitsPerWord) & 1UL)) {
            held_.reset(code);
            stream.deliver(code, KeyValue::release, time);
        }
    }
}

void EvdevReader::releaseAll(KeyStream& stream, std::uint64_t time) {
    for (std::uint16_t code = 0; code < LinuxKeyCode::count; ++code) {
        if (held_.test(code)) stream.deliver(code, KeyValue::release, time);
    }
    held_.reset();
}

} // namespace tobrin
