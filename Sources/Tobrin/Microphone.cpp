#include "Microphone.h"

#include "TobrinKit/Mic/MicMonitor.h"
#include "TobrinKit/Mic/Pulse/PulseMicWatch.h"

namespace tobrin::app {
namespace {

// The engine's mic monitor over the sound server (libpulse, which PipeWire's
// pulse server answers too). Without an executor it reports on its own
// queue; the model moves the report onto the main thread.
class ServerMicrophone final : public Microphone {
public:
    ServerMicrophone() : monitor_(std::make_unique<PulseMicWatch>()) {}
    void start() override { monitor_.start(); }
    void stop() override { monitor_.stop(); }
    void refresh() override { monitor_.refresh(); }
    void setOnChange(std::function<void(bool)> onChange) override { monitor_.setOnChange(std::move(onChange)); }

private:
    MicMonitor monitor_;
};

} // namespace

std::unique_ptr<Microphone> makeMicrophone() { return std::make_unique<ServerMicrophone>(); }

} // namespace tobrin::app
