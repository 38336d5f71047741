#pragma once

// The seam between the key monitor and a source of key records: X11 raw
// events or the evdev keyboards. Sources live in leaf targets of their own
// (they link the system's libraries) and register a KeySourceFactory with
// KeySources::add() at start-up; the monitor, the stream and the shortcut
// above the seam never change for a new one.
//
// Thread contract: a source is created, opened, run and destroyed on the key
// monitor's thread; interrupt() may be called from any thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TobrinKit/Input/Hotkey.h"
#include "TobrinKit/Input/KeyStream.h"

namespace tobrin {

class KeySource {
public:
    virtual ~KeySource() = default;

    // Connects to the source. False, with `error` set to a sentence a user can
    // read, when it cannot be read.
    virtual bool open(std::string& error) = 0;

    // After a successful open(): hands every key record to `stream`, stamped
    // with the host clock when it arrived, until interrupt() is called or the
    // source is lost, then closes the source.
    virtual void run(KeyStream& stream) = 0;

    // Makes run() return soon; it also stops a run() that has not begun yet.
    virtual void interrupt() = 0;
};

// Whether this process may read the keyboards. `needsRelaunch`: access is
// granted (the user is in the devices' group) but this session does not have
// it yet; it arrives with the next login.
enum class KeyboardAccess { granted, denied, needsRelaunch };

// One shortcut held through the desktop's exclusive key grab; released when
// destroyed.
class ShortcutGrab {
public:
    virtual ~ShortcutGrab() = default;
};

struct ShortcutGrabResult {
    enum class Kind { active, taken, failed };
    Kind kind = Kind::failed;
    std::int32_t error = 0;             // the platform's code, for `failed`
    std::unique_ptr<ShortcutGrab> grab; // held while `active`
};

// How to make one kind of key source.
struct KeySourceFactory {
    // What TOBRIN_KEYS names it by: "x11", "evdev".
    std::string name;
    // Cheap probe: this session's keys reach the source. Empty: always.
    std::function<bool()> suitsSession;
    std::function<std::unique_ptr<KeySource>()> create;
    // Whether the keyboards may be read. Empty: no permission is needed.
    std::function<KeyboardAccess()> access;
    // Grabs a shortcut through the desktop, calling `pressed` (from a thread
    // of the grab) once per press of it. Empty: the source cannot grab; the
    // shortcut is then matched in the key stream, which is not exclusive.
    std::function<ShortcutGrabResult(const Hotkey& hotkey, std::function<void()> pressed)> grabShortcut;
};

// The process-wide list of source kinds, in order of preference.
namespace KeySources {

// Registers a source kind after those registered before; a name registered
// again replaces the earlier entry. Thread-safe.
void add(KeySourceFactory factory);

std::vector<KeySourceFactory> registered();

// The kinds to try, in order: the one named by `forced` alone when it is set
// and not empty (none when no such kind exists); otherwise every kind of
// `available` that suits the session.
std::vector<KeySourceFactory> candidates(const std::vector<KeySourceFactory>& available, std::string_view forced);

// A Wayland session, from XDG_SESSION_TYPE and WAYLAND_DISPLAY (either may be
// null): an X client there hears only the keys typed into other X clients.
bool isWaylandSession(const char* sessionType, const char* waylandDisplay);
// The same for this process's environment.
bool isWaylandSession();

} // namespace KeySources
} // namespace tobrin
