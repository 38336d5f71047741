#include "Microphone.h"

namespace tobrin::app {
namespace {

// Until the sound server's microphone watch is part of the engine, nothing is
// ever in use: sounds play whatever "Quiet during calls" says.
class SilentMicrophone final : public Microphone {
public:
    void start() override {}
    void stop() override {}
    void refresh() override {}
    void setOnChange(std::function<void(bool)>) override {}
};

} // namespace

std::unique_ptr<Microphone> makeMicrophone() { return std::make_unique<SilentMicrophone>(); }

} // namespace tobrin::app
