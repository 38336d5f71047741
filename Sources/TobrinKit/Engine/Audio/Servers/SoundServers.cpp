#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"

#include "TobrinKit/Engine/Audio/PipeWire/PipeWireAudioBackend.h"
#include "TobrinKit/Engine/Audio/Pulse/PulseAudioBackend.h"

namespace tobrin {

void registerSoundServerBackends() {
    AudioBackends::add(PipeWireAudioBackend::factory());
    AudioBackends::add(PulseAudioBackend::factory());
}

} // namespace tobrin
