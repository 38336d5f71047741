#pragma once

// The key source of X11 sessions: XInput 2 raw key events of every master
// keyboard, selected on the root window. Version 2.1 or later is asked for:
// before it the server sends no raw events while another client holds a grab.
// Raw events carry no autorepeat; the KeyStream treats a press of a held key
// as one.
//
// Spoken through XCB: its connection is thread-safe and reports a lost server
// as a state, where Xlib would end the process.

#include <string>

#include "TobrinKit/Input/KeySource.h"

struct xcb_connection_t;

namespace tobrin {

class X11KeySource final : public KeySource {
public:
    // `display` as in $DISPLAY; empty: $DISPLAY itself.
    explicit X11KeySource(std::string display);
    ~X11KeySource() override;

    bool open(std::string& error) override;
    void run(KeyStream& stream) override;
    void interrupt() override;

private:
    const std::string display_;
    xcb_connection_t* connection_ = nullptr;
    std::uint8_t inputOpcode_ = 0;
    int wake_; // eventfd, readable once interrupt() was called
};

} // namespace tobrin
