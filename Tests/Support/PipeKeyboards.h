#pragma once
// Keyboards made of pipes, for the evdev key source: no keyboard device exists
// on the test machines, but the source reads any descriptor. Each keyboard is
// a pipe whose write end the test holds; writing input_event records into it
// is typing, closing it is unplugging. Keyboards added after the source
// opened arrive the way udev announces new ones.

#include "TobrinKit/Input/EvdevKeySource.h"

#include <linux/input.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace tobrin::test {

class PipeKeyboards {
public:
    PipeKeyboards() : announce_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~PipeKeyboards() {
        for (int fd : writeEnds_) ::close(fd);
        for (int fd : pending_) ::close(fd);
        ::close(announce_);
    }

    // Plugs a keyboard in; returns its number for type() and unplug().
    std::size_t plugIn() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        std::lock_guard guard(lock_);
        writeEnds_.push_back(ends[1]);
        pending_.push_back(ends[0]);
        const std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(announce_, &one, sizeof one);
        return writeEnds_.size() - 1;
    }

    void unplug(std::size_t keyboard) {
        ::close(writeEnds_.at(keyboard));
        writeEnds_.at(keyboard) = -1;
    }

    // Writes raw records (for SYN_DROPPED and split records).
    void write(std::size_t keyboard, const void* bytes, std::size_t size) {
        if (::write(writeEnds_.at(keyboard), bytes, size) != ssize_t(size)) throw std::runtime_error("write failed");
    }
    // One record. Named members, not positions: where time_t is 64-bit on a
    // 32-bit machine the time stamp is two fields, not one timeval.
    static input_event recordOf(std::uint16_t type, std::uint16_t code, std::int32_t value) {
        input_event event{};
        event.type = type;
        event.code = code;
        event.value = value;
        return event;
    }
    void record(std::size_t keyboard, std::uint16_t type, std::uint16_t code, std::int32_t value) {
        const input_event event = recordOf(type, code, value);
        write(keyboard, &event, sizeof event);
    }
    // A key record and the report that ends it, as a keyboard sends them.
    void key(std::size_t keyboard, std::uint16_t code, std::int32_t value) {
        record(keyboard, EV_KEY, code, value);
        record(keyboard, EV_SYN, SYN_REPORT, 0);
    }

    // The watch the source owns; this object must outlive it. With a
    // `refusal`, it cannot open the keyboards and says that instead.
    std::unique_ptr<KeyboardWatch> watch(std::string refusal = {}) {
        return std::make_unique<Watch>(*this, std::move(refusal));
    }
    // An evdev key source on these keyboards, for a key monitor.
    KeySourceFactory factory() {
        KeySourceFactory pipes;
        pipes.name = "evdev";
        pipes.create = [this] { return std::make_unique<EvdevKeySource>(watch()); };
        return pipes;
    }

private:
    class Watch final : public KeyboardWatch {
    public:
        Watch(PipeKeyboards& owner, std::string refusal) : owner_(owner), refusal_(std::move(refusal)) {}
        bool open(std::vector<int>& keyboards, std::string& error) override {
            error = refusal_;
            if (refusal_.empty()) arrived(keyboards);
            return refusal_.empty();
        }
        int fd() const override { return owner_.announce_; }
        void arrived(std::vector<int>& keyboards) override {
            std::uint64_t count;
            [[maybe_unused]] auto read = ::read(owner_.announce_, &count, sizeof count);
            std::lock_guard guard(owner_.lock_);
            keyboards.insert(keyboards.end(), owner_.pending_.begin(), owner_.pending_.end());
            owner_.pending_.clear();
        }
        void close() override {}

    private:
        PipeKeyboards& owner_;
        std::string refusal_;
    };

    std::mutex lock_;
    std::vector<int> writeEnds_;
    std::vector<int> pending_; // read ends not yet handed to the source
    int announce_;
};

} // namespace tobrin::test
