#pragma once
// A private X server for tests and benchmarks: Xvfb on a display number it
// picks itself (-displayfd, so two runs never collide), ready when the
// constructor returns, stopped by process id when the object goes. And
// FakeKeyboard, which types into it through the XTEST extension.

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace tobrin::test {

class PrivateXServer {
public:
    // `extra` are further Xvfb options, such as "-ardelay", "100".
    explicit PrivateXServer(std::vector<std::string> extra = {}) {
        int ready[2];
        if (::pipe(ready) != 0) throw std::runtime_error("pipe failed");
        std::vector<std::string> words = {"Xvfb", "-displayfd", std::to_string(ready[1]), "-nolisten", "tcp", "-screen",
                                          "0",    "64x64x24"};
        words.insert(words.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, ready[0]);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        const int spawned = posix_spawnp(&pid_, "Xvfb", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ready[1]);
        if (spawned != 0) {
            ::close(ready[0]);
            throw std::runtime_error("cannot start Xvfb");
        }
        // Xvfb writes its display number once it accepts connections.
        std::string number;
        char c;
        while (::read(ready[0], &c, 1) == 1 && c != '\n') number += c;
        ::close(ready[0]);
        if (number.empty()) {
            stop();
            throw std::runtime_error("Xvfb did not start");
        }
        display_ = ":" + number;
    }

    ~PrivateXServer() { stop(); }
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    const std::string& display() const { return display_; }

private:
    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    pid_t pid_ = -1;
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
