#pragma once

// What the sound server says about the microphone at one moment, and whether
// that counts as "in use" (sounds pause during calls).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tobrin {

struct MicActivity {
    // The default input's name for people (the source's description).
    std::optional<std::string> inputDeviceName;
    // The default input is capturing for someone other than this process.
    bool inputRunningSomewhere = false;
    // The default input is a monitor of an output, or belongs to a card that
    // also plays (a headset): its running state alone proves nothing.
    bool inputDeviceHasOutput = false;
    // Processes capturing from a real (not monitor) source, this process
    // excluded, ascending; none when the server's view of streams is missing.
    std::optional<std::vector<std::int32_t>> recordingProcesses;

    bool micInUse() const {
        return (inputRunningSomewhere && !inputDeviceHasOutput) ||
               (recordingProcesses.has_value() && !recordingProcesses->empty());
    }

    bool operator==(const MicActivity&) const = default;
};

} // namespace tobrin
