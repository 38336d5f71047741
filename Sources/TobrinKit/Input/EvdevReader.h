#pragma once

// Reads one evdev keyboard's input_event records from any file descriptor (a
// device node, or a pipe in tests) and hands the key records to a KeyStream.
// It keeps which of the device's keys are held, so that neither dropped
// records (SYN_DROPPED) nor the device going away ever leave a key down.
//
// Used by one thread at a time.

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>

#include <linux/input.h>

#include "TobrinKit/Input/KeyStream.h"
#include "TobrinKit/Input/LinuxKeyCode.h"

namespace tobrin {

class EvdevReader {
public:
    enum class Status { open, gone };

    // Takes ownership of `fd` and makes it non-blocking.
    explicit EvdevReader(int fd);
    ~EvdevReader();
    EvdevReader(const EvdevReader&) = delete;
    EvdevReader& operator=(const EvdevReader&) = delete;

    int fd() const { return fd_; }

    // Reads every record available now, stamping each with `time`. `gone` when
    // the device went away (end of file, or an error such as ENODEV): its held
    // keys have then been released.
    Status readAvailable(KeyStream& stream, std::uint64_t time);

private:
    void handle(const input_event& event, KeyStream& stream, std::uint64_t time);
    // After a drop: releases every held key the device no longer reports down.
    void resynchronise(KeyStream& stream, std::uint64_t time);
    void releaseAll(KeyStream& stream, std::uint64_t time);

    int fd_;
    std::bitset<LinuxKeyCode::count> held_;
    bool dropping_ = false; // from SYN_DROPPED to the next SYN_REPORT
    // A pipe may hand over part of a record; devices always give whole ones.
    std::array<unsigned char, 64 * sizeof(input_event)> buffer_{};
    std::size_t buffered_ = 0;
};

} // namespace tobrin
