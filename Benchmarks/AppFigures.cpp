// Figures of the running application, measured on a private Xvfb and a
// private PipeWire (tools/app-figures builds and runs it):
//   - from exec to the first typed key being heard at the sink (keys are typed
//     through XTEST every 5 ms from the moment of exec), over several starts;
//   - the CPU the idle program uses while awake and after the engine's 180 s
//     idle suspension (from /proc/PID/stat over a window);
//   - from exec to the tray icon shown: the benchmark is the desktop's tray
//     (an XEmbed tray manager) and times the program's request to dock;
//   - the panel's open time: from a click on the docked icon to the panel's
//     window being mapped, over several opens;
//   - its resident and proportional memory with the panel created and shown
//     and the default pack loaded (/proc/PID/smaps_rollup).
//
//   AppFigures TOBRIN PACKS_DIR [STARTS] [--no-idle]
#include "Support/PrivateXServer.h"
#include "Support/RunningProgram.h"
#include "Support/SoundServers.h"
#include "Support/TemporaryFolder.h"

#include <linux/input-event-codes.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace tobrin;
using Clock = std::chrono::steady_clock;

namespace {

// utime + stime of a process, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) utime = std::stoull(field);
        if (index == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return double(utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

// Rss and Pss in MiB.
std::pair<double, double> memory(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double rss = 0, pss = 0;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        double kibibytes = 0;
        if (!(fields >> key >> kibibytes)) continue;
        if (key == "Rss:") rss = kibibytes / 1024;
        if (key == "Pss:") pss = kibibytes / 1024;
    }
    return {rss, pss};
}

// The desktop's system tray on the private X server, as the XEmbed tray
// protocol has it: owns the selection _NET_SYSTEM_TRAY_S0, notes when a
// client asks to dock an icon, embeds it into a small window of its own and
// clicks it. A thread of its own stamps the events as they arrive.
class TrayHost {
public:
    explicit TrayHost(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
        if (xcb_connection_has_error(connection_)) throw std::runtime_error("cannot connect to " + display);
        screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
        selection_ = atom("_NET_SYSTEM_TRAY_S0");
        opcode_ = atom("_NET_SYSTEM_TRAY_OPCODE");
        wake_ = atom("TOBRIN_FIGURES_WAKE");
        tray_ = xcb_generate_id(connection_);
        const std::uint32_t black = screen_->black_pixel;
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, tray_, screen_->root, 0, 0, iconSize, iconSize, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual, XCB_CW_BACK_PIXEL, &black);
        xcb_map_window(connection_, tray_);
        xcb_set_selection_owner(connection_, tray_, selection_, XCB_CURRENT_TIME);
        const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(connection_, screen_->root, XCB_CW_EVENT_MASK, &mask);
        xcb_client_message_event_t manager{};
        manager.response_type = XCB_CLIENT_MESSAGE;
        manager.format = 32;
        manager.window = screen_->root;
        manager.type = atom("MANAGER");
        manager.data.data32[0] = XCB_CURRENT_TIME;
        manager.data.data32[1] = selection_;
        manager.data.data32[2] = tray_;
        xcb_send_event(connection_, 0, screen_->root, XCB_EVENT_MASK_STRUCTURE_NOTIFY,
                       reinterpret_cast<const char*>(&manager));
        xcb_flush(connection_);
        thread_ = std::thread([this] { run(); });
    }
    ~TrayHost() {
        stopping_ = true;
        xcb_client_message_event_t wake{};
        wake.response_type = XCB_CLIENT_MESSAGE;
        wake.format = 32;
        wake.window = tray_;
        wake.type = wake_;
        xcb_send_event(connection_, 0, tray_, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&wake));
        xcb_flush(connection_);
        thread_.join();
        xcb_disconnect(connection_);
    }

