#pragma once

// KeyMonitor hears every key press and release on this machine and hands each
// one to its handler as a KeyEvent with the engine's key code, stamped with the
// host clock when it arrived. It never blocks, alters or records keystrokes:
// only the key code, down or up and the time leave it, and only to the handler.
//
// The keys come from a KeySource chosen at start(): the registered kinds in
// order (X11 raw events in an X11 session, the evdev keyboards under Wayland
// and on the console), or the one TOBRIN_KEYS names. The source runs on the
// monitor's thread "Tobrin.KeyMonitor" (its name is cut to 15 characters by
// the system), where the handler is called, one event at a time; it must
// return quickly (the conductor only posts to its queue).
//
// Thread contract: every member function may be called from any thread;
// start and stop are serialised by one lock. The owner destroys the monitor
// on a thread other than the monitor's; the destructor stops it.

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "TobrinKit/Engine/Core/KeyEvent.h"
#include "TobrinKit/Input/KeySource.h"
#include "TobrinKit/Input/KeyStream.h"

namespace tobrin {

class KeyMonitor {
public:
    using Handler = std::function<void(const KeyEvent&)>;

    // The registered source kinds (KeySources::registered()), restricted to
    // the one named by the environment variable TOBRIN_KEYS when it is set.
    explicit KeyMonitor(Handler handler);
    // The given kinds in order of preference; `forced` names the only one to
    // use, or is empty for the first that suits the session and opens.
    KeyMonitor(Handler handler, std::vector<KeySourceFactory> sources, std::string forced);
    ~KeyMonitor();

    KeyMonitor(const KeyMonitor&) = delete;
    KeyMonitor& operator=(const KeyMonitor&) = delete;

    // Starts the monitor thread and returns once a source is open: true when
    // keys are heard, false when no source could be opened (lastError() says
    // why). True at once when already running. Starts with no key held.
    bool start();
    // Closes the source and ends the thread; when it returns the handler is not
    // running and is not called again. Harmless when not running.
    void stop();
    // A source is open and its thread runs (false again if the source is lost,
    // for example when the X server goes away).
    bool isRunning() const { return running_.load(std::memory_order_acquire); }

    // Whether the keyboards can be read by the source in use, or by the one
    // start() would try first. X11 needs no permission; the evdev keyboards
    // need read access to their device nodes.
    KeyboardAccess access() const;
    bool hasPermission() const { return access() == KeyboardAccess::granted; }
    // Linux cannot prompt for keyboard access: this only says whether it is
    // there; the interface shows how to get it.
    bool requestPermission() const { return hasPermission(); }

    // Why the last start() failed, as a user would read it; empty otherwise.
    std::string lastError() const;
    // The kind of source in use ("x11", "evdev"), or the one start() would try
    // first; nothing when there is none.
    std::optional<KeySourceFactory> sourceKind() const;

    // For the global shortcut: its key press and release never reach the
    // handler; `pressed`, when set, runs instead, on the monitor thread.
    void setShortcut(std::optional<Hotkey> hotkey, std::function<void()> pressed);

private:
    void run(std::vector<KeySourceFactory> candidates, std::promise<bool>& installed);
    std::vector<KeySourceFactory> candidates() const;

    const std::vector<KeySourceFactory> sources_;
    const std::string forced_;
    KeyStream stream_; // the monitor thread's, apart from setShortcut

    std::mutex lock_; // serialises start and stop
    std::thread thread_;
    std::atomic<bool> running_{false};

    mutable std::mutex stateLock_; // the fields below, between the thread and callers
    KeySource* source_ = nullptr;  // open, owned by the monitor thread
    std::optional<KeySourceFactory> kind_;
    std::string lastError_;
};

} // namespace tobrin
