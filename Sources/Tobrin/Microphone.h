#pragma once

#include <functional>
#include <memory>

namespace tobrin::app {

// What the application needs of the microphone watch: start and stop it with
// "Quiet during calls", read it again after a wake, and hear whether a
// microphone is in use. The engine's mic monitor fits it as it is; tests give
// one they drive by hand.
//
// Thread contract: the owner's thread calls everything; onChange may be
// called from any thread (the model moves it onto its own).
class Microphone {
public:
    virtual ~Microphone() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void refresh() = 0;
    virtual void setOnChange(std::function<void(bool inUse)> onChange) = 0;
};

// The engine's mic monitor, watching this machine's sound server.
std::unique_ptr<Microphone> makeMicrophone();

} // namespace tobrin::app