    // When an icon asked to dock since `since`, waiting up to `timeout`.
    std::optional<Clock::time_point> docked(Clock::time_point since, std::chrono::milliseconds timeout) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, timeout, [&] { return docked_ && *docked_ >= since; });
        if (docked_ && *docked_ >= since) return docked_;
        return std::nullopt;
    }
    // Clicks the docked icon and returns the time from the click to the
    // panel (a window 360 pixels wide) being mapped.
    std::optional<double> clickUntilPanel(std::chrono::milliseconds timeout) {
        std::unique_lock guard(lock_);
        const xcb_window_t icon = icon_;
        guard.unlock();
        if (!icon) return std::nullopt;
        const auto clicked = Clock::now();
        xcb_test_fake_input(connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, screen_->root, iconSize / 2,
                            iconSize / 2, 0);
        xcb_test_fake_input(connection_, XCB_BUTTON_PRESS, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_test_fake_input(connection_, XCB_BUTTON_RELEASE, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_flush(connection_);
        guard.lock();
        changed_.wait_for(guard, timeout, [&] { return panelMapped_ && *panelMapped_ >= clicked; });
        if (!panelMapped_ || *panelMapped_ < clicked) return std::nullopt;
        return std::chrono::duration<double, std::milli>(*panelMapped_ - clicked).count();
    }
    // Closes the panel: without a window manager the focus follows the
    // pointer, which stays on the icon, so the panel usually closes itself
    // as it loses the focus; otherwise a second click closes it.
    bool closePanel(std::chrono::milliseconds timeout) {
        const auto hidden = [&] { return panelUnmapped_ && panelMapped_ && *panelUnmapped_ >= *panelMapped_; };
        std::unique_lock guard(lock_);
        if (changed_.wait_for(guard, 500ms, hidden)) return true;
        guard.unlock();
        xcb_test_fake_input(connection_, XCB_BUTTON_PRESS, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_test_fake_input(connection_, XCB_BUTTON_RELEASE, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_flush(connection_);
        guard.lock();
        return changed_.wait_for(guard, timeout, hidden);
    }

    static constexpr std::uint16_t iconSize = 32;

private:
    xcb_atom_t atom(const char* name) {
        auto* reply = xcb_intern_atom_reply(
            connection_, xcb_intern_atom(connection_, 0, std::uint16_t(std::strlen(name)), name), nullptr);
        const xcb_atom_t value = reply ? reply->atom : XCB_NONE;
        std::free(reply);
        return value;
    }
    bool isPanel(xcb_window_t window) {
        auto* geometry = xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, window), nullptr);
        const bool panel = geometry && geometry->width == 360;
        std::free(geometry);
        return panel;
    }
    void run() {
        while (xcb_generic_event_t* event = xcb_wait_for_event(connection_)) {
            const auto now = Clock::now();
            const std::uint8_t type = event->response_type & 0x7f;
            if (type == XCB_CLIENT_MESSAGE) {
                const auto* message = reinterpret_cast<xcb_client_message_event_t*>(event);
                // SYSTEM_TRAY_REQUEST_DOCK (0), with the icon's window.
                if (message->type == opcode_ && message->data.data32[1] == 0) {
                    const xcb_window_t icon = message->data.data32[2];
                    xcb_reparent_window(connection_, icon, tray_, 0, 0);
                    const std::uint32_t size[] = {iconSize, iconSize};
                    xcb_configure_window(connection_, icon, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size);
                    xcb_map_window(connection_, icon);
                    xcb_flush(connection_);
                    std::lock_guard guard(lock_);
                    docked_ = now;
                    icon_ = icon;
                }
            } else if (type == XCB_MAP_NOTIFY || type == XCB_UNMAP_NOTIFY) {
                const xcb_window_t window = type == XCB_MAP_NOTIFY
                                                ? reinterpret_cast<xcb_map_notify_event_t*>(event)->window
                                                : reinterpret_cast<xcb_unmap_notify_event_t*>(event)->window;
                if (isPanel(window)) {
                    std::lock_guard guard(lock_);
                    (type == XCB_MAP_NOTIFY ? panelMapped_ : panelUnmapped_) = now;
                }
            }
            std::free(event);
            changed_.notify_all();
            if (stopping_) break;
        }
    }

    xcb_connection_t* connection_;
    xcb_screen_t* screen_;
    xcb_atom_t selection_, opcode_, wake_;
    xcb_window_t tray_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable changed_;
    xcb_window_t icon_ = XCB_NONE;
    std::optional<Clock::time_point> docked_, panelMapped_, panelUnmapped_;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double percentOfOneCore(pid_t pid, std::chrono::seconds window) {
    const double before = cpuSeconds(pid);
    std::this_thread::sleep_for(window);
    return (cpuSeconds(pid) - before) / double(window.count()) * 100;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: AppFigures TOBRIN PACKS_DIR [STARTS] [--no-idle]\n");
        return 2;
    }
    const std::string tobrin = argv[1], packs = argv[2];
    const int starts = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
    const bool idle = !(argc > 4 && std::string(argv[4]) == "--no-idle");

    test::PrivateSoundServer server(test::SoundServerKind::PipeWire);
    test::PrivateXServer x({"-screen", "0", "1280x800x24"});
    test::FakeKeyboard keyboard(x.display());
    TrayHost tray(x.display());
    test::SinkCapture capture(test::PrivateSoundServer::defaultSink);
    if (!capture.waitUntilCapturing(3s)) {
        std::fprintf(stderr, "the sink's monitor delivers nothing\n");
        return 1;
    }
    test::TemporaryFolder folder;
    const std::map<std::string, std::string> environment = {{"DISPLAY", x.display()},
                                                            {"XDG_CONFIG_HOME", (folder / "config").string()},
                                                            {"XDG_DATA_HOME", (folder / "data").string()},
                                                            {"XDG_SESSION_TYPE", "x11"},
                                                            {"WAYLAND_DISPLAY", ""},
                                                            // No StatusNotifier watcher: the XEmbed tray serves.
                                                            {"DBUS_SESSION_BUS_ADDRESS", ""},
                                                            {"TOBRIN_PACKS", packs}};

    std::vector<double> startups, docks;
    std::unique_ptr<test::RunningProgram> running;
    for (int run = 0; run < starts; ++run) {
        std::filesystem::remove_all(folder / "config");
        running.reset();
        std::this_thread::sleep_for(300ms); // the last run's sound rings out
        const auto exec = Clock::now();
        running = std::make_unique<test::RunningProgram>(std::vector<std::string>{tobrin}, environment,
                                                         (folder / "tobrin.log").string());
        std::optional<Clock::time_point> heard;
        while (!heard && Clock::now() - exec < 10s) {
            keyboard.tap(KEY_A);
            keyboard.sync();
            heard = capture.soundAfter(exec, 5ms);
        }
        if (!heard) {
            std::fprintf(stderr, "no key was heard within 10 s:\n%s", running->output().c_str());
            return 1;
        }
        startups.push_back(std::chrono::duration<double, std::milli>(*heard - exec).count());
        const auto docked = tray.docked(exec, 10s);
        if (!docked) {
            std::fprintf(stderr, "no tray icon within 10 s:\n%s", running->output().c_str());
            return 1;
        }
        docks.push_back(std::chrono::duration<double, std::milli>(*docked - exec).count());
    }
    std::sort(startups.begin(), startups.end());
    std::printf("exec to first key heard: median %.0f ms, min %.0f ms, max %.0f ms (%d starts)\n",
                startups[startups.size() / 2], startups.front(), startups.back(), starts);

    std::printf("exec to tray icon shown: median %.0f ms, min %.0f ms, max %.0f ms (%d starts)\n", median(docks),
                *std::min_element(docks.begin(), docks.end()), *std::max_element(docks.begin(), docks.end()), starts);

    std::vector<double> opens;
    for (int open = 0; open < 10; ++open) {
        const auto shown = tray.clickUntilPanel(5s);
        if (!shown || !tray.closePanel(5s)) {
            std::fprintf(stderr, "the panel did not open and close on a click of the tray icon\n");
            return 1;
        }
        opens.push_back(*shown);
        // A click just after the panel closed itself is taken for the click
        // that closed it, and opens nothing.
        std::this_thread::sleep_for(400ms);
    }
    std::printf("click on the tray icon to panel shown: median %.1f ms, first %.1f ms, max %.1f ms (%zu opens)\n",
                median(opens), opens.front(), *std::max_element(opens.begin(), opens.end()), opens.size());
    tray.clickUntilPanel(5s);

    const pid_t pid = running->pid();
    std::this_thread::sleep_for(2s);
    const auto [rss, pss] = memory(pid);
    std::printf("memory with the panel shown and the default pack loaded: RSS %.1f MiB, PSS %.1f MiB\n", rss, pss);
    if (!idle) return 0;
    std::printf("idle CPU while awake: %.2f %% of one core (30 s)\n", percentOfOneCore(pid, 30s));
    // The engine suspends after 180 s without a key (checked every 15 s).
    std::this_thread::sleep_for(170s);
    std::printf("idle CPU after the suspension: %.2f %% of one core (30 s)\n", percentOfOneCore(pid, 30s));
    const auto [rssAfter, pssAfter] = memory(pid);
    std::printf("memory after the suspension: RSS %.1f MiB, PSS %.1f MiB\n", rssAfter, pssAfter);
    running->signal(SIGTERM);
    return running->wait(2s) == 0 ? 0 : 1;
}
