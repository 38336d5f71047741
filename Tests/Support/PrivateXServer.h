#pragma once
// A private X server for tests and benchmarks: Xvfb on a display number it
// picks itself (-displayfd, so two runs never collide), ready when the
// constructor returns, stopped by process id when the object goes. And
// FakeKeyboard, which types into it through the XTEST extension.

#include "Support/Eventually.h"
#include "Support/RunningProgram.h"
#include "Support/TemporaryFolder.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tobrin::test {

class PrivateXServer {
public:
    // `extra` are further Xvfb options, such as "-ardelay", "100".
    explicit PrivateXServer(std::vector<std::string> extra = {}) {
        std::vector<std::string> words = {"/usr/bin/Xvfb", "-displayfd", "1", "-nolisten",
                                          "tcp",           "-screen",    "0", "64x64x24"};
        words.insert(words.end(), extra.begin(), extra.end());
        xvfb_.emplace(words, std::map<std::string, std::string>{}, (folder_ / "xvfb.log").string());
        // Xvfb writes its display number on a line of its own once it accepts
        // connections (its warnings go to the same file).
        eventually(
            [&] {
                std::istringstream lines(xvfb_->output());
                for (std::string line; std::getline(lines, line) && !lines.eof();)
                    if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos)
                        display_ = ":" + line;
                return !display_.empty() || xvfb_->wait(std::chrono::milliseconds(0));
            },
            std::chrono::seconds(30));
        if (display_.empty()) throw std::runtime_error("Xvfb did not start: " + xvfb_->output());
    }

    ~PrivateXServer() { xvfb_->stop(); }
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    const std::string& display() const { return display_; }

private:
    TemporaryFolder folder_;
    std::optional<RunningProgram> xvfb_;
    std::string display_;
};

// Presses and releases keys by Linux key code (X keycode − 8), like a keyboard.
class FakeKeyboard {
public:
    explicit FakeKeyboard(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
        if (xcb_connection_has_error(connection_)) throw std::runtime_error("cannot connect to " + display);
    }
    ~FakeKeyboard() { xcb_disconnect(connection_); }
    FakeKeyboard(const FakeKeyboard&) = delete;
    FakeKeyboard& operator=(const FakeKeyboard&) = delete;

    void press(std::uint16_t linuxCode) { send(XCB_KEY_PRESS, linuxCode); }
    void release(std::uint16_t linuxCode) { send(XCB_KEY_RELEASE, linuxCode); }
    void tap(std::uint16_t linuxCode) {
        press(linuxCode);
        release(linuxCode);
    }
    // Returns once the server has handled everything sent so far.
    void sync() { std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr)); }

    xcb_connection_t* connection() const { return connection_; }

private:
    void send(std::uint8_t type, std::uint16_t linuxCode) {
        xcb_test_fake_input(connection_, type, std::uint8_t(linuxCode + 8), XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_flush(connection_);
    }

    xcb_connection_t* connection_;
};

} // namespace tobrin::test
